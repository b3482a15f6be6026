#include "mirels/futures/detail/FutureCallsites.h"

namespace mirels::detail {

// Each call site is made here, in the library's own image and source, so that reports and
// recorded call sites name one place per operation.
Callsite futureCallsite(FutureFunction function) noexcept {
    switch (function) {
        case FutureFunction::didFinish:
            return Callsite::library("didFinish(_:)");
        case FutureFunction::cancel:
            return Callsite::library("cancel(callsite:)");
        case FutureFunction::transition:
            return Callsite::library("transition(to:)");
        case FutureFunction::tryTransition:
            return Callsite::library("tryTransition(to:)");
        case FutureFunction::errorFuture:
            return Callsite::library("future()");
        case FutureFunction::then:
            return Callsite::library("then(callsite:on:transform:)");
        case FutureFunction::tryThen:
            return Callsite::library("tryThen(dsoHandle:file:line:column:function:on:transform:)");
        case FutureFunction::flatMap:
            return Callsite::library("flatMap(on:transform:)");
        case FutureFunction::flatMapFailure:
            return Callsite::library(
                "flatMapFailure(dsoHandle:file:line:column:function:on:resultCallback:)");
        case FutureFunction::firstCompleted:
            return Callsite::library("firstCompleted(_:)");
        case FutureFunction::timeoutFired:
            return Callsite::library("handleFire()");
        case FutureFunction::serialQueueEnqueue:
            return Callsite::library("enqueue(_:)");
        case FutureFunction::dequeueIfPossible:
            return Callsite::library("dequeueIfPossible()");
        case FutureFunction::cancelOperation:
            return Callsite::library("cancelOperation(with:)");
        case FutureFunction::cacheEntry:
            return Callsite::library("guaranteedValue(for:creatingIfNecessaryWith:)");
        case FutureFunction::coroutine:
            return Callsite::library("coroutine");
    }
    return Callsite::library("future");
}

}  // namespace mirels::detail
