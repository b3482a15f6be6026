#pragma once

// `detail::invoke`: calls a callable the way `std::invoke` does, without `<functional>`.

#include <type_traits>
#include <utility>

namespace mirels::detail {

/// The member-pointer half of `invoke`.
template <class M, class C, class Object, class... Args>
constexpr decltype(auto) invokeMember(M C::*member, Object&& object, Args&&... args) {
    if constexpr (std::is_base_of_v<C, std::remove_cvref_t<Object>>) {
        if constexpr (std::is_function_v<M>) {
            return (std::forward<Object>(object).*member)(std::forward<Args>(args)...);
        } else {
            return std::forward<Object>(object).*member;
        }
    } else {
        if constexpr (std::is_function_v<M>) {
            return ((*std::forward<Object>(object)).*member)(std::forward<Args>(args)...);
        } else {
            return (*std::forward<Object>(object)).*member;
        }
    }
}

/// Calls `fn` with `args`: a function object or function directly, a pointer to member function
/// on its first argument (an object, a reference or a pointer), a pointer to data member as a
/// read of that member. Lets the library's low-level headers avoid `<functional>`, whose
/// `std::invoke` drags in containers and algorithms every user of a future would compile.
template <class Fn, class... Args>
constexpr decltype(auto) invoke(Fn&& fn, Args&&... args) {
    using F = std::remove_cvref_t<Fn>;
    if constexpr (std::is_member_pointer_v<F>) {
        return invokeMember(fn, std::forward<Args>(args)...);
    } else {
        return std::forward<Fn>(fn)(std::forward<Args>(args)...);
    }
}

}  // namespace mirels::detail
