// The library's copies of the futures of the common value types: the definitions that match the
// explicit instantiation declarations at the end of each futures header.

#include "mirels/futures/ConstantFuture.h"
#include "mirels/futures/FlatMapFuture.h"
#include "mirels/futures/Future.h"
#include "mirels/futures/FutureCoroutines.h"
#include "mirels/futures/FutureSerialQueue.h"
#include "mirels/futures/MapFuture.h"
#include "mirels/futures/PromiseFuture.h"
#include "mirels/futures/TimeoutFuture.h"
#include "mirels/futures/TraverseFuture.h"
#include "mirels/futures/UncancelableFuture.h"
#include "mirels/futures/detail/CommonValueTypes.h"

namespace mirels {

// The declarations in the headers carry the export attribute; it cannot be repeated here.

// NOLINTBEGIN(bugprone-macro-parentheses): a type argument cannot be parenthesised
#define MIRELS_DETAIL_DEFINE(T)                    \
    template class AbstractFuture<T>;              \
    template class AbstractFuture<Result<T>>;      \
    template class AbstractFuture<std::vector<T>>; \
    template class Future<T>;                      \
    template class Future<Result<T>>;              \
    template class Future<std::vector<T>>;         \
    template class ConstantFuture<T>;              \
    template class ConstantFuture<Result<T>>;      \
    template class ConstantFuture<std::vector<T>>; \
    template class PromiseFuture<T>;               \
    template class Promise<T>;                     \
    template class UncancelableFuture<T>;          \
    template class TimeoutFuture<T>;               \
    template class TraverseFuture<T>;              \
    template class FutureSerialQueue<T>;
MIRELS_DETAIL_FOR_EACH_COMMON_FUTURE_VALUE(MIRELS_DETAIL_DEFINE)
#undef MIRELS_DETAIL_DEFINE
// NOLINTEND(bugprone-macro-parentheses)

}  // namespace mirels
