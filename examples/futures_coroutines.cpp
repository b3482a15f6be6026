// Futures and C++20 coroutines: a coroutine awaits futures that finish on a worker queue,
// resuming on a lane of its choice; it returns a future itself, which fails when an awaited
// future fails, and whose cancel reaches the future it is waiting for.

#include <mirels/Foundation.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace mirels;

namespace {

/// "Reads" a file on a worker queue: gives its name's length after a short pause.
Future<std::size_t> readFile(const std::shared_ptr<DispatchQueue>& queue, std::string name) {
    auto [future, promise] = Future<std::size_t>::create();
    promise.fulfill(queue, [name = std::move(name)] {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        if (name.empty()) throw std::invalid_argument("a file without a name");
        return name.size();
    });
    return future;
}

/// Adds up the files' lengths one after another, each time resuming on `lane`, where
/// `visited` is touched only.
Future<std::size_t> totalLength(std::shared_ptr<DispatchQueue> queue,
                                std::vector<std::string> names, ExecutionLane lane,
                                std::vector<std::string>& visited) {
    std::size_t total = 0;
    for (const std::string& name : names) {
        total += co_await readFile(queue, name).on(lane);
        visited.push_back(name);
    }
    co_return total;
}

/// Waits for something that never comes, until its own future is canceled.
Future<void> waitForAnswer(Future<std::string> answer, std::string& log) {
    try {
        log = co_await answer;
    } catch (const FutureCanceled& canceled) {
        log = "gave up waiting, canceled at " + canceled.callsite().location();
        throw;  // the coroutine's future ends canceled too
    }
}

}  // namespace

int main() {
    auto queue = DispatchQueue::create("org.mirels.examples.files", QualityOfService::utility);
    auto lane = ExecutionLane::queue("org.mirels.examples.totals");

    std::vector<std::string> visited;
    Future<std::size_t> total = totalLength(queue, {"a.txt", "bb.txt", "ccc.txt"}, lane, visited);
    const std::size_t length = total.unpleasantWait().succeededValue().value_or(0);
    std::printf("total length %zu after %zu files\n", length, visited.size());

    std::vector<std::string> visitedBeforeFailure;
    Future<std::size_t> failing = totalLength(queue, {"a.txt", ""}, lane, visitedBeforeFailure);
    const auto failure = failing.unpleasantWait().failedError();
    std::printf("failed after %zu file(s): %s\n", visitedBeforeFailure.size(),
                failure ? failure->description().c_str() : "(no failure?)");

    auto [answer, answerPromise] = Future<std::string>::create();
    std::string log;
    Future<void> waiting = waitForAnswer(answer, log);
    waiting.cancel();
    std::printf("%s; the awaited future is %s, the coroutine's %s\n", log.c_str(),
                answer.recentStateSnapshot().description().c_str(),
                waiting.recentStateSnapshot().description().c_str());

    const bool ok = length == 18 && visited.size() == 3 && failure.has_value() &&
                    visitedBeforeFailure.size() == 1 && answer.isCanceled() && waiting.isCanceled();
    return ok ? 0 : 1;
}
