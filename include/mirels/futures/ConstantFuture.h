#pragma once

// `ConstantFuture`: a future finished at construction with a fixed termination.

#include <memory>
#include <utility>
#include <vector>

#include "mirels/futures/Future.h"
#include "mirels/futures/detail/CommonValueTypes.h"

namespace mirels {

/// A future finished at construction with a fixed termination: what `Future<T>::completed`,
/// `succeeded`, `failed` and `unreachable` make. It holds nothing else and has no lock; its
/// observers are called at once, and canceling it does nothing.
template <class T>
class ConstantFuture final : public AbstractFuture<T> {
    struct Key {
        explicit Key() = default;
    };

  public:
    ConstantFuture(Key, FutureTermination<T> termination, Callsite callsite)
        : AbstractFuture<T>(std::move(termination), callsite) {}

    static Future<T> create(FutureTermination<T> termination,
                            Callsite callsite = Callsite::current()) {
        return Future<T>(
            makeSharedRecycled<ConstantFuture>(Key{}, std::move(termination), callsite));
    }

    void cancel(Callsite /*callsite*/) override {}
};

template <class T>
Future<T> Future<T>::constant(Termination termination, Callsite callsite) {
    return ConstantFuture<T>::create(std::move(termination), callsite);
}

// Compiled once in the library for the common value types (futures/detail/CommonValueTypes.h).
// NOLINTBEGIN(bugprone-macro-parentheses): a type argument cannot be parenthesised
#define MIRELS_DETAIL_DECLARE(T)                                   \
    extern template class MIRELS_EXPORT ConstantFuture<T>;         \
    extern template class MIRELS_EXPORT ConstantFuture<Result<T>>; \
    extern template class MIRELS_EXPORT ConstantFuture<std::vector<T>>;
MIRELS_DETAIL_FOR_EACH_COMMON_FUTURE_VALUE(MIRELS_DETAIL_DECLARE)
#undef MIRELS_DETAIL_DECLARE
// NOLINTEND(bugprone-macro-parentheses)

}  // namespace mirels
