#pragma once

// `MergeOperation`: a merge strategy.

#include <concepts>
#include <vector>

namespace mirels {

/// A merge strategy: a type with static operations only that turns the answers of several
/// resolvers to one query (its `Input`s, in the query manager's order) into one result (its
/// `Output`).
///
/// A conforming type names `Input` and `Output` and has a static `perform(values)` taking the
/// answers as a `std::vector<Input>` (by value or const reference). It may also have a static
/// `perform(query, manager)` that asks the `QueryManager` itself (as `FirstValueMerge` does, to
/// stop at the first answer); without one, the answers are gathered with
/// `QueryManager::allValues` and handed to `perform(values)` (see `performMerge` in
/// `QueryManager.h`). Strategies hold no state and are never instantiated.
template <class M>
concept MergeOperation = requires(std::vector<typename M::Input> values) {
    typename M::Input;
    typename M::Output;
    { M::perform(std::move(values)) } -> std::convertible_to<typename M::Output>;
};

}  // namespace mirels
