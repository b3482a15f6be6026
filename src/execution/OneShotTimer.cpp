#include "mirels/execution/OneShotTimer.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

#include "CurrentQueue.h"
#include "Futex.h"
#include "WorkerPool.h"
#include "mirels/core/UnfairLock.h"
#include "mirels/execution/DispatchQueue.h"

namespace mirels {

namespace detail {

// One armed timer, shared by its handles and, until it fires or is purged, the timer heap. When
// it fires it becomes the background pool's job, so firing allocates nothing.
struct TimerEntry : PoolJob {
    TimerEntry(std::uint64_t deadline, std::uint64_t latest, std::int64_t queueIdentifier,
               UniqueFunction<void()> callback) noexcept
        : deadline(deadline),
          latest(latest),
          queueIdentifier(queueIdentifier),
          callback(std::move(callback)) {}

    std::atomic<std::uint32_t> references{2};  // the first handle and the heap
    std::atomic<OneShotTimer::State> state{OneShotTimer::State::pending};
    const std::uint64_t deadline;  // earliest firing time, monotonic nanoseconds
    const std::uint64_t latest;    // deadline plus leeway
    const std::int64_t queueIdentifier;
    // Touched only by whoever settles the state: the canceller destroys it, the firing job runs
    // and destroys it.
    UniqueFunction<void()> callback;
};

namespace {

void retain(TimerEntry* entry) noexcept {
    entry->references.fetch_add(1, std::memory_order_relaxed);
}

void release(TimerEntry* entry) noexcept {
    if (entry->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete entry;
}

constexpr std::uint64_t noDeadline = std::numeric_limits<std::uint64_t>::max();

// Below this size the heap is never purged of cancelled timers: small heaps cost nothing.
constexpr std::size_t minimumPurgeSize = 64;

// The one timer thread: a min-heap of armed timers ordered by the latest time each may fire,
// and a futex the thread sleeps on until the earliest of those. Arming takes the heap's lock for
// a push and wakes the thread only when the new timer must fire before the thread would wake
// anyway. Cancelling never takes the lock: it settles the timer's state, and the cancelled entry
// leaves the heap when it reaches the top or when cancelled entries make up half the heap.
class TimerScheduler {
  public:
    static TimerScheduler& shared() {
        // Never destroyed: the thread keeps running while the process exits.
        static TimerScheduler* scheduler = new TimerScheduler();
        return *scheduler;
    }

    std::int64_t backgroundQueueIdentifier() const noexcept { return backgroundIdentifier_; }

    void arm(TimerEntry* entry) noexcept {
        bool wake = false;
        {
            UnfairLockGuard guard(lock_);
            if (heap_.size() >= minimumPurgeSize &&
                cancelledInHeap_.load(std::memory_order_relaxed) * 2 >=
                    static_cast<std::int64_t>(heap_.size())) {
                purgeCancelledLocked();
            }
            heap_.push_back({entry->latest, entry});
            std::push_heap(heap_.begin(), heap_.end(), later);
            if (entry->latest < nextWake_) {
                nextWake_ = entry->latest;
                wake = true;
            }
        }
        if (wake) {
            wakeSequence_.fetch_add(1, std::memory_order_release);
            futexWake(wakeSequence_, 1);
        }
    }

    void noteCancelled() noexcept { cancelledInHeap_.fetch_add(1, std::memory_order_relaxed); }

  private:
    struct HeapItem {
        std::uint64_t latest;
        TimerEntry* entry;
    };

    static bool later(const HeapItem& a, const HeapItem& b) noexcept { return a.latest > b.latest; }

    TimerScheduler()
        : pool_(WorkerPool::forQualityOfService(QualityOfService::background)),
          backgroundIdentifier_(DispatchQueue::background()->identifier().identifier) {
        std::thread([this] { threadMain(); }).detach();
    }

    void purgeCancelledLocked() noexcept MIRELS_REQUIRES(lock_) {
        auto kept = std::remove_if(heap_.begin(), heap_.end(), [](const HeapItem& item) {
            if (item.entry->state.load(std::memory_order_acquire) !=
                OneShotTimer::State::cancelled) {
                return false;
            }
            release(item.entry);  // its callback is gone already: this only frees memory
            return true;
        });
        heap_.erase(kept, heap_.end());
        std::make_heap(heap_.begin(), heap_.end(), later);
        cancelledInHeap_.store(0, std::memory_order_relaxed);
    }

    void threadMain() noexcept {
        pthread_setname_np(pthread_self(), "mirels.timer");
        std::vector<TimerEntry*> due;
        for (;;) {
            std::uint64_t sleepUntil = 0;
            std::uint32_t sequence = 0;
            {
                UnfairLockGuard guard(lock_);
                const std::uint64_t now = MonotonicTimestamp::now().ticks;
                // Fire what must fire now and, to coalesce, whatever at the top is already past
                // its deadline, though it could still wait.
                while (!heap_.empty()) {
                    TimerEntry* top = heap_.front().entry;
                    const bool cancelled = top->state.load(std::memory_order_acquire) ==
                                           OneShotTimer::State::cancelled;
                    if (!cancelled && top->latest > now && top->deadline > now) break;
                    std::pop_heap(heap_.begin(), heap_.end(), later);
                    heap_.pop_back();
                    if (cancelled) {
                        cancelledInHeap_.fetch_sub(1, std::memory_order_relaxed);
                        release(top);
                    } else {
                        due.push_back(top);
                    }
                }
                nextWake_ = heap_.empty() ? noDeadline : heap_.front().latest;
                sleepUntil = heap_.empty() ? 0 : nextWake_;
                sequence = wakeSequence_.load(std::memory_order_relaxed);
            }
            if (!due.empty()) {
                for (TimerEntry* entry : due) fire(entry);
                due.clear();
                continue;
            }
            futexWait(wakeSequence_, sequence, sleepUntil);
        }
    }

    void fire(TimerEntry* entry) noexcept {
        auto expected = OneShotTimer::State::pending;
        if (entry->state.compare_exchange_strong(expected, OneShotTimer::State::fired,
                                                 std::memory_order_acq_rel)) {
            entry->run = &runFired;
            pool_.post(entry);  // the heap's reference passes to the job
        } else {
            release(entry);  // cancelled meanwhile
        }
    }

    static void runFired(PoolJob* job) noexcept {
        auto* entry = static_cast<TimerEntry*>(job);
        {
            CurrentQueueScope scope(entry->queueIdentifier);
            entry->callback();
            entry->callback = nullptr;
        }
        release(entry);
    }

    UnfairLock lock_;
    std::vector<HeapItem> heap_ MIRELS_GUARDED_BY(lock_);
    std::uint64_t nextWake_ MIRELS_GUARDED_BY(lock_) = noDeadline;  // when the thread will wake
    std::atomic<std::uint32_t> wakeSequence_{0};
    std::atomic<std::int64_t> cancelledInHeap_{0};  // an estimate that triggers purges
    WorkerPool& pool_;
    std::int64_t backgroundIdentifier_;
};

}  // namespace
}  // namespace detail

namespace {

std::uint64_t saturatingAdd(std::uint64_t base, std::int64_t period) noexcept {
    if (period <= 0) return base;
    const auto amount = static_cast<std::uint64_t>(period);
    return amount > detail::noDeadline - base ? detail::noDeadline - 1 : base + amount;
}

}  // namespace

OneShotTimer OneShotTimer::schedule(TimePeriod delay, TimePeriod leeway,
                                    UniqueFunction<void()> callback) {
    detail::TimerScheduler& scheduler = detail::TimerScheduler::shared();
    const std::uint64_t deadline =
        saturatingAdd(MonotonicTimestamp::now().ticks, delay.nanosecondCount);
    const std::uint64_t latest = saturatingAdd(deadline, leeway.nanosecondCount);
    auto* entry = new detail::TimerEntry(deadline, latest, scheduler.backgroundQueueIdentifier(),
                                         std::move(callback));
    scheduler.arm(entry);
    return OneShotTimer(entry);
}

OneShotTimer::OneShotTimer(const OneShotTimer& other) noexcept : entry_(other.entry_) {
    if (entry_ != nullptr) detail::retain(entry_);
}

OneShotTimer::OneShotTimer(OneShotTimer&& other) noexcept
    : entry_(std::exchange(other.entry_, nullptr)) {}

OneShotTimer& OneShotTimer::operator=(OneShotTimer other) noexcept {
    std::swap(entry_, other.entry_);
    return *this;
}

OneShotTimer::~OneShotTimer() {
    if (entry_ != nullptr) detail::release(entry_);
}

bool OneShotTimer::cancel() const noexcept {
    if (entry_ == nullptr) return false;
    auto expected = State::pending;
    if (!entry_->state.compare_exchange_strong(expected, State::cancelled,
                                               std::memory_order_acq_rel)) {
        return false;
    }
    entry_->callback = nullptr;  // releases what the callback captured, now rather than later
    detail::TimerScheduler::shared().noteCancelled();
    return true;
}

OneShotTimer::State OneShotTimer::state() const noexcept {
    if (entry_ == nullptr) return State::cancelled;
    return entry_->state.load(std::memory_order_acquire);
}

}  // namespace mirels
