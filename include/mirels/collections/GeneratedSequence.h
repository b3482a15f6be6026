#pragma once

// `SequenceStep`: a step from one element to the next. Also `GeneratedView`, `GeneratorView`.

#include <concepts>
#include <cstddef>
#include <functional>
#include <iterator>
#include <optional>
#include <ranges>
#include <type_traits>
#include <utility>

#include "mirels/collections/detail/SequenceSupport.h"

namespace mirels {

namespace detail {
template <class T>
struct IsOptionalResult : std::false_type {};
template <class T>
struct IsOptionalResult<std::optional<T>> : std::true_type {};
}  // namespace detail

/// A step from one element to the next: either `T -> T` (the sequence never ends) or
/// `T -> std::optional<T>` (the sequence ends at the first absent result).
template <class Step, class T>
concept SequenceStep =
    std::regular_invocable<const Step&, const T&> &&
    (std::convertible_to<std::invoke_result_t<const Step&, const T&>, T> ||
     std::same_as<std::remove_cvref_t<std::invoke_result_t<const Step&, const T&>>,
                  std::optional<T>>);

/// The sequence `seed, step(seed), step(step(seed)), ...`.
///
/// With a `T -> T` step it is infinite (its end is `std::unreachable_sentinel`; bound it with
/// `std::views::take` or `take_while`); with a `T -> std::optional<T>` step it ends at the first
/// absent result, so it always has at least the seed.
///
/// It is a forward range: the step is called as a const function and must be pure (the same
/// input gives the same output), so that two iterators walked the same number of steps hold equal
/// elements. Each iterator carries its current element; incrementing calls the step once and
/// nothing is computed ahead. Iterators compare by how many steps they have taken, not by
/// element, so a sequence that revisits a value is still walked correctly. Iterators refer to the
/// view for the step: the view must outlive them.
template <std::copy_constructible T, SequenceStep<T> Step>
    requires std::is_object_v<T> && std::is_object_v<Step>
class GeneratedView : public std::ranges::view_interface<GeneratedView<T, Step>> {
    static constexpr bool isFinite = detail::IsOptionalResult<
        std::remove_cvref_t<std::invoke_result_t<const Step&, const T&>>>::value;

  public:
    class Iterator {
      public:
        using iterator_concept = std::forward_iterator_tag;
        using iterator_category = std::input_iterator_tag;
        using value_type = T;
        using difference_type = std::ptrdiff_t;
        using reference = const T&;

        Iterator() = default;

        const T& operator*() const noexcept { return *current_; }
        const T* operator->() const noexcept { return std::addressof(*current_); }

        Iterator& operator++() {
            if constexpr (isFinite) {
                auto next = std::invoke(*view_->step_, std::as_const(*current_));
                if (next) {
                    current_.emplace(std::move(*next));
                } else {
                    current_.reset();
                }
            } else {
                current_.emplace(std::invoke(*view_->step_, std::as_const(*current_)));
            }
            ++steps_;
            return *this;
        }

        Iterator operator++(int) {
            Iterator before = *this;
            ++*this;
            return before;
        }

        friend bool operator==(const Iterator& a, const Iterator& b) noexcept {
            return a.steps_ == b.steps_;
        }

        friend bool operator==(const Iterator& it, std::default_sentinel_t) noexcept {
            return !it.current_.has_value();
        }

      private:
        friend GeneratedView;
        Iterator(const GeneratedView* view, const T& seed) : view_(view), current_(seed) {}

        const GeneratedView* view_ = nullptr;
        std::optional<T> current_;
        std::ptrdiff_t steps_ = 0;
    };

    GeneratedView()
        requires std::default_initializable<T> && std::default_initializable<Step>
    = default;

    GeneratedView(T seed, Step step) : seed_(std::move(seed)), step_(std::move(step)) {}

    Iterator begin() const { return Iterator(this, *seed_); }

    auto end() const noexcept {
        if constexpr (isFinite) {
            return std::default_sentinel;
        } else {
            return std::unreachable_sentinel;
        }
    }

  private:
    detail::SequenceBox<T> seed_;
    detail::SequenceBox<Step> step_;
};

/// The values a generator returns until it first returns an absent value.
///
/// The generator is a callable taking no arguments and returning `std::optional<T>`; it usually
/// keeps state (a reader, a counter), so the sequence is an input range, read once: `begin()`
/// makes the first call, each increment one more, and after the first absent result the generator
/// is not called again. The current value lives in the view and dereferencing lends it (it can be
/// moved from). Iterators refer to the view: it must outlive them and must not be moved while
/// iterated.
template <class Generator>
    requires std::is_object_v<Generator> && std::invocable<Generator&> &&
             detail::IsOptionalResult<std::remove_cvref_t<std::invoke_result_t<Generator&>>>::value
class GeneratorView : public std::ranges::view_interface<GeneratorView<Generator>> {
  public:
    using Element = typename std::remove_cvref_t<std::invoke_result_t<Generator&>>::value_type;

    class Iterator {
      public:
        using iterator_concept = std::input_iterator_tag;
        using value_type = Element;
        using difference_type = std::ptrdiff_t;
        using reference = Element&;

        Iterator() = default;

        Element& operator*() const noexcept { return *view_->current_; }
        Element* operator->() const noexcept { return std::addressof(*view_->current_); }

        Iterator& operator++() {
            view_->pull();
            return *this;
        }
        void operator++(int) { ++*this; }

        friend bool operator==(const Iterator& it, std::default_sentinel_t) noexcept {
            return it.atEnd();
        }

      private:
        bool atEnd() const noexcept { return !view_->current_.has_value(); }

        friend GeneratorView;
        explicit Iterator(GeneratorView* view) : view_(view) {}
        GeneratorView* view_ = nullptr;
    };

    GeneratorView()
        requires std::default_initializable<Generator>
    = default;
    explicit GeneratorView(Generator generator) : generator_(std::move(generator)) {}

    /// Starts the sequence: calls the generator for the first value. Call it once.
    Iterator begin() {
        if (!started_) {
            started_ = true;
            pull();
        }
        return Iterator(this);
    }

    std::default_sentinel_t end() const noexcept { return std::default_sentinel; }

  private:
    void pull() {
        if (finished_) return;
        auto next = std::invoke(*generator_);
        if (next) {
            current_.emplace(std::move(*next));
        } else {
            current_.reset();
            finished_ = true;
        }
    }

    detail::SequenceBox<Generator> generator_;
    std::optional<Element> current_;
    bool started_ = false;
    bool finished_ = false;
};

namespace views {

/// `generated(seed, step)`: the sequence seed, step(seed), ... (infinite for a `T -> T` step,
/// ending at the first absent result for `T -> std::optional<T>`).
/// `generated(generator)`: the values of a `() -> std::optional<T>` generator up to the first
/// absent one.
inline constexpr struct GeneratedFunction {
    template <class T, class Step>
        requires std::copy_constructible<std::decay_t<T>> &&
                 SequenceStep<std::decay_t<Step>, std::decay_t<T>>
    auto operator()(T&& seed, Step&& step) const {
        return GeneratedView<std::decay_t<T>, std::decay_t<Step>>(std::forward<T>(seed),
                                                                  std::forward<Step>(step));
    }

    template <class Generator>
        requires std::invocable<std::decay_t<Generator>&> &&
                 detail::IsOptionalResult<
                     std::remove_cvref_t<std::invoke_result_t<std::decay_t<Generator>&>>>::value
    auto operator()(Generator&& generator) const {
        return GeneratorView<std::decay_t<Generator>>(std::forward<Generator>(generator));
    }
} generated;

}  // namespace views

}  // namespace mirels
