#include "FileNotifyMessage.h"

#include <sys/stat.h>

#include "AbstractMessageReceiver.h"
#include "FileNotifyLog.h"
#include "framework/Task.h"

namespace Engine {

FileNotifyMessage::FileNotifyMessage(int notifyType, const std::string& path, unsigned int mask)
    : Framework::Message("filenotify"),
      m_filePath(FormatFolderName(path)),
      m_eventMask(mask),
      m_notifyType(notifyType) {}

FileNotifyMessage::~FileNotifyMessage() = default;

int FileNotifyMessage::MessageHandle(void* task) {
    // The framework hands over the receiving Framework::Task*. A checked
    // cross-cast finds its receiver part whatever the consumer's base order.
    auto* receiver = dynamic_cast<AbstractMessageReceiver*>(static_cast<Framework::Task*>(task));
    if (receiver == nullptr) {
        FN_LOG(LOG_ERROR, "FileNotifyMessage receiver is not an AbstractMessageReceiver, filePath=%s", m_filePath);
        return 1;
    }
    int result = 0;
    try {
        result = receiver->FileNotifyMessageAction(this);
    } catch (...) {
        // No verdict: the access goes through now, not at its deadline.
        if (m_permitAnswer) m_permitAnswer->Expire();
        throw;
    }
    // Straight to the kernel from here: the waiting process need not wait
    // for the module's thread to wake.
    if (m_permitAnswer) m_permitAnswer->Decide(result);
    return result;
}

void FileNotifyMessage::SetProcess(unsigned int pid, const std::string& process) {
    m_eventProcessId = pid;
    m_eventProcess = process;
}

void FileNotifyMessage::SetMoveEvent(const std::string& movetoFile) {
    m_eventMask |= FileNotifyMask::kMove;  // a merged move carries both halves
    m_movetoFile = FormatFolderName(movetoFile);
}

void FileNotifyMessage::SetWatchFile(int watchId, const std::string& watchFile) {
    m_watchId = watchId;
    m_watchFile = watchFile;
}

void FileNotifyMessage::Stat(int fd) {
    m_statValid = ::fstat(fd, &m_stat) == 0;
}

std::string FileNotifyMessage::GetWatchIdString() const {
    return std::to_string(m_watchId);
}

std::string FileNotifyMessage::FormatFolderName(const std::string& path) const {
    if (!path.empty() && path.back() == '/') return path.substr(0, path.size() - 1);
    return path;
}

}  // namespace Engine
