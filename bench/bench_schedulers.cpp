// Schedulers, delayed invocations and on-demand values, each beside what a user would otherwise
// write:
// - Dispatch/*: scheduling an action an hour ahead on a DispatchScheduler and cancelling it,
//   against arming and cancelling the OneShotTimer it is built on.
// - Step/*: n actions at random deadlines on a StepScheduler, then one advance through all of
//   them (per action), against a std::priority_queue of std::function; n is 10,000, 100,000 and
//   1,000,000, so the time per action shows the O(log n) growth.
// - Debounce/*: asking a pending debounced DelayedInvocation again (1,000,000 times), against
//   the naive debounce that cancels its OneShotTimer and arms a new one on every request.
// - OnDemand/*: reading a value that exists already, against a std::call_once-guarded read.
//
// Every benchmark reports allocs/op: the allocations its thread made, per iteration.

#include "mirels/execution/DelayedInvocation.h"
#include "mirels/execution/DispatchScheduler.h"
#include "mirels/execution/OneShotTimer.h"
#include "mirels/execution/StepScheduler.h"
#include "mirels/futures/OnDemand.h"
#include "support/BenchSupport.h"
// clang-format off
#include <benchmark/benchmark.h>
// clang-format on

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <queue>
#include <random>
#include <string>
#include <vector>

namespace mirels {
namespace {

using bench::AllocationCounter;

const TimePeriod anHour = TimePeriod::from(std::chrono::hours(1));
const TimePeriod aSecond = TimePeriod::from(std::chrono::seconds(1));

// --- dispatch scheduler -------------------------------------------------------------------------

void Dispatch_SchedulerScheduleCancel(benchmark::State& state) {
    auto scheduler = DispatchScheduler::create(ExecutionLane::any());
    // The first scheduling arms the timer; every later one is due after it.
    auto first = scheduler->scheduleAfter(anHour, [] {});
    AllocationCounter counter(state);
    for (auto _ : state) {
        auto token = scheduler->scheduleAfter(anHour, aSecond, [] {});
        token->cancel();
    }
    first->cancel();
}
BENCHMARK(Dispatch_SchedulerScheduleCancel);

void Dispatch_OneShotTimerArmCancel(benchmark::State& state) {
    AllocationCounter counter(state);
    for (auto _ : state) {
        OneShotTimer timer = OneShotTimer::schedule(anHour, aSecond, [] {});
        benchmark::DoNotOptimize(timer.cancel());
    }
}
BENCHMARK(Dispatch_OneShotTimerArmCancel);

// --- step scheduler -----------------------------------------------------------------------------

std::vector<std::uint64_t> randomDeadlines(std::int64_t count) {
    std::mt19937_64 random(7);
    std::vector<std::uint64_t> deadlines(static_cast<std::size_t>(count));
    for (auto& deadline : deadlines) deadline = random() % 1'000'000'000;
    return deadlines;
}

void Step_SchedulerScheduleThenAdvance(benchmark::State& state) {
    const std::vector<std::uint64_t> deadlines = randomDeadlines(state.range(0));
    std::vector<std::shared_ptr<CancellationToken>> tokens;
    tokens.reserve(deadlines.size());
    std::uint64_t sum = 0;
    for (auto _ : state) {
        auto scheduler = StepScheduler::create();
        for (std::uint64_t deadline : deadlines) {
            tokens.push_back(scheduler->scheduleAt(MonotonicTimestamp{deadline},
                                                   [&sum, deadline] { sum += deadline; }));
        }
        benchmark::DoNotOptimize(scheduler->advanceTo(MonotonicTimestamp{1'000'000'000}));
        state.PauseTiming();
        for (auto& token : tokens) token->cancel();
        tokens.clear();
        state.ResumeTiming();
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Step_SchedulerScheduleThenAdvance)
    ->Unit(benchmark::kMillisecond)
    ->Arg(10'000)
    ->Arg(100'000)
    ->Arg(1'000'000);

void Step_PriorityQueueScheduleThenRun(benchmark::State& state) {
    const std::vector<std::uint64_t> deadlines = randomDeadlines(state.range(0));
    struct Item {
        std::uint64_t deadline;
        std::uint64_t sequence;
        std::function<void()> action;
        bool operator<(const Item& other) const {
            return deadline != other.deadline ? deadline > other.deadline
                                              : sequence > other.sequence;
        }
    };
    std::uint64_t sum = 0;
    for (auto _ : state) {
        std::priority_queue<Item> queue;
        std::uint64_t sequence = 0;
        for (std::uint64_t deadline : deadlines) {
            queue.push({deadline, sequence++, [&sum, deadline] { sum += deadline; }});
        }
        while (!queue.empty()) {
            std::function<void()> action = std::move(const_cast<Item&>(queue.top()).action);
            queue.pop();
            action();
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Step_PriorityQueueScheduleThenRun)
    ->Unit(benchmark::kMillisecond)
    ->Arg(10'000)
    ->Arg(100'000)
    ->Arg(1'000'000);

// --- debounce -----------------------------------------------------------------------------------

void Debounce_DelayedInvocationReschedule(benchmark::State& state) {
    int runs = 0;
    auto invocation = DelayedInvocation::create(anHour, DelayedInvocation::Mode::debounce,
                                                ExecutionLane::any(), [&runs] { ++runs; });
    invocation->schedule();  // opens the period: the one allocation
    {
        AllocationCounter counter(state);
        for (auto _ : state) benchmark::DoNotOptimize(invocation->schedule());
    }
    invocation->cancel();
}
BENCHMARK(Debounce_DelayedInvocationReschedule)->Iterations(1'000'000);

void Debounce_OneShotTimerRearm(benchmark::State& state) {
    OneShotTimer timer = OneShotTimer::schedule(anHour, {}, [] {});
    AllocationCounter counter(state);
    for (auto _ : state) {
        timer.cancel();
        timer = OneShotTimer::schedule(anHour, {}, [] {});
    }
    timer.cancel();
}
BENCHMARK(Debounce_OneShotTimerRearm);

// --- on-demand values ---------------------------------------------------------------------------

void OnDemand_ReadExisting(benchmark::State& state) {
    OnDemand<std::string> value([] { return std::string(40, 'x'); });
    (void)value.value();
    AllocationCounter counter(state);
    for (auto _ : state) benchmark::DoNotOptimize(value.value().size());
}
BENCHMARK(OnDemand_ReadExisting);

void OnDemand_CallOnceRead(benchmark::State& state) {
    std::once_flag once;
    std::string value;
    auto read = [&]() -> const std::string& {
        std::call_once(once, [&] { value.assign(40, 'x'); });
        return value;
    };
    (void)read();
    AllocationCounter counter(state);
    for (auto _ : state) benchmark::DoNotOptimize(read().size());
}
BENCHMARK(OnDemand_CallOnceRead);

}  // namespace
}  // namespace mirels

int main(int argc, char** argv) {
    return mirels::bench::runBenchmarks(argc, argv);
}
