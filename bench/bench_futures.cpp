// Futures beside the peers a user would otherwise pick, in one binary:
//
// - RoundTrip/*: make a promise-backed future, register one observer, succeed it, deliver.
//   Ours against boost::promise/boost::future with .then (Boost.Thread, BOOST_THREAD_VERSION 5,
//   the continuation run by the thread that sets the value: launch::sync, its cheapest policy)
//   and against std::promise/std::future set and get. Also ours with three observers.
// - Chain/*: N extra stages on a running future (mapSuccess and then for us, .then for Boost,
//   and .then returning a future, unwrapped, as the peer of our then). One stage costs the
//   difference between N = 1 and N = 0; in a long chain, a tenth of that between N = 10 and
//   N = 0. Boost's .then with no launch policy is measured once, for reference.
// - FinishedChain/*: ten mapSuccess on a future that has already succeeded.
// - Timeout/*: timeout(...) on a running future that then succeeds at once, against arming and
//   canceling an Asio steady_timer (polled by the benchmark thread, which runs the aborted
//   handler) and our own OneShotTimer, which time-outs are built on.
// - SerialQueue/*: enqueue N operations that have finished already on the immediate lane; the
//   time per operation must not grow with N.
// - Cache/*: a hit in ConcurrentFutureCache.
//
// Every benchmark reports allocs/op: the allocations its thread made, per iteration.

#include "mirels/execution/OneShotTimer.h"
#include "mirels/futures/ConcurrentFutureCache.h"
#include "mirels/futures/Future.h"
#include "mirels/futures/FutureSerialQueue.h"
#include "mirels/futures/TimeoutFuture.h"
#include "support/BenchSupport.h"
// clang-format off
#include <benchmark/benchmark.h>
#include <asio.hpp>
#define BOOST_THREAD_VERSION 5
#include <boost/thread/future.hpp>
// clang-format on

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <new>
#include <string>
#include <thread>

namespace {

using namespace mirels;
using mirels::bench::AllocationCounter;

// --- round trip ---------------------------------------------------------------------------------

void RoundTrip_MirelsPromise(benchmark::State& state) {
    long sink = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        auto [future, promise] = Future<int>::create();
        future.observeSuccess([&sink](int value) { sink += value; });
        promise.succeed(1);
    }
    benchmark::DoNotOptimize(sink);
}
BENCHMARK(RoundTrip_MirelsPromise);

void RoundTrip_MirelsPromiseThreeObservers(benchmark::State& state) {
    long sink = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        auto [future, promise] = Future<int>::create();
        future.observeSuccess([&sink](int value) { sink += value; });
        future.observeSuccess([&sink](int value) { sink += 2 * value; });
        future.observeSuccess([&sink](int value) { sink += 3 * value; });
        promise.succeed(1);
    }
    benchmark::DoNotOptimize(sink);
}
BENCHMARK(RoundTrip_MirelsPromiseThreeObservers);

void RoundTrip_BoostPromiseThen(benchmark::State& state) {
    long sink = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        boost::promise<int> promise;
        boost::future<void> continuation = promise.get_future().then(
            boost::launch::sync, [&sink](boost::future<int> done) { sink += done.get(); });
        promise.set_value(1);
        continuation.get();
    }
    benchmark::DoNotOptimize(sink);
}
BENCHMARK(RoundTrip_BoostPromiseThen);

void RoundTrip_StdPromiseGet(benchmark::State& state) {
    long sink = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        std::promise<int> promise;
        std::future<int> future = promise.get_future();
        promise.set_value(1);
        sink += future.get();
    }
    benchmark::DoNotOptimize(sink);
}
BENCHMARK(RoundTrip_StdPromiseGet);

// --- stages on a running future -----------------------------------------------------------------

void Chain_MirelsMapSuccess(benchmark::State& state) {
    const auto stages = state.range(0);
    long sink = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        auto [future, promise] = Future<int>::create();
        Future<int> last = future;
        for (int64_t i = 0; i < stages; ++i) last = last.mapSuccess([](int v) { return v + 1; });
        last.observeSuccess([&sink](int value) { sink += value; });
        promise.succeed(1);
    }
    benchmark::DoNotOptimize(sink);
}
BENCHMARK(Chain_MirelsMapSuccess)->Arg(0)->Arg(1)->Arg(10);

void Chain_MirelsThen(benchmark::State& state) {
    const auto stages = state.range(0);
    long sink = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        auto [future, promise] = Future<int>::create();
        Future<int> last = future;
        for (int64_t i = 0; i < stages; ++i) {
            last = last.then([](int v) { return Future<int>::succeeded(v + 1); });
        }
        last.observeSuccess([&sink](int value) { sink += value; });
        promise.succeed(1);
    }
    benchmark::DoNotOptimize(sink);
}
BENCHMARK(Chain_MirelsThen)->Arg(0)->Arg(1)->Arg(10);

void Chain_BoostThen(benchmark::State& state) {
    const auto stages = state.range(0);
    long sink = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        boost::promise<int> promise;
        boost::future<int> last = promise.get_future();
        for (int64_t i = 0; i < stages; ++i) {
            last = last.then(boost::launch::sync,
                             [](boost::future<int> done) { return done.get() + 1; });
        }
        boost::future<void> end = last.then(
            boost::launch::sync, [&sink](boost::future<int> done) { sink += done.get(); });
        promise.set_value(1);
        end.get();
    }
    benchmark::DoNotOptimize(sink);
}
BENCHMARK(Chain_BoostThen)->Arg(0)->Arg(1)->Arg(10);

// The peer of our `then`, whose transform returns a future: Boost's .then returning a future,
// unwrapped.
void Chain_BoostThenUnwrap(benchmark::State& state) {
    const auto stages = state.range(0);
    long sink = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        boost::promise<int> promise;
        boost::future<int> last = promise.get_future();
        for (int64_t i = 0; i < stages; ++i) {
            last = last.then(boost::launch::sync,
                             [](boost::future<int> done) {
                                 return boost::make_ready_future(done.get() + 1);
                             })
                       .unwrap();
        }
        boost::future<void> end = last.then(
            boost::launch::sync, [&sink](boost::future<int> done) { sink += done.get(); });
        promise.set_value(1);
        end.get();
    }
    benchmark::DoNotOptimize(sink);
}
BENCHMARK(Chain_BoostThenUnwrap)->Arg(0)->Arg(1)->Arg(10);

// Boost's .then with no launch policy, as a user would first write it: the continuation of a
// promise's future then runs on a thread of its own.
void Chain_BoostThenDefaultPolicy(benchmark::State& state) {
    long sink = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        boost::promise<int> promise;
        boost::future<void> end =
            promise.get_future().then([&sink](boost::future<int> done) { sink += done.get(); });
        promise.set_value(1);
        end.get();
    }
    benchmark::DoNotOptimize(sink);
}
BENCHMARK(Chain_BoostThenDefaultPolicy);

// --- stages on a finished future ----------------------------------------------------------------

void FinishedChain_MirelsMapSuccess10(benchmark::State& state) {
    long sink = 0;
    const Future<int> start = Future<int>::succeeded(1);
    AllocationCounter counter(state);
    for (auto _ : state) {
        Future<int> last = start;
        for (int i = 0; i < 10; ++i) last = last.mapSuccess([](int v) { return v + 1; });
        sink += *last.succeededValue();
    }
    benchmark::DoNotOptimize(sink);
}
BENCHMARK(FinishedChain_MirelsMapSuccess10);

// --- time-outs ----------------------------------------------------------------------------------

void Timeout_MirelsThenSucceeds(benchmark::State& state) {
    long sink = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        auto [future, promise] = Future<int>::create();
        Future<Result<int>> limited =
            future.timeout(10.0, TimePeriod::from(std::chrono::seconds(1)));
        promise.succeed(1);
        sink += limited.hasFinishedSuccessfully();
    }
    benchmark::DoNotOptimize(sink);
}
BENCHMARK(Timeout_MirelsThenSucceeds);

// The same round trip without the time-out, to tell the time-out's own share.
void Timeout_MirelsBaselineNoTimeout(benchmark::State& state) {
    long sink = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        auto [future, promise] = Future<int>::create();
        promise.succeed(1);
        sink += future.hasFinishedSuccessfully();
    }
    benchmark::DoNotOptimize(sink);
}
BENCHMARK(Timeout_MirelsBaselineNoTimeout);

void Timeout_AsioSteadyTimerArmCancelPolled(benchmark::State& state) {
    asio::io_context context(1);
    asio::steady_timer timer(context);
    long sink = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        timer.expires_after(std::chrono::seconds(10));
        timer.async_wait([&sink](const asio::error_code& error) { sink += error ? 1 : 0; });
        timer.cancel();
        context.poll();
        context.restart();
    }
    benchmark::DoNotOptimize(sink);
}
BENCHMARK(Timeout_AsioSteadyTimerArmCancelPolled);

void Timeout_OneShotTimerArmCancel(benchmark::State& state) {
    AllocationCounter counter(state);
    for (auto _ : state) {
        OneShotTimer timer =
            OneShotTimer::schedule(TimePeriod::from(std::chrono::seconds(10)), {}, [] {});
        benchmark::DoNotOptimize(timer.cancel());
    }
}
BENCHMARK(Timeout_OneShotTimerArmCancel);

// --- serial queue -------------------------------------------------------------------------------

void SerialQueue_MirelsEnqueueFinished(benchmark::State& state) {
    const auto operations = state.range(0);
    auto queue = FutureSerialQueue<int>::create(ExecutionLane::any());
    long sink = 0;
    {
        AllocationCounter counter(state);
        for (auto _ : state) {
            for (int64_t i = 0; i < operations; ++i) {
                sink += queue->enqueue([] { return Future<int>::succeeded(1); })
                            .hasFinishedSuccessfully();
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * operations);
    benchmark::DoNotOptimize(sink);
}
BENCHMARK(SerialQueue_MirelsEnqueueFinished)->Arg(1)->Arg(100)->Arg(10000);

// --- cache --------------------------------------------------------------------------------------

void Cache_MirelsHit(benchmark::State& state) {
    ConcurrentFutureCache<std::string, int> cache;
    const std::string key = "a key that is long enough to live on the heap";
    (void)cache.guaranteedValue(key, [](const std::string&) { return Future<int>::succeeded(1); });
    long sink = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        Future<int> hit = cache.guaranteedValue(
            key, [](const std::string&) { return Future<int>::succeeded(2); });
        sink += hit.hasFinishedSuccessfully();
    }
    benchmark::DoNotOptimize(sink);
}
BENCHMARK(Cache_MirelsHit);

}  // namespace

int main(int argc, char** argv) {
    return mirels::bench::runBenchmarks(argc, argv);
}
