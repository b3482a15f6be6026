#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "mirels/core/RecycledMemory.h"

namespace mirels {
namespace {

// Fills a block with a pattern that names its owner, and checks it is still there: two live
// blocks that overlapped would overwrite each other's pattern.
void stampRecycledBlock(void* block, std::size_t size, std::uint8_t owner) {
    std::memset(block, owner, size);
}
bool recycledBlockKeptStamp(const void* block, std::size_t size, std::uint8_t owner) {
    const auto* bytes = static_cast<const std::uint8_t*>(block);
    for (std::size_t i = 0; i < size; ++i) {
        if (bytes[i] != owner) return false;
    }
    return true;
}

TEST(RecycledMemory, LiveBlocksNeverOverlapAndEveryClassAndLargeSizeWorks) {
    // Sizes across every class edge, and past the largest recycled block.
    std::vector<std::size_t> sizes;
    for (std::size_t size = 1; size <= largestRecycledBlock + 130; size += 63)
        sizes.push_back(size);
    sizes.push_back(64);
    sizes.push_back(65);
    sizes.push_back(largestRecycledBlock);
    sizes.push_back(largestRecycledBlock + 1);
    for (int round = 0; round < 3; ++round) {
        std::vector<std::pair<void*, std::size_t>> live;
        for (std::size_t i = 0; i < sizes.size(); ++i) {
            for (int copy = 0; copy < 40; ++copy) {  // more than a class keeps
                void* block = allocateRecycled(sizes[i]);
                ASSERT_EQ(
                    reinterpret_cast<std::uintptr_t>(block) % __STDCPP_DEFAULT_NEW_ALIGNMENT__, 0U);
                stampRecycledBlock(block, sizes[i], static_cast<std::uint8_t>(live.size()));
                live.emplace_back(block, sizes[i]);
            }
        }
        for (std::size_t i = 0; i < live.size(); ++i) {
            EXPECT_TRUE(recycledBlockKeptStamp(live[i].first, live[i].second,
                                               static_cast<std::uint8_t>(i)));
        }
        for (auto [block, size] : live) deallocateRecycled(block, size);
    }
}

TEST(RecycledMemory, SharedObjectsAndTheAllocatorRoundTrip) {
    struct Tracked {
        explicit Tracked(int* destroyed) : destroyed_(destroyed) {}
        Tracked(const Tracked&) = delete;
        Tracked& operator=(const Tracked&) = delete;
        ~Tracked() { ++*destroyed_; }
        int* destroyed_;
        char payload[200] = {};
    };
    int destroyed = 0;
    {
        std::shared_ptr<Tracked> object = makeSharedRecycled<Tracked>(&destroyed);
        std::weak_ptr<Tracked> weak = object;
        object.reset();
        EXPECT_EQ(destroyed, 1);
        EXPECT_TRUE(weak.expired());  // the block stays until the weak count is gone too
    }
    std::vector<int, RecyclingAllocator<int>> numbers;
    for (int i = 0; i < 1000; ++i) numbers.push_back(i);  // grows through the large path too
    EXPECT_EQ(numbers[999], 999);
    EXPECT_TRUE(RecyclingAllocator<int>() == RecyclingAllocator<double>());
}

// Blocks made on one thread and freed on another (the producer/consumer pattern of futures),
// and threads that end with full caches: no block may be handed out twice, none may be lost
// (LeakSanitizer and the thread sanitizer watch the rest).
TEST(RecycledMemory, BlocksCrossThreadsAndThreadsEndWithFullCaches) {
    constexpr int producers = 3;
    constexpr int blocksPerProducer = 20'000;
    std::mutex mutex;
    std::deque<std::pair<void*, std::uint8_t>> handedOver;
    std::atomic<int> producing{producers};
    std::atomic<bool> corrupted{false};

    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
            const auto owner = static_cast<std::uint8_t>(p + 1);
            std::vector<void*> mine;
            for (int i = 0; i < blocksPerProducer; ++i) {
                void* block = allocateRecycled(200);
                stampRecycledBlock(block, 200, owner);
                if (i % 3 == 0) {
                    mine.push_back(block);  // freed here, later: recycled on this thread
                } else {
                    const std::lock_guard guard(mutex);
                    handedOver.emplace_back(block, owner);
                }
                if (mine.size() == 64) {
                    for (void* kept : mine) {
                        if (!recycledBlockKeptStamp(kept, 200, owner)) corrupted = true;
                        deallocateRecycled(kept, 200);
                    }
                    mine.clear();
                }
            }
            for (void* kept : mine) deallocateRecycled(kept, 200);
            --producing;
        });
    }
    threads.emplace_back([&] {
        for (;;) {
            std::pair<void*, std::uint8_t> next{nullptr, 0};
            {
                const std::lock_guard guard(mutex);
                if (!handedOver.empty()) {
                    next = handedOver.front();
                    handedOver.pop_front();
                }
            }
            if (next.first == nullptr) {
                if (producing == 0) {
                    const std::lock_guard guard(mutex);
                    if (handedOver.empty()) return;
                }
                std::this_thread::yield();
                continue;
            }
            if (!recycledBlockKeptStamp(next.first, 200, next.second)) corrupted = true;
            deallocateRecycled(next.first, 200);  // joins this thread's cache, or the heap
        }
    });
    for (std::thread& thread : threads) thread.join();
    EXPECT_FALSE(corrupted.load());

    // A thread-local made before the thread's cache frees its block after the cache has been
    // emptied at thread exit: that free must go to the heap, not into a dead cache.
    struct FreesAtThreadExit {
        void* block = nullptr;
        ~FreesAtThreadExit() {
            if (block != nullptr) deallocateRecycled(block, 100);
        }
    };
    std::thread([] {
        thread_local FreesAtThreadExit late;
        late.block = allocateRecycled(100);
        deallocateRecycled(allocateRecycled(100), 100);  // makes the cache after `late`
    }).join();
}

}  // namespace
}  // namespace mirels
