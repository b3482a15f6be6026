#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace mirels {

/// A callable that holds `object` weakly and, when called, runs `f(object, args...)` only while
/// the object is alive, keeping it alive for the call. It reports whether `f` ran: `true` or
/// `false` when `f` returns nothing, else an `std::optional` of what `f` returned (empty when
/// the object had gone).
///
/// Use it for callbacks registered with something the object itself owns, where a strong
/// capture would make a cycle that keeps both alive. Copyable when `f` is.
template <class T, class F>
[[nodiscard]] auto captureWeak(const std::shared_ptr<T>& object, F&& f) {
    return [ weak = std::weak_ptr<T>(object),
             f = std::forward<F>(f) ]<class... Args>(Args && ... args) mutable
        requires std::is_invocable_v<std::decay_t<F>&, T&, Args&&...>
    {
        using R = std::invoke_result_t<std::decay_t<F>&, T&, Args&&...>;
        std::shared_ptr<T> strong = weak.lock();
        if constexpr (std::is_void_v<R>) {
            if (!strong) return false;
            std::invoke(f, *strong, std::forward<Args>(args)...);
            return true;
        } else {
            if (!strong) return std::optional<R>();
            return std::optional<R>(std::invoke(f, *strong, std::forward<Args>(args)...));
        }
    };
}

}  // namespace mirels
