#pragma once

// `MainQueue`: the process's main queue.

#include <cstddef>

#include "mirels/Export.h"
#include "mirels/core/Callsite.h"
#include "mirels/core/TimePeriod.h"
#include "mirels/core/UniqueFunction.h"

namespace mirels {

/// The process's main queue: one serial queue whose callbacks run only on the main thread (the
/// thread whose id is the process id), in submission order. The library has no main loop of its
/// own: the application drains the queue from its main thread, either now and then with
/// `drain()` (from its own event loop) or by parking the main thread in `run()` or `runUntil()`.
///
/// `ExecutionLane::main()` submits here when it is used off the main thread.
///
/// - `async` may be called from any thread.
/// - `drain`, `runUntil` and `run` may be called only on the main thread; calling them on any
///   other thread is a programming error that stops the process. They may be nested (a main-queue
///   callback may drain the queue further); callbacks still run in submission order.
/// - `stop` may be called from any thread.
///
/// Callbacks must not throw: an exception escaping a callback ends the process.
class MIRELS_EXPORT MainQueue {
  public:
    MainQueue() = delete;

    /// Submits `work` to run on the main thread, at the next drain. Never runs it inline, even
    /// on the main thread. Wakes the main thread if it is waiting in `run` or `runUntil`.
    static void async(UniqueFunction<void()> work);

    /// Runs the callbacks that are pending at the moment of the call, in order, and returns how
    /// many ran. Callbacks submitted while it runs wait for the next drain, so a callback that
    /// resubmits itself cannot keep `drain` from returning. Never blocks.
    static std::size_t drain(Callsite callsite = Callsite::current());

    /// Runs callbacks as they arrive, sleeping while the queue is empty, until `predicate`
    /// returns true or `timeout` has passed, whichever comes first. The predicate is checked on
    /// entry and after every callback. Returns the predicate's last answer: true when it was
    /// met, false on time-out. Returns early, with the predicate's answer, when `stop()` is
    /// called.
    static bool runUntil(UniqueFunction<bool()> predicate, TimePeriod timeout,
                         Callsite callsite = Callsite::current());

    /// Runs callbacks as they arrive, sleeping while the queue is empty, until `stop()` is
    /// called.
    static void run(Callsite callsite = Callsite::current());

    /// Makes the innermost `run` (or `runUntil`) return after the callback it is running. A stop
    /// requested while no loop runs makes the next `run` or `runUntil` return before it runs
    /// anything. `drain` ignores stop requests.
    static void stop();

    /// How many callbacks are waiting (a snapshot, for diagnostics and tests).
    static std::size_t pendingCount();
};

}  // namespace mirels
