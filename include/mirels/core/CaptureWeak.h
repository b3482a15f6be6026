#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace mirels {

/// What `captureWeak` returns: a callable holding its object weakly.
template <class T, class F>
class WeakCapture {
  public:
    WeakCapture(std::weak_ptr<T> object, F f) : object_(std::move(object)), f_(std::move(f)) {}

    /// Runs `f(object, args...)` if the object lives, keeping it alive for the call. Returns
    /// whether it ran (`bool`) when `f` returns nothing, else an `std::optional` of the result
    /// (see `captureWeak` for what a reference result becomes).
    template <class... Args>
        requires std::is_invocable_v<F&, T&, Args&&...>
    auto operator()(Args&&... args) {
        using R = std::invoke_result_t<F&, T&, Args&&...>;
        std::shared_ptr<T> strong = object_.lock();
        if constexpr (std::is_void_v<R>) {
            if (!strong) return false;
            std::invoke(f_, *strong, std::forward<Args>(args)...);
            return true;
        } else {
            using Result = std::optional<Stored<R>>;
            if (!strong) return Result();
            return Result(std::invoke(f_, *strong, std::forward<Args>(args)...));
        }
    }

    /// Whether the object has gone (and calls do nothing).
    bool expired() const noexcept { return object_.expired(); }

  private:
    // What the optional holds for a result of type `R`: values as they are, an lvalue reference
    // as a `std::reference_wrapper` (an optional cannot hold a reference), and an rvalue
    // reference as the value moved out of it, since the object it points into may be gone as
    // soon as the call returns.
    template <class R>
    using Stored = std::conditional_t<
        std::is_lvalue_reference_v<R>, std::reference_wrapper<std::remove_reference_t<R>>,
        std::conditional_t<std::is_rvalue_reference_v<R>, std::remove_cvref_t<R>, R>>;

    std::weak_ptr<T> object_;
    F f_;
};

/// A callable that holds `object` weakly and, when called, runs `f(object, args...)` only while
/// the object is alive, keeping it alive for the call. It reports whether `f` ran: `true` or
/// `false` when `f` returns nothing, else an `std::optional` of what `f` returned (empty when
/// the object had gone).
///
/// A result that is an lvalue reference comes back as
/// `std::optional<std::reference_wrapper<U>>` (constness kept), so `f` can hand out a member
/// without copying it; the reference is only good while the object lives, and the callable
/// keeps the object alive for the call alone, so hold a strong reference of your own for
/// longer use. A result that is an rvalue reference is moved into the optional as a value.
///
/// Use it for callbacks registered with something the object itself owns, where a strong
/// capture would make a cycle that keeps both alive. Copyable when `f` is; fits a
/// `UniqueFunction`'s inline storage when `f` captures up to four pointers.
template <class T, class F>
[[nodiscard]] WeakCapture<T, std::decay_t<F>> captureWeak(const std::shared_ptr<T>& object, F&& f) {
    return WeakCapture<T, std::decay_t<F>>(object, std::forward<F>(f));
}

}  // namespace mirels
