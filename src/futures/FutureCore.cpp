#include "mirels/futures/detail/FutureCore.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace mirels::detail {

namespace {

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

void FutureCore::releaseUnfinished(std::uintptr_t state) noexcept {
    // Never finished: the observers are let go without a call.
    FutureObserverNode* node = nodeOf(state);
    while (node != nullptr) {
        FutureObserverNode* next = node->next_;
        node->release();
        node = next;
    }
}

void FutureCore::runObservers(FutureObserverNode* newest, const void* termination) noexcept {
    // The list was pushed newest first: turn it round to call in registration order.
    FutureObserverNode* node = nullptr;
    for (FutureObserverNode* pushed = newest; pushed != nullptr;) {
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
