// The single-fire event beside the latches a user would otherwise write or pick: a std::mutex
// with a std::vector of std::function, and a Boost.Signals2 signal fired once and disconnected.
//
// "fire" benchmarks time firing alone: each iteration prepares a batch of 64 events with 10
// observers each outside the timed part, then fires all of them; the time shown is for the
// batch (divide by 64), and allocs/fire counts the allocations made while firing. "cycle"
// benchmarks time the whole life of one event (make, 10 observers, fire) with its allocations.

#include <benchmark/benchmark.h>

#include <array>
#include <atomic>
#include <boost/signals2.hpp>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "mirels/events/SingleFireEvent.h"
#include "support/BenchSupport.h"

namespace {

using mirels::bench::allocationCount;
using mirels::bench::AllocationCounter;

constexpr int observerCount = 10;
constexpr int batch = 64;

/// The latch written by hand: a mutex, a flag and the observers in a vector.
class MutexLatch {
  public:
    void observe(std::function<void()> observer) {
        {
            std::lock_guard guard(mutex_);
            if (!fired_) {
                observers_.push_back(std::move(observer));
                return;
            }
        }
        observer();
    }
    void fire() {
        std::vector<std::function<void()>> observers;
        {
            std::lock_guard guard(mutex_);
            if (fired_) return;
            fired_ = true;
            observers.swap(observers_);
        }
        for (auto& observer : observers) observer();
    }

  private:
    std::mutex mutex_;
    bool fired_ = false;
    std::vector<std::function<void()>> observers_;
};

/// A Boost.Signals2 signal used once: fire, then disconnect everything.
class SignalLatch {
  public:
    void observe(std::function<void()> observer) { signal_.connect(std::move(observer)); }
    void fire() {
        if (fired_.exchange(true)) return;
        signal_();
        signal_.disconnect_all_slots();
    }

  private:
    std::atomic<bool> fired_{false};
    boost::signals2::signal<void()> signal_;
};

/// Times `fire` over batches of prepared latches, counting the allocations made while firing.
template <class Make, class Fire>
void fireBatches(benchmark::State& state, Make make, Fire fire) {
    long fireAllocations = 0;
    long fires = 0;
    for (auto _ : state) {
        auto latches = make();
        const std::uint64_t before = allocationCount;
        auto start = std::chrono::steady_clock::now();
        for (auto& latch : latches) fire(latch);
        auto elapsed = std::chrono::steady_clock::now() - start;
        fireAllocations += static_cast<long>(allocationCount - before);
        fires += batch;
        state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
    }
    state.counters["allocs/fire"] =
        benchmark::Counter(static_cast<double>(fireAllocations) / static_cast<double>(fires));
}

void SingleFireEvent_fire10(benchmark::State& state) {
    long calls = 0;
    fireBatches(
        state,
        [&] {
            std::vector<std::shared_ptr<mirels::SingleFireEvent>> events;
            events.reserve(batch);
            for (int i = 0; i < batch; ++i) {
                auto event = mirels::SingleFireEvent::create();
                for (int o = 0; o < observerCount; ++o) {
                    event->observeUntilFiredOrCanceled([&calls] { ++calls; });
                }
                events.push_back(std::move(event));
            }
            return events;
        },
        [](const std::shared_ptr<mirels::SingleFireEvent>& event) { event->fire(); });
    benchmark::DoNotOptimize(calls);
}
BENCHMARK(SingleFireEvent_fire10)->UseManualTime();

void MutexLatch_fire10(benchmark::State& state) {
    long calls = 0;
    fireBatches(
        state,
        [&] {
            std::vector<std::unique_ptr<MutexLatch>> latches;
            latches.reserve(batch);
            for (int i = 0; i < batch; ++i) {
                auto latch = std::make_unique<MutexLatch>();
                for (int o = 0; o < observerCount; ++o) latch->observe([&calls] { ++calls; });
                latches.push_back(std::move(latch));
            }
            return latches;
        },
        [](const std::unique_ptr<MutexLatch>& latch) { latch->fire(); });
    benchmark::DoNotOptimize(calls);
}
BENCHMARK(MutexLatch_fire10)->UseManualTime();

void Signals2_fire10(benchmark::State& state) {
    long calls = 0;
    fireBatches(
        state,
        [&] {
            std::vector<std::unique_ptr<SignalLatch>> latches;
            latches.reserve(batch);
            for (int i = 0; i < batch; ++i) {
                auto latch = std::make_unique<SignalLatch>();
                for (int o = 0; o < observerCount; ++o) latch->observe([&calls] { ++calls; });
                latches.push_back(std::move(latch));
            }
            return latches;
        },
        [](const std::unique_ptr<SignalLatch>& latch) { latch->fire(); });
    benchmark::DoNotOptimize(calls);
}
BENCHMARK(Signals2_fire10)->UseManualTime();

// --- the whole life of one latch -------------------------------------------------------------

void SingleFireEvent_cycle10(benchmark::State& state) {
    long calls = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        auto event = mirels::SingleFireEvent::create();
        for (int o = 0; o < observerCount; ++o) {
            event->observeUntilFiredOrCanceled([&calls] { ++calls; });
        }
        event->fire();
    }
    benchmark::DoNotOptimize(calls);
}
BENCHMARK(SingleFireEvent_cycle10);

// With tokens: each observer gets one and cancels it after the firing.
void SingleFireEvent_cycle10Tokens(benchmark::State& state) {
    long calls = 0;
    AllocationCounter counter(state);
    std::array<std::shared_ptr<mirels::CancellationToken>, observerCount> tokens;
    for (auto _ : state) {
        auto event = mirels::SingleFireEvent::create();
        for (auto& token : tokens) token = event->observe([&calls] { ++calls; });
        event->fire();
        for (auto& token : tokens) token->cancel();
    }
    benchmark::DoNotOptimize(calls);
}
BENCHMARK(SingleFireEvent_cycle10Tokens);

void MutexLatch_cycle10(benchmark::State& state) {
    long calls = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        auto latch = std::make_unique<MutexLatch>();
        for (int o = 0; o < observerCount; ++o) latch->observe([&calls] { ++calls; });
        latch->fire();
    }
    benchmark::DoNotOptimize(calls);
}
BENCHMARK(MutexLatch_cycle10);

void Signals2_cycle10(benchmark::State& state) {
    long calls = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        auto latch = std::make_unique<SignalLatch>();
        for (int o = 0; o < observerCount; ++o) latch->observe([&calls] { ++calls; });
        latch->fire();
    }
    benchmark::DoNotOptimize(calls);
}
BENCHMARK(Signals2_cycle10);

}  // namespace

int main(int argc, char** argv) {
    return mirels::bench::runBenchmarks(argc, argv);
}
