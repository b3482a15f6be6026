#pragma once

// `OrderedSet`: a list of unique elements in insertion order, with hash-based membership. Also
// `OrderedSet()`, `orderedUniqued()`.

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <optional>
#include <ranges>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

#include "mirels/Export.h"
#include "mirels/collections/detail/CopyOnWrite.h"
#include "mirels/collections/detail/OrderedTable.h"

namespace mirels {

namespace detail {
[[noreturn]] MIRELS_EXPORT void orderedCollectionPositionOutOfRange(std::size_t position,
                                                                    std::size_t count);

/// A range whose elements convert to `Element`, and which is not itself an `Element` (so that an
/// element that happens to be a range, such as a string, is appended whole).
template <class R, class Element>
concept RangeOf = std::ranges::input_range<R> &&
                  std::convertible_to<std::ranges::range_reference_t<R>, Element> &&
                  !std::convertible_to<R, Element>;
}  // namespace detail

/// A list of unique elements in insertion order, with hash-based membership.
///
/// A copy-on-write value like `OrderedDictionary`: copying is one reference-count increment and
/// shared storage is never written. Iteration and `arrayForm()` walk one contiguous array;
/// `contains` is a hash lookup; `remove`, `indexOf` and `insert(_:atIndex:)` are linear.
template <class Element, class Hash = std::hash<Element>, class KeyEqual = std::equal_to<Element>>
class OrderedSet {
    using Table = detail::OrderedTable<Element, Element, detail::Itself, Hash, KeyEqual>;

  public:
    using value_type = Element;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using reference = const Element&;
    using const_reference = const Element&;
    using const_iterator = const Element*;
    using iterator = const_iterator;

    OrderedSet() noexcept = default;

    OrderedSet(std::initializer_list<Element> elements) { append(elements); }

    /// The elements of `sequence` in order, each first occurrence kept.
    template <std::ranges::input_range R>
        requires std::convertible_to<std::ranges::range_reference_t<R>, Element> &&
                 (!std::same_as<std::remove_cvref_t<R>, OrderedSet>)
    explicit OrderedSet(R&& sequence) {
        append(std::forward<R>(sequence));
    }

    void reserveCapacity(size_type capacity) { mutableTable().reserve(capacity); }

    // --- adding ------------------------------------------------------------------------------

    /// Appends `element` when absent: true when added, false when present (nothing changes).
    bool append(Element element) {
        Table& t = mutableTable();
        std::uint32_t hash = Table::hashOf(element);
        return t.appendIfAbsent(element, hash, std::move(element)).second;
    }

    /// Appends each element of `sequence` in order, skipping those present.
    template <class R>
        requires detail::RangeOf<R, Element>
    void append(R&& sequence) {
        if constexpr (std::ranges::sized_range<R>) {
            mutableTable().reserve(count() + std::ranges::size(sequence));
        }
        for (auto&& element : sequence) append(Element(std::forward<decltype(element)>(element)));
    }

    OrderedSet appending(Element element) const {
        OrderedSet copy(*this);
        copy.append(std::move(element));
        return copy;
    }

    template <class R>
        requires detail::RangeOf<R, Element>
    OrderedSet appending(R&& sequence) const {
        OrderedSet copy(*this);
        copy.append(std::forward<R>(sequence));
        return copy;
    }

    /// Inserts `element` at `atIndex`. A present element is first removed from where it is, and
    /// the index counts after that removal, so inserting a present element moves it: for a, b, c,
    /// inserting a at index 2 gives b, c, a. Stops the process when the index is past the end.
    void insert(Element element, size_type atIndex) {
        Table& t = mutableTable();
        std::uint32_t hash = Table::hashOf(element);
        std::size_t present = t.find(element, hash);
        if (present != Table::notFound) t.takeAt(present);
        if (atIndex > t.size()) detail::orderedCollectionPositionOutOfRange(atIndex, t.size());
        t.insertAbsent(atIndex, std::move(element), hash);
    }

    // --- removing ----------------------------------------------------------------------------

    /// Removes `element`; returns it, or absent when it was not present.
    std::optional<Element> remove(const Element& element) {
        std::optional<size_type> position = indexOf(element);
        if (!position) return std::nullopt;
        return removeAt(*position);
    }

    /// Removes and returns the element at `position`; stops the process when out of range.
    Element removeAt(size_type position) {
        if (position >= count()) detail::orderedCollectionPositionOutOfRange(position, count());
        return mutableTable().takeAt(position);
    }

    /// Removes and returns the last element; stops the process when empty.
    Element removeLast() {
        if (isEmpty()) detail::orderedCollectionPositionOutOfRange(0, 0);
        return removeAt(count() - 1);
    }

    void removeAll(bool keepingCapacity = false) {
        if (keepingCapacity && storage_.isUniquelyReferenced()) {
            storage_.mutableValue().clear(true);
        } else {
            storage_.reset();
        }
    }

    /// Removes the elements of `other`, keeping the order of the rest.
    template <class R>
        requires detail::RangeOf<R, Element>
    void subtract(R&& other) {
        if (isEmpty()) return;
        std::unordered_set<Element, Hash, KeyEqual> removing;
        for (auto&& element : other) {
            Element candidate(std::forward<decltype(element)>(element));
            if (contains(candidate)) removing.insert(std::move(candidate));
        }
        if (removing.empty()) return;
        mutableTable().retain([&](const Element& e) { return !removing.contains(e); });
    }

    template <class R>
        requires detail::RangeOf<R, Element>
    OrderedSet subtracting(R&& other) const {
        OrderedSet copy(*this);
        copy.subtract(std::forward<R>(other));
        return copy;
    }

    /// Keeps only the elements that `other` contains too, in this set's order.
    template <class R>
        requires detail::RangeOf<R, Element>
    void formIntersection(R&& other) {
        if (isEmpty()) return;
        std::unordered_set<Element, Hash, KeyEqual> kept;
        for (auto&& element : other) {
            Element candidate(std::forward<decltype(element)>(element));
            if (contains(candidate)) kept.insert(std::move(candidate));
        }
        if (kept.size() == count()) return;
        mutableTable().retain([&](const Element& e) { return kept.contains(e); });
    }

    template <class R>
        requires detail::RangeOf<R, Element>
    OrderedSet intersection(R&& other) const {
        OrderedSet copy(*this);
        copy.formIntersection(std::forward<R>(other));
        return copy;
    }

    // --- reading -----------------------------------------------------------------------------

    bool contains(const Element& element) const {
        const Table* t = table();
        return t != nullptr && t->find(element) != Table::notFound;
    }

    /// The position of `element`, or absent.
    std::optional<size_type> indexOf(const Element& element) const {
        const Table* t = table();
        if (t == nullptr) return std::nullopt;
        std::size_t position = t->find(element);
        if (position == Table::notFound) return std::nullopt;
        return position;
    }

    std::optional<Element> first() const {
        if (isEmpty()) return std::nullopt;
        return *begin();
    }
    std::optional<Element> last() const {
        if (isEmpty()) return std::nullopt;
        return *(end() - 1);
    }

    /// The element at `position`; stops the process when out of range.
    const Element& operator[](size_type position) const {
        if (position >= count()) detail::orderedCollectionPositionOutOfRange(position, count());
        return table()->entries[position];
    }

    /// The elements in order, as a list.
    const std::vector<Element>& arrayForm() const noexcept {
        static const std::vector<Element> none;
        const Table* t = table();
        return t != nullptr ? t->entries : none;
    }

    size_type count() const noexcept { return table() != nullptr ? table()->size() : 0; }
    size_type size() const noexcept { return count(); }
    bool isEmpty() const noexcept { return count() == 0; }
    bool empty() const noexcept { return isEmpty(); }

    const_iterator begin() const noexcept { return data(); }
    const_iterator end() const noexcept { return data() + count(); }
    const_iterator cbegin() const noexcept { return begin(); }
    const_iterator cend() const noexcept { return end(); }

    /// Equal elements in the same order.
    friend bool operator==(const OrderedSet& a, const OrderedSet& b) {
        if (a.table() == b.table()) return true;
        return std::equal(a.begin(), a.end(), b.begin(), b.end(), KeyEqual{});
    }

  private:
    const Table* table() const noexcept { return storage_.get(); }
    Table& mutableTable() { return storage_.mutableValue(); }
    const Element* data() const noexcept {
        const Table* t = table();
        return t != nullptr ? t->entries.data() : nullptr;
    }

    detail::CopyOnWrite<Table> storage_;
};

template <std::ranges::input_range R>
explicit OrderedSet(R&&) -> OrderedSet<std::ranges::range_value_t<R>>;

/// The elements of `sequence` as an `OrderedSet`, first occurrences kept in order.
template <std::ranges::input_range R>
OrderedSet<std::ranges::range_value_t<R>> orderedUniqued(R&& sequence) {
    return OrderedSet<std::ranges::range_value_t<R>>(std::forward<R>(sequence));
}

}  // namespace mirels
