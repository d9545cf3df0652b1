#pragma once

#include <sys/fanotify.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Framework {
class Task;
}

namespace Engine {

class FileNotifyMessage;
class FileNotifyPermitAnswer;

// Puts a permission event to its consumer straight from the permission
// group's reader thread. The hand-over to the module task costs a thread
// wake-up per access, and a wake-up is most of what an access pays: routed
// here, the access waits for the reader and the consumer only.
//
// Only the plain case is routed: a permission event whose path is known and
// covered by a permit watch, while the module does not log at debug priority.
// Everything else goes on to the module task, which logs and answers it.
// Like the reader, the router never logs, opens a file or sleeps.
//
// Publish runs on the module task's thread, Route on the reader's.
class FileFanotifyPermitRouter {
public:
    // What a permit watch needs to be matched and its consumer asked: a
    // copy, so the reader never touches the module's records.
    struct Route {
        std::string filePath;
        dev_t dev = 0;
        ino_t ino = 0;
        int taskId = 0;
        int wd = 0;
        unsigned long extParm = 0;
    };
    using Routes = std::vector<Route>;
    // The answer object for the event of a ticket.
    using AnswerMaker = std::function<std::shared_ptr<FileNotifyPermitAnswer>(std::uint64_t ticket)>;

    // task: the module task, the sender of the requests; outlives the router.
    FileFanotifyPermitRouter(Framework::Task* task, AnswerMaker makeAnswer);

    // The permit watches from now on, in path order.
    void Publish(Routes routes);
    // True when the event was put to its consumer: its answer comes from
    // there, or at its deadline. The event's descriptor is only read.
    bool Dispatch(const fanotify_event_metadata& event, std::uint64_t ticket);

    // The route that covers eventFile: first the one whose object is the
    // file's folder or the file itself (eventFd, when given, is the event's
    // descriptor), wherever it has moved; else, for whole-mount marks and
    // opened folders above a watched path, the first whose path is a prefix
    // of eventFile or has eventFile as its prefix; null when none.
    static const Route* Match(const Routes& routes, const std::string& eventFile, int eventFd);
    // The request (notify type 2) that asks route's consumer about an
    // access of pid, without its answer object.
    static std::unique_ptr<FileNotifyMessage> NewRequest(const Route& route, const std::string& eventFile,
                                                         unsigned int mask, unsigned int pid);

private:
    Framework::Task* const _task;
    const AnswerMaker _makeAnswer;
    std::mutex _mutex;
    std::shared_ptr<const Routes> _routes;
};

}  // namespace Engine
