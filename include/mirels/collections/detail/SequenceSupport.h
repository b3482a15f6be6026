#pragma once

// `SequenceBox` and the iterator helpers (internal) that the sequence views are built from.

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace mirels::detail {

template <bool Const, class T>
using SequenceMaybeConst = std::conditional_t<Const, const T, T>;

/// Holds a callable or value inside a view and makes it assignable even when it is not (a lambda
/// with captures is copyable but not assignable, and views must be assignable). Assignment
/// destroys and re-creates the held object. Never empty after construction.
template <class T>
    requires std::is_object_v<T> && std::move_constructible<T>
class SequenceBox {
  public:
    SequenceBox()
        requires std::default_initializable<T>
        : value_(std::in_place) {}
    explicit SequenceBox(T value) : value_(std::in_place, std::move(value)) {}

    SequenceBox(const SequenceBox&) = default;
    SequenceBox(SequenceBox&&) = default;

    SequenceBox& operator=(const SequenceBox& other)
        requires std::copy_constructible<T>
    {
        if (this != &other) {
            value_.reset();
            value_.emplace(*other.value_);
        }
        return *this;
    }

    SequenceBox& operator=(SequenceBox&& other) noexcept(std::is_nothrow_move_constructible_v<T>) {
        if (this != &other) {
            value_.reset();
            value_.emplace(std::move(*other.value_));
        }
        return *this;
    }

    T& operator*() noexcept { return *value_; }
    const T& operator*() const noexcept { return *value_; }
    T* operator->() noexcept { return std::addressof(*value_); }
    const T* operator->() const noexcept { return std::addressof(*value_); }

  private:
    std::optional<T> value_;
};

/// Calls `f(std::integral_constant<std::size_t, I>{})` for the `I` equal to `index` (which must be
/// below `N`): a chain of comparisons the compiler folds when `index` is known, and otherwise a
/// short jump sequence. Every `f(I)` must return the same type.
template <std::size_t N, std::size_t I = 0, class F>
constexpr decltype(auto) visitSequenceIndex(std::size_t index, F&& f) {
    if constexpr (I + 1 == N) {
        return std::forward<F>(f)(std::integral_constant<std::size_t, I>{});
    } else {
        if (index == I) return std::forward<F>(f)(std::integral_constant<std::size_t, I>{});
        return visitSequenceIndex<N, I + 1>(index, std::forward<F>(f));
    }
}

}  // namespace mirels::detail
