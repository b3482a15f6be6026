#include "mirels/futures/detail/FutureCore.h"

#include <time.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace mirels::detail {

namespace {

/// The clock futures record their initialization and finish times with: the monotonic clock
/// at the kernel's tick resolution (CLOCK_MONOTONIC_COARSE, 1 to 4 ms). The same time base as
/// `MonotonicTimestamp::now()`, at a quarter of its cost; futures are made and finished far too
/// often for a precise reading, and running times worth looking at are longer than a tick.
MonotonicTimestamp futureClockNow() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return {static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000ULL +
            static_cast<std::uint64_t>(now.tv_nsec)};
}

/// Wakes a thread blocked in `waitUntilFinished`. Shared with the waiter: the finishing thread
/// may still hold the node after the waiter has returned.
struct WaiterState {
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
};

class WaiterNode final : public FutureObserverNode {
  public:
    explicit WaiterNode(std::shared_ptr<WaiterState> state) : state_(std::move(state)) {}
    ~WaiterNode() = default;
    WaiterNode(const WaiterNode&) = delete;
    WaiterNode& operator=(const WaiterNode&) = delete;

    void finished(const void* /*termination*/) noexcept override {
        const std::lock_guard guard(state_->mutex);
        state_->done = true;
        state_->finished.notify_one();
    }
    void release() noexcept override { delete this; }

  private:
    std::shared_ptr<WaiterState> state_;
};

}  // namespace

FutureCore::FutureCore(Callsite callsite) noexcept
    : initializationCallsite_(callsite), initializationTime_(futureClockNow()) {}

FutureCore::FutureCore(Callsite callsite, FinishedAtConstruction /*unused*/) noexcept
    : initializationCallsite_(callsite),
      initializationTime_(futureClockNow()),
      finishTime_(initializationTime_),
      state_(finishedState) {}

FutureCore::~FutureCore() {
    const std::uintptr_t state = state_.load(std::memory_order_acquire);
    if (state == finishedState) return;
    // Never finished: the observers are let go without a call.
    FutureObserverNode* node = nodeOf(state);
    while (node != nullptr) {
        FutureObserverNode* next = node->next_;
        node->release();
        node = next;
    }
}

void FutureCore::publishFinish(const void* termination) noexcept {
    finishTime_ = futureClockNow();
    const std::uintptr_t state = state_.exchange(finishedState, std::memory_order_acq_rel);
    FutureObserverNode* node = nodeOf(state);
    if (node != nullptr && node->next_ == nullptr) {
        // One observer, the common case.
        node->finished(termination);
        node->release();
        return;
    }
    // The list was pushed newest first: turn it round to call in registration order.
    node = nullptr;
    for (FutureObserverNode* pushed = nodeOf(state); pushed != nullptr;) {
        FutureObserverNode* next = pushed->next_;
        pushed->next_ = node;
        node = pushed;
        pushed = next;
    }
    for (FutureObserverNode* at = node; at != nullptr; at = at->next_) at->finished(termination);
    // What the observers hold (a reference to this very future, perhaps) goes last.
    while (node != nullptr) {
        FutureObserverNode* next = node->next_;
        node->release();
        node = next;
    }
}

void FutureCore::awaitFinished() const noexcept {
    while (!isFinished()) std::this_thread::yield();
}

void FutureCore::waitUntilFinished() {
    if (isFinished()) return;
    auto state = std::make_shared<WaiterState>();
    auto* node = new WaiterNode(state);
    if (!push(*node)) {
        node->release();
        return;
    }
    std::unique_lock lock(state->mutex);
    state->finished.wait(lock, [&] { return state->done; });
}

}  // namespace mirels::detail
