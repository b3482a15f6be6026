#pragma once

// `SynchronousAccessProviding`: the convenience operations every synchronously accessed box offers,
// written once over the box's own `syncRead` and `syncWrite` (a mixin. Also
// `SynchronousAccessProvider`, `UnsafeSynchronousAccessProviding`.

#include <concepts>
#include <type_traits>
#include <utility>

#include "mirels/core/Callsite.h"
#include "mirels/core/Invoke.h"
#include "mirels/core/ThreadSafetyAnnotations.h"

namespace mirels {

/// A box that lets callers read or change its value only inside a closure it runs with exclusive
/// (or checked) access: `ThreadSafe` and `ThreadGuard`.
template <class Box>
concept SynchronousAccessProvider = requires(Box& box, const Box& constBox) {
    typename Box::ValueType;
    constBox.syncRead([](const typename Box::ValueType&) {});
    box.syncWrite([](typename Box::ValueType&) {});
};

/// The convenience operations every synchronously accessed box offers, written once over the
/// box's own `syncRead` and `syncWrite` (a mixin: `Derived` is the box).
template <class Derived, class Value>
class SynchronousAccessProviding {
  public:
    /// A copy of the value, read under the box's protection.
    Value peek(Callsite callsite = Callsite::current()) const {
        return self().syncRead([](const Value& value) { return value; }, callsite);
    }

    /// Replaces the value and returns the one it held before, in one protected step.
    Value syncUpdate(Value newValue, Callsite callsite = Callsite::current()) {
        return self().syncWrite(
            [&](Value& value) { return std::exchange(value, std::move(newValue)); }, callsite);
    }

    /// Writes `newValue` into the member `member` of the value, in one protected step. Reported
    /// under the library's own call site for this operation, not the caller's.
    template <class MemberPointer, class NewValue>
        requires std::is_member_object_pointer_v<MemberPointer> &&
                 std::is_assignable_v<std::invoke_result_t<MemberPointer, Value&>, NewValue&&>
    void syncSetValue(MemberPointer member, NewValue&& newValue) {
        self().syncWrite(
            [&](Value& value) { detail::invoke(member, value) = std::forward<NewValue>(newValue); },
            Callsite::library("syncSetValue(at:to:)"));
    }

  protected:
    SynchronousAccessProviding() = default;
    ~SynchronousAccessProviding() = default;

  private:
    const Derived& self() const { return static_cast<const Derived&>(*this); }
    Derived& self() { return static_cast<Derived&>(*this); }
};

/// The unprotected counterparts, for callers that already hold the box's lock or know that the
/// box is not shared. The box declares this mixin a friend and keeps its value in `value_`.
template <class Derived, class Value>
class UnsafeSynchronousAccessProviding {
  public:
    /// Runs `body` with read access to the value, without locking or checking.
    template <class F>
        requires std::is_invocable_v<F&&, const Value&>
    std::invoke_result_t<F&&, const Value&> unsafeRead(
        F&& body, [[maybe_unused]] Callsite callsite = Callsite::current()) const
        // Unchecked on purpose: the caller vouches for the lock.
        MIRELS_NO_THREAD_SAFETY_ANALYSIS {
        return detail::invoke(std::forward<F>(body),
                              std::as_const(static_cast<const Derived&>(*this).value_));
    }

    /// Runs `body` with mutable access to the value, without locking or checking.
    template <class F>
        requires std::is_invocable_v<F&&, Value&>
    std::invoke_result_t<F&&, Value&> unsafeWrite(
        F&& body,
        [[maybe_unused]] Callsite callsite = Callsite::current()) MIRELS_NO_THREAD_SAFETY_ANALYSIS {
        return detail::invoke(std::forward<F>(body), static_cast<Derived&>(*this).value_);
    }

    Value unsafePeek(Callsite callsite = Callsite::current()) const {
        return unsafeRead([](const Value& value) { return value; }, callsite);
    }

  protected:
    UnsafeSynchronousAccessProviding() = default;
    ~UnsafeSynchronousAccessProviding() = default;
};

}  // namespace mirels
