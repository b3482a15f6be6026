#pragma once

// `ThreadGuard`: a box for state owned by one thread (or one serial context) that is never locked.

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <type_traits>
#include <utility>

#include "mirels/core/Assertions.h"
#include "mirels/core/FatalError.h"
#include "mirels/core/SynchronousAccessProviding.h"
#include "mirels/execution/ExecutionExclusivity.h"
#include "mirels/execution/Thread.h"

namespace mirels {

/// A box for state owned by one thread (or one serial context) that is never locked. Instead,
/// every access asks the tracker what the calling thread may do and reports misuse as a
/// soft-assertion failure: reading without at least shared access, writing without exclusive
/// access, and re-entrant use (a read inside a write, a write inside a read or write), which the
/// `readers` and `writers` counters catch. The guard never blocks and never refuses: after the
/// reports, the access happens.
template <class Value>
class ThreadGuard final : public SynchronousAccessProviding<ThreadGuard<Value>, Value>,
                          public UnsafeSynchronousAccessProviding<ThreadGuard<Value>, Value> {
  public:
    using ValueType = Value;

    ThreadGuard(Value value, std::shared_ptr<const ExecutionExclusivityTracking> tracker)
        : value_(std::move(value)), tracker_(std::move(tracker)) {}

    /// A guard that grants access only on `thread` (the calling thread by default).
    static ThreadGuard requiringAccessOnThread(Value value,
                                               std::shared_ptr<const Thread> thread = nullptr) {
        if (!thread) thread = Thread::current();
        return ThreadGuard(std::move(value), std::move(thread));
    }

    ThreadGuard(ThreadGuard&& other) noexcept(std::is_nothrow_move_constructible_v<Value>)
        : value_(std::move(other.value_)), tracker_(std::move(other.tracker_)) {}
    ThreadGuard(const ThreadGuard&) = delete;
    ThreadGuard& operator=(const ThreadGuard&) = delete;

    template <class F>
        requires std::is_invocable_v<F&&, const Value&>
    std::invoke_result_t<F&&, const Value&> syncRead(
        F&& body, Callsite callsite = Callsite::current()) const {
        if (tracker_->currentExecutionExclusivity() == ExecutionExclusivity::none) {
            detail::reportSoftAssertionFailure(callsite);
        }
        if (load(writers_) != 0) detail::reportSoftAssertionFailure(callsite);
        Count scope(readers_);
        return std::invoke(std::forward<F>(body), std::as_const(value_));
    }

    template <class F>
        requires std::is_invocable_v<F&&, Value&>
    std::invoke_result_t<F&&, Value&> syncWrite(F&& body, Callsite callsite = Callsite::current()) {
        if (tracker_->currentExecutionExclusivity() != ExecutionExclusivity::exclusive) {
            detail::reportSoftAssertionFailure(callsite);
        }
        if (load(writers_) != 0) detail::reportSoftAssertionFailure(callsite);
        if (load(readers_) != 0) detail::reportSoftAssertionFailure(callsite);
        Count scope(writers_);
        return std::invoke(std::forward<F>(body), value_);
    }

    std::intptr_t readers() const noexcept { return load(readers_); }
    std::intptr_t writers() const noexcept { return load(writers_); }

  private:
    friend class UnsafeSynchronousAccessProviding<ThreadGuard<Value>, Value>;

    // The counters are only meaningful on the owning thread, but misuse from another thread is
    // exactly what the guard exists to catch, so they are relaxed atomics: a racing caller gets a
    // report, never undefined behaviour. Relaxed load and store compile to plain moves.
    using Counter = std::atomic<std::intptr_t>;

    static std::intptr_t load(const Counter& counter) noexcept {
        return counter.load(std::memory_order_relaxed);
    }

    /// Counts one running closure for its scope, also when the closure throws.
    class Count {
      public:
        explicit Count(Counter& counter) : counter_(counter) {
            std::intptr_t value = load(counter_);
            if (value == std::numeric_limits<std::intptr_t>::max()) {
                fatalError("ThreadGuard access counter overflow");
            }
            counter_.store(value + 1, std::memory_order_relaxed);
        }
        ~Count() {
            std::intptr_t value = load(counter_);
            if (value == 0) fatalError("ThreadGuard access counter underflow");
            counter_.store(value - 1, std::memory_order_relaxed);
        }
        Count(const Count&) = delete;
        Count& operator=(const Count&) = delete;

      private:
        Counter& counter_;
    };

    Value value_;
    mutable Counter readers_{0};
    mutable Counter writers_{0};
    std::shared_ptr<const ExecutionExclusivityTracking> tracker_;
};

}  // namespace mirels
