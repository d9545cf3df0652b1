#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "FileNotifyMessage.h"
#include "MixedTask.h"
#include "TestUtil.h"

namespace TestUtil {

// A consumer task that serves its own queue and keeps a copy of every file
// event it receives. Create with new, hold in a Poco::AutoPtr, run it with a
// Framework::TaskRunner.
class RecordingConsumer : public Engine::MixedTask {
public:
    struct Event {
        int notifyType;
        std::string path;
        std::string movetoFile;
        unsigned int mask;
        std::string watchFile;
        int watchId;
        unsigned int pid;
        std::string exe;
        bool statValid;
        unsigned long long lost;
    };

    explicit RecordingConsumer(const std::string& name = "recording_consumer", int capacity = 4096)
        : Engine::MixedTask(name, "test", Framework::TaskCondition::TASK_TYPE_EVENT, capacity) {}

    int Run() override { return ServeMessages(3000); }
    int FileNotifyMessageAction(Engine::FileNotifyMessage* msg) override {
        if (onEvent) onEvent(*msg);
        std::lock_guard<std::mutex> lock(_mutex);
        _events.push_back({msg->GetNotifyType(), msg->GetEventFilePath(), msg->GetMovetoFile(), msg->GetEventMask(),
                           msg->GetWatchFile(), msg->GetWatchId(), msg->GetEventProcessId(), msg->GetEventProcess(),
                           msg->IsStatValid(), msg->GetLostCount()});
        return verdict;
    }

    // The answer to permission events (2 denies), and what the consumer does
    // before answering. Set them before the consumer starts.
    std::atomic<int> verdict{0};
    std::function<void(const Engine::FileNotifyMessage&)> onEvent;

    std::vector<Event> Events() {
        std::lock_guard<std::mutex> lock(_mutex);
        return _events;
    }
    std::size_t Count() {
        std::lock_guard<std::mutex> lock(_mutex);
        return _events.size();
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(_mutex);
        _events.clear();
    }
    // Waits until n events have arrived; false after the time-out.
    bool WaitFor(std::size_t n) {
        return WaitUntil([&] { return Count() >= n; });
    }
    // Waits until an event for which test holds has arrived; false after the time-out.
    bool WaitForEvent(const std::function<bool(const Event&)>& test,
                      std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) {
        return WaitUntil(
            [&] {
                const auto all = Events();
                return std::any_of(all.begin(), all.end(), test);
            },
            timeout);
    }
    bool WaitForPath(const std::string& path) {
        return WaitForEvent([&](const Event& e) { return e.path == path; });
    }
    // Whether a line of Summary() is this one.
    bool HasLine(const std::string& line) {
        const auto all = Summary();
        return std::find(all.begin(), all.end(), line) != all.end();
    }
    // "path mask" of every event, for readable comparisons.
    std::vector<std::string> Summary() {
        std::vector<std::string> out;
        for (const auto& e : Events()) {
            char mask[16];
            std::snprintf(mask, sizeof mask, "%#x", e.mask);
            out.push_back(e.path + (e.movetoFile.empty() ? "" : " -> " + e.movetoFile) + " " + mask);
        }
        return out;
    }

protected:
    ~RecordingConsumer() override = default;

private:
    std::mutex _mutex;
    std::vector<Event> _events;
};

}  // namespace TestUtil
