#pragma once

// `AdjacentPairsView`. Also `AdjacentPair`.

#include <compare>
#include <concepts>
#include <cstddef>
#include <iterator>
#include <ranges>
#include <type_traits>
#include <utility>

#include "mirels/collections/detail/SequenceSupport.h"

namespace mirels {

/// One element of `AdjacentPairsView`: two neighbouring elements, by reference (`Reference` is the
/// underlying range's reference type). `auto [left, right] = pair` binds to them, so writing
/// through `right` writes the range. It converts to, and compares with, a `std::pair` of values,
/// which is the view's value type.
template <class Reference>
struct AdjacentPair {
    Reference first;
    Reference second;

    template <class A, class B>
        requires std::convertible_to<Reference, A> && std::convertible_to<Reference, B>
    constexpr operator std::pair<A, B>() const {  // NOLINT(google-explicit-constructor)
        return std::pair<A, B>(first, second);
    }

    template <class A, class B>
    friend constexpr bool operator==(const AdjacentPair& pair, const std::pair<A, B>& other) {
        return pair.first == other.first && pair.second == other.second;
    }
    template <class OtherReference>
    friend constexpr bool operator==(const AdjacentPair& pair,
                                     const AdjacentPair<OtherReference>& other) {
        return pair.first == other.first && pair.second == other.second;
    }
};

/// The overlapping pairs of neighbours of a range: (a0, a1), (a1, a2), ... A range of n elements
/// has max(n - 1, 0) pairs.
///
/// Each element is an `AdjacentPair` of the underlying range's references, so pairs over a
/// mutable container can be written through and nothing is copied; the value type is a
/// `std::pair` of the underlying values. The view
/// keeps the underlying category (forward, bidirectional or random access; it needs forward,
/// since every element is read twice), is sized when the range is, and common when the range is
/// common and bidirectional. An iterator holds two underlying iterators; iteration costs one
/// extra increment per element over an index loop. Iterators are invalidated as the underlying
/// range's are.
template <std::ranges::view V>
    requires std::ranges::forward_range<V>
class AdjacentPairsView : public std::ranges::view_interface<AdjacentPairsView<V>> {
  public:
    template <bool Const>
    class Sentinel;

    template <bool Const>
    class Iterator {
        using Base = detail::SequenceMaybeConst<Const, V>;
        using BaseIterator = std::ranges::iterator_t<Base>;
        friend AdjacentPairsView;
        friend class Iterator<!Const>;
        friend class Sentinel<Const>;

      public:
        using iterator_concept = std::conditional_t<
            std::ranges::random_access_range<Base>, std::random_access_iterator_tag,
            std::conditional_t<std::ranges::bidirectional_range<Base>,
                               std::bidirectional_iterator_tag, std::forward_iterator_tag>>;
        using iterator_category = std::input_iterator_tag;
        using value_type =
            std::pair<std::ranges::range_value_t<Base>, std::ranges::range_value_t<Base>>;
        using reference = AdjacentPair<std::ranges::range_reference_t<Base>>;
        using difference_type = std::ranges::range_difference_t<Base>;

        Iterator() = default;

        template <bool OtherConst>
            requires Const && (!OtherConst) &&
                         std::convertible_to<std::ranges::iterator_t<V>, BaseIterator>
        constexpr Iterator(Iterator<OtherConst> other)  // NOLINT(google-explicit-constructor)
            : first_(std::move(other.first_)), second_(std::move(other.second_)) {}

        constexpr reference operator*() const { return reference(*first_, *second_); }

        constexpr Iterator& operator++() {
            first_ = second_;
            ++second_;
            return *this;
        }
        constexpr Iterator operator++(int) {
            Iterator before = *this;
            ++*this;
            return before;
        }

        constexpr Iterator& operator--()
            requires std::ranges::bidirectional_range<Base>
        {
            second_ = first_;
            --first_;
            return *this;
        }
        constexpr Iterator operator--(int)
            requires std::ranges::bidirectional_range<Base>
        {
            Iterator before = *this;
            --*this;
            return before;
        }

        constexpr Iterator& operator+=(difference_type n)
            requires std::ranges::random_access_range<Base>
        {
            first_ += n;
            second_ += n;
            return *this;
        }
        constexpr Iterator& operator-=(difference_type n)
            requires std::ranges::random_access_range<Base>
        {
            return *this += -n;
        }
        constexpr reference operator[](difference_type n) const
            requires std::ranges::random_access_range<Base>
        {
            return reference(first_[n], second_[n]);
        }

        friend constexpr Iterator operator+(Iterator it, difference_type n)
            requires std::ranges::random_access_range<Base>
        {
            return it += n;
        }
        friend constexpr Iterator operator+(difference_type n, Iterator it)
            requires std::ranges::random_access_range<Base>
        {
            return it += n;
        }
        friend constexpr Iterator operator-(Iterator it, difference_type n)
            requires std::ranges::random_access_range<Base>
        {
            return it -= n;
        }
        friend constexpr difference_type operator-(const Iterator& a, const Iterator& b)
            requires std::sized_sentinel_for<BaseIterator, BaseIterator>
        {
            return a.second_ - b.second_;
        }

        /// Iterators are equal when their second elements are: the end iterator's second is the
        /// underlying end, and its first may be clamped at the start.
        friend constexpr bool operator==(const Iterator& a, const Iterator& b) {
            return a.second_ == b.second_;
        }
        friend constexpr auto operator<=>(const Iterator& a, const Iterator& b)
            requires std::ranges::random_access_range<Base> &&
                     std::three_way_comparable<BaseIterator>
        {
            return a.second_ <=> b.second_;
        }

      private:
        constexpr Iterator(BaseIterator first, BaseIterator second)
            : first_(std::move(first)), second_(std::move(second)) {}

        BaseIterator first_{};
        BaseIterator second_{};
    };

    template <bool Const>
    class Sentinel {
        using Base = detail::SequenceMaybeConst<Const, V>;
        friend AdjacentPairsView;

      public:
        Sentinel() = default;

        friend constexpr bool operator==(const Iterator<Const>& it, const Sentinel& end) {
            return secondOf(it) == end.end_;
        }
        friend constexpr std::ranges::range_difference_t<Base> operator-(const Iterator<Const>& it,
                                                                         const Sentinel& end)
            requires std::sized_sentinel_for<std::ranges::sentinel_t<Base>,
                                             std::ranges::iterator_t<Base>>
        {
            return secondOf(it) - end.end_;
        }
        friend constexpr std::ranges::range_difference_t<Base> operator-(const Sentinel& end,
                                                                         const Iterator<Const>& it)
            requires std::sized_sentinel_for<std::ranges::sentinel_t<Base>,
                                             std::ranges::iterator_t<Base>>
        {
            return end.end_ - secondOf(it);
        }

      private:
        static constexpr const auto& secondOf(const Iterator<Const>& it) { return it.second_; }

        constexpr explicit Sentinel(std::ranges::sentinel_t<Base> end) : end_(std::move(end)) {}
        std::ranges::sentinel_t<Base> end_{};
    };

    AdjacentPairsView()
        requires std::default_initializable<V>
    = default;
    constexpr explicit AdjacentPairsView(V base) : base_(std::move(base)) {}

    constexpr V base() const&
        requires std::copy_constructible<V>
    {
        return base_;
    }
    constexpr V base() && { return std::move(base_); }

    constexpr Iterator<false> begin() { return beginOf<false>(base_); }
    constexpr Iterator<true> begin() const
        requires std::ranges::forward_range<const V>
    {
        return beginOf<true>(base_);
    }

    constexpr auto end() { return endOf<false>(base_); }
    constexpr auto end() const
        requires std::ranges::forward_range<const V>
    {
        return endOf<true>(base_);
    }

    constexpr auto size()
        requires std::ranges::sized_range<V>
    {
        return pairCount(std::ranges::size(base_));
    }
    constexpr auto size() const
        requires std::ranges::sized_range<const V>
    {
        return pairCount(std::ranges::size(base_));
    }

  private:
    template <class Size>
    static constexpr Size pairCount(Size n) {
        return n == 0 ? Size(0) : Size(n - 1);
    }

    template <bool Const, class Base>
    static constexpr Iterator<Const> beginOf(Base& base) {
        auto first = std::ranges::begin(base);
        auto second = std::ranges::next(first, 1, std::ranges::end(base));
        return Iterator<Const>(std::move(first), std::move(second));
    }

    template <bool Const, class Base>
    static constexpr auto endOf(Base& base) {
        if constexpr (std::ranges::common_range<Base> && std::ranges::bidirectional_range<Base>) {
            auto second = std::ranges::end(base);
            auto first = std::ranges::prev(second, 1, std::ranges::begin(base));
            return Iterator<Const>(std::move(first), std::move(second));
        } else {
            return Sentinel<Const>(std::ranges::end(base));
        }
    }

    V base_{};
};

template <class R>
AdjacentPairsView(R&&) -> AdjacentPairsView<std::views::all_t<R>>;

namespace views {

/// `views::adjacentPairs(range)` or `range | views::adjacentPairs`: the pairs of neighbours.
inline constexpr struct AdjacentPairsFunction {
    template <std::ranges::viewable_range R>
        requires std::ranges::forward_range<R>
    constexpr auto operator()(R&& range) const {
        return AdjacentPairsView<std::views::all_t<R>>(std::views::all(std::forward<R>(range)));
    }

    template <std::ranges::viewable_range R>
        requires std::ranges::forward_range<R>
    friend constexpr auto operator|(R&& range, const AdjacentPairsFunction& function) {
        return function(std::forward<R>(range));
    }
} adjacentPairs;

}  // namespace views

}  // namespace mirels

/// A pair of references and a `std::pair` of values meet in the `std::pair` of values (what
/// reading an element into a variable gives), which is what the range concepts ask for.
template <class Reference, class A, class B, template <class> class RQ, template <class> class PQ>
    requires std::convertible_to<Reference, A> && std::convertible_to<Reference, B>
struct std::basic_common_reference<mirels::AdjacentPair<Reference>, std::pair<A, B>, RQ, PQ> {
    using type = std::pair<A, B>;
};

template <class Reference, class A, class B, template <class> class PQ, template <class> class RQ>
    requires std::convertible_to<Reference, A> && std::convertible_to<Reference, B>
struct std::basic_common_reference<std::pair<A, B>, mirels::AdjacentPair<Reference>, PQ, RQ> {
    using type = std::pair<A, B>;
};
