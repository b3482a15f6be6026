#pragma once

#include "mirels/Export.h"

// Soft assertions: checks that never stop the process. A failed check reports one analytics
// event (identifier suffix "softAssert", one field "file" = "file-name:line:column" of the call
// site) and the caller carries on with the fallback result. The check is made first and costs no
// more than the comparison itself; only a failure builds a report. None of them throws.

#include <any>
#include <concepts>
#include <cstddef>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "mirels/core/Callsite.h"

namespace mirels {

/// Receives every failed soft assertion. Called on the failing thread; must not throw.
using SoftAssertionReporter = void (*)(const Callsite& callsite) noexcept;

/// Installs `reporter` process-wide and returns the one it replaces. The analytics layer installs
/// the reporter that logs the "softAssert" event while the library loads, before `main`; with no
/// reporter (null), a failure is written to standard error as
/// "soft assertion failed at <file-name:line:column>". Tests may install their own.
MIRELS_EXPORT SoftAssertionReporter
setSoftAssertionReporter(SoftAssertionReporter reporter) noexcept;

namespace detail {

/// The one reporting step every failed soft assertion shares.
MIRELS_EXPORT void reportSoftAssertionFailure(const Callsite& callsite) noexcept;

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};

/// Things that can be absent: optionals, raw and smart pointers, nullptr.
template <class T>
concept Nullable =
    IsOptional<std::remove_cvref_t<T>>::value || std::is_pointer_v<std::remove_cvref_t<T>> ||
    std::is_null_pointer_v<std::remove_cvref_t<T>> || requires(const T& value) {
        { value == nullptr } -> std::convertible_to<bool>;
    };

template <Nullable T>
constexpr bool isAbsent(const T& value) noexcept {
    if constexpr (IsOptional<std::remove_cvref_t<T>>::value) {
        return !value.has_value();
    } else {
        return value == nullptr;
    }
}

/// The address that identifies an object reference (raw or smart pointer), or null.
template <class T>
const void* identityOf(const T& reference) noexcept {
    if constexpr (std::is_null_pointer_v<T>) {
        return nullptr;
    } else if constexpr (std::is_pointer_v<T>) {
        return static_cast<const void*>(reference);
    } else {
        return static_cast<const void*>(reference.get());
    }
}

template <class F>
decltype(auto) evaluate(F&& valueOrThunk) {
    if constexpr (std::is_invocable_v<F&&>) {
        return std::forward<F>(valueOrThunk)();
    } else {
        return std::forward<F>(valueOrThunk);
    }
}

}  // namespace detail

/// A predicate type: for a value of `Value` it gives a proof, or nothing when the predicate does
/// not hold.
template <class P>
concept Predicate = requires(const typename P::Value& value) {
    typename P::Proof;
    { P::proof(value) } -> std::same_as<std::optional<typename P::Proof>>;
};

/// A predicated wrapper type: it can be made from a `Value` exactly when its predicate holds.
template <class W>
concept PredicatedWrapper = requires(typename W::Value value) {
    { W::wrapping(std::move(value)) } -> std::same_as<std::optional<W>>;
};

/// The value is present; the proof is the unwrapped value.
template <class T>
struct IsSome {
    using Value = std::optional<T>;
    using Proof = T;
    static std::optional<T> proof(const Value& value) { return value; }
};

/// A type-erased value holds a `T`; the proof is the `T`.
template <class T>
struct IsCastableTo {
    using Value = std::any;
    using Proof = T;
    static std::optional<T> proof(const std::any& value) {
        if (const T* cast = std::any_cast<T>(&value)) return *cast;
        return std::nullopt;
    }
};

/// `condition` (a bool, or a callable evaluated once) is true.
template <class Condition>
    requires std::convertible_to<Condition, bool> || std::is_invocable_r_v<bool, Condition&&>
bool assertTrue(Condition&& condition, Callsite callsite = Callsite::current()) {
    if (static_cast<bool>(detail::evaluate(std::forward<Condition>(condition)))) [[likely]] {
        return true;
    }
    detail::reportSoftAssertionFailure(callsite);
    return false;
}

// NOLINTBEGIN(bugprone-macro-parentheses): `label` names a parameter, it is no expression
#define MIRELS_DEFINE_COMPARISON_ASSERTION(name, label, op)                          \
    template <class A, class B>                                                      \
        requires requires(const A& a, const B& b) {                                  \
            { a op b } -> std::convertible_to<bool>;                                 \
        }                                                                            \
    bool name(const A& a, const B& label, Callsite callsite = Callsite::current()) { \
        if (static_cast<bool>(a op label)) [[likely]] {                              \
            return true;                                                             \
        }                                                                            \
        detail::reportSoftAssertionFailure(callsite);                                \
        return false;                                                                \
    }

MIRELS_DEFINE_COMPARISON_ASSERTION(assertEqual, to, ==)
MIRELS_DEFINE_COMPARISON_ASSERTION(assertLess, than, <)
MIRELS_DEFINE_COMPARISON_ASSERTION(assertLessOrEqual, to, <=)
MIRELS_DEFINE_COMPARISON_ASSERTION(assertGreater, than, >)
MIRELS_DEFINE_COMPARISON_ASSERTION(assertGreaterOrEqual, to, >=)
#undef MIRELS_DEFINE_COMPARISON_ASSERTION
// NOLINTEND(bugprone-macro-parentheses)

/// Two object references (raw or smart pointers, or nullptr) are the same object, or both
/// absent. Objects with equal contents but different identities fail.
template <class A, class B>
    requires(std::is_pointer_v<A> || std::is_null_pointer_v<A> ||
             requires(const A& a) { a.get(); }) &&
            (std::is_pointer_v<B> || std::is_null_pointer_v<B> || requires(const B& b) { b.get(); })
bool assertIdentical(const A& a, const B& to, Callsite callsite = Callsite::current()) {
    if (detail::identityOf(a) == detail::identityOf(to)) [[likely]]
        return true;
    detail::reportSoftAssertionFailure(callsite);
    return false;
}

/// The value (an optional or a pointer) is absent.
template <detail::Nullable T>
bool assertNil(const T& value, Callsite callsite = Callsite::current()) {
    if (detail::isAbsent(value)) [[likely]]
        return true;
    detail::reportSoftAssertionFailure(callsite);
    return false;
}

/// As `assertNil`, with a message (a text, or a callable making one) that is evaluated and then
/// discarded: the report never carries it.
template <detail::Nullable T, class Message>
    requires std::convertible_to<Message, std::string_view> || std::is_invocable_v<Message&&>
bool assertNil(const T& value, Message&& message, Callsite callsite = Callsite::current()) {
    [[maybe_unused]] auto&& evaluated = detail::evaluate(std::forward<Message>(message));
    return assertNil(value, callsite);
}

/// The collection is empty.
template <class C>
    requires requires(const C& collection) {
        std::ranges::begin(collection);
        std::ranges::end(collection);
        std::ranges::size(collection);
    }
bool assertEmpty(const C& collection, Callsite callsite = Callsite::current()) {
    if (std::ranges::empty(collection)) [[likely]]
        return true;
    detail::reportSoftAssertionFailure(callsite);
    return false;
}

/// The predicate `P` holds for `value`: its proof, else nothing (and a report).
template <Predicate P>
std::optional<typename P::Proof> assertPredicate(const typename P::Value& value,
                                                 Callsite callsite = Callsite::current()) {
    std::optional<typename P::Proof> proof = P::proof(value);
    if (!proof) [[unlikely]]
        detail::reportSoftAssertionFailure(callsite);
    return proof;
}

/// The wrapper `W` accepts `value`: the wrapped value, else nothing (and a report).
template <PredicatedWrapper W>
std::optional<W> assertPredicate(typename W::Value value, Callsite callsite = Callsite::current()) {
    std::optional<W> wrapped = W::wrapping(std::move(value));
    if (!wrapped) [[unlikely]]
        detail::reportSoftAssertionFailure(callsite);
    return wrapped;
}

/// The optional holds a value: that value, else nothing.
template <class T>
std::optional<T> assertUnwrap(const std::optional<T>& value,
                              Callsite callsite = Callsite::current()) {
    return assertPredicate<IsSome<T>>(value, callsite);
}

/// The pointer is not null: the pointer, else null.
template <class Pointer>
    requires std::is_pointer_v<Pointer> || requires(const Pointer& p) { p.get(); }
Pointer assertUnwrap(Pointer pointer, Callsite callsite = Callsite::current()) {
    if (pointer == nullptr) [[unlikely]]
        detail::reportSoftAssertionFailure(callsite);
    return pointer;
}

/// A type-erased value holds a `T`: that value, else nothing.
template <class T>
std::optional<T> assertCast(const std::any& value, Callsite callsite = Callsite::current()) {
    return assertPredicate<IsCastableTo<T>>(value, callsite);
}

/// The object is a `T` (dynamic cast of a pointer): the cast pointer, else null. A null input
/// fails too.
template <class T, class U>
    requires std::is_polymorphic_v<U>
T* assertCast(U* object, Callsite callsite = Callsite::current()) {
    T* cast = dynamic_cast<T*>(object);
    if (cast == nullptr) [[unlikely]]
        detail::reportSoftAssertionFailure(callsite);
    return cast;
}

template <class T, class U>
    requires std::is_polymorphic_v<U>
std::shared_ptr<T> assertCast(const std::shared_ptr<U>& object,
                              Callsite callsite = Callsite::current()) {
    std::shared_ptr<T> cast = std::dynamic_pointer_cast<T>(object);
    if (cast == nullptr) [[unlikely]]
        detail::reportSoftAssertionFailure(callsite);
    return cast;
}

/// Runs `expression`; its value, or nothing when it throws (the exception is swallowed and
/// reported). A `void` expression gives true or false.
template <class F>
    requires std::is_invocable_v<F&&>
auto assertNoThrow(F&& expression, Callsite callsite = Callsite::current()) {
    using R = std::invoke_result_t<F&&>;
    if constexpr (std::is_void_v<R>) {
        try {
            std::forward<F>(expression)();
            return true;
        } catch (...) {
            detail::reportSoftAssertionFailure(callsite);
            return false;
        }
    } else {
        using Result = std::optional<std::remove_cvref_t<R>>;
        try {
            return Result(std::forward<F>(expression)());
        } catch (...) {
            detail::reportSoftAssertionFailure(callsite);
            return Result();
        }
    }
}

/// Always a failure: marks a branch that cannot be reached.
inline void assertUnreachable(Callsite callsite = Callsite::current()) {
    detail::reportSoftAssertionFailure(callsite);
}

/// Always a failure; the message is not part of the report.
inline void assertUnreachable(std::string_view /*message*/,
                              Callsite callsite = Callsite::current()) {
    detail::reportSoftAssertionFailure(callsite);
}

/// Always a failure; the message is not part of the report.
inline void assertionFailure(std::string_view /*message*/ = {},
                             Callsite callsite = Callsite::current()) {
    detail::reportSoftAssertionFailure(callsite);
}

/// Reports unconditionally: callers test the thread themselves and call this only from the
/// branch where they are not on the main thread.
inline void assertMainThread(Callsite callsite = Callsite::current()) {
    detail::reportSoftAssertionFailure(callsite);
}

}  // namespace mirels
