#include "mirels/core/AutoCancelling.h"

#include <utility>
#include <vector>

namespace mirels {

namespace {
void cancelAll(CancellationTokenSet& tokens) {
    // Take the tokens out first, so that an action which adds to or reads the holder sees it
    // empty rather than half-cancelled.
    CancellationTokenSet taken = std::exchange(tokens, {});
    for (const auto& token : taken) token->cancel();
}
}  // namespace

AutoCancelling::AutoCancelling() : tokens_(std::make_shared<CancellationTokenSet>()) {}

AutoCancelling::~AutoCancelling() {
    cancelAll(*tokens_);
}

std::shared_ptr<CancellationToken> AutoCancelling::projectedValue() {
    return CancellationToken::create(
        [weakTokens = std::weak_ptr<CancellationTokenSet>(tokens_)] {
            if (auto tokens = weakTokens.lock()) cancelAll(*tokens);
        },
        Callsite::library("projectedValue"));
}

}  // namespace mirels
