// Execution lanes and the executor under them, side by side with what a user would otherwise
// reach for:
//
// - Throughput/*: one producer thread posts kItems trivial callbacks to a serial queue and waits
//   until all have run. Our queue lane and the DispatchQueue under it, against a serial queue
//   built from std::mutex + std::condition_variable + std::deque with one consumer thread, and
//   an Asio strand over asio::thread_pool.
// - InlineExecute/*: execute on a lane that is current (any, the current queue, main on the main
//   thread), with the allocations made per execute as the counter allocs/op.
// - TimerArmCancel/*: arm a one-shot timer far in the future and cancel it, against an Asio
//   steady_timer (expires_after + async_wait + cancel) on an io_context run by a thread, with the
//   timer reused or made afresh, and on an io_context polled by the benchmark thread.

#include <benchmark/benchmark.h>

#include <asio.hpp>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <thread>

#include "mirels/execution/DispatchQueue.h"
#include "mirels/execution/ExecutionLane.h"
#include "mirels/execution/OneShotTimer.h"
#include "mirels/execution/Thread.h"
#include "support/BenchSupport.h"

namespace {

using namespace mirels;
using mirels::bench::AllocationCounter;

constexpr int kItems = 100'000;

// ---------------------------------------------------------------------------------------------
// Throughput

// What the posted callbacks touch: run serially, so the count needs no atomic; the last one
// wakes the producer. On cache lines of its own: the consumer writes it for every callback, and
// sharing a line with the producer's stack would slow every variant by an amount that depends on
// where the stack happens to start.
struct alignas(64) Completion {
    int ran = 0;
    int target = 0;
    std::atomic<bool> done{false};

    void reset(int expected) {
        ran = 0;
        target = expected;
        done.store(false, std::memory_order_relaxed);
    }
    void tick() {
        if (++ran == target) {
            done.store(true, std::memory_order_release);
            done.notify_one();
        }
    }
    void wait() { done.wait(false, std::memory_order_acquire); }

    char padding[64];
};

// The serial queue most people would write first.
class MutexConditionDequeQueue {
  public:
    MutexConditionDequeQueue() : consumer_([this] { consume(); }) {}
    ~MutexConditionDequeQueue() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        consumer_.join();
    }

    void async(std::function<void()> work) {
        {
            std::lock_guard lock(mutex_);
            pending_.push_back(std::move(work));
        }
        wake_.notify_one();
    }

  private:
    void consume() {
        for (;;) {
            std::function<void()> work;
            {
                std::unique_lock lock(mutex_);
                wake_.wait(lock, [&] { return stopping_ || !pending_.empty(); });
                if (pending_.empty()) return;
                work = std::move(pending_.front());
                pending_.pop_front();
            }
            work();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> pending_;
    bool stopping_ = false;
    std::thread consumer_;
};

template <class Post>
void runThroughput(benchmark::State& state, Post&& post) {
    auto completion = std::make_unique<Completion>();
    for (auto _ : state) {
        completion->reset(kItems);
        Completion* c = completion.get();
        for (int i = 0; i < kItems; ++i) post([c] { c->tick(); });
        completion->wait();
    }
    state.SetItemsProcessed(state.iterations() * kItems);
}

void Throughput_LaneQueue(benchmark::State& state) {
    const ExecutionLane lane = ExecutionLane::queue("bench.lane", QualityOfService::userInitiated);
    runThroughput(state, [&](auto&& callback) { lane.execute(std::move(callback)); });
}

void Throughput_DispatchQueue(benchmark::State& state) {
    const auto queue = DispatchQueue::create("bench.queue", QualityOfService::userInitiated);
    runThroughput(state, [&](auto&& callback) { queue->async(std::move(callback)); });
}

void Throughput_MutexConditionDeque(benchmark::State& state) {
    MutexConditionDequeQueue queue;
    runThroughput(state, [&](auto&& callback) { queue.async(std::move(callback)); });
}

void Throughput_AsioStrand(benchmark::State& state) {
    asio::thread_pool pool(2);
    auto strand = asio::make_strand(pool);
    runThroughput(state, [&](auto&& callback) { asio::post(strand, std::move(callback)); });
    pool.join();
}

BENCHMARK(Throughput_LaneQueue)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Throughput_DispatchQueue)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Throughput_MutexConditionDeque)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Throughput_AsioStrand)->UseRealTime()->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------------------------------------
// Inline execute

constexpr int kInlineBatch = 10'000;

/// Times executes on `lane` from a thread where it is current, counting their allocations.
void timeInlineExecutes(benchmark::State& state, const ExecutionLane& lane) {
    {
        AllocationCounter counter(state);  // closed before SetItemsProcessed, which allocates
        std::uint64_t sum = 0;
        for (auto _ : state) {
            lane.execute([&sum] { ++sum; });
            benchmark::DoNotOptimize(sum);
        }
    }
    state.SetItemsProcessed(state.iterations());
}

void InlineExecute_Any(benchmark::State& state) {
    timeInlineExecutes(state, ExecutionLane::any());
}

void InlineExecute_MainOnMainThread(benchmark::State& state) {
    if (!Thread::isMainThread()) {
        state.SkipWithError("not run on the main thread");
        return;
    }
    timeInlineExecutes(state, ExecutionLane::main());
}

// The executes must happen on the lane's own queue, so each benchmark iteration is one callback
// on the queue that times a batch of nested executes itself.
void InlineExecute_CurrentQueue(benchmark::State& state) {
    const ExecutionLane lane =
        ExecutionLane::queue("bench.inline", QualityOfService::userInitiated);
    std::uint64_t allocations = 0;
    std::uint64_t notInline = 0;
    for (auto _ : state) {
        std::atomic<bool> done{false};
        double seconds = 0;
        lane.execute([&] {
            std::uint64_t sum = 0;
            const std::uint64_t before = mirels::bench::allocationCount;
            const auto start = std::chrono::steady_clock::now();
            for (int i = 0; i < kInlineBatch; ++i) {
                lane.execute([&sum] { ++sum; });
                benchmark::DoNotOptimize(sum);
            }
            const auto end = std::chrono::steady_clock::now();
            allocations += mirels::bench::allocationCount - before;
            notInline += static_cast<std::uint64_t>(kInlineBatch) - sum;
            seconds = std::chrono::duration<double>(end - start).count();
            done.store(true, std::memory_order_release);
            done.notify_one();
        });
        done.wait(false, std::memory_order_acquire);
        state.SetIterationTime(seconds);
    }
    if (notInline != 0) state.SkipWithError("an execute on the current queue did not run inline");
    const double executes = static_cast<double>(state.iterations()) * kInlineBatch;
    state.counters["allocs/op"] = benchmark::Counter(static_cast<double>(allocations) / executes);
    state.SetItemsProcessed(state.iterations() * kInlineBatch);
}

BENCHMARK(InlineExecute_Any);
BENCHMARK(InlineExecute_MainOnMainThread);
BENCHMARK(InlineExecute_CurrentQueue)->UseManualTime()->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------------------------
// Timer arm + cancel

void TimerArmCancel_OneShotTimer(benchmark::State& state) {
    for (auto _ : state) {
        OneShotTimer timer =
            OneShotTimer::schedule(TimePeriod::from(std::chrono::seconds(10)), {}, [] {});
        benchmark::DoNotOptimize(timer.cancel());
    }
    state.SetItemsProcessed(state.iterations());
}

// An io_context kept running on a thread of its own, which runs the cancelled waits' handlers.
class RunningIoContext {
  public:
    RunningIoContext() : thread_([this] { context_.run(); }) {}
    ~RunningIoContext() {
        guard_.reset();
        thread_.join();
    }
    asio::io_context& context() { return context_; }

  private:
    asio::io_context context_{1};
    asio::executor_work_guard<asio::io_context::executor_type> guard_{context_.get_executor()};
    std::thread thread_;
};

void TimerArmCancel_AsioSteadyTimerReused(benchmark::State& state) {
    RunningIoContext io;
    asio::steady_timer timer(io.context());
    for (auto _ : state) {
        timer.expires_after(std::chrono::seconds(10));
        timer.async_wait([](const asio::error_code&) {});
        benchmark::DoNotOptimize(timer.cancel());
    }
    state.SetItemsProcessed(state.iterations());
}

void TimerArmCancel_AsioSteadyTimerFresh(benchmark::State& state) {
    RunningIoContext io;
    for (auto _ : state) {
        asio::steady_timer timer(io.context());
        timer.expires_after(std::chrono::seconds(10));
        timer.async_wait([](const asio::error_code&) {});
        benchmark::DoNotOptimize(timer.cancel());
    }
    state.SetItemsProcessed(state.iterations());
}

void TimerArmCancel_AsioSteadyTimerPolled(benchmark::State& state) {
    asio::io_context context(1);
    asio::steady_timer timer(context);
    for (auto _ : state) {
        timer.expires_after(std::chrono::seconds(10));
        timer.async_wait([](const asio::error_code&) {});
        benchmark::DoNotOptimize(timer.cancel());
        context.poll();
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(TimerArmCancel_OneShotTimer);
BENCHMARK(TimerArmCancel_AsioSteadyTimerReused);
BENCHMARK(TimerArmCancel_AsioSteadyTimerFresh);
BENCHMARK(TimerArmCancel_AsioSteadyTimerPolled);

}  // namespace

int main(int argc, char** argv) {
    return mirels::bench::runBenchmarks(argc, argv);
}
