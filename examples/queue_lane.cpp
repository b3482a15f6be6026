// A queue lane: several producer threads hand work to one serial lane; every callback runs exactly
// once, one at a time, and each producer's callbacks keep their order. Results travel back to
// the main thread through the main lane, which this program drains.

#include <mirels/Foundation.h>

#include <cstdio>
#include <thread>
#include <vector>

int main() {
    using namespace mirels;
    constexpr int producers = 4;
    constexpr int perProducer = 10'000;

    ExecutionLane lane =
        ExecutionLane::queue("org.mirels.examples.ledger", QualityOfService::utility);
    // State touched only on the lane: it needs no lock, because the lane is serial.
    std::vector<int> lastSeen(producers, -1);
    long outOfOrder = 0;
    long processed = 0;

    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
            for (int i = 0; i < perProducer; ++i) {
                lane.execute([&, p, i] {
                    if (i != lastSeen[static_cast<std::size_t>(p)] + 1) ++outOfOrder;
                    lastSeen[static_cast<std::size_t>(p)] = i;
                    ++processed;
                });
            }
        });
    }
    for (auto& thread : threads) thread.join();

    // The last callback reports back on the main lane; the main thread drains until it arrives.
    bool reported = false;
    lane.execute([&] {
        bool inlineOnSameLane = false;
        lane.execute([&] { inlineOnSameLane = true; });  // already on the lane: runs at once
        long total = processed;
        long disorder = outOfOrder;
        ExecutionLane::main().execute([&, total, disorder, inlineOnSameLane] {
            std::printf("processed %ld callbacks from %d producers, %ld out of order\n", total,
                        producers, disorder);
            std::printf("nested execute on the same lane ran inline: %s\n",
                        inlineOnSameLane ? "yes" : "no");
            std::printf("report delivered on the main thread: %s\n",
                        Thread::isMainThread() ? "yes" : "no");
            reported = true;
        });
    });
    MainQueue::runUntil([&] { return reported; }, TimePeriod::from(std::chrono::seconds(30)));
    return reported && processed == long{producers} * perProducer && outOfOrder == 0 ? 0 : 1;
}
