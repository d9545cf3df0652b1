#include "FileFanotifyPermitRouter.h"

#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "FileFanotify.h"
#include "FileNotifyLog.h"
#include "FileNotifyMessage.h"
#include "FileNotifyPermitAnswer.h"
#include "FileNotifyUtils.h"
#include "framework/Task.h"

namespace Engine {

namespace {

bool IsObjectOf(const struct stat& status, const FileFanotifyPermitRouter::Route& route) {
    return status.st_dev == route.dev && status.st_ino == route.ino;
}

// The folder part of an event path ("/a/b/" gives "/a"); empty for none.
std::string ParentOf(const std::string& path) {
    const std::size_t end = path.size() > 1 && path.back() == '/' ? path.size() - 1 : path.size();
    const std::size_t slash = path.rfind('/', end - 1);
    if (slash == std::string::npos) return std::string();
    return slash == 0 ? std::string("/") : path.substr(0, slash);
}

const FileFanotifyPermitRouter::Route* FindByIdentity(const FileFanotifyPermitRouter::Routes& routes,
                                                      const struct stat& status) {
    for (const auto& route : routes) {
        if (IsObjectOf(status, route)) return &route;
    }
    return nullptr;
}

}  // namespace

FileFanotifyPermitRouter::FileFanotifyPermitRouter(Framework::Task* task, AnswerMaker makeAnswer)
    : _task(task), _makeAnswer(std::move(makeAnswer)), _routes(std::make_shared<const Routes>()) {}

void FileFanotifyPermitRouter::Publish(Routes routes) {
    auto published = std::make_shared<const Routes>(std::move(routes));
    std::lock_guard<std::mutex> lock(_mutex);
    _routes = std::move(published);
}

std::unique_ptr<FileNotifyMessage> FileFanotifyPermitRouter::NewRequest(const Route& route,
                                                                        const std::string& eventFile, unsigned int mask,
                                                                        unsigned int pid) {
    auto message = std::make_unique<FileNotifyMessage>(2, eventFile, mask);
    message->SetProcess(pid, FileNotifyUtils::GetExePath(pid));
    message->SetWatchFile(route.wd, route.filePath);
    message->SetExtParm(route.extParm);
    return message;
}

bool FileFanotifyPermitRouter::Dispatch(const fanotify_event_metadata& event, std::uint64_t ticket) {
    // At debug priority the module task tells of every step: it takes them.
    if (LogAdmits(LOG_DEBUG) || _task->IsCancelling()) return false;
    std::shared_ptr<const Routes> routes;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        routes = _routes;
    }
    if (routes->empty()) return false;
    std::string eventFile;
    if (!FileNotifyUtils::ReadPathOfFd(event.fd, eventFile)) return false;
    const Route* route = Match(*routes, eventFile, event.fd);
    if (route == nullptr) return false;
    std::unique_ptr<Framework::Message> message =
        NewRequest(*route, eventFile, static_cast<unsigned int>(event.mask), static_cast<unsigned int>(event.pid));
    static_cast<FileNotifyMessage*>(message.get())->SetPermitAnswer(_makeAnswer(ticket));
    // A full queue keeps the message: the module task asks again, waiting.
    const int sent = _task->TrySendMsg(static_cast<unsigned long>(route->taskId), "f", message);
    return sent == Framework::MSG_OK || sent == Framework::MSG_OK_HIGH_WATER;
}

const FileFanotifyPermitRouter::Route* FileFanotifyPermitRouter::Match(const Routes& routes,
                                                                       const std::string& eventFile, int eventFd) {
    if (routes.empty() || eventFile.empty()) return nullptr;
    // By identity first: the mark follows its folder, the path does not.
    struct stat status {};
    const std::string parent = ParentOf(eventFile);
    if (!parent.empty() && ::stat(parent.c_str(), &status) == 0) {
        if (const Route* route = FindByIdentity(routes, status)) return route;
    }
    const int statted = eventFd >= 0 ? ::fstat(eventFd, &status) : ::lstat(eventFile.c_str(), &status);
    if (statted == 0) {
        if (const Route* route = FindByIdentity(routes, status)) return route;
    }
    for (const auto& route : routes) {
        // A prefix either way, separators not considered: an opened folder
        // above a watched path is covered too.
        const bool covered = eventFile.size() >= route.filePath.size()
                                 ? FileNotifyUtils::HasPrefix(eventFile, route.filePath)
                                 : FileNotifyUtils::HasPrefix(route.filePath, eventFile);
        if (covered) return &route;
    }
    return nullptr;
}

}  // namespace Engine
