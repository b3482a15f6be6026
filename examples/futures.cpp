// Futures at work: a producer finishes a promise on a worker queue; combinators chain and
// gather results; a time-out bounds a wait; a serial queue runs asynchronous jobs one at a
// time; a cache starts each computation once however many ask for it.

#include <mirels/execution/DispatchQueue.h>
#include <mirels/futures/ConcurrentFutureCache.h>
#include <mirels/futures/Future.h>
#include <mirels/futures/FutureSerialQueue.h>
#include <mirels/futures/TimeoutFuture.h>
#include <mirels/futures/TraverseFuture.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

using namespace mirels;

namespace {

/// A slow "lookup" finished by a worker queue.
Future<int> lookUp(const std::shared_ptr<DispatchQueue>& queue, int key) {
    return Future<int>::create([&](Promise<int> promise) {
        queue->async([promise, key] {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            promise.succeed(key * 10);
        });
    });
}

}  // namespace

int main() {
    auto workers = DispatchQueue::create("org.mirels.examples.workers", QualityOfService::utility);
    bool ok = true;

    // Chain: look a key up, then look its answer up, then describe it.
    Future<std::string> described =
        lookUp(workers, 1)
            .then([&](int first) { return lookUp(workers, first); })
            .mapSuccess([](int second) { return "second lookup gave " + std::to_string(second); });
    std::printf("%s\n", described.unpleasantWait().succeededValue().value_or("?").c_str());
    ok &= described.succeededValue() == "second lookup gave 100";

    // Gather: all lookups at once, values in key order.
    Future<std::vector<int>> all =
        traverse(std::vector<int>{1, 2, 3}, [&](int key) { return lookUp(workers, key); });
    const std::vector<int> values =
        all.unpleasantWait().succeededValue().value_or(std::vector<int>{});
    std::printf("gathered %zu values, the last %d\n", values.size(),
                values.empty() ? -1 : values.back());
    ok &= values == std::vector<int>({10, 20, 30});

    // Bound a wait: a promise nobody finishes times out, and is canceled.
    auto [silent, silentPromise] = Future<int>::create();
    Future<Result<int>> bounded =
        silent.timeout(effectiveTimeout(0.02), {}, TimeoutError::timedOut("a silent producer"));
    const auto timedOut = bounded.unpleasantWait().failedError();
    // The time-out finishes first and cancels the watched future right after: wait for that too.
    (void)silent.unpleasantWait();
    std::printf("%s (the silent future is %s)\n",
                timedOut ? timedOut->description().c_str() : "no time-out?",
                silent.recentStateSnapshot().description().c_str());
    ok &= timedOut.has_value() && silent.isCanceled();

    // One at a time: jobs that finish later still run in order, never overlapping.
    auto jobs = FutureSerialQueue<int>::create(ExecutionLane::any());
    std::vector<Future<int>> done;
    for (int key = 1; key <= 3; ++key) {
        done.push_back(jobs->enqueue([&workers, key] { return lookUp(workers, key); }));
    }
    ok &= done.back().unpleasantWait().succeededValue() == 30;
    std::printf("serial jobs finished: %s\n",
                done.front().hasFinishedSuccessfully() ? "in order" : "out of order?");

    // Computed once: two askers, one lookup.
    ConcurrentFutureCache<int, int> cache;
    int computations = 0;
    auto ask = [&] {
        return cache.guaranteedValue(7, [&](int key) {
            ++computations;
            return lookUp(workers, key);
        });
    };
    Future<int> firstAsk = ask();
    Future<int> secondAsk = ask();
    std::printf("cached answer %d, computed %d time(s)\n",
                secondAsk.unpleasantWait().succeededValue().value_or(-1), computations);
    ok &= firstAsk == secondAsk && computations == 1;

    return ok ? 0 : 1;
}
