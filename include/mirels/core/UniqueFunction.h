#pragma once

// `UniqueFunction`: the library's stored-callback type, a move-only type-erased callable with
// inline storage for small captures.

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "mirels/core/Invoke.h"

namespace mirels {

template <class Signature, std::size_t InlineSize = 48>
class UniqueFunction;

/// The library's stored-callback type: a move-only, type-erased callable with inline storage
/// for small captures. Callables of at most `InlineSize` bytes (and no stricter alignment than a
/// pointer's, and nothrow-movable) are stored in the object itself, so storing an observer does
/// not allocate; larger ones go to the heap. Unlike `std::function` it accepts move-only
/// callables (a captured promise, a unique_ptr) and never copies.
///
/// An empty `UniqueFunction` is false in a boolean context; calling it is undefined.
template <class R, class... Args, std::size_t InlineSize>
class UniqueFunction<R(Args...), InlineSize> {
    static_assert(InlineSize >= sizeof(void*) && InlineSize % sizeof(void*) == 0,
                  "the inline buffer is a whole number of pointers");

    template <class F>
    static constexpr bool storedInline =
        sizeof(F) <= InlineSize && alignof(F) <= alignof(std::max_align_t) &&
        std::is_nothrow_move_constructible_v<F>;

  public:
    UniqueFunction() noexcept = default;
    UniqueFunction(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor)

    template <class F>
        requires(!std::is_same_v<std::remove_cvref_t<F>, UniqueFunction> &&
                 std::is_invocable_r_v<R, std::decay_t<F>&, Args...>)
    UniqueFunction(F&& f) {  // NOLINT(google-explicit-constructor)
        using Fn = std::decay_t<F>;
        if constexpr (std::is_pointer_v<Fn> || std::is_member_pointer_v<Fn>) {
            if (f == nullptr) return;
        }
        if constexpr (storedInline<Fn>) {
            ::new (static_cast<void*>(storage_)) Fn(std::forward<F>(f));
            invoke_ = &invokeInline<Fn>;
            manage_ = &manageInline<Fn>;
        } else {
            *reinterpret_cast<Fn**>(static_cast<void*>(storage_)) = new Fn(std::forward<F>(f));
            invoke_ = &invokeHeap<Fn>;
            manage_ = &manageHeap<Fn>;
        }
    }

    UniqueFunction(UniqueFunction&& other) noexcept { takeFrom(other); }

    UniqueFunction& operator=(UniqueFunction&& other) noexcept {
        if (this != &other) {
            reset();
            takeFrom(other);
        }
        return *this;
    }

    UniqueFunction& operator=(std::nullptr_t) noexcept {
        reset();
        return *this;
    }

    UniqueFunction(const UniqueFunction&) = delete;
    UniqueFunction& operator=(const UniqueFunction&) = delete;

    ~UniqueFunction() { reset(); }

    explicit operator bool() const noexcept { return invoke_ != nullptr; }

    R operator()(Args... args) { return invoke_(storage_, std::forward<Args>(args)...); }

    /// Destroys the stored callable (and what it captured), leaving this empty.
    void reset() noexcept {
        if (manage_ != nullptr) manage_(Operation::destroy, storage_, nullptr);
        invoke_ = nullptr;
        manage_ = nullptr;
    }

    /// Whether a callable of type F would be stored without a heap allocation.
    template <class F>
    static constexpr bool isStoredInline() noexcept {
        return storedInline<std::decay_t<F>>;
    }

  private:
    enum class Operation { relocate, destroy };
    using Invoke = R (*)(void*, Args&&...);
    using Manage = void (*)(Operation, void*, void*) noexcept;

    template <class Fn>
    static R invokeInline(void* storage, Args&&... args) {
        return detail::invoke(*std::launder(static_cast<Fn*>(storage)),
                              std::forward<Args>(args)...);
    }
    template <class Fn>
    static R invokeHeap(void* storage, Args&&... args) {
        return detail::invoke(**static_cast<Fn**>(storage), std::forward<Args>(args)...);
    }
    template <class Fn>
    static void manageInline(Operation op, void* self, void* target) noexcept {
        Fn* fn = std::launder(static_cast<Fn*>(self));
        if (op == Operation::relocate) ::new (target) Fn(std::move(*fn));
        fn->~Fn();
    }
    template <class Fn>
    static void manageHeap(Operation op, void* self, void* target) noexcept {
        Fn** fn = static_cast<Fn**>(self);
        if (op == Operation::relocate) {
            *static_cast<Fn**>(target) = *fn;
        } else {
            delete *fn;
        }
        *fn = nullptr;
    }

    void takeFrom(UniqueFunction& other) noexcept {
        if (other.manage_ == nullptr) return;
        other.manage_(Operation::relocate, other.storage_, storage_);
        invoke_ = other.invoke_;
        manage_ = other.manage_;
        other.invoke_ = nullptr;
        other.manage_ = nullptr;
    }

    alignas(std::max_align_t) std::byte storage_[InlineSize];
    Invoke invoke_ = nullptr;
    Manage manage_ = nullptr;
};

}  // namespace mirels
