#pragma once

// `invert()`: the list of values when every result succeeded, else the first failure in order. Also
// `invertAndAccumulateErrors()`, `traverse()`, `traverseAndAccumulateErrors()`.

#include <cstddef>
#include <iterator>
#include <ranges>
#include <type_traits>
#include <utility>
#include <vector>

#include "mirels/errors/Result.h"
#include "mirels/futures/AccumulatedError.h"
#include "mirels/futures/FutureTermination.h"

// Turning a sequence of success-or-failure results into one result of a list. Traversals of
// futures combine their elements' results with these.

namespace mirels {

namespace detail {

/// One result of the list of values when every result succeeded. Otherwise: without
/// `accumulateErrors`, the first failure in order; with it, the only failure itself, or an
/// `AccumulatedError` of all of them in order.
template <class T>
[[nodiscard]] Result<std::vector<T>> combineResults(std::vector<Result<T>>&& results,
                                                    bool accumulateErrors) {
    std::vector<Error> errors;
    for (Result<T>& result : results) {
        if (const Error* error = result.failureError()) {
            if (!accumulateErrors) return Result<std::vector<T>>(*error);
            errors.push_back(*error);
        }
    }
    if (errors.size() == 1) return Result<std::vector<T>>(std::move(errors.front()));
    if (!errors.empty()) return Result<std::vector<T>>(Error(AccumulatedError(std::move(errors))));
    std::vector<T> values;
    values.reserve(results.size());
    for (Result<T>& result : results) values.push_back(std::move(*result.successValue()));
    return Result<std::vector<T>>(std::move(values));
}

template <class R>
[[nodiscard]] auto collectResults(R&& results) {
    using Element = std::remove_cvref_t<std::ranges::range_reference_t<R>>;
    std::vector<Element> collected;
    if constexpr (std::ranges::sized_range<R>) collected.reserve(std::ranges::size(results));
    for (auto&& result : results) collected.push_back(std::forward<decltype(result)>(result));
    return collected;
}

template <class R>
concept ResultRange =
    std::ranges::input_range<R> &&
    IsResult<std::remove_cvref_t<std::ranges::range_reference_t<R>>>::value &&
    !std::is_void_v<typename std::remove_cvref_t<std::ranges::range_reference_t<R>>::Value>;

template <class R, class F>
concept ResultTransform =
    std::ranges::input_range<R> && std::is_invocable_v<F&, std::ranges::range_reference_t<R>> &&
    IsResult<
        std::remove_cvref_t<std::invoke_result_t<F&, std::ranges::range_reference_t<R>>>>::value;

template <class R, class F>
[[nodiscard]] auto transformResults(R&& elements, F& transform) {
    using Out = std::remove_cvref_t<std::invoke_result_t<F&, std::ranges::range_reference_t<R>>>;
    std::vector<Out> results;
    for (auto&& element : elements) results.push_back(transform(element));
    return results;
}

}  // namespace detail

/// The list of values when every result succeeded, else the first failure in order.
template <detail::ResultRange R>
[[nodiscard]] auto invert(R&& results) {
    return detail::combineResults(detail::collectResults(std::forward<R>(results)), false);
}

/// The list of values when every result succeeded, else the only failure, or an
/// `AccumulatedError` of every failure in order.
template <detail::ResultRange R>
[[nodiscard]] auto invertAndAccumulateErrors(R&& results) {
    return detail::combineResults(detail::collectResults(std::forward<R>(results)), true);
}

/// `invert` of the results that `transform` makes of each element, in order.
template <std::ranges::input_range R, class F>
    requires detail::ResultTransform<R, F>
[[nodiscard]] auto traverse(R&& elements, F&& transform) {
    return detail::combineResults(detail::transformResults(std::forward<R>(elements), transform),
                                  false);
}

/// `invertAndAccumulateErrors` of the results that `transform` makes of each element.
template <std::ranges::input_range R, class F>
    requires detail::ResultTransform<R, F>
[[nodiscard]] auto traverseAndAccumulateErrors(R&& elements, F&& transform) {
    return detail::combineResults(detail::transformResults(std::forward<R>(elements), transform),
                                  true);
}

}  // namespace mirels
