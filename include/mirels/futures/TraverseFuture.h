#pragma once

// `TraverseFuture`: a future that waits for every one of a list of futures and gives the list of
// their values, in element order. Also `invert()`, `traverse()`.

#include <cstddef>
#include <memory>
#include <optional>
#include <ranges>
#include <type_traits>
#include <utility>
#include <vector>

#include "mirels/core/ThreadSafe.h"
#include "mirels/futures/ConstantFuture.h"
#include "mirels/futures/Future.h"
#include "mirels/futures/ResultTraversal.h"
#include "mirels/futures/detail/CommonValueTypes.h"

namespace mirels {

/// A future that waits for every one of a list of futures and gives the list of their values,
/// in element order: what `traverse` and `invert` make.
///
/// A failure does not end the traversal early: it waits for every element, then fails with
/// the first failure in element order, or, when accumulating errors, with the only failure
/// itself or an `AccumulatedError` of all of them. One element being canceled cancels the
/// traversal with that element's call site; canceling the traversal cancels every element, in
/// order, and finishes it canceled at once.
template <class Element>
class TraverseFuture final : public AbstractFuture<std::vector<Element>> {
    struct Key {
        explicit Key() = default;
    };

  public:
    using Output = std::vector<Element>;

    /// One element: its future and, once it has arrived, its result. Its position in the
    /// list is its offset.
    struct Fiber {
        Future<Element> future;
        std::optional<Result<Element>> result;
    };

    TraverseFuture(Key, std::vector<Fiber> fibers, bool accumulateErrors, Callsite callsite)
        : AbstractFuture<Output>(callsite),
          accumulateErrors_(accumulateErrors),
          activity_(std::in_place, std::move(fibers)) {}

    /// A future of the values of `futures`. An empty list gives at once a finished future of
    /// the empty list.
    static Future<Output> create(std::vector<Future<Element>> futures, bool accumulateErrors,
                                 Callsite callsite = Callsite::current()) {
        if (futures.empty()) {
            return ConstantFuture<Output>::create(FutureTermination<Output>::succeeded(Output()),
                                                  callsite);
        }
        std::vector<Fiber> fibers;
        fibers.reserve(futures.size());
        for (const Future<Element>& future : futures) fibers.push_back(Fiber{future, {}});
        auto self = makeSharedRecycled<TraverseFuture>(Key{}, std::move(fibers), accumulateErrors,
                                                       callsite);
        for (std::size_t offset = 0; offset < futures.size(); ++offset) {
            futures[offset].object()->observeFinish(
                [self, offset](const FutureTermination<Element>& termination) {
                    if (const Result<Element>* result = termination.resultIfCompleted()) {
                        self->receiveUnderlyingCompletion(offset, *result);
                    } else {
                        self->cancel(*termination.canceledCallsite());
                    }
                });
        }
        return Future<Output>(std::move(self));
    }

    /// Cancels every element future in order and finishes canceled from `callsite`; does
    /// nothing once finished.
    void cancel(Callsite callsite) override {
        std::optional<std::vector<Fiber>> fibers = activity_.syncWrite(
            [](Running& running) { return std::exchange(running.fibers, std::nullopt); },
            Callsite::library("cancel(callsite:)"));
        if (!fibers) return;
        for (Fiber& fiber : *fibers) fiber.future.cancel(callsite);
        this->didFinish(FutureTermination<Output>::canceled(callsite));
    }

  private:
    struct Running {
        explicit Running(std::vector<Fiber> all) : remaining(all.size()), fibers(std::move(all)) {}
        std::size_t remaining;
        // Empty once finished.
        std::optional<std::vector<Fiber>> fibers;
    };

    void receiveUnderlyingCompletion(std::size_t offset, const Result<Element>& arrived) {
        std::optional<Result<Element>> result(arrived);  // copied before the lock
        std::optional<std::vector<Fiber>> complete = activity_.syncWrite(
            [&](Running& running) -> std::optional<std::vector<Fiber>> {
                if (!running.fibers) return std::nullopt;
                (*running.fibers)[offset].result = std::move(result);
                if (--running.remaining != 0) return std::nullopt;
                return std::exchange(running.fibers, std::nullopt);
            },
            Callsite::library("receiveUnderlyingCompletion(at:with:)"));
        if (!complete) return;
        std::vector<Result<Element>> results;
        results.reserve(complete->size());
        for (Fiber& fiber : *complete) results.push_back(std::move(*fiber.result));
        complete.reset();
        this->didFinish(FutureTermination<Output>::completed(
            detail::combineResults(std::move(results), accumulateErrors_)));
    }

    const bool accumulateErrors_;
    ThreadSafe<Running> activity_;
};

namespace detail {

template <class R>
concept FutureRange = std::ranges::input_range<R> &&
                      IsFuture<std::remove_cvref_t<std::ranges::range_reference_t<R>>>::value;

template <class R, class F>
concept FutureTransform =
    std::ranges::input_range<R> && std::is_invocable_v<F&, std::ranges::range_reference_t<R>> &&
    IsFuture<
        std::remove_cvref_t<std::invoke_result_t<F&, std::ranges::range_reference_t<R>>>>::value;

}  // namespace detail

/// A future of the values of `futures`, in order (see `TraverseFuture`).
template <detail::FutureRange R>
auto invert(R&& futures, bool andAccumulateErrors = false,
            Callsite callsite = Callsite::current()) {
    using Element = typename std::remove_cvref_t<std::ranges::range_reference_t<R>>::Value;
    std::vector<Future<Element>> list;
    if constexpr (std::ranges::sized_range<R>) list.reserve(std::ranges::size(futures));
    for (auto&& future : futures) list.push_back(future);
    return TraverseFuture<Element>::create(std::move(list), andAccumulateErrors, callsite);
}

/// A future of the values of the futures that `transform` makes of each element (called at
/// once, in order).
template <std::ranges::input_range R, class F>
    requires detail::FutureTransform<R, F>
auto traverse(R&& elements, bool andAccumulateErrors, F&& transform,
              Callsite callsite = Callsite::current()) {
    using Made = std::remove_cvref_t<std::invoke_result_t<F&, std::ranges::range_reference_t<R>>>;
    std::vector<Made> list;
    if constexpr (std::ranges::sized_range<R>) list.reserve(std::ranges::size(elements));
    for (auto&& element : elements) list.push_back(transform(element));
    return TraverseFuture<typename Made::Value>::create(std::move(list), andAccumulateErrors,
                                                        callsite);
}

/// `traverse` without accumulating errors.
template <std::ranges::input_range R, class F>
    requires detail::FutureTransform<R, F>
auto traverse(R&& elements, F&& transform, Callsite callsite = Callsite::current()) {
    return traverse(std::forward<R>(elements), false, std::forward<F>(transform), callsite);
}

// Compiled once in the library for the common value types (futures/detail/CommonValueTypes.h).
// NOLINTBEGIN(bugprone-macro-parentheses): a type argument cannot be parenthesised
#define MIRELS_DETAIL_DECLARE(T) extern template class MIRELS_EXPORT TraverseFuture<T>;
MIRELS_DETAIL_FOR_EACH_COMMON_FUTURE_VALUE(MIRELS_DETAIL_DECLARE)
#undef MIRELS_DETAIL_DECLARE
// NOLINTEND(bugprone-macro-parentheses)

}  // namespace mirels
