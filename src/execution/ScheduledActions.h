#pragma once

// The pending-action heap shared by the schedulers: actions ordered by deadline, then by the
// order they were scheduled, each living in one allocation with the token that cancels it.

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "mirels/core/CancellationToken.h"
#include "mirels/core/UniqueFunction.h"

namespace mirels::detail {

// A scheduled action and its state. Whoever moves the state away from `pending` owns the
// action: the canceller destroys it, the runner runs it.
struct ScheduledAction {
    enum State : std::uint8_t { pending, claimed, cancelled };

    explicit ScheduledAction(UniqueFunction<void()> body) noexcept : action(std::move(body)) {}

    // Called by the token.
    void didCancel() noexcept {
        std::uint8_t expected = pending;
        if (state.compare_exchange_strong(expected, cancelled, std::memory_order_acq_rel)) {
            action = nullptr;  // release the captures now, not when the heap lets go
        }
    }

    bool claim() noexcept {
        std::uint8_t expected = pending;
        return state.compare_exchange_strong(expected, claimed, std::memory_order_acq_rel);
    }

    bool isCancelled() const noexcept { return state.load(std::memory_order_acquire) == cancelled; }

    // Destroys the action unrun, unless it was run or cancelled already: for a scheduler that
    // goes away. A later cancel of the token then does nothing.
    void discard() noexcept {
        if (claim()) action = nullptr;
    }

    // Runs the action once claimed, then drops it.
    void run() noexcept {
        action();
        action = nullptr;
    }

    std::atomic<std::uint8_t> state{pending};
    UniqueFunction<void()> action;
};

using ScheduledActionBlock = CancellationTokenWithPayload<ScheduledAction>;

inline std::shared_ptr<ScheduledActionBlock> makeScheduledAction(UniqueFunction<void()>&& action,
                                                                 Callsite callsite) {
    return std::make_shared<ScheduledActionBlock>(callsite, std::move(action));
}

inline std::shared_ptr<CancellationToken> tokenOf(
    const std::shared_ptr<ScheduledActionBlock>& block) {
    return {block, &block->token};
}

struct ScheduledItem {
    std::uint64_t deadline;
    std::uint64_t sequence;
    std::int64_t leeway;
    std::shared_ptr<ScheduledActionBlock> block;
};

// Not synchronised: its owner keeps it under its lock. Cancelled items stay until they reach
// the top or until a sweep, which runs whenever the heap has doubled since the last one, so
// the heap stays within a constant factor of the pending actions at amortised O(1) per push.
class ScheduledActionHeap {
  public:
    void push(std::uint64_t deadline, std::int64_t leeway,
              std::shared_ptr<ScheduledActionBlock> block) {
        if (items_.size() >= sweepAt_) sweep();
        items_.push_back({deadline, nextSequence_++, leeway, std::move(block)});
        std::push_heap(items_.begin(), items_.end(), later);
    }

    // The earliest pending item, after dropping cancelled ones from the top; null when none.
    const ScheduledItem* top() {
        while (!items_.empty() && items_.front().block->payload.isCancelled()) popTop();
        return items_.empty() ? nullptr : &items_.front();
    }

    // Removes and returns the earliest pending item if its deadline is at most `limit`.
    std::optional<ScheduledItem> popDue(std::uint64_t limit) {
        const ScheduledItem* first = top();
        if (first == nullptr || first->deadline > limit) return std::nullopt;
        return popTop();
    }

    std::size_t pendingCount() const noexcept {
        return static_cast<std::size_t>(std::count_if(
            items_.begin(), items_.end(),
            [](const ScheduledItem& item) { return !item.block->payload.isCancelled(); }));
    }

    // Hands every item over; call `discardAll` on them outside the owner's lock.
    std::vector<ScheduledItem> takeAll() noexcept { return std::exchange(items_, {}); }

  private:
    static bool later(const ScheduledItem& a, const ScheduledItem& b) noexcept {
        return a.deadline != b.deadline ? a.deadline > b.deadline : a.sequence > b.sequence;
    }

    ScheduledItem popTop() {
        std::pop_heap(items_.begin(), items_.end(), later);
        ScheduledItem item = std::move(items_.back());
        items_.pop_back();
        return item;
    }

    // Dropping a cancelled item runs no caller code: its action was destroyed by the cancel.
    void sweep() {
        std::erase_if(items_,
                      [](const ScheduledItem& item) { return item.block->payload.isCancelled(); });
        std::make_heap(items_.begin(), items_.end(), later);
        sweepAt_ = std::max<std::size_t>(minimumSweepSize, items_.size() * 2);
    }

    static constexpr std::size_t minimumSweepSize = 8;

    std::vector<ScheduledItem> items_;
    std::uint64_t nextSequence_ = 0;
    std::size_t sweepAt_ = minimumSweepSize;
};

// Destroys the actions of items that never ran (their tokens may outlive the scheduler).
inline void discardAll(std::vector<ScheduledItem>& items) noexcept {
    for (ScheduledItem& item : items) item.block->payload.discard();
    items.clear();
}

}  // namespace mirels::detail
