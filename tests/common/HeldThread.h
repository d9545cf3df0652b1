#pragma once

#include <chrono>
#include <future>
#include <utility>

#include "framework/Message.h"
#include "framework/Task.h"

namespace TestUtil {

// Keeps a running task's thread busy in a message handler until released
// (at the latest when this goes), as a long piece of work would.
class HeldThread {
public:
    explicit HeldThread(Framework::Task& task) {
        task.EnqueueMsg(new Gate(_entered, _gate.get_future().share()));
        held = _entered.get_future().wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    }
    ~HeldThread() { Release(); }
    HeldThread(const HeldThread&) = delete;
    HeldThread& operator=(const HeldThread&) = delete;

    void Release() {
        if (!std::exchange(_released, true)) _gate.set_value();
    }
    bool held = false;  // the thread is in the handler

private:
    class Gate : public Framework::Message {
    public:
        Gate(std::promise<void>& entered, std::shared_future<void> gate)
            : Framework::Message("gate"), _entered(entered), _gate(std::move(gate)) {}
        int MessageHandle(void* /*task*/) override {
            _entered.set_value();
            _gate.wait();
            return 0;
        }

    private:
        std::promise<void>& _entered;
        std::shared_future<void> _gate;
    };

    std::promise<void> _entered;
    std::promise<void> _gate;
    bool _released = false;
};

}  // namespace TestUtil
