#include "mirels/execution/MainQueue.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <string>
#include <utility>

#include "Futex.h"
#include "mirels/core/FatalError.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/execution/Thread.h"

namespace mirels {

namespace {

struct MainQueueState {
    std::deque<UniqueFunction<void()>> pending;
    // The main thread sleeps in waitForWork(); the next submitter must wake it.
    bool mainThreadSleeping = false;
    // stop() was called and no run loop has answered it yet.
    bool stopRequested = false;
};

class MainQueueStorage {
  public:
    static MainQueueStorage& shared() {
        // Never destroyed: other threads may still submit while the process exits.
        static MainQueueStorage* storage = new MainQueueStorage();
        return *storage;
    }

    void submit(UniqueFunction<void()> work) {
        bool wake = state_.syncWrite([&](MainQueueState& state) {
            state.pending.push_back(std::move(work));
            return std::exchange(state.mainThreadSleeping, false);
        });
        if (wake) wakeMainThread();
    }

    /// Runs up to `limit` of the callbacks pending on entry, in order; returns how many ran.
    std::size_t drain(std::size_t limit) {
        // One at a time, each taken out under the lock: a nested drain inside a callback then
        // continues in order instead of overtaking the rest of this batch.
        std::size_t count =
            state_.syncRead([](const MainQueueState& s) { return s.pending.size(); });
        if (count > limit) count = limit;
        std::size_t ran = 0;
        for (; ran < count; ++ran) {
            UniqueFunction<void()> work = state_.syncWrite([](MainQueueState& state) {
                UniqueFunction<void()> next;
                if (!state.pending.empty()) {
                    next = std::move(state.pending.front());
                    state.pending.pop_front();
                }
                return next;
            });
            if (!work) break;  // a nested drain ran the rest
            work();
        }
        return ran;
    }

    /// Sleeps until work is pending, stop() is called or the clock reaches `deadlineTicks`
    /// (zero: no deadline). Returns at once when work is already pending.
    void waitForWork(std::uint64_t deadlineTicks) {
        std::uint32_t sequence = 0;
        bool sleep = state_.syncWrite([&](MainQueueState& state) {
            if (!state.pending.empty() || state.stopRequested) return false;
            state.mainThreadSleeping = true;
            sequence = wakeSequence_.load(std::memory_order_relaxed);
            return true;
        });
        if (!sleep) return;
        detail::futexWait(wakeSequence_, sequence, deadlineTicks);
        state_.syncWrite([](MainQueueState& state) { state.mainThreadSleeping = false; });
    }

    bool takeStopRequest() {
        return state_.syncWrite(
            [](MainQueueState& state) { return std::exchange(state.stopRequested, false); });
    }

    void requestStop() {
        bool wake = state_.syncWrite([](MainQueueState& state) {
            state.stopRequested = true;
            return std::exchange(state.mainThreadSleeping, false);
        });
        if (wake) wakeMainThread();
    }

    std::size_t pendingCount() const {
        return state_.syncRead([](const MainQueueState& s) { return s.pending.size(); });
    }

  private:
    void wakeMainThread() {
        // The sleeper read the sequence under the lock before it slept; bumping it after the
        // lock makes its futex wait return even if it has not gone to sleep yet.
        wakeSequence_.fetch_add(1, std::memory_order_release);
        detail::futexWake(wakeSequence_, 1);
    }

    ThreadSafe<MainQueueState> state_;
    std::atomic<std::uint32_t> wakeSequence_{0};
};

void requireMainThread(const char* operation, Callsite callsite) {
    if (!Thread::isMainThread()) {
        fatalError(std::string(operation) + " must be called on the main thread", callsite);
    }
}

}  // namespace

void MainQueue::async(UniqueFunction<void()> work) {
    MainQueueStorage::shared().submit(std::move(work));
}

std::size_t MainQueue::drain(Callsite callsite) {
    requireMainThread("MainQueue::drain()", callsite);
    return MainQueueStorage::shared().drain(SIZE_MAX);
}

bool MainQueue::runUntil(UniqueFunction<bool()> predicate, TimePeriod timeout, Callsite callsite) {
    requireMainThread("MainQueue::runUntil()", callsite);
    MainQueueStorage& storage = MainQueueStorage::shared();
    const std::uint64_t start = MonotonicTimestamp::now().ticks;
    const std::uint64_t deadline =
        timeout.nanosecondCount <= 0 ? start
                                     : start + static_cast<std::uint64_t>(timeout.nanosecondCount);
    for (;;) {
        if (predicate()) return true;
        if (storage.takeStopRequest()) return predicate();
        // One callback at a time, so that the predicate is checked after each.
        if (storage.drain(1) != 0) continue;
        if (MonotonicTimestamp::now().ticks >= deadline) return predicate();
        storage.waitForWork(deadline);
    }
}

void MainQueue::run(Callsite callsite) {
    requireMainThread("MainQueue::run()", callsite);
    MainQueueStorage& storage = MainQueueStorage::shared();
    for (;;) {
        if (storage.takeStopRequest()) return;
        if (storage.drain(1) != 0) continue;
        storage.waitForWork(0);
    }
}

void MainQueue::stop() {
    MainQueueStorage::shared().requestStop();
}

std::size_t MainQueue::pendingCount() {
    return MainQueueStorage::shared().pendingCount();
}

}  // namespace mirels
