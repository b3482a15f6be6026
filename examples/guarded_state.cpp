// Lock-protected and thread-confined state. A ThreadSafe box takes increments from many threads
// and ends with the exact sum; a ThreadGuard confined to the main thread reports (as soft
// assertions, which go to analytics) when another thread touches it, but never blocks.

#include <mirels/Foundation.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

int main() {
    using namespace mirels;

    struct Stats {
        long requests = 0;
        long bytes = 0;
    };
    ThreadSafe<Stats> stats;
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t) {
        workers.emplace_back([&] {
            for (int i = 0; i < 50'000; ++i) {
                stats.syncWrite([](Stats& s) {
                    ++s.requests;
                    s.bytes += 512;
                });
            }
        });
    }
    for (auto& worker : workers) worker.join();
    Stats total = stats.peek();
    std::printf("requests %ld, bytes %ld\n", total.requests, total.bytes);
    stats.syncSetValue(&Stats::bytes, 0L);
    std::printf("bytes after reset: %ld\n", stats.peek().bytes);

    // Record soft-assertion reports instead of sending them, to show them here.
    ScopedRecordingTransport analytics;
    auto confined = ThreadGuard<std::string>::requiringAccessOnThread("owned by main");
    confined.syncWrite([](std::string& s) { s += ", edited on main"; });
    std::thread([&] { confined.syncRead([](const std::string&) {}); }).join();
    for (const auto& event : analytics->events("softAssert")) {
        std::printf("reported: %s at %s\n", event.name.c_str(),
                    event.payload.at("file")->getIf<std::string>()->c_str());
    }
    std::printf("value: %s\n", confined.peek().c_str());
    return total.requests == 200'000 && analytics->events("softAssert").size() == 1 ? 0 : 1;
}
