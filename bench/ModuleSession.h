#pragma once

#include <string>

#include <Poco/AutoPtr.h>

#include "framework/ModuleHost.h"
#include "framework/TaskRunner.h"

namespace BenchUtil {

// The module loaded by the host runtime, and a running consumer task of
// type Consumer registered with its "filenotify_task". Stops both at the end,
// the module first: its permission groups close and nothing stays held.
template <class Consumer>
class ModuleSession {
public:
    // An empty string, or what went wrong.
    std::string Start(const std::string& modulePath) {
        std::string error;
        if (_host.Load(modulePath, error) != 0 || _host.Start(error) != 0) return error;
        if (_runner.Start() != 0) return "consumer did not start";
        _moduleId = _consumer->AddConsumerByName("filenotify_task", "f");
        return _moduleId > 0 ? std::string() : "filenotify_task not found";
    }
    ~ModuleSession() {
        _host.Stop();
        _runner.Stop();
    }
    Consumer& consumer() { return *_consumer; }
    // Stops the module's tasks; the consumer goes on.
    void StopModule() { _host.Stop(); }
    // Sends request synchronously to the module; its result, reply the watch id.
    int Send(Framework::Message* request, std::string& reply, long timeoutMs = 5000) {
        return _consumer->SyncSendMsg(static_cast<unsigned long>(_moduleId), "f", request, reply, timeoutMs, 1);
    }

private:
    Framework::ModuleHost _host;
    Poco::AutoPtr<Consumer> _consumer{new Consumer()};
    Framework::TaskRunner _runner{_consumer.get()};
    int _moduleId = 0;
};

}  // namespace BenchUtil
