#pragma once

// `assertInhabit()`: the collection is not empty.

#include <optional>
#include <ranges>
#include <type_traits>
#include <utility>

#include "mirels/collections/Inhabited.h"
#include "mirels/core/Assertions.h"
#include "mirels/core/Callsite.h"

namespace mirels {

/// The collection is not empty: it wrapped as an `Inhabited`, else nothing (and a soft-assertion
/// report for `callsite`). The soft assertion of the `Inhabited` wrapper, made through
/// `assertPredicate` like `assertUnwrap` and `assertCast`.
template <std::ranges::forward_range C>
std::optional<Inhabited<std::remove_cvref_t<C>>> assertInhabit(
    C&& collection, Callsite callsite = Callsite::current()) {
    return assertPredicate<Inhabited<std::remove_cvref_t<C>>>(std::forward<C>(collection),
                                                              callsite);
}

}  // namespace mirels
