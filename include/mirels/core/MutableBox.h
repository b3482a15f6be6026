#pragma once

// `MutableBox`: a shared, mutable value with identity.

#include <cstddef>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

#include "mirels/core/Ref.h"

namespace mirels {

/// A shared, mutable value with identity: copies of a box are the same box, so a change made
/// through one is seen through all of them, and boxes compare and hash by identity, not by value.
/// Use it to share one piece of state between closures or objects on one thread (a counter
/// captured by several callbacks, a node's parent).
///
/// A `MutableBox` has no lock: it is for state confined to one thread or guarded by its owner.
/// State shared between threads belongs in `ThreadSafe`, whose value is reached only under its
/// lock.
///
/// The value lives in one allocation made with the box (`std::make_shared`); copying a box is one
/// reference-count increment. References returned by `value()` stay valid while any copy of the
/// box lives.
template <class T>
class MutableBox {
    static_assert(std::is_object_v<T>, "a box holds an object");

  public:
    /// A box holding a value-initialised `T`.
    MutableBox()
        requires std::is_default_constructible_v<T>
        : storage_(std::make_shared<T>()) {}

    /// A box holding `value`.
    explicit MutableBox(T value) : storage_(std::make_shared<T>(std::move(value))) {}

    /// A box holding a `T` made from `args`.
    template <class... Args>
        requires std::is_constructible_v<T, Args&&...>
    explicit MutableBox(std::in_place_t, Args&&... args)
        : storage_(std::make_shared<T>(std::forward<Args>(args)...)) {}

    /// The boxed value, shared by every copy of the box.
    T& value() const noexcept { return *storage_; }
    T& operator*() const noexcept { return *storage_; }
    T* operator->() const noexcept { return storage_.get(); }

    /// Replaces the value.
    void set(T value) const { *storage_ = std::move(value); }

    /// Replaces the value and returns the old one.
    T exchange(T value) const { return std::exchange(*storage_, std::move(value)); }

    /// Calls `change` with the value and returns what it returns.
    template <class F>
        requires std::invocable<F&&, T&>
    decltype(auto) modify(F&& change) const {
        return std::invoke(std::forward<F>(change), *storage_);
    }

    /// A new box holding a copy of the value (a different identity).
    MutableBox copy() const
        requires std::is_copy_constructible_v<T>
    {
        return MutableBox(*storage_);
    }

    /// The box as an identity-compared reference.
    Ref<T> ref() const noexcept { return Ref<T>(storage_); }

    /// The shared pointer to the value (the box's identity).
    const std::shared_ptr<T>& pointer() const noexcept { return storage_; }

    /// Whether the two are the same box (not whether their values are equal).
    friend bool operator==(const MutableBox& a, const MutableBox& b) noexcept {
        return a.storage_ == b.storage_;
    }

  private:
    std::shared_ptr<T> storage_;
};

}  // namespace mirels

template <class T>
struct std::hash<mirels::MutableBox<T>> {
    std::size_t operator()(const mirels::MutableBox<T>& box) const noexcept {
        return std::hash<const void*>{}(box.pointer().get());
    }
};
