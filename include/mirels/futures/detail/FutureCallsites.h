#pragma once

// `FutureFunction` and `futureCallsite()` (internal): the fixed call sites futures record as the
// library's own.

#include "mirels/Export.h"
#include "mirels/core/Callsite.h"

namespace mirels::detail {

/// The fixed call sites that futures record or report as the library's own: the library's
/// source position (and image) with the function text of the operation that acts.
enum class FutureFunction {
    didFinish,           // "didFinish(_:)"
    cancel,              // "cancel(callsite:)"
    transition,          // "transition(to:)"
    tryTransition,       // "tryTransition(to:)"
    errorFuture,         // "future()"
    then,                // "then(callsite:on:transform:)"
    tryThen,             // "tryThen(dsoHandle:file:line:column:function:on:transform:)"
    flatMap,             // "flatMap(on:transform:)"
    flatMapFailure,      // "flatMapFailure(dsoHandle:file:line:column:function:on:resultCallback:)"
    firstCompleted,      // "firstCompleted(_:)"
    timeoutFired,        // "handleFire()"
    serialQueueEnqueue,  // "enqueue(_:)"
    dequeueIfPossible,   // "dequeueIfPossible()"
    cancelOperation,     // "cancelOperation(with:)"
    cacheEntry,          // "guaranteedValue(for:creatingIfNecessaryWith:)"
    coroutine,           // "coroutine"
};

/// The library's call site for `function`.
MIRELS_EXPORT Callsite futureCallsite(FutureFunction function) noexcept;

}  // namespace mirels::detail
