#pragma once

// `FirstValueMerge`: the first answer, absent for none. Also `ConcatenationMerge`, `UnionMerge`,
// `OrderedUnionMerge`, `SumMerge`, `LogicalOrMerge`, `NilMerge` and more.

#include <cstddef>
#include <iterator>
#include <optional>
#include <ranges>
#include <type_traits>
#include <utility>
#include <vector>

#include "mirels/Export.h"
#include "mirels/collections/OrderedSet.h"
#include "mirels/core/Callsite.h"
#include "mirels/core/FatalError.h"
#include "mirels/execution/ExecutionLane.h"
#include "mirels/futures/Future.h"
#include "mirels/futures/TraverseFuture.h"
#include "mirels/queries/MergeOperation.h"
#include "mirels/queries/QueryManager.h"

namespace mirels {

// The merge strategies that queries name: stateless types with static operations only. Each
// takes the answers of a query's resolvers in the manager's order (the delegate's answers first,
// then the manager's own resolvers in order) and makes one result. Every combiner has
// `perform(values)` and `perform(query, manager)`; the latter asks the manager for all answers,
// except in `FirstValueMerge`, which asks for the first one only.

/// The first answer, absent for none. Asks the manager for the first answer only, so later
/// resolvers are not consulted once one has answered.
template <class T>
struct FirstValueMerge {
    using Input = T;
    using Output = std::optional<T>;

    static Output perform(std::vector<T> values) {
        if (values.empty()) return std::nullopt;
        return Output(std::move(values.front()));
    }

    template <Query Q>
    static Output perform(const Q& query, QueryManager& manager) {
        return manager.firstValue(query);
    }
};

/// All answers (arrays) joined in order, each array's elements in their own order.
template <class Element>
struct ConcatenationMerge : MergeOperationDefaults<ConcatenationMerge<Element>> {
    using Input = std::vector<Element>;
    using Output = std::vector<Element>;
    using MergeOperationDefaults<ConcatenationMerge>::perform;

    static Output perform(std::vector<Input> values) {
        std::size_t total = 0;
        for (const Input& value : values) total += value.size();
        Output joined;
        joined.reserve(total);
        for (Input& value : values) {
            std::move(value.begin(), value.end(), std::back_inserter(joined));
        }
        return joined;
    }
};

/// The union of the answers (sets of one type, such as `std::set` or `std::unordered_set`),
/// starting from the empty set.
template <class Set>
struct UnionMerge : MergeOperationDefaults<UnionMerge<Set>> {
    using Input = Set;
    using Output = Set;
    using MergeOperationDefaults<UnionMerge>::perform;

    static Output perform(std::vector<Set> values) {
        Set united;
        for (Set& value : values) {
            for (auto& element : value) united.insert(std::move(element));
        }
        return united;
    }
};

/// The answers' elements in one `OrderedSet`, in order: an element already present keeps its
/// first place. `Sequence` is any sized range of elements (by default a `std::vector`).
template <class Element, class Sequence = std::vector<Element>>
struct OrderedUnionMerge : MergeOperationDefaults<OrderedUnionMerge<Element, Sequence>> {
    using Input = Sequence;
    using Output = OrderedSet<Element>;
    using MergeOperationDefaults<OrderedUnionMerge>::perform;

    static Output perform(std::vector<Sequence> values) {
        std::size_t total = 0;
        for (const Sequence& value : values) total += std::ranges::size(value);
        Output united;
        united.reserveCapacity(total);
        for (const Sequence& value : values) {
            for (const auto& element : value) united.append(Element(element));
        }
        return united;
    }
};

/// The sum of the answers, starting from the type's 0; overflow follows the type's own rule.
template <class Number>
struct SumMerge : MergeOperationDefaults<SumMerge<Number>> {
    using Input = Number;
    using Output = Number;
    using MergeOperationDefaults<SumMerge>::perform;

    static Output perform(const std::vector<Number>& values) {
        Number sum = 0;
        for (const Number& value : values) sum = sum + value;
        return sum;
    }
};

/// Whether any answer is true; false for none.
struct LogicalOrMerge : MergeOperationDefaults<LogicalOrMerge> {
    using Input = bool;
    using Output = bool;
    using MergeOperationDefaults<LogicalOrMerge>::perform;

    static Output perform(const std::vector<bool>& values) {
        bool any = false;
        for (bool value : values) any = any || value;
        return any;
    }
};

namespace detail {
[[noreturn]] MIRELS_EXPORT void nilMergePerformed(Callsite callsite);
}  // namespace detail

/// The strategy of queries that are never merged. Performing it is a programming error that
/// stops the process.
template <class In, class Out = In>
struct NilMerge : MergeOperationDefaults<NilMerge<In, Out>> {
    using Input = In;
    using Output = Out;
    using MergeOperationDefaults<NilMerge>::perform;

    [[noreturn]] static Output perform(const std::vector<In>& /*values*/,
                                       Callsite callsite = Callsite::current()) {
        detail::nilMergePerformed(callsite);
    }
};

/// Waits for the answers (futures of `Strategy::Input`) and merges their values with
/// `Strategy`.
///
/// The futures are inverted into one future of their values in order (`invert`), which waits for
/// every one of them and then fails with the first failure in their order, without gathering the
/// others; a canceled answer cancels the result. The success is mapped through
/// `Strategy::perform(values)` on the immediate lane. A failure or cancellation passes through
/// unchanged, and canceling the result cancels every answer.
template <MergeOperation Strategy>
struct FutureMerge : MergeOperationDefaults<FutureMerge<Strategy>> {
    using Input = Future<typename Strategy::Input>;
    using Output = Future<typename Strategy::Output>;
    using MergeOperationDefaults<FutureMerge>::perform;

    static Output perform(const std::vector<Input>& values) {
        return invert(values, false, Callsite::library("perform(values:)"))
            .mapSuccess(
                ExecutionLane::any(),
                [](const std::vector<typename Strategy::Input>& inputs) {
                    return Strategy::perform(inputs);
                },
                Callsite::library("perform(values:)"));
    }
};

}  // namespace mirels
