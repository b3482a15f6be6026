#pragma once

// `ThreadSafe`: a value that is read or changed only inside closures run under the box's own
// `UnfairLock`.
//
// Example:
//
//     ThreadSafe<std::vector<int>> seen;
//     seen.syncWrite([](std::vector<int>& values) { values.push_back(1); });  // under the lock
//     std::size_t count = seen.syncRead([](const std::vector<int>& v) { return v.size(); });
//     std::vector<int> copy = seen.peek();

#include <memory>
#include <type_traits>
#include <utility>

#include "mirels/core/Callsite.h"
#include "mirels/core/Invoke.h"
#include "mirels/core/SynchronousAccessProviding.h"
#include "mirels/core/UnfairLock.h"

namespace mirels {

/// A value that is read or changed only inside closures run under the box's own `UnfairLock`.
///
/// This is where all shared mutable state of the library lives. The closures run with the lock
/// held, so they must be short, must not block on other threads, and must not call back into the
/// same box (the lock is not recursive). The lock is released also when a closure throws; changes
/// made before the throw stay.
///
/// A `ThreadSafe` is neither copyable nor movable: objects embed it as a member (the object is
/// then the shared reference), and `create` makes a stand-alone shared box.
template <class Value>
class ThreadSafe final : public SynchronousAccessProviding<ThreadSafe<Value>, Value>,
                         public UnsafeSynchronousAccessProviding<ThreadSafe<Value>, Value> {
  public:
    using ValueType = Value;

    ThreadSafe()
        requires std::is_default_constructible_v<Value>
        : value_() {}

    template <class... Args>
        requires std::is_constructible_v<Value, Args&&...>
    explicit ThreadSafe(std::in_place_t, Args&&... args) : value_(std::forward<Args>(args)...) {}

    explicit ThreadSafe(Value value) : value_(std::move(value)) {}

    ThreadSafe(const ThreadSafe&) = delete;
    ThreadSafe& operator=(const ThreadSafe&) = delete;

    [[nodiscard]] static std::shared_ptr<ThreadSafe> create(Value value) {
        return std::make_shared<ThreadSafe>(std::move(value));
    }

    /// Runs `body` with read access to the value under the lock and returns what it returns. The
    /// value is lent, not copied: the lock keeps it from changing while `body` runs.
    template <class F>
        requires std::is_invocable_v<F&&, const Value&>
    std::invoke_result_t<F&&, const Value&> syncRead(
        F&& body, [[maybe_unused]] Callsite callsite = Callsite::current()) const {
        UnfairLockGuard guard(lock_);
        return detail::invoke(std::forward<F>(body), std::as_const(value_));
    }

    /// Runs `body` with mutable access to the value in place under the lock.
    template <class F>
        requires std::is_invocable_v<F&&, Value&>
    std::invoke_result_t<F&&, Value&> syncWrite(
        F&& body, [[maybe_unused]] Callsite callsite = Callsite::current()) {
        UnfairLockGuard guard(lock_);
        return detail::invoke(std::forward<F>(body), value_);
    }

  private:
    friend class UnsafeSynchronousAccessProviding<ThreadSafe<Value>, Value>;

    mutable UnfairLock lock_;
    Value value_ MIRELS_GUARDED_BY(lock_);
};

}  // namespace mirels
