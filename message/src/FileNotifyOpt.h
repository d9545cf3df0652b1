#pragma once

#include <string>
#include <vector>

namespace Engine {

// The options of one watch. A consumer fills it in its watch request; the
// request normalises it, and every watch item keeps its own copy, so the
// record is a plain value: copying it copies all three lists.
struct _FileNotifyOpt {
    bool watchChildFolder = false;           // recursive watch; also enables the ignorePath rule
    bool watchSymLink = false;               // list linked subfolders; fanotify marks follow links
    bool onlyDir = false;                    // fanotify mark with FAN_MARK_ONLYDIR
    bool wholeMount = false;                 // fanotify mark with FAN_MARK_MOUNT
    bool permit = false;                     // fanotify permission watch: the consumer answers each access
    bool remove = false;                     // the request removes a watch instead of adding one
    bool simulateCreate = true;              // send a created event for the watched object once it is watched
    bool timerFound = false;                 // the timer added this watch after the path appeared
    std::vector<unsigned int> eventMasks;    // the masks the consumer asked for
    unsigned long extParm = 0;               // the consumer's own value, echoed in every event
    std::vector<std::string> ignorePath;     // path prefixes whose events are dropped
    std::vector<std::string> ignoreFileExt;  // file endings whose events are dropped (".log")
    bool fillStat = false;                   // fanotify events carry the file's status
    unsigned int combinedMask = 0;           // OR of eventMasks
    bool inotifyOnly = false;                // every requested bit goes to inotify, none to fanotify
};

}  // namespace Engine
