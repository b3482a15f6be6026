#pragma once

// `ConcatView`.

#include <compare>
#include <concepts>
#include <cstddef>
#include <iterator>
#include <ranges>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>

#include "mirels/collections/detail/SequenceSupport.h"

namespace mirels {

namespace detail {

/// Ranges that can be read as one sequence: their references share a common reference that each
/// converts to, and their values a common type.
template <class... Rs>
concept Concatenatable =
    requires {
        typename std::common_reference_t<std::ranges::range_reference_t<Rs>...>;
        typename std::common_type_t<std::ranges::range_value_t<Rs>...>;
        typename std::common_reference_t<std::ranges::range_rvalue_reference_t<Rs>...>;
    } && (std::convertible_to<std::ranges::range_reference_t<Rs>,
                              std::common_reference_t<std::ranges::range_reference_t<Rs>...>> &&
          ...);

/// A part that can be stepped back into from the part after it: its end is an iterator, or can
/// be computed as begin + size.
template <class R>
concept ConcatBidirectionalPart =
    std::ranges::bidirectional_range<R> &&
    (std::ranges::common_range<R> ||
     (std::ranges::random_access_range<R> && std::ranges::sized_range<R>));

template <class... Rs>
concept ConcatRandomAccess =
    ((std::ranges::random_access_range<Rs> && std::ranges::sized_range<Rs>)&&...);

template <class... Rs>
concept ConcatBidirectional = (ConcatBidirectionalPart<Rs> && ...);

template <class... Rs>
concept ConcatForward = (std::ranges::forward_range<Rs> && ...);

template <class... Rs>
auto concatIteratorConcept() {
    if constexpr (ConcatRandomAccess<Rs...>) {
        return std::random_access_iterator_tag{};
    } else if constexpr (ConcatBidirectional<Rs...>) {
        return std::bidirectional_iterator_tag{};
    } else if constexpr (ConcatForward<Rs...>) {
        return std::forward_iterator_tag{};
    } else {
        return std::input_iterator_tag{};
    }
}

/// `iterator_category` exists only for forward iterators; it is the concept's tag when
/// dereferencing gives a real reference, and input otherwise (the legacy rules).
template <bool Forward, class Reference, class Concept>
struct ConcatIteratorCategory {};
template <class Reference, class Concept>
struct ConcatIteratorCategory<true, Reference, Concept> {
    using iterator_category =
        std::conditional_t<std::is_reference_v<Reference>, Concept, std::input_iterator_tag>;
};

}  // namespace detail

/// A view of two or more ranges read one after the other, as one sequence.
///
/// The parts must agree on a common reference type (each part's reference converts to it); that
/// is what dereferencing gives, so a concatenation of `std::vector<int>&` parts yields `int&` and
/// can be written through, while mixing `int` and `long` parts yields `long` values.
///
/// The view keeps the strongest iterator category all its parts allow: random access when every
/// part is random access and sized (stepping by n crosses parts in O(number of parts)),
/// bidirectional when every part is bidirectional and its end is an iterator (or computable),
/// forward when all are forward, input otherwise. It is sized when every part is sized and common
/// when the last part is. Empty parts are skipped.
///
/// Parts are held as views: lvalue containers by reference (the container must outlive the view;
/// iterators are invalidated as the parts' own iterators are), rvalue containers by value.
/// Iteration costs one extra comparison per element over walking the parts by hand.
template <std::ranges::input_range... Vs>
    requires(sizeof...(Vs) >= 1) && (std::ranges::view<Vs> && ...) && detail::Concatenatable<Vs...>
class ConcatView : public std::ranges::view_interface<ConcatView<Vs...>> {
    static constexpr std::size_t partCount = sizeof...(Vs);

    template <bool Const>
    using LastPart =
        detail::SequenceMaybeConst<Const, std::tuple_element_t<partCount - 1, std::tuple<Vs...>>>;

  public:
    template <bool Const>
    class Iterator;

    ConcatView()
        requires(std::default_initializable<Vs> && ...)
    = default;

    constexpr explicit ConcatView(Vs... parts) : parts_(std::move(parts)...) {}

    constexpr Iterator<false> begin() {
        Iterator<false> it(this, std::in_place_index<0>, std::ranges::begin(std::get<0>(parts_)));
        it.template satisfy<0>();
        return it;
    }

    constexpr Iterator<true> begin() const
        requires(std::ranges::range<const Vs> && ...) && detail::Concatenatable<const Vs...>
    {
        Iterator<true> it(this, std::in_place_index<0>, std::ranges::begin(std::get<0>(parts_)));
        it.template satisfy<0>();
        return it;
    }

    constexpr auto end() {
        if constexpr (std::ranges::common_range<LastPart<false>>) {
            return Iterator<false>(this, std::in_place_index<partCount - 1>,
                                   std::ranges::end(std::get<partCount - 1>(parts_)));
        } else {
            return std::default_sentinel;
        }
    }

    constexpr auto end() const
        requires(std::ranges::range<const Vs> && ...) && detail::Concatenatable<const Vs...>
    {
        if constexpr (std::ranges::common_range<LastPart<true>>) {
            return Iterator<true>(this, std::in_place_index<partCount - 1>,
                                  std::ranges::end(std::get<partCount - 1>(parts_)));
        } else {
            return std::default_sentinel;
        }
    }

    constexpr auto size()
        requires(std::ranges::sized_range<Vs> && ...)
    {
        return std::apply(
            [](auto&... parts) {
                return (static_cast<std::size_t>(std::ranges::size(parts)) + ...);
            },
            parts_);
    }

    constexpr auto size() const
        requires(std::ranges::sized_range<const Vs> && ...)
    {
        return std::apply(
            [](const auto&... parts) {
                return (static_cast<std::size_t>(std::ranges::size(parts)) + ...);
            },
            parts_);
    }

  private:
    std::tuple<Vs...> parts_;
};

template <bool Const, class Reference, class... Parts>
using ConcatIteratorCategoryBase =
    detail::ConcatIteratorCategory<detail::ConcatForward<Parts...>, Reference,
                                   decltype(detail::concatIteratorConcept<Parts...>())>;

template <std::ranges::input_range... Vs>
    requires(sizeof...(Vs) >= 1) && (std::ranges::view<Vs> && ...) && detail::Concatenatable<Vs...>
template <bool Const>
class ConcatView<Vs...>::Iterator
    : public ConcatIteratorCategoryBase<Const,
                                        std::common_reference_t<std::ranges::range_reference_t<
                                            detail::SequenceMaybeConst<Const, Vs>>...>,
                                        detail::SequenceMaybeConst<Const, Vs>...> {
    using Parent = detail::SequenceMaybeConst<Const, ConcatView>;
    template <std::size_t I>
    using Part = detail::SequenceMaybeConst<Const, std::tuple_element_t<I, std::tuple<Vs...>>>;
    using Base = std::variant<std::ranges::iterator_t<detail::SequenceMaybeConst<Const, Vs>>...>;

    static constexpr bool isForward =
        detail::ConcatForward<detail::SequenceMaybeConst<Const, Vs>...>;
    static constexpr bool isBidirectional =
        detail::ConcatBidirectional<detail::SequenceMaybeConst<Const, Vs>...>;
    static constexpr bool isRandomAccess =
        detail::ConcatRandomAccess<detail::SequenceMaybeConst<Const, Vs>...>;

    friend ConcatView;
    friend class Iterator<!Const>;

  public:
    using iterator_concept =
        decltype(detail::concatIteratorConcept<detail::SequenceMaybeConst<Const, Vs>...>());
    using value_type =
        std::common_type_t<std::ranges::range_value_t<detail::SequenceMaybeConst<Const, Vs>>...>;
    using difference_type = std::common_type_t<
        std::ranges::range_difference_t<detail::SequenceMaybeConst<Const, Vs>>...>;
    using reference = std::common_reference_t<
        std::ranges::range_reference_t<detail::SequenceMaybeConst<Const, Vs>>...>;

    Iterator() = default;

    /// A mutable iterator converts to a constant one.
    template <bool OtherConst>
        requires Const && (!OtherConst) &&
                     (std::convertible_to<std::ranges::iterator_t<Vs>,
                                          std::ranges::iterator_t<const Vs>> &&
                      ...)
    constexpr Iterator(Iterator<OtherConst> other)  // NOLINT(google-explicit-constructor)
        : parent_(other.parent_), it_(convertFrom(std::move(other.it_))) {}

    constexpr reference operator*() const {
        return detail::visitSequenceIndex<partCount>(
            it_.index(), [&](auto i) -> reference { return *std::get<i.value>(it_); });
    }

    constexpr Iterator& operator++() {
        detail::visitSequenceIndex<partCount>(it_.index(), [&](auto i) {
            ++std::get<i.value>(it_);
            satisfy<i.value>();
        });
        return *this;
    }

    constexpr void operator++(int)
        requires(!isForward)
    {
        ++*this;
    }

    constexpr Iterator operator++(int)
        requires isForward
    {
        Iterator before = *this;
        ++*this;
        return before;
    }

    constexpr Iterator& operator--()
        requires isBidirectional
    {
        detail::visitSequenceIndex<partCount>(it_.index(), [&](auto i) { retreat<i.value>(); });
        return *this;
    }

    constexpr Iterator operator--(int)
        requires isBidirectional
    {
        Iterator before = *this;
        --*this;
        return before;
    }

    constexpr Iterator& operator+=(difference_type n)
        requires isRandomAccess
    {
        detail::visitSequenceIndex<partCount>(it_.index(), [&](auto i) {
            constexpr std::size_t I = i.value;
            const auto offset = static_cast<difference_type>(
                std::get<I>(it_) - std::ranges::begin(std::get<I>(parent_->parts_)));
            if (n > 0) {
                advanceForward<I>(offset, n);
            } else if (n < 0) {
                advanceBackward<I>(offset, -n);
            }
        });
        return *this;
    }

    constexpr Iterator& operator-=(difference_type n)
        requires isRandomAccess
    {
        return *this += -n;
    }

    constexpr reference operator[](difference_type n) const
        requires isRandomAccess
    {
        return *(*this + n);
    }

    friend constexpr Iterator operator+(Iterator it, difference_type n)
        requires isRandomAccess
    {
        it += n;
        return it;
    }
    friend constexpr Iterator operator+(difference_type n, Iterator it)
        requires isRandomAccess
    {
        it += n;
        return it;
    }
    friend constexpr Iterator operator-(Iterator it, difference_type n)
        requires isRandomAccess
    {
        it -= n;
        return it;
    }
    friend constexpr difference_type operator-(const Iterator& a, const Iterator& b)
        requires isRandomAccess
    {
        return a.position() - b.position();
    }
    friend constexpr difference_type operator-(const Iterator& it, std::default_sentinel_t)
        requires isRandomAccess
    {
        return it.position() - static_cast<difference_type>(it.parent_->size());
    }
    friend constexpr difference_type operator-(std::default_sentinel_t s, const Iterator& it)
        requires isRandomAccess
    {
        return -(it - s);
    }

    friend constexpr bool operator==(const Iterator& a, const Iterator& b)
        requires(std::equality_comparable<
                     std::ranges::iterator_t<detail::SequenceMaybeConst<Const, Vs>>> &&
                 ...)
    {
        return a.it_ == b.it_;
    }

    friend constexpr bool operator==(const Iterator& it, std::default_sentinel_t) {
        constexpr std::size_t last = partCount - 1;
        return it.it_.index() == last &&
               std::get<last>(it.it_) == std::ranges::end(it.template part<last>());
    }

    friend constexpr std::strong_ordering operator<=>(const Iterator& a, const Iterator& b)
        requires isRandomAccess
    {
        return a.position() <=> b.position();
    }

    friend constexpr decltype(auto) iter_move(const Iterator& it) {
        using RvalueReference = std::common_reference_t<
            std::ranges::range_rvalue_reference_t<detail::SequenceMaybeConst<Const, Vs>>...>;
        return detail::visitSequenceIndex<partCount>(
            it.it_.index(), [&](auto i) -> RvalueReference {
                return std::ranges::iter_move(std::get<i.value>(it.it_));
            });
    }

  private:
    template <std::size_t I, class It>
    constexpr Iterator(Parent* parent, std::in_place_index_t<I> index, It&& it)
        : parent_(parent), it_(index, std::forward<It>(it)) {}

    template <class OtherBase>
    static constexpr Base convertFrom(OtherBase other) {
        return detail::visitSequenceIndex<partCount>(other.index(), [&](auto i) -> Base {
            return Base(std::in_place_index<i.value>, std::move(std::get<i.value>(other)));
        });
    }

    template <std::size_t I>
    constexpr auto& part() const {
        return std::get<I>(parent_->parts_);
    }

    /// The end of part I as an iterator (parts before the last are stepped back into).
    template <std::size_t I>
    constexpr auto partEnd() const {
        if constexpr (std::ranges::common_range<Part<I>>) {
            return std::ranges::end(part<I>());
        } else {
            return std::ranges::begin(part<I>()) +
                   static_cast<std::ranges::range_difference_t<Part<I>>>(
                       std::ranges::size(part<I>()));
        }
    }

    template <std::size_t I>
    constexpr difference_type partSize() const {
        return static_cast<difference_type>(std::ranges::size(part<I>()));
    }

    /// Moves past the ends of empty parts, so that the iterator rests at the end of a part only
    /// when that part is the last.
    template <std::size_t I>
    constexpr void satisfy() {
        if constexpr (I + 1 < partCount) {
            if (std::get<I>(it_) == std::ranges::end(part<I>())) [[unlikely]] {
                it_.template emplace<I + 1>(std::ranges::begin(part<I + 1>()));
                satisfy<I + 1>();
            }
        }
    }

    template <std::size_t I>
    constexpr void retreat() {
        if constexpr (I == 0) {
            --std::get<0>(it_);
        } else {
            if (std::get<I>(it_) == std::ranges::begin(part<I>())) {
                it_.template emplace<I - 1>(partEnd<I - 1>());
                retreat<I - 1>();
            } else {
                --std::get<I>(it_);
            }
        }
    }

    template <std::size_t I>
    constexpr void advanceForward(difference_type offset, difference_type steps) {
        using PartDifference = std::ranges::range_difference_t<Part<I>>;
        if constexpr (I + 1 == partCount) {
            std::get<I>(it_) =
                std::ranges::begin(part<I>()) + static_cast<PartDifference>(offset + steps);
        } else {
            const difference_type size = partSize<I>();
            if (offset + steps < size) {
                std::get<I>(it_) =
                    std::ranges::begin(part<I>()) + static_cast<PartDifference>(offset + steps);
            } else {
                it_.template emplace<I + 1>(std::ranges::begin(part<I + 1>()));
                advanceForward<I + 1>(0, steps - (size - offset));
            }
        }
    }

    template <std::size_t I>
    constexpr void advanceBackward(difference_type offset, difference_type steps) {
        using PartDifference = std::ranges::range_difference_t<Part<I>>;
        if constexpr (I == 0) {
            std::get<I>(it_) =
                std::ranges::begin(part<I>()) + static_cast<PartDifference>(offset - steps);
        } else {
            if (offset >= steps) {
                std::get<I>(it_) =
                    std::ranges::begin(part<I>()) + static_cast<PartDifference>(offset - steps);
            } else {
                const difference_type previousSize = partSize<I - 1>();
                it_.template emplace<I - 1>(partEnd<I - 1>());
                advanceBackward<I - 1>(previousSize, steps - offset);
            }
        }
    }

    /// Distance from the start of the whole sequence.
    constexpr difference_type position() const {
        return detail::visitSequenceIndex<partCount>(it_.index(), [&](auto i) {
            constexpr std::size_t I = i.value;
            difference_type before = 0;
            [&]<std::size_t... P>(std::index_sequence<P...>) {
                ((before += partSize<P>()), ...);
            }(std::make_index_sequence<I>{});
            return before +
                   static_cast<difference_type>(std::get<I>(it_) - std::ranges::begin(part<I>()));
        });
    }

    Parent* parent_ = nullptr;
    Base it_;
};

template <class... Rs>
ConcatView(Rs&&...) -> ConcatView<std::views::all_t<Rs>...>;

namespace views {

/// The ranges given, read one after the other: `views::concat(a, b, c)`.
inline constexpr auto concat = []<std::ranges::viewable_range... Rs>(Rs && ... ranges)
    requires(sizeof...(Rs) >= 1) && requires {
        ConcatView<std::views::all_t<Rs>...>(std::views::all(std::declval<Rs>())...);
    }
{
    return ConcatView<std::views::all_t<Rs>...>(std::views::all(std::forward<Rs>(ranges))...);
};

}  // namespace views

}  // namespace mirels
