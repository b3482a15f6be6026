#include "mirels/events/EventStreamOperators.h"

#include <memory>
#include <utility>

namespace mirels::detail {

void switchToLatestAdopt(ThreadSafe<SwitchToLatestState>& state,
                         std::shared_ptr<CancellationToken> token) {
    // Swap under the lock; cancel outside it, so that no other lock is taken while ours is held.
    std::shared_ptr<CancellationToken> toCancel = state.syncWrite(
        [&](SwitchToLatestState& s) {
            if (s.isCancelled) return std::move(token);
            return std::exchange(s.token, std::move(token));
        },
        Callsite::library("switchToLatest()"));
    if (toCancel != nullptr) toCancel->cancel();
}

void switchToLatestCancel(ThreadSafe<SwitchToLatestState>& state) {
    std::shared_ptr<CancellationToken> current = state.syncWrite(
        [](SwitchToLatestState& s) {
            s.isCancelled = true;
            return std::exchange(s.token, nullptr);
        },
        Callsite::library("switchToLatest()"));
    if (current != nullptr) current->cancel();
}

}  // namespace mirels::detail
