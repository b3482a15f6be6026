#pragma once

// `Inhabited`: a collection known to hold at least one element, so that `first()` (and `last()` for
// bidirectional bases) needs no optional. Also `HasHead`, `Predicated`, `ReversedCollection`,
// `groupElements()`, `compactGroupElements()`, `orderedGroupElements()` and more.

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <functional>
#include <iterator>
#include <optional>
#include <ranges>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "mirels/Export.h"
#include "mirels/collections/OrderedDictionary.h"
#include "mirels/collections/OrderedSet.h"
#include "mirels/core/Assertions.h"
#include "mirels/core/TypeName.h"

namespace mirels {

namespace detail {
/// "Calling `«operation»` on underlying «type» with «count» element(s) produced no first element"
[[noreturn]] MIRELS_EXPORT void inhabitedProducedNoFirstElement(const char* operation,
                                                                const std::string& typeName,
                                                                std::size_t count);
/// "Calling reversed on a non-empty sequence with «count» elements resulted in an empty array."
[[noreturn]] MIRELS_EXPORT void inhabitedReversedIntoEmptyArray(std::size_t count);

/// Collections that grow at the end and take insertions at a position (vector, deque, list,
/// string).
template <class C>
concept RangeReplaceable = requires(C& c, std::ranges::range_value_t<C> element) {
    c.push_back(std::move(element));
    c.insert(c.begin(), std::move(element));
};

/// Sets that insert an element without a position and say whether it was new.
template <class C>
concept SetLike = requires(C& c, std::ranges::range_value_t<C> element) {
    { c.insert(std::move(element)).second } -> std::convertible_to<bool>;
};

template <class C>
struct IsOrderedSet : std::false_type {};
template <class E, class H, class Q>
struct IsOrderedSet<OrderedSet<E, H, Q>> : std::true_type {};

template <class C>
struct IsOrderedDictionary : std::false_type {};
template <class K, class V, class H, class Q>
struct IsOrderedDictionary<OrderedDictionary<K, V, H, Q>> : std::true_type {};

/// Collections that an `Inhabited` can be built up from a first element and more.
template <class C>
concept Buildable = RangeReplaceable<C> || SetLike<C> || IsOrderedSet<C>::value;

template <class C, class E>
void addElement(C& collection, E&& element) {
    if constexpr (RangeReplaceable<C>) {
        collection.push_back(std::forward<E>(element));
    } else if constexpr (IsOrderedSet<C>::value) {
        collection.append(std::forward<E>(element));
    } else {
        collection.insert(std::forward<E>(element));
    }
}

template <class C>
std::size_t elementCount(const C& collection) {
    if constexpr (std::ranges::sized_range<const C>) {
        return static_cast<std::size_t>(std::ranges::size(collection));
    } else {
        return static_cast<std::size_t>(std::ranges::distance(collection));
    }
}
}  // namespace detail

/// The predicate "the collection has a first element"; the proof is that element.
template <std::ranges::forward_range Base>
struct HasHead {
    using Value = Base;
    using Proof = std::ranges::range_value_t<Base>;

    static std::optional<Proof> proof(const Base& base) {
        auto first = std::ranges::begin(base);
        if (first == std::ranges::end(base)) return std::nullopt;
        return Proof(*first);
    }
};

template <std::ranges::forward_range Base>
class Inhabited;

/// A value together with the proof that it satisfies the predicate `P`. It can only be made
/// through `wrapping`, which asks the predicate, so holding one is holding the proof.
template <Predicate P>
class Predicated {
  public:
    using Value = typename P::Value;
    using Proof = typename P::Proof;

    /// The value with its proof, or absent when the predicate does not hold.
    static std::optional<Predicated> wrapping(Value value) {
        std::optional<Proof> proof = P::proof(value);
        if (!proof) return std::nullopt;
        return Predicated(std::move(value), std::move(*proof));
    }

    const Value& value() const noexcept { return value_; }
    const Proof& proof() const noexcept { return proof_; }

    friend bool operator==(const Predicated& a, const Predicated& b)
        requires std::equality_comparable<Value>
    {
        return a.value_ == b.value_;
    }

  private:
    template <std::ranges::forward_range>
    friend class Inhabited;

    Predicated(Value value, Proof proof) : value_(std::move(value)), proof_(std::move(proof)) {}

    Value value_;
    Proof proof_;
};

/// A bidirectional collection read back to front, owning its base (the view that
/// `Inhabited::reversedView()` wraps).
template <std::ranges::bidirectional_range Base>
class ReversedCollection {
  public:
    using value_type = std::ranges::range_value_t<Base>;
    using const_iterator = std::reverse_iterator<std::ranges::iterator_t<const Base>>;
    using iterator = const_iterator;

    explicit ReversedCollection(Base base) : base_(std::move(base)) {}

    const_iterator begin() const { return const_iterator(std::ranges::end(base_)); }
    const_iterator end() const { return const_iterator(std::ranges::begin(base_)); }
    std::size_t size() const { return detail::elementCount(base_); }
    const Base& base() const noexcept { return base_; }

    friend bool operator==(const ReversedCollection& a, const ReversedCollection& b)
        requires std::equality_comparable<Base>
    {
        return a.base_ == b.base_;
    }

  private:
    Base base_;
};

/// A collection known to hold at least one element, so that `first()` (and `last()` for
/// bidirectional bases) needs no optional.
///
/// Non-emptiness is carried by the type: an `Inhabited` is a `Predicated<HasHead<Base>>`, the
/// collection with its first element stored beside it as the proof. Every operation keeps the
/// two in step, and every transform that keeps non-emptiness by construction returns an
/// `Inhabited` again. A transform that nevertheless yields an empty result means the base broke
/// its own contract (its count and its iteration disagree): the process stops with a message
/// naming the base type and the element count.
///
/// Iteration is read-only (a write through an iterator could break the proof); change elements
/// with `withFirst`, `setElement` and the adding operations.
template <std::ranges::forward_range Base>
class Inhabited {
  public:
    /// The wrapped collection type (what `assertPredicate` and `wrapping` take).
    using Value = Base;
    using Element = std::ranges::range_value_t<Base>;
    using value_type = Element;
    using const_iterator = std::ranges::iterator_t<const Base>;
    using iterator = const_iterator;
    using size_type = std::size_t;
    using difference_type = std::ranges::range_difference_t<Base>;

    explicit Inhabited(Predicated<HasHead<Base>> predicated) : predicated_(std::move(predicated)) {}

    /// `base` wrapped, or absent when it is empty.
    static std::optional<Inhabited> wrapping(Base base) {
        auto predicated = Predicated<HasHead<Base>>::wrapping(std::move(base));
        if (!predicated) return std::nullopt;
        return Inhabited(std::move(*predicated));
    }

    /// `first` followed by `otherElements` (for sets: `first` and the others inserted).
    template <class... Others>
        requires detail::Buildable<Base> && (std::convertible_to<Others &&, Element> && ...)
    explicit Inhabited(Element first, Others&&... otherElements)
        : predicated_(build(std::move(first), [&](Base& base) {
              (detail::addElement(base, Element(std::forward<Others>(otherElements))), ...);
          })) {}

    /// `first` followed by the elements of a sequence.
    template <class R>
        requires detail::Buildable<Base> && detail::RangeOf<R, Element>
    Inhabited(Element first, R&& otherElements)
        : predicated_(build(std::move(first), [&](Base& base) {
              for (auto&& element : otherElements) {
                  detail::addElement(base, Element(std::forward<decltype(element)>(element)));
              }
          })) {}

    // --- reading -----------------------------------------------------------------------------

    const Predicated<HasHead<Base>>& predicated() const noexcept { return predicated_; }
    /// The wrapped collection.
    const Base& base() const noexcept { return predicated_.value_; }

    const Element& first() const noexcept { return predicated_.proof_; }

    const Element& last() const
        requires std::ranges::bidirectional_range<const Base>
    {
        return *std::ranges::prev(std::ranges::end(base()));
    }

    const_iterator begin() const { return std::ranges::begin(base()); }
    const_iterator end() const { return std::ranges::end(base()); }
    size_type count() const { return detail::elementCount(base()); }
    size_type size() const { return count(); }
    /// Always false; offered so that generic code that asks gets the right answer.
    constexpr bool isEmpty() const noexcept { return false; }
    constexpr bool empty() const noexcept { return false; }

    /// The element at `position` (random-access bases); out of range is undefined, as for the
    /// base.
    const Element& operator[](size_type position) const
        requires std::ranges::random_access_range<const Base>
    {
        return *(begin() + static_cast<difference_type>(position));
    }

    /// The element at `position`, or absent when the position is outside the collection.
    std::optional<Element> checked(size_type position) const
        requires std::ranges::random_access_range<const Base>
    {
        if (position >= count()) return std::nullopt;
        return (*this)[position];
    }

    /// The elements from `lowerBound` up to, not including, `upperBound`.
    auto slice(size_type lowerBound, size_type upperBound) const
        requires std::ranges::random_access_range<const Base>
    {
        return std::ranges::subrange(begin() + static_cast<difference_type>(lowerBound),
                                     begin() + static_cast<difference_type>(upperBound));
    }

    // --- transforming ------------------------------------------------------------------------

    /// Each element transformed, as a list.
    template <class Transform>
        requires std::is_invocable_v<Transform&, const Element&>
    auto map(Transform transform) const {
        using Result = std::remove_cvref_t<std::invoke_result_t<Transform&, const Element&>>;
        std::vector<Result> mapped;
        mapped.reserve(count());
        for (const Element& element : base()) mapped.push_back(std::invoke(transform, element));
        return wrapOrStop("map", std::move(mapped));
    }

    /// Each element transformed with the previous result at hand: `transform(element, previous)`
    /// where `previous` points to the result for the element before (null for the first).
    template <class Transform, class Result = std::remove_cvref_t<std::invoke_result_t<
                                   Transform&, const Element&, std::nullptr_t>>>
        requires std::is_invocable_r_v<Result, Transform&, const Element&, const Result*>
    Inhabited<std::vector<Result>> mapWithPrevious(Transform transform) const {
        std::vector<Result> mapped;
        mapped.reserve(count());
        for (const Element& element : base()) {
            const Result* previous = mapped.empty() ? nullptr : &mapped.back();
            mapped.push_back(std::invoke(transform, element, previous));
        }
        return wrapOrStop("mapWithPrevious", std::move(mapped));
    }

    /// (offset, element) pairs, as a list.
    Inhabited<std::vector<std::pair<std::size_t, Element>>> enumerated() const {
        std::vector<std::pair<std::size_t, Element>> pairs;
        pairs.reserve(count());
        std::size_t offset = 0;
        for (const Element& element : base()) pairs.emplace_back(offset++, element);
        return wrapOrStop("enumerated", std::move(pairs));
    }

    /// The elements in the order of `comesBefore` (a stable sort), as a list.
    template <class Compare = std::less<>>
        requires std::is_invocable_r_v<bool, Compare&, const Element&, const Element&>
    Inhabited<std::vector<Element>> sorted(Compare comesBefore = {}) const {
        std::vector<Element> elements(begin(), end());
        std::stable_sort(elements.begin(), elements.end(), std::ref(comesBefore));
        return wrapOrStop("sorted", std::move(elements));
    }

    /// The elements back to front, as a list.
    Inhabited<std::vector<Element>> reversed() const {
        std::vector<Element> elements(begin(), end());
        std::reverse(elements.begin(), elements.end());
        auto result = Inhabited<std::vector<Element>>::wrapping(std::move(elements));
        if (!result) detail::inhabitedReversedIntoEmptyArray(count());
        return std::move(*result);
    }

    /// The elements back to front, as a view that owns a copy of the base (bidirectional bases).
    auto reversedView() const
        requires std::ranges::bidirectional_range<const Base>
    {
        return wrapOrStop("reversed", ReversedCollection<Base>(base()));
    }

    /// The distinct elements, as a hash set.
    Inhabited<std::unordered_set<Element>> uniqued() const {
        return wrapOrStop("uniqued", std::unordered_set<Element>(begin(), end()));
    }

    /// The distinct elements in order of first occurrence.
    Inhabited<OrderedSet<Element>> orderedUniqued() const {
        return wrapOrStop("orderedUniqued", OrderedSet<Element>(base()));
    }

    /// An ordered dictionary of the (key, value) pair made from each element, in order; a
    /// repeated key takes the later value and keeps its first position.
    template <class Transform>
        requires std::is_invocable_v<Transform&, const Element&>
    auto orderedKeyedMap(Transform transform) const {
        using Pair = std::remove_cvref_t<std::invoke_result_t<Transform&, const Element&>>;
        OrderedDictionary<typename Pair::first_type, typename Pair::second_type> dictionary;
        dictionary.reserve(count());
        for (const Element& element : base()) {
            Pair pair = std::invoke(transform, element);
            dictionary.updateValue(std::move(pair.second), pair.first);
        }
        return wrapOrStop("orderedKeyedMap", std::move(dictionary));
    }

    // --- changing ----------------------------------------------------------------------------

    /// Lends the first element for change in place and stores the result back into the
    /// collection and the proof. Returns what `body` returns.
    template <class Body>
        requires std::is_invocable_v<Body&&, Element&> &&
                 std::is_assignable_v<std::ranges::range_reference_t<Base>, Element>
    decltype(auto) withFirst(Body&& body) {
        struct StoreBack {
            Inhabited& self;
            ~StoreBack() { *std::ranges::begin(self.predicated_.value_) = self.predicated_.proof_; }
        } storeBack{*this};
        return std::invoke(std::forward<Body>(body), predicated_.proof_);
    }

    /// Replaces the element at `position` (mutable random-access bases).
    void setElement(size_type position, Element element)
        requires std::ranges::random_access_range<Base> &&
                 std::is_assignable_v<std::ranges::range_reference_t<Base>, Element>
    {
        auto target =
            std::ranges::begin(predicated_.value_) + static_cast<difference_type>(position);
        *target = std::move(element);
        if (position == 0) refreshProof();
    }

    void append(Element element)
        requires detail::RangeReplaceable<Base>
    {
        predicated_.value_.push_back(std::move(element));
    }
    /// For ordered-set bases: true when `element` was new.
    bool append(Element element)
        requires detail::IsOrderedSet<Base>::value
    {
        return predicated_.value_.append(std::move(element));
    }

    template <class R>
        requires detail::RangeOf<R, Element> &&
                 (detail::RangeReplaceable<Base> || detail::IsOrderedSet<Base>::value)
    void append(R&& elements) {
        for (auto&& element : elements) {
            append(Element(std::forward<decltype(element)>(element)));
        }
    }

    Inhabited appending(Element element) const
        requires detail::RangeReplaceable<Base>
    {
        Inhabited copy(*this);
        copy.append(std::move(element));
        return copy;
    }

    template <class R>
        requires detail::RangeOf<R, Element> &&
                 (detail::RangeReplaceable<Base> || detail::IsOrderedSet<Base>::value)
    Inhabited appending(R&& elements) const {
        Inhabited copy(*this);
        copy.append(std::forward<R>(elements));
        return copy;
    }

    /// For ordered-dictionary bases: a copy with the (key, value) pairs set in order.
    template <std::ranges::input_range Pairs>
        requires detail::IsOrderedDictionary<Base>::value &&
                 std::convertible_to<std::ranges::range_reference_t<Pairs>, Element>
    Inhabited appending(Pairs&& pairs) const {
        Inhabited copy(*this);
        copy.predicated_.value_ = base().appending(std::forward<Pairs>(pairs));
        copy.refreshProof();
        return copy;
    }

    /// Inserts `element` before position `at` (0 ..< count + 1).
    void insert(Element element, size_type at)
        requires detail::RangeReplaceable<Base>
    {
        Base& b = predicated_.value_;
        b.insert(std::ranges::next(b.begin(), static_cast<difference_type>(at)),
                 std::move(element));
        if (at == 0) refreshProof();
    }

    Inhabited inserting(Element element, size_type at) const
        requires detail::RangeReplaceable<Base>
    {
        Inhabited copy(*this);
        copy.insert(std::move(element), at);
        return copy;
    }

    /// Inserts the elements of a sequence before position `at`, keeping their order.
    template <class R>
        requires detail::RangeOf<R, Element> && detail::RangeReplaceable<Base>
    void insert(R&& elements, size_type at) {
        std::vector<Element> adding;
        for (auto&& element : elements)
            adding.emplace_back(std::forward<decltype(element)>(element));
        Base& b = predicated_.value_;
        b.insert(std::ranges::next(b.begin(), static_cast<difference_type>(at)),
                 std::make_move_iterator(adding.begin()), std::make_move_iterator(adding.end()));
        if (at == 0) refreshProof();
    }

    template <class R>
        requires detail::RangeOf<R, Element> && detail::RangeReplaceable<Base>
    Inhabited inserting(R&& elements, size_type at) const {
        Inhabited copy(*this);
        copy.insert(std::forward<R>(elements), at);
        return copy;
    }

    /// For set bases: inserts `element`; returns true when it was new. The proof follows the
    /// set's first element, which an insertion may change.
    bool insert(Element element)
        requires detail::SetLike<Base>
    {
        bool inserted = predicated_.value_.insert(std::move(element)).second;
        refreshProof();
        return inserted;
    }

    /// For set bases: inserts every element of a sequence.
    template <class R>
        requires detail::RangeOf<R, Element> && detail::SetLike<Base>
    void formUnion(R&& elements) {
        for (auto&& element : elements) {
            predicated_.value_.insert(Element(std::forward<decltype(element)>(element)));
        }
        refreshProof();
    }

    friend bool operator==(const Inhabited& a, const Inhabited& b)
        requires std::equality_comparable<Base>
    {
        return a.base() == b.base();
    }

  private:
    template <class AddOthers>
    static Predicated<HasHead<Base>> build(Element first, AddOthers&& addOthers) {
        Base base;
        detail::addElement(base, std::move(first));
        addOthers(base);
        auto proof = HasHead<Base>::proof(base);
        return Predicated<HasHead<Base>>(std::move(base), std::move(*proof));
    }

    template <class Collection>
    auto wrapOrStop(const char* operation, Collection&& collection) const {
        auto result = Inhabited<std::remove_cvref_t<Collection>>::wrapping(
            std::forward<Collection>(collection));
        if (!result) {
            detail::inhabitedProducedNoFirstElement(operation, unqualifiedTypeName<Base>(),
                                                    count());
        }
        return std::move(*result);
    }

    void refreshProof() { predicated_.proof_ = *std::ranges::begin(predicated_.value_); }

    Predicated<HasHead<Base>> predicated_;
};

template <class Base>
Inhabited(Predicated<HasHead<Base>>) -> Inhabited<Base>;

/// `Inhabited(1, 2, 3)` holds a `std::vector<int>`.
template <class First, class... Others>
    requires(!std::ranges::range<First> || std::is_convertible_v<First, std::string>)
Inhabited(First, Others...) -> Inhabited<std::vector<First>>;

// --- grouping --------------------------------------------------------------------------------

/// The elements of `sequence` grouped by `keyOf(element)`: each key maps to the non-empty list
/// of its elements in sequence order.
template <std::ranges::input_range R, class KeyOf>
    requires std::is_invocable_v<KeyOf&, const std::ranges::range_value_t<R>&>
auto groupElements(R&& sequence, KeyOf keyOf) {
    using Element = std::ranges::range_value_t<R>;
    using Key = std::remove_cvref_t<std::invoke_result_t<KeyOf&, const Element&>>;
    std::unordered_map<Key, Inhabited<std::vector<Element>>> groups;
    for (auto&& element : sequence) {
        Key key = std::invoke(keyOf, std::as_const(element));
        if (auto found = groups.find(key); found != groups.end()) {
            found->second.append(Element(element));
        } else {
            groups.emplace(std::move(key), Inhabited<std::vector<Element>>(Element(element)));
        }
    }
    return groups;
}

/// As above, grouping `valueOf(element)` instead of the elements themselves.
template <std::ranges::input_range R, class KeyOf, class ValueOf>
    requires std::is_invocable_v<KeyOf&, const std::ranges::range_value_t<R>&> &&
             std::is_invocable_v<ValueOf&, const std::ranges::range_value_t<R>&>
auto groupElements(R&& sequence, KeyOf keyOf, ValueOf valueOf) {
    using Element = std::ranges::range_value_t<R>;
    using Key = std::remove_cvref_t<std::invoke_result_t<KeyOf&, const Element&>>;
    using Value = std::remove_cvref_t<std::invoke_result_t<ValueOf&, const Element&>>;
    std::unordered_map<Key, Inhabited<std::vector<Value>>> groups;
    for (auto&& element : sequence) {
        Key key = std::invoke(keyOf, std::as_const(element));
        Value value = std::invoke(valueOf, std::as_const(element));
        if (auto found = groups.find(key); found != groups.end()) {
            found->second.append(std::move(value));
        } else {
            groups.emplace(std::move(key), Inhabited<std::vector<Value>>(std::move(value)));
        }
    }
    return groups;
}

/// Groups the (key, value) pairs that `pairOf(element)` gives; elements giving absent are
/// skipped.
template <std::ranges::input_range R, class PairOf>
    requires std::is_invocable_v<PairOf&, const std::ranges::range_value_t<R>&>
auto compactGroupElements(R&& sequence, PairOf pairOf) {
    using Element = std::ranges::range_value_t<R>;
    using Pair =
        typename std::remove_cvref_t<std::invoke_result_t<PairOf&, const Element&>>::value_type;
    using Key = typename Pair::first_type;
    using Value = typename Pair::second_type;
    std::unordered_map<Key, Inhabited<std::vector<Value>>> groups;
    for (auto&& element : sequence) {
        auto pair = std::invoke(pairOf, std::as_const(element));
        if (!pair) continue;
        if (auto found = groups.find(pair->first); found != groups.end()) {
            found->second.append(std::move(pair->second));
        } else {
            groups.emplace(std::move(pair->first),
                           Inhabited<std::vector<Value>>(std::move(pair->second)));
        }
    }
    return groups;
}

/// As `groupElements`, as an ordered dictionary whose keys are in order of first occurrence.
template <std::ranges::input_range R, class KeyOf>
    requires std::is_invocable_v<KeyOf&, const std::ranges::range_value_t<R>&>
auto orderedGroupElements(R&& sequence, KeyOf keyOf) {
    using Element = std::ranges::range_value_t<R>;
    using Key = std::remove_cvref_t<std::invoke_result_t<KeyOf&, const Element&>>;
    OrderedDictionary<Key, Inhabited<std::vector<Element>>> groups;
    for (auto&& element : sequence) {
        Key key = std::invoke(keyOf, std::as_const(element));
        if (auto* group = groups.find(key)) {
            group->append(Element(element));
        } else {
            groups.updateValue(Inhabited<std::vector<Element>>(Element(element)), key);
        }
    }
    return groups;
}

/// As above, grouping `valueOf(element)`.
template <std::ranges::input_range R, class KeyOf, class ValueOf>
    requires std::is_invocable_v<KeyOf&, const std::ranges::range_value_t<R>&> &&
             std::is_invocable_v<ValueOf&, const std::ranges::range_value_t<R>&>
auto orderedGroupElements(R&& sequence, KeyOf keyOf, ValueOf valueOf) {
    using Element = std::ranges::range_value_t<R>;
    using Key = std::remove_cvref_t<std::invoke_result_t<KeyOf&, const Element&>>;
    using Value = std::remove_cvref_t<std::invoke_result_t<ValueOf&, const Element&>>;
    OrderedDictionary<Key, Inhabited<std::vector<Value>>> groups;
    for (auto&& element : sequence) {
        Key key = std::invoke(keyOf, std::as_const(element));
        Value value = std::invoke(valueOf, std::as_const(element));
        if (auto* group = groups.find(key)) {
            group->append(std::move(value));
        } else {
            groups.updateValue(Inhabited<std::vector<Value>>(std::move(value)), key);
        }
    }
    return groups;
}

}  // namespace mirels

template <class Base>
    requires requires(const Base& base) { std::hash<Base>{}(base); }
struct std::hash<mirels::Inhabited<Base>> {
    std::size_t operator()(const mirels::Inhabited<Base>& collection) const {
        return std::hash<Base>{}(collection.base());
    }
};
