// Framework messaging figures:
//   BM_EnqueueToHandleLatency  time from EnqueueMsg on one thread to
//                              MessageHandle on the task's sleeping thread
//                              (median and p99 in the counters)
//   BM_SendMsgThroughput       SendMsg between two tasks, messages per second

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include <Poco/AutoPtr.h>

#include "framework/Message.h"
#include "framework/Task.h"
#include "framework/TaskRunner.h"

namespace {

using Clock = std::chrono::steady_clock;

class ServeTask : public Framework::Task {
public:
    ServeTask(const std::string& name, int capacity)
        : Framework::Task(name, "bench", Framework::TaskCondition::TASK_TYPE_EVENT, capacity) {}
    int Run() override { return ServeMessages(3000); }

protected:
    ~ServeTask() override = default;
};

class StampMessage : public Framework::Message {
public:
    StampMessage(Clock::time_point sent, std::atomic<long long>& latencyNs)
        : Framework::Message("stamp"), _sent(sent), _latencyNs(latencyNs) {}
    int MessageHandle(void*) override {
        _latencyNs.store(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - _sent).count(),
                         std::memory_order_release);
        return 0;
    }

private:
    Clock::time_point _sent;
    std::atomic<long long>& _latencyNs;
};

class CountMessage : public Framework::Message {
public:
    explicit CountMessage(std::atomic<long>& count) : Framework::Message("count"), _count(count) {}
    int MessageHandle(void*) override {
        _count.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }

private:
    std::atomic<long>& _count;
};

double Percentile(std::vector<long long>& v, double p) {
    if (v.empty()) return 0;
    const std::size_t k = std::min(v.size() - 1, static_cast<std::size_t>(p * static_cast<double>(v.size())));
    std::nth_element(v.begin(), v.begin() + static_cast<long>(k), v.end());
    return static_cast<double>(v[k]);
}

void BM_EnqueueToHandleLatency(benchmark::State& state) {
    Poco::AutoPtr<ServeTask> task(new ServeTask("latency", 1024));
    Framework::TaskRunner runner(task.get());
    runner.Start();
    std::atomic<long long> latencyNs{-1};
    std::vector<long long> samples;
    for (auto _ : state) {
        // Let the task fall asleep in its wait, as between real requests.
        state.PauseTiming();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        latencyNs.store(-1);
        state.ResumeTiming();
        task->EnqueueMsg(new StampMessage(Clock::now(), latencyNs));
        while (latencyNs.load(std::memory_order_acquire) < 0) {
        }
        samples.push_back(latencyNs.load());
    }
    runner.Stop();
    state.counters["median_us"] = Percentile(samples, 0.5) / 1000.0;
    state.counters["p99_us"] = Percentile(samples, 0.99) / 1000.0;
}
BENCHMARK(BM_EnqueueToHandleLatency)->Iterations(5000)->Unit(benchmark::kMicrosecond);

void BM_SendMsgThroughput(benchmark::State& state) {
    const long batch = state.range(0);
    Poco::AutoPtr<ServeTask> sender(new ServeTask("sender", 16));
    Poco::AutoPtr<ServeTask> consumer(new ServeTask("consumer", static_cast<int>(batch)));
    sender->AddConsumer(consumer->GetTaskId(), "f", consumer.get());
    Framework::TaskRunner runner(consumer.get());
    runner.Start();
    std::atomic<long> handled{0};
    long sent = 0, refused = 0;
    for (auto _ : state) {
        for (long i = 0; i < batch; ++i) {
            if (sender->SendMsg(consumer->GetTaskId(), "f", new CountMessage(handled)) != 0) ++refused;
        }
        sent += batch;
        while (handled.load(std::memory_order_relaxed) + refused < sent) {
        }
    }
    runner.Stop();
    state.SetItemsProcessed(sent - refused);
    state.counters["refused"] = static_cast<double>(refused);
}
BENCHMARK(BM_SendMsgThroughput)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
