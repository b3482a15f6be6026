#include "mirels/execution/StepScheduler.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "ScheduledActions.h"

namespace mirels {

struct StepScheduler::State {
    std::uint64_t now = 0;
    detail::ScheduledActionHeap heap;
};

StepScheduler::StepScheduler(Key, MonotonicTimestamp start)
    : state_(std::make_unique<ThreadSafe<State>>()) {
    state_->syncWrite([&](State& s) { s.now = start.ticks; });
}

StepScheduler::~StepScheduler() {
    // Pending actions are destroyed without running, outside the lock.
    std::vector<detail::ScheduledItem> items =
        state_->syncWrite([](State& s) { return s.heap.takeAll(); });
    detail::discardAll(items);
}

std::shared_ptr<StepScheduler> StepScheduler::create(MonotonicTimestamp start) {
    return std::make_shared<StepScheduler>(Key{}, start);
}

MonotonicTimestamp StepScheduler::now() const noexcept {
    return {state_->syncRead([](const State& s) { return s.now; })};
}

std::shared_ptr<CancellationToken> StepScheduler::scheduleAction(MonotonicTimestamp deadline,
                                                                 TimePeriod /*leeway*/,
                                                                 Action&& action,
                                                                 Callsite callsite) {
    std::shared_ptr<detail::ScheduledActionBlock> block =
        detail::makeScheduledAction(std::move(action), callsite);
    std::shared_ptr<CancellationToken> token = detail::tokenOf(block);
    state_->syncWrite([&](State& s) { s.heap.push(deadline.ticks, 0, std::move(block)); });
    return token;
}

// Takes the earliest pending action due at `*limit` (any pending action when null), moves the
// clock to its deadline and runs it outside the lock. Returns false when there was none.
bool StepScheduler::runOneDue(const std::uint64_t* limit) {
    for (;;) {
        std::optional<detail::ScheduledItem> item = state_->syncWrite([&](State& s) {
            std::optional<detail::ScheduledItem> next =
                s.heap.popDue(limit != nullptr ? *limit : UINT64_MAX);
            if (next) s.now = std::max(s.now, next->deadline);
            return next;
        });
        if (!item) return false;
        // Lost to a cancel between the pop and here: look for the next one.
        if (!item->block->payload.claim()) continue;
        item->block->payload.run();
        return true;
    }
}

std::size_t StepScheduler::advance(TimePeriod period) {
    return advanceTo(deadlineAfter(now(), period));
}

std::size_t StepScheduler::advanceTo(MonotonicTimestamp time) {
    std::size_t ran = 0;
    while (runOneDue(&time.ticks)) ++ran;
    state_->syncWrite([&](State& s) { s.now = std::max(s.now, time.ticks); });
    return ran;
}

bool StepScheduler::runNext() {
    return runOneDue(nullptr);
}

std::size_t StepScheduler::runUntilIdle() {
    std::size_t ran = 0;
    while (runOneDue(nullptr)) ++ran;
    return ran;
}

std::size_t StepScheduler::pendingCount() const {
    return state_->syncRead([](const State& s) { return s.heap.pendingCount(); });
}

std::optional<MonotonicTimestamp> StepScheduler::nextDeadline() const {
    return state_->syncWrite([](State& s) -> std::optional<MonotonicTimestamp> {
        const detail::ScheduledItem* first = s.heap.top();
        if (first == nullptr) return std::nullopt;
        return MonotonicTimestamp{first->deadline};
    });
}

}  // namespace mirels
