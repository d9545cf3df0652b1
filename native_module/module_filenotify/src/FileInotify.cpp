#include "FileInotify.h"

#include <dirent.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <system_error>
#include <thread>

#include "CpuYield.h"
#include "FileNotifyLimit.h"
#include "FileNotifyLog.h"
#include "FileNotifyTask.h"
#include "FileNotifyUtils.h"
#include "framework/Event.h"
#include "sdk/FileUtils.h"
#include "sdk/PathUtils.h"

namespace Engine {

namespace {

// The kernel never reports these on a folder's own watch with IN_ISDIR.
constexpr unsigned int kSelfGone = IN_DELETE_SELF | IN_MOVE_SELF;
// Deepest folder level a recursive walk opens; the root is level 1.
constexpr int kMaxTraverseDepth = 20;
// The kernel queues a rename's two halves one after the other, but a read
// can fall between them. A batch that drained the queue with a first half
// unpaired waits this long for the second before the half goes out alone.
constexpr std::chrono::microseconds kMoveReadOn{1000};

// A folder path without "//", "." or ".." components, ending in "/".
bool IsCanonicalFolder(const std::string& folder) {
    if (folder.empty() || folder.front() != '/' || folder.back() != '/') return false;
    for (std::size_t slash = folder.find('/'); slash + 1 < folder.size(); slash = folder.find('/', slash + 1)) {
        const char* rest = folder.c_str() + slash + 1;
        if (rest[0] == '/') return false;
        if (rest[0] == '.' && (rest[1] == '/' || (rest[1] == '.' && rest[2] == '/'))) return false;
    }
    return true;
}

// folder + name, canonicalised. The name is bounded by len: the kernel
// NUL-pads it, but a damaged buffer must not make us read past the record.
// The kernel's names hold no "/", so a
// canonical folder only needs the name appended: no parsing per event.
std::string JoinPath(const std::string& folder, const struct inotify_event* event) {
    const std::size_t nameLength = ::strnlen(event->name, event->len);
    if (!IsCanonicalFolder(folder)) {
        return SDK::PathUtils::GetCanonicalizePath(folder + "/" + std::string(event->name, nameLength));
    }
    std::string path;
    path.reserve(folder.size() + nameLength);
    path.append(folder).append(event->name, nameLength);
    return path;
}

// The kernel mask of a watch: the caller's bits, the self events that tell
// a vanished root or subfolder, and for a tree the folder arrivals that it
// must follow, whatever the consumers asked for (each consumer's own masks
// filter what it receives).
unsigned int KernelMask(unsigned int mask, bool tree, bool followLinks) {
    mask |= kSelfGone;
    if (tree) mask |= IN_CREATE | IN_MOVED_TO;
    if (!followLinks) mask |= IN_DONT_FOLLOW;
    return mask;
}

// path as a folder of the maps ("/a" and "/a/" give "/a/").
std::string AsFolder(const std::string& path) {
    return !path.empty() && path.back() == '/' ? path : path + "/";
}

// path as events name it ("/a/" gives "/a"; "/" stays).
std::string WithoutSlash(std::string path) {
    if (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

}  // namespace

FileInotify::FileInotify(FileNotifyLimit* limit) : _limit(limit) {
    Initialize();
}

// Closing the descriptor drops every kernel watch at once: a large tree
// stops without a call per folder.
FileInotify::~FileInotify() {
    // The close drops every kernel watch at once, which takes the kernel tens
    // of milliseconds for a large tree: the bookkeeping is freed meanwhile.
    std::thread closing;
    try {
        closing = std::thread([this] { Finalize(); });
    } catch (const std::system_error&) {
        Finalize();  // no thread to spare: one after the other
    }
    ClearWatch(true);
    ClearRefreshWatch();
    if (closing.joinable()) closing.join();
}

int FileInotify::Initialize() {
    FN_LOG(LOG_DEBUG, "call FileInotify.Initialize");
    if (_fd != -1) {
        FN_LOG(LOG_ERROR, "repeat call initialize");
        return 1;
    }
    // Non-blocking: a read batch drains the descriptor until EAGAIN.
    _fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (_fd < 0) {
        const int error = errno;
        // EMFILE here means fs.inotify.max_user_instances is used up.
        FN_LOG(LOG_ERROR, "call inotify_init1 failed,error=%d", error);
        _initError = error;
        return 1;
    }
    return 0;
}

void FileInotify::Finalize() {
    FN_LOG(LOG_DEBUG, "call FileInotify.Finalize");
    if (_fd < 0) {
        FN_LOG(LOG_ERROR, "No Initialize for inotify_init1");
        return;
    }
    // The waiter must forget the descriptor before its number can be reused.
    _event.reset();
    if (::close(_fd) == 0) {
        _fd = -1;
    } else {
        FN_LOG(LOG_ERROR, "failed to close _fd %d", _fd);
    }
}

void FileInotify::UpdateWatchSize() {
    const int size = static_cast<int>(_watchItemMap.size() + _watchSubItemMap.size());
    _limit->UpdateWatchSize(size - _watchSize);
    _watchSize = size;
}

bool FileInotify::TreeFitsLimit(const std::string& path, unsigned int mask, bool watchChildFolder, bool watchSymLink,
                                bool isFile) {
    FN_LOG(LOG_DEBUG, "call watchChildFolder=%b,isFile=%b,watchSymLink=%b", watchChildFolder, isFile, watchSymLink);
    // The whole tree is checked once, before any kernel call, so a tree too
    // large is refused without a partial add. Folders watched already (a
    // tree walked again) need no new watch.
    int needed = 1;
    std::size_t folders = 0;
    if (!isFile && watchChildFolder) {
        FileNotifyUtils::_FolderTraverseLimit limit;
        limit.MAX_DEPTH = kMaxTraverseDepth;
        // The walk reads them: their opens and reads are no news to consumers.
        NoteOwnRead(mask, path);
        const auto count = [&](const std::string& folder) {
            ++folders;
            needed += _subFolderMap.count(folder) == 0 ? 1 : 0;
            NoteOwnRead(mask, folder);
        };
        if (FileNotifyUtils::TraverseSubFolder(path, count, limit) != 0) {
            const int error = errno;
            FN_LOG(IsChurn(error) ? LOG_DEBUG : LOG_ERROR, "failed to TraverseSubFolder  %s", path);
            _lastFailure = WatchFailure::FromErrno(error);
            errno = error;
            return false;
        }
    }
    FN_LOG(LOG_DEBUG, "TraverseSubFolderSize =%z", folders);
    if (_limit->GetPermitWatchSize() >= needed) return true;
    _limit->AutoScaleLimit();
    if (_limit->GetPermitWatchSize() >= needed) return true;
    FN_LOG(LOG_ERROR, "new Watch size %d is over than max size  %d", needed, _limit->GetPermitWatchSize());
    _lastFailure = LimitFailure(needed);
    errno = 0;  // a refusal of ours, not a change of the tree
    return false;
}

void FileInotify::NoteOwnRead(unsigned int mask, const std::string& folder) {
    if ((mask & (IN_OPEN | IN_ACCESS | IN_CLOSE_NOWRITE)) != 0) _ownReads.insert(WithoutSlash(folder));
}

WatchFailure FileInotify::LimitFailure(int needed) const {
    WatchFailure failure;
    failure.reason = WatchFailure::Reason::LimitReached;
    failure.error = needed > 0 ? 0 : ENOSPC;
    failure.needed = needed;
    failure.allowed = needed > 0 ? _limit->GetPermitWatchSize() : 0;
    failure.kernelLimit = _limit->GetKernelWatches();
    failure.percent = _limit->GetWatchPercent();
    return failure;
}

int FileInotify::AddWatch(const std::string& path, unsigned int mask, int& watchId, const _FileNotifyOpt& opt) {
    // Anything but a folder (a FIFO, socket or device too) is watched as a file.
    return AddWatch(path, mask, watchId, opt.watchChildFolder, opt.watchSymLink, !SDK::DirUtils::IsDir(path));
}

int FileInotify::AddWatch(const std::string& path, unsigned int mask, int& watchId, bool watchChildFolder,
                          bool watchSymLink, bool isFile) {
    if (!TreeFitsLimit(path, mask, watchChildFolder, watchSymLink, isFile)) return 1;
    const bool tree = watchChildFolder && !isFile;
    const unsigned int kernelMask = KernelMask(mask, tree, watchSymLink);
    std::vector<int> placed;  // kernel watches this call added: undone if it fails
    int rootWd = 0;
    if (watchId >= 1) {
        FN_LOG(LOG_DEBUG, "only add subfoder for watchId=%d", watchId);
        rootWd = watchId;
    } else {
        FN_LOG(LOG_DEBUG, "add watch root folder %s", path);
        const int result = AddWatchImpl(path, kernelMask, rootWd);
        if (result != 0) {
            FN_LOG(LOG_ERROR, "failed to AddWatchImpl  %s", path);
            return result;
        }
        if (_watchItemMap.count(rootWd) == 0 && FindSub(rootWd) == nullptr) placed.push_back(rootWd);
    }
    // The kernel gives an inode already watched on this descriptor its old
    // descriptor again: such a root is reused as it is.
    auto& item = _watchItemMap[rootWd];
    // A root added again carries the union of its consumers' masks: the
    // folders that join it later must be watched with that union too.
    if (item && watchId < 1) item->mask = mask;
    const bool newItem = !item;
    if (newItem)
        item = std::make_unique<_WatchItem>(_WatchItem{rootWd, path, mask, watchChildFolder, watchSymLink, isFile});
    // The new folder first, so that what appears in it from now on is
    // reported; then each folder below it is watched before it is read.
    int result = 0;
    if (watchId >= 1) {
        FN_LOG(LOG_DEBUG, "add watch subfolder %s", path);
        result = AddSubFolderWatch(AsFolder(path), kernelMask, item.get(), &placed);
    }
    if (result == 0 && tree) result = Sweep(AsFolder(path), rootWd, 1, nullptr, nullptr, &placed);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "failed to TraverseSubFolder  %s", path);
        Undo(placed, newItem ? rootWd : 0);
        return result;
    }
    watchId = rootWd;
    UpdateWatchSize();
    return 0;
}

void FileInotify::Undo(const std::vector<int>& placed, int newRootWd) {
    std::vector<int> subs;
    std::copy_if(placed.rbegin(), placed.rend(), std::back_inserter(subs), [&](int wd) { return wd != newRootWd; });
    RemoveSubFolderWatches(subs);
    if (newRootWd != 0) {
        RemoveWatchImpl(newRootWd);
        _watchItemMap.erase(newRootWd);
    }
    UpdateWatchSize();
}

bool FileInotify::IsChurn(int error) {
    return error == ENOENT || error == ENOTDIR;
}

int FileInotify::AddWatchImpl(const std::string& path, unsigned int mask, int& wd) {
    FN_CPU_YIELD();
    FN_LOG(LOG_DEBUG, "filepath=%s mask=%u", path, mask);
    if (_fd < 0) {
        FN_LOG(LOG_ERROR, "No Initialize for inotify_init1");
        _lastFailure = WatchFailure::Of(WatchFailure::Reason::Unavailable, _initError, "inotify");
        return 1;
    }
    FN_LOG(LOG_DEBUG, "_fd=%i,filepath=%s,mask=%u", _fd, path, mask);
    const int result = ::inotify_add_watch(_fd, path.c_str(), mask);
    if (result < 0) {
        // ENOSPC: fs.inotify.max_user_watches is used up. A path that has
        // just gone is what a changing tree does all the time.
        const int error = errno;
        FN_LOG(IsChurn(error) ? LOG_DEBUG : LOG_ERROR, "call inotify_add_watch %s failed,error=%d", path, error);
        _lastFailure = error == ENOSPC ? LimitFailure(0) : WatchFailure::FromErrno(error);
        errno = error;
        return 1;
    }
    wd = result;
    return 0;
}

int FileInotify::AddSubFolderWatch(const std::string& path, unsigned int mask, _WatchItem* item,
                                   std::vector<int>* placed) {
    FN_LOG(LOG_DEBUG, "pathname=%s", path);
    if (item == nullptr) {
        FN_LOG(LOG_ERROR, "watchItem==NULL");
        return 1;
    }
    int wd = 0;
    const int result = AddWatchImpl(path, mask, wd);
    if (result != 0) {
        const int error = errno;
        // Gone since the walk: the rest of the tree is watched without it.
        if (IsChurn(error)) return 0;
        // Not ours to read, or a path the kernel will not take.
        const bool skipped = error == EACCES || error == ENAMETOOLONG || error == ELOOP;
        unsigned long held = 0;
        if (skipped && _skipLimit.Admit(held)) {
            FN_LOG(LOG_WARNING, "cannot watch %s (error=%d): skipped, %lu more since the last record", path, error,
                   held);
        }
        if (skipped) return 0;
        FN_LOG(LOG_ERROR, "call AddWatchImpl failed  %s", path);
        return result;
    }
    // A second path to an inode already watched (a link, or a folder added
    // again by a parent's walk) records nothing new. That includes a root of
    // this instance: a link back to it must not rename the root's events.
    if (_watchItemMap.count(wd) != 0 || FindSub(wd) != nullptr) return 0;
    // The path known under another descriptor: that folder was replaced
    // while its events were lost (an overflow), its watch is gone, or it is
    // covered by a mount, and the watch on the folder underneath goes.
    auto known = _subFolderMap.find(path);
    if (known != _subFolderMap.end()) {
        RemoveWatchImpl(known->second.wd);
        ForgetSubFolders({known->second.wd});
    }
    const auto folder = _subFolderMap.emplace(path, _SubFolder{wd, false}).first;
    const auto at = std::upper_bound(_watchSubItemMap.begin(), _watchSubItemMap.end(), wd,
                                     [](int key, const _WatchSubItem& sub) { return key < sub.wd; });
    _watchSubItemMap.insert(at, _WatchSubItem{wd, item->rootWd, folder});
    if (placed != nullptr) placed->push_back(wd);
    FN_LOG(LOG_DEBUG, "AddSubFolderWatch end");
    return 0;
}

int FileInotify::RemoveWatch(int watchId, bool removeRootWatch) {
    FN_LOG(LOG_DEBUG, "RemoveWatch watchId=%d, removeRootWatch=%b", watchId, removeRootWatch);
    if (removeRootWatch) {
        const int result = RemoveWatchImpl(watchId);
        FN_LOG(LOG_DEBUG, "RemoveWatch wd=%d", watchId);
        if (result != 0) {
            FN_LOG(LOG_ERROR, "failed to RemoveWatchImpl");
            return result;
        }
    }
    // Refresh work queued for this root must not touch the freed item.
    auto refresh = _refreshWatchMap.find(watchId);
    if (refresh != _refreshWatchMap.end()) refresh->second->watchItem = nullptr;
    auto found = _watchItemMap.find(watchId);
    if (found == _watchItemMap.end()) {
        UpdateWatchSize();
        return 0;
    }
    std::vector<int> subs;
    for (const _WatchSubItem& sub : _watchSubItemMap) {
        if (sub.rootWd == watchId) subs.push_back(sub.wd);
    }
    RemoveSubFolderWatches(subs);
    _watchItemMap.erase(found);
    UpdateWatchSize();
    return 0;
}

int FileInotify::RemoveWatchImpl(int wd) {
    FN_LOG(LOG_DEBUG, "RemoveWatchImpl watchId=%d", wd);
    if (_fd < 0) {
        FN_LOG(LOG_ERROR, "No Initialize for inotify_init1");
        return 1;
    }
    FN_LOG(LOG_DEBUG, "remove watchId=%d", wd);
    if (wd < 0) {
        FN_LOG(LOG_ERROR, "No Initialize for inotify_init1");
        return 1;
    }
    if (::inotify_rm_watch(_fd, wd) != 0) {
        // EINVAL: the kernel dropped the watch already (its folder was
        // deleted, IN_IGNORED was queued). Nothing is left to undo.
        const int error = errno;
        FN_LOG(error == EINVAL ? LOG_DEBUG : LOG_WARNING, "inotify_rm_watch _fd=%d;watchId=%d error=%d", _fd, wd,
               error);
    }
    FN_LOG(LOG_DEBUG, "RemoveWatchImpl end");
    FN_CPU_YIELD();
    return 0;
}

int FileInotify::RemoveSubFolderWatch(int wd) {
    RemoveSubFolderWatches({wd});
    return 0;
}

// A removal of the kernel watch cannot fail but for a bad descriptor, which
// RemoveWatchImpl reports; the bookkeeping goes in any case.
void FileInotify::RemoveSubFolderWatches(const std::vector<int>& wds) {
    for (int wd : wds) {
        FN_LOG(LOG_DEBUG, "RemoveSubFolderWatch subFolderWatchId=%d", wd);
        if (RemoveWatchImpl(wd) != 0) FN_LOG(LOG_ERROR, "failed to RemoveWatchImpl subFolderWatchId=%d", wd);
        FN_LOG(LOG_DEBUG, "remove subFolderWatchId=%d", wd);
    }
    ForgetSubFolders(wds);
}

int FileInotify::DeleteSubFolderCache(int wd) {
    ForgetSubFolders({wd});
    return 0;
}

const FileInotify::_WatchSubItem* FileInotify::FindSub(int wd) const {
    const auto at = std::lower_bound(_watchSubItemMap.begin(), _watchSubItemMap.end(), wd,
                                     [](const _WatchSubItem& sub, int key) { return sub.wd < key; });
    return at != _watchSubItemMap.end() && at->wd == wd ? &*at : nullptr;
}

void FileInotify::ForgetSubFolders(std::vector<int> wds) {
    if (wds.empty()) return;
    std::sort(wds.begin(), wds.end());
    auto kept = _watchSubItemMap.begin();
    for (auto sub = _watchSubItemMap.begin(); sub != _watchSubItemMap.end(); ++sub) {
        if (std::binary_search(wds.begin(), wds.end(), sub->wd)) {
            FN_LOG(LOG_DEBUG, "DeleteSubFolderCache  watchId=%d", sub->wd);
            _subFolderMap.erase(sub->folder);
        } else {
            *kept++ = *sub;
        }
    }
    _watchSubItemMap.erase(kept, _watchSubItemMap.end());
}

int FileInotify::ClearWatch(bool closing) {
    FN_LOG(LOG_DEBUG, "ClearWatch");
    if (!closing && _fd >= 0) {
        std::vector<int> roots;
        for (const auto& entry : _watchItemMap)
            roots.push_back(entry.first);
        for (int root : roots)
            RemoveWatch(root);
    }
    _watchItemMap.clear();  // all of them once the descriptor is closed
    _watchSubItemMap.clear();
    _watchSubItemMap.shrink_to_fit();
    _subFolderMap.clear();
    UpdateWatchSize();
    return 0;
}

int FileInotify::AddEventWatch(Framework::Task* task, Framework::EventCallback<FileNotifyTask>* callback) {
    if (_event) {
        delete callback;  // the registration made first keeps its own
        return 0;
    }
    _event = std::make_unique<Framework::Event>(callback, nullptr, _fd);
    const int result = task->GetEventWaiter().AddEvent(_event.get());
    if (result != 0) FN_LOG(LOG_ERROR, "call AddEvent failed errorCode=%d", result);
    return result;
}

void FileInotify::SetHeld(bool held) {
    _held = held;
    if (_event) _event->SetEnabled(!held);
}

bool FileInotify::MayReadOn(std::chrono::steady_clock::time_point& readOnEnd) const {
    if (_unpairedMoves.empty()) return false;
    const auto now = std::chrono::steady_clock::now();
    if (readOnEnd == std::chrono::steady_clock::time_point{}) readOnEnd = now + kMoveReadOn;
    return now < readOnEnd;
}

bool FileInotify::WaitReadable(std::chrono::steady_clock::time_point end) const {
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    struct pollfd ready {
        _fd, POLLIN, 0
    };
    const struct timespec timeout { 0, static_cast<long>(left.count()) };
    return ::ppoll(&ready, 1, &timeout, nullptr) > 0;
}

int FileInotify::ReadEvents(char* buffer, int size, InotifyCallback callback, void* data) {
    bool readSome = false;
    std::chrono::steady_clock::time_point readOnEnd{};
    for (;;) {
        // Held: the rest waits in the kernel, unless it may complete a rename.
        if (_held && !MayReadOn(readOnEnd)) break;
        const ssize_t length = ::read(_fd, buffer, static_cast<std::size_t>(size));
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) {  // EAGAIN: drained
            if (MayReadOn(readOnEnd) && WaitReadable(readOnEnd)) continue;
            break;
        }
        FN_CPU_YIELD();
        if (DoWithEvents(buffer, static_cast<int>(length), callback, data) != 0) {
            FN_LOG(LOG_ERROR, "call DoWithEvents failed");
        }
        readSome = true;
    }
    _unpairedMoves.clear();
    _movedFrom.clear();
    if (!readSome) return 0;
    InotifyCallBackParm batchEnd;
    batchEnd.type = InotifyCallBackParm::TYPE_BATCH_END;
    int result = callback(batchEnd, data);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "call callback failed");
        return result;
    }
    // Tree changes wait until the receiver has flushed its cache, so moved
    // folders are reported under the paths they had when they moved.
    FN_CPU_YIELD();
    result = RefreshWatch(callback, data);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "call RefreshWatch failed");
        return result;
    }
    return 0;
}

int FileInotify::DoWithEvents(const char* buffer, int length, InotifyCallback callback, void* data) {
    constexpr std::size_t kHeader = sizeof(struct inotify_event);
    const std::size_t total = length > 0 ? static_cast<std::size_t>(length) : 0;
    std::size_t offset = 0;
    while (offset < total) {
        const char* record = buffer + offset;
        const std::size_t remaining = total - offset;
        // The kernel writes whole, aligned records; anything else means the
        // buffer is damaged and nothing behind this point can be trusted.
        if (remaining < kHeader || reinterpret_cast<std::uintptr_t>(record) % alignof(struct inotify_event) != 0) {
            FN_LOG(LOG_ERROR, "bad inotify record at offset %z of %z bytes", offset, total);
            return 0;
        }
        const auto* event = reinterpret_cast<const struct inotify_event*>(record);
        if (event->len > remaining - kHeader) {
            FN_LOG(LOG_ERROR, "bad inotify record at offset %z of %z bytes", offset, total);
            return 0;
        }
        offset += kHeader + event->len;
        if ((event->mask & IN_MOVED_FROM) != 0) {
            _unpairedMoves.insert(event->cookie);
            _movedFrom.insert(event->cookie);
        }
        if ((event->mask & IN_MOVED_TO) != 0) _unpairedMoves.erase(event->cookie);
        if ((event->mask & IN_IGNORED) != 0) {
            // The kernel has dropped the watch; the self event before it did the bookkeeping.
            FN_LOG(LOG_DEBUG, "IN_IGNORED remove watch wd %d", event->wd);
        } else if ((event->mask & IN_Q_OVERFLOW) != 0) {
            ++_overflowCount;
            FN_LOG(LOG_ERROR, "IN_Q_OVERFLOW inotify queue overflow");
            InotifyCallBackParm overflow;
            overflow.type = InotifyCallBackParm::TYPE_OVERFLOW;
            overflow.fd = _fd;
            if (callback(overflow, data) != 0) FN_LOG(LOG_ERROR, "call callback failed");
            QueueResync();
            return 0;
        } else if (DoWithOneEvent(event, callback, data) != 0) {
            FN_LOG(LOG_ERROR, "call DoWithEvent failed");
        } else {
            FN_CPU_YIELD();
        }
    }
    return 0;
}

bool FileInotify::GetNotifyCallbackPara(const struct inotify_event* event, int& wd, std::string& path, bool& selfEvent,
                                        _WatchItem** item) {
    if (const _WatchSubItem* sub = FindSub(wd)) {
        wd = sub->rootWd;
        if (event->len > 0) {
            path = JoinPath(sub->path(), event);
        } else if ((event->mask & (kSelfGone | IN_UNMOUNT)) != 0) {
            path = sub->path();
            selfEvent = true;
        } else {
            return true;  // attributes, opens and the like of the subfolder itself
        }
    }
    auto root = _watchItemMap.find(wd);
    if (root == _watchItemMap.end()) {
        FN_LOG(LOG_ERROR, "No find the WatchRootItem for rootWd=%i", wd);
        return false;
    }
    if (event->wd == wd) path = event->len > 0 ? JoinPath(root->second->path, event) : root->second->path;
    *item = root->second.get();
    return true;
}

int FileInotify::DoWithOneEvent(const struct inotify_event* event, InotifyCallback callback, void* data) {
    FN_LOG(LOG_DEBUG, "wd=%d", event->wd);
    int wd = event->wd;
    std::string path;
    bool selfEvent = false;
    _WatchItem* item = nullptr;
    const bool failed = !GetNotifyCallbackPara(event, wd, path, selfEvent, &item);
    if (item == nullptr) return failed ? 1 : 0;
    // A watched subfolder that went away is only bookkeeping: its parent's
    // watch has reported the deletion or move already.
    // An unmount is news though: what was there is gone from the tree.
    if ((!selfEvent || (event->mask & IN_UNMOUNT) != 0) && !IsOwnRead(path, event->mask) &&
        !IsFoundAlready(path, event->mask)) {
        InotifyCallBackParm parm;
        parm.fd = _fd;
        parm.rootWd = wd;
        parm.filePath = std::move(path);
        parm.event = event;
        parm.mask = event->mask;
        if ((parm.mask & (kSelfGone | IN_UNMOUNT)) != 0 && !item->isFile) parm.mask |= IN_ISDIR;
        if (callback(parm, data) != 0) {
            FN_LOG(LOG_ERROR, "call callback failed");
            return 1;
        }
        FN_CPU_YIELD();
        path = std::move(parm.filePath);
    }
    if (AddRefreshWatchTask(item, path, event, selfEvent) != 0) {
        FN_LOG(LOG_ERROR, "call AddRefreshWatchTask failed");
        return 1;
    }
    return 0;
}

int FileInotify::AddRefreshWatchTask(_WatchItem* item, const std::string& path, const struct inotify_event* event,
                                     bool selfEvent) {
    const unsigned int mask = event->mask;
    // An unmounted root is given up like a deleted one: it comes back as the
    // folder underneath, or as the next file system mounted there.
    const bool rootGone = !selfEvent && (mask & (kSelfGone | IN_UNMOUNT)) != 0;
    const bool folderCame = !selfEvent && !rootGone && (mask & IN_ISDIR) != 0 &&
                            (mask & (IN_CREATE | IN_MOVED_TO)) != 0 && item->watchChildFolder;
    if (!selfEvent && !rootGone && !folderCame) return 0;
    _RefreshWatchItem& refresh = RefreshItemOf(item);
    if (rootGone) {
        refresh.reCreateWatch = true;
    } else if (selfEvent) {
        refresh.removeSubWatch = true;
        refresh.removeSubFolders.insert(path);
        // The folder underneath an unmounted one is part of the tree again,
        // and what it holds appears in the tree.
        if ((mask & IN_UNMOUNT) != 0) {
            refresh.addSubWatch = true;
            refresh.addSubFolders.insert(path);
            refresh.reportSubFolders.insert(path);
        }
    } else {
        refresh.addSubWatch = true;
        refresh.addSubFolders.insert(path + "/");
        // A folder renamed inside the tree brings nothing new.
        if ((mask & IN_MOVED_TO) == 0 || _movedFrom.count(event->cookie) == 0)
            refresh.reportSubFolders.insert(path + "/");
    }
    return 0;
}

bool FileInotify::IsOwnRead(const std::string& path, unsigned int mask) const {
    constexpr unsigned int kReadBits = IN_OPEN | IN_ACCESS | IN_CLOSE_NOWRITE;
    if (_ownReads.empty() || (mask & IN_ISDIR) == 0 || (mask & kReadBits) == 0 || (mask & ~(kReadBits | IN_ISDIR)) != 0)
        return false;
    return _ownReads.count(WithoutSlash(path)) != 0;
}

bool FileInotify::IsFoundAlready(const std::string& path, unsigned int mask) {
    // What the kernel reports now, a sweep of this batch must not repeat.
    if ((mask & (IN_CREATE | IN_MOVED_TO)) != 0 && _found.count(path) == 0) _kernelCreated.insert(path);
    if (_found.empty()) return false;
    if ((mask & (IN_CREATE | IN_MOVED_TO)) != 0) return _found.erase(path) != 0;
    if ((mask & (IN_DELETE | IN_MOVED_FROM)) != 0) _found.erase(path);
    return false;
}

FileInotify::_RefreshWatchItem& FileInotify::RefreshItemOf(_WatchItem* item) {
    auto& refresh = _refreshWatchMap[item->rootWd];
    if (!refresh) {
        refresh = std::make_unique<_RefreshWatchItem>();
        refresh->watchItem = item;
        refresh->rootWd = item->rootWd;
    }
    return *refresh;
}

// The kernel hands out the descriptor of the inode a path names now: the
// root's own while it is the same folder. A path that names a new inode gets
// a fresh watch here, which the root's re-creation then takes over.
bool FileInotify::IsStillWatched(const _WatchItem& item) const {
    const unsigned int follow = item.watchSymLink ? 0U : static_cast<unsigned int>(IN_DONT_FOLLOW);
    return ::inotify_add_watch(_fd, item.path.c_str(), IN_MASK_ADD | kSelfGone | follow) == item.rootWd;
}

void FileInotify::QueueResync() {
    for (const auto& entry : _watchItemMap) {
        FN_CPU_YIELD();
        QueueResync(*entry.second);
    }
}

void FileInotify::QueueResync(_WatchItem& item) {
    _RefreshWatchItem& refresh = RefreshItemOf(&item);
    if (!IsStillWatched(item)) {
        refresh.reCreateWatch = true;
    } else if (item.watchChildFolder && !item.isFile) {
        refresh.addSubWatch = true;
        refresh.addSubFolders.insert(AsFolder(item.path));
    }
}

int FileInotify::ResyncUnder(const std::vector<std::string>& mountPoints, InotifyCallback callback, void* data) {
    bool queued = false;
    for (const auto& entry : _watchItemMap) {
        const std::string root = AsFolder(entry.second->path);
        const bool touched = std::any_of(mountPoints.begin(), mountPoints.end(), [&](const std::string& point) {
            return FileNotifyUtils::HasPrefix(point, root) || FileNotifyUtils::HasPrefix(root, point);
        });
        if (!touched) continue;
        FN_LOG(LOG_DEBUG, "a mount changed at or below %s: looked at again", root);
        QueueResync(*entry.second);
        queued = true;
    }
    return queued ? RefreshWatch(callback, data) : 0;
}

int FileInotify::RefreshWatch(InotifyCallback callback, void* data) {
    // The batch just read held the kernel's own reports of whatever the last
    // refresh found: no later batch can repeat them.
    _found.clear();
    _ownReads.clear();
    for (auto it = _refreshWatchMap.begin(); it != _refreshWatchMap.end(); it = _refreshWatchMap.erase(it)) {
        FN_CPU_YIELD();
        _RefreshWatchItem* refresh = it->second.get();
        if (refresh->reCreateWatch) {
            // The subfolder work of a vanished root is moot: dropped with it.
            if (RemoveWatch(refresh->rootWd) != 0) FN_LOG(LOG_ERROR, "call RemoveWatch failed");
            InotifyCallBackParm gone;
            gone.type = InotifyCallBackParm::TYPE_ROOT_REMOVED;
            gone.fd = _fd;
            gone.removedWd = refresh->rootWd;
            if (callback(gone, data) != 0) FN_LOG(LOG_ERROR, "call callback failed");
            continue;
        }
        if (refresh->removeSubWatch && RefreshRemoveSubWatch(refresh) != 0) {
            FN_LOG(LOG_ERROR, "call AddSubWatch failed");
            FN_LOG(LOG_ERROR, "call ReCreateWatch failed");
        }
        if (!refresh->addSubWatch) continue;
        if (RefreshAddSubWatch(refresh) != 0) FN_LOG(LOG_ERROR, "call AddSubWatch failed");
        for (const std::string& folder : refresh->failedSubFolders) {
            InotifyCallBackParm failed;
            failed.type = InotifyCallBackParm::TYPE_WATCH_FAILED;
            failed.fd = _fd;
            failed.rootWd = refresh->rootWd;
            failed.filePath = folder;
            if (callback(failed, data) != 0) FN_LOG(LOG_ERROR, "call callback failed");
        }
        // A folder's walk watches its subfolders without a word: each new
        // one is reported with what it holds when its own creation is read.
        for (const std::string& folder : refresh->reportSubFolders) {
            auto known = _subFolderMap.find(folder);
            if (known != _subFolderMap.end() && !known->second.swept) Sweep(folder, refresh->rootWd, 1, callback, data);
        }
    }
    _kernelCreated.clear();
    return 0;
}

int FileInotify::Sweep(const std::string& folder, int rootWd, int depth, InotifyCallback callback, void* data,
                       std::vector<int>* placed) {
    auto root = _watchItemMap.find(rootWd);
    if (root == _watchItemMap.end()) return 0;
    _WatchItem* item = root->second.get();
    const unsigned int kernelMask = KernelMask(item->mask, true, item->watchSymLink);
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), &::closedir);
    if (!dir) return 0;  // gone meanwhile: its deletion is reported by the kernel
    // Our own reading is no news to the consumers.
    NoteOwnRead(item->mask, folder);
    if (callback != nullptr) {
        auto sub = _subFolderMap.find(folder);
        if (sub != _subFolderMap.end()) sub->second.swept = true;
    }
    while (const struct dirent* entry = ::readdir(dir.get())) {  // NOLINT(concurrency-mt-unsafe): one stream per call
        const char* name = entry->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
        FN_CPU_YIELD();
        std::string path = folder + name;
        bool isFolder = entry->d_type == DT_DIR;
        struct stat status {};
        if (entry->d_type == DT_UNKNOWN && ::lstat(path.c_str(), &status) == 0) isFolder = S_ISDIR(status.st_mode);
        if (callback != nullptr && _kernelCreated.count(path) == 0) {
            InotifyCallBackParm parm;
            parm.fd = _fd;
            parm.rootWd = rootWd;
            parm.filePath = path;
            parm.mask = IN_CREATE | (isFolder ? IN_ISDIR : 0U);
            parm.found = true;
            if (callback(parm, data) != 0) FN_LOG(LOG_ERROR, "call callback failed");
            _found.insert(path);
        }
        if (!isFolder) continue;
        path += '/';
        // Watched before it is read: what comes into it later is the kernel's
        // to report. An add watches the folders known already again: a root
        // added again brings a wider mask.
        const bool known = _subFolderMap.count(path) != 0;
        if (depth < kMaxTraverseDepth &&
            ((known && callback == nullptr) || (!known && _limit->GetPermitWatchSize() > 0))) {
            FN_LOG(LOG_DEBUG, "add watch subfolder %s", path);
            const int result = AddSubFolderWatch(path, kernelMask, item, placed);
            if (result != 0 && callback == nullptr) return result;
            if (result == 0) UpdateWatchSize();
        }
        // Only folders this tree watches are walked: links are not entered.
        if (_subFolderMap.count(path) == 0) continue;
        const int result = Sweep(path, rootWd, depth + 1, callback, data, placed);
        if (result != 0) return result;
    }
    return 0;
}

int FileInotify::RefreshAddSubWatch(_RefreshWatchItem* refreshItem) {
    const _WatchItem* item = refreshItem->watchItem;
    if (item == nullptr) {
        FN_LOG(LOG_ERROR, "refreshItem->watchItem had been deleted");
        return 1;
    }
    const unsigned int mask = item->mask;
    const int rootWd = item->rootWd;
    const bool watchChildFolder = item->watchChildFolder;
    const bool watchSymLink = item->watchSymLink;
    for (const std::string& folder : refreshItem->addSubFolders) {
        // Gone again before its turn: a changing tree, nothing to report.
        if (!SDK::DirUtils::IsDir(folder)) {
            FN_LOG(LOG_DEBUG, "no folder at %s any more", folder);
            continue;
        }
        int watchId = rootWd;
        if (AddWatch(folder, mask, watchId, watchChildFolder, watchSymLink, false) != 0) {
            const bool churn = IsChurn(errno);
            FN_LOG(churn ? LOG_DEBUG : LOG_ERROR, "call AddWatch failed,addWatchFile=%s, rootEventWd=%d", folder,
                   rootWd);
            if (!churn) refreshItem->failedSubFolders.insert(folder);
        }
    }
    return 0;
}

int FileInotify::RefreshRemoveSubWatch(const _RefreshWatchItem* refreshItem) {
    // By path alone, over every root of this instance: whatever lies below a
    // vanished folder has gone with it.
    // The map is ordered, so the paths that begin with a prefix form one run
    // starting at the prefix itself.
    std::vector<int> gone;
    for (const std::string& removed : refreshItem->removeSubFolders) {
        for (auto it = _subFolderMap.lower_bound(removed);
             it != _subFolderMap.end() && FileNotifyUtils::HasPrefix(it->first, removed); ++it) {
            FN_LOG(LOG_DEBUG, "remove file,watchFile=%s", it->first);
            gone.push_back(it->second.wd);
        }
    }
    RemoveSubFolderWatches(gone);
    UpdateWatchSize();
    return 0;
}

int FileInotify::ClearRefreshWatch() {
    for (auto it = _refreshWatchMap.begin(); it != _refreshWatchMap.end(); it = _refreshWatchMap.erase(it))
        FN_CPU_YIELD();
    return 0;
}

}  // namespace Engine
