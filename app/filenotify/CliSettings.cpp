#include "CliSettings.h"

#include "EventNames.h"
#include "FileNotifyMask.h"

namespace FileNotifyCli {

namespace {

constexpr unsigned int kAccess = Engine::FileNotifyMask::kAccess;
constexpr unsigned int kOpen = Engine::FileNotifyMask::kOpen;

}  // namespace

unsigned int CliSettings::RequestMask() const {
    if (mode == Mode::Guard) return events != 0 ? (events & (kAccess | kOpen)) : kOpen;
    const unsigned int mask = events != 0 ? events : DefaultWatchMask();
    // Fanotify reports folder events only with the folder bit; inotify sets it itself.
    return process ? (mask | Engine::FileNotifyMask::kOnDirectory) : mask;
}

Engine::_FileNotifyOpt CliSettings::RequestOptions() const {
    Engine::_FileNotifyOpt opt;
    // A folder's fanotify mark reports its children only when recursive.
    opt.watchChildFolder = recursive || mode == Mode::Guard;
    opt.watchSymLink = followSymlinks;
    opt.onlyDir = onlyDir;
    opt.wholeMount = mount;
    opt.permit = mode == Mode::Guard;
    opt.simulateCreate = !noInitialCreate;
    opt.ignorePath = exclude;
    opt.ignoreFileExt = excludeExt;
    opt.fillStat = stat;
    opt.inotifyOnly = !NeedsFanotify();
    return opt;
}

}  // namespace FileNotifyCli
