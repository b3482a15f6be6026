#include "mirels/core/CancellationToken.h"

#include "mirels/core/Assertions.h"

namespace mirels {

std::shared_ptr<CancellationToken> CancellationToken::create(Action didCancel, Callsite callsite) {
    return std::make_shared<CancellationToken>(Key{}, std::move(didCancel), callsite);
}

CancellationToken::CancellationToken(Key, Action didCancel, Callsite callsite) noexcept
    : didCancel_(std::move(didCancel)), initializationCallsite_(callsite) {}

CancellationToken::~CancellationToken() {
    if (!cancelled_.load(std::memory_order_acquire)) {
        detail::reportSoftAssertionFailure(Callsite::library("deinit"));
    }
}

void CancellationToken::cancel() {
    if (cancelled_.exchange(true, std::memory_order_acq_rel)) {
        detail::reportSoftAssertionFailure(Callsite::library("cancel()"));
    }
    if (didCancel_) didCancel_();
}

void store(std::shared_ptr<CancellationToken> token, CancellationTokenSet& tokens) {
    tokens.insert(Ref<CancellationToken>(std::move(token)));
}

}  // namespace mirels
