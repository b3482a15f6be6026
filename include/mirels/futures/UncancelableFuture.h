#pragma once

// `UncancelableFuture`: a future that shields another from cancellation.

#include <memory>

#include "mirels/futures/ConstantFuture.h"
#include "mirels/futures/Future.h"
#include "mirels/futures/detail/CommonValueTypes.h"

namespace mirels {

/// A future that shields another from cancellation: it finishes as the shielded future does
/// (including a cancellation that reaches the shielded future from elsewhere), and its own
/// `cancel` does nothing, so a cancel never travels upstream from it.
template <class T>
class UncancelableFuture final : public AbstractFuture<T> {
    struct Key {
        explicit Key() = default;
    };

  public:
    UncancelableFuture(Key, Callsite callsite) : AbstractFuture<T>(callsite) {}

    static Future<T> create(const Future<T>& shielded, Callsite callsite = Callsite::current()) {
        if (const FutureTermination<T>* termination = shielded.terminationIfFinished()) {
            return ConstantFuture<T>::create(*termination, callsite);
        }
        auto self = makeSharedRecycled<UncancelableFuture>(Key{}, callsite);
        shielded.object()->observeFinish(
            [self](const FutureTermination<T>& termination) { self->didFinish(termination); });
        return Future<T>(std::move(self));
    }

    void cancel(Callsite /*callsite*/) override {}
};

template <class T>
Future<T> Future<T>::uncancelable(Callsite callsite) const {
    return UncancelableFuture<T>::create(*this, callsite);
}

// Compiled once in the library for the common value types (futures/detail/CommonValueTypes.h).
// NOLINTBEGIN(bugprone-macro-parentheses): a type argument cannot be parenthesised
#define MIRELS_DETAIL_DECLARE(T) extern template class MIRELS_EXPORT UncancelableFuture<T>;
MIRELS_DETAIL_FOR_EACH_COMMON_FUTURE_VALUE(MIRELS_DETAIL_DECLARE)
#undef MIRELS_DETAIL_DECLARE
// NOLINTEND(bugprone-macro-parentheses)

}  // namespace mirels
