#pragma once

// `OrderedDictionary`: a hash map that remembers the order in which its keys were first inserted.
//
// Example:
//
//     OrderedDictionary<std::string, int> counts;
//     for (const std::string& word : words) ++guaranteedValue(counts, word, [] { return 0; });
//     // in the order in which the words first appeared:
//     for (const auto& [word, count] : counts) std::printf("%s: %d\n", word.c_str(), count);

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <ranges>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

#include "mirels/Export.h"
#include "mirels/collections/detail/CopyOnWrite.h"
#include "mirels/collections/detail/OrderedTable.h"
#include "mirels/core/FatalError.h"

namespace mirels {

namespace detail {
[[noreturn]] MIRELS_EXPORT void orderedCollectionPositionOutOfRange(std::size_t position,
                                                                    std::size_t count);
}  // namespace detail

/// A hash map that remembers the order in which its keys were first inserted.
///
/// A copy-on-write value: copying is one reference-count increment, and a mutation copies the
/// storage only when another value shares it. Shared storage is never written, so one thread may
/// iterate a copy while another changes its own; the dictionary itself has no lock (like any
/// value, one instance is not changed by two threads at once).
///
/// It is a random-access collection of (key, value) pairs by integer position. Lookups by key
/// are hash-based; removals are linear in the number of keys (the later entries move down).
/// Iterators and views are invalidated by any mutation of this value, like those of a vector.
template <class Key, class Value, class Hash = std::hash<Key>, class KeyEqual = std::equal_to<Key>>
class OrderedDictionary {
    using Table =
        detail::OrderedTable<std::pair<Key, Value>, Key, detail::PairFirst, Hash, KeyEqual>;

  public:
    using key_type = Key;
    using mapped_type = Value;
    using value_type = std::pair<Key, Value>;
    using Element = value_type;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using reference = const value_type&;
    using const_reference = const value_type&;
    /// Entries are contiguous: iterators are pointers (contiguous, hence random access).
    using const_iterator = const value_type*;
    using iterator = const_iterator;

    OrderedDictionary() noexcept = default;

    /// Entries in the given order; a repeated key takes the later value and keeps its first
    /// position.
    OrderedDictionary(std::initializer_list<value_type> entries) {
        for (const value_type& entry : entries) updateValue(entry.second, entry.first);
    }

    /// Entries from any sequence of (key, value) pairs, as above.
    template <std::ranges::input_range Pairs>
        requires std::convertible_to<std::ranges::range_reference_t<Pairs>, value_type> &&
                 (!std::same_as<std::remove_cvref_t<Pairs>, OrderedDictionary>)
    explicit OrderedDictionary(Pairs&& pairs) {
        if constexpr (std::ranges::sized_range<Pairs>) reserve(std::ranges::size(pairs));
        for (auto&& element : pairs) {
            value_type entry(std::forward<decltype(element)>(element));
            updateValue(std::move(entry.second), entry.first);
        }
    }

    /// Entries from pairs; for a repeated key the value becomes `combine(existing, new)`.
    template <std::ranges::input_range Pairs, class Combine>
        requires std::convertible_to<std::ranges::range_reference_t<Pairs>, value_type> &&
                 std::is_invocable_r_v<Value, Combine&, Value&, Value&&>
    OrderedDictionary(Pairs&& pairs, Combine uniquingKeysWith) {
        for (auto&& element : pairs) {
            value_type entry(std::forward<decltype(element)>(element));
            Table& table = mutableTable();
            std::uint32_t hash = Table::hashOf(entry.first);
            auto [position, appended] =
                table.appendIfAbsent(entry.first, hash, entry.first, entry.second);
            if (!appended) {
                Value& existing = table.entries[position].second;
                existing = std::invoke(uniquingKeysWith, existing, std::move(entry.second));
            }
        }
    }

    // --- access by key ---------------------------------------------------------------------

    /// The value for `key`, or absent (the key subscript's getter).
    std::optional<Value> operator[](const Key& key) const {
        if (const Value* value = find(key)) return *value;
        return std::nullopt;
    }

    /// The value for `key` in place, or null. The mutable form unshares the storage first.
    const Value* find(const Key& key) const {
        const Table* t = table();
        if (t == nullptr) return nullptr;
        std::size_t position = t->find(key);
        return position == Table::notFound ? nullptr : &t->entries[position].second;
    }
    Value* find(const Key& key) {
        const Table* t = table();
        if (t == nullptr) return nullptr;
        std::size_t position = t->find(key);
        if (position == Table::notFound) return nullptr;
        return &mutableTable().entries[position].second;  // unsharing keeps positions
    }

    bool contains(const Key& key) const { return find(key) != nullptr; }

    /// The key subscript's setter: a value updates or appends the entry, absent removes it.
    void set(const Key& key, std::optional<Value> value) {
        if (value) {
            updateValue(std::move(*value), key);
        } else {
            removeValue(key);
        }
    }

    /// In-place change through the key subscript: `body` gets the value (absent when the key is
    /// missing) and may change, fill or empty it; the result is then stored as by `set`.
    template <class Body>
        requires std::is_invocable_v<Body&&, std::optional<Value>&>
    void modify(const Key& key, Body&& body) {
        if (Value* present = find(key)) {
            std::optional<Value> value(std::move(*present));
            std::invoke(std::forward<Body>(body), value);
            if (value) {
                *find(key) = std::move(*value);
            } else {
                removeValue(key);
            }
        } else {
            std::optional<Value> value;
            std::invoke(std::forward<Body>(body), value);
            if (value) updateValue(std::move(*value), key);
        }
    }

    /// Sets the value for `key`; a new key goes to the end, an existing one keeps its place.
    /// Returns the previous value, or absent.
    std::optional<Value> updateValue(Value value, const Key& key) {
        Table& t = mutableTable();
        std::uint32_t hash = Table::hashOf(key);
        auto [position, appended] = t.appendIfAbsent(key, hash, key, std::move(value));
        if (appended) return std::nullopt;
        // appendIfAbsent did not consume `value` when the key was present.
        // NOLINTNEXTLINE(bugprone-use-after-move): see above
        return std::exchange(t.entries[position].second, std::move(value));
    }

    /// Removes the entry for `key`; returns its value, or absent when the key was missing.
    std::optional<Value> removeValue(const Key& key) {
        if (storage_.isUniquelyReferenced()) {  // the common case: one probe
            auto removed = mutableTable().take(key);
            if (!removed) return std::nullopt;
            return std::move(removed->second);
        }
        const Table* t = table();
        if (t == nullptr) return std::nullopt;
        std::size_t position = t->find(key);
        if (position == Table::notFound) return std::nullopt;  // nothing to unshare for
        return std::move(mutableTable().takeAt(position).second);
    }

    // --- access by position ------------------------------------------------------------------

    /// The (key, value) pair at `position`; stops the process when out of range.
    const value_type& at(size_type position) const {
        if (position >= count()) detail::orderedCollectionPositionOutOfRange(position, count());
        return table()->entries[position];
    }

    /// The position subscript's setter. It sets `element.second` for `element.first` exactly as
    /// `updateValue` does and ignores `position` altogether: assigning "at" a position never
    /// reorders and never overwrites another key.
    void setElement([[maybe_unused]] size_type position, value_type element) {
        updateValue(std::move(element.second), element.first);
    }

    const_iterator begin() const noexcept { return data(); }
    const_iterator end() const noexcept { return data() + count(); }
    const_iterator cbegin() const noexcept { return begin(); }
    const_iterator cend() const noexcept { return end(); }

    size_type count() const noexcept { return table() != nullptr ? table()->size() : 0; }
    size_type size() const noexcept { return count(); }
    bool isEmpty() const noexcept { return count() == 0; }
    bool empty() const noexcept { return isEmpty(); }

    /// The keys in order (a view over the entries).
    auto keys() const {
        return std::span<const value_type>(data(), count()) |
               std::views::transform(
                   [](const value_type& entry) -> const Key& { return entry.first; });
    }

    /// The values in key order (a view over the entries).
    auto values() const {
        return std::span<const value_type>(data(), count()) |
               std::views::transform(
                   [](const value_type& entry) -> const Value& { return entry.second; });
    }

    /// Removes every entry.
    void removeAll() { storage_.reset(); }

    void reserve(size_type capacity) { mutableTable().reserve(capacity); }

    // --- reordering and transforming ---------------------------------------------------------

    /// Reorders the keys with `comesBefore` (true when the first key goes before the second);
    /// values stay with their keys.
    template <class Compare>
        requires std::is_invocable_r_v<bool, Compare&, const Key&, const Key&>
    void sort(Compare comesBefore) {
        sortEntries([&](const value_type& a, const value_type& b) {
            return std::invoke(comesBefore, a.first, b.first);
        });
    }

    /// Reorders the entries with a stable sort by a predicate on whole (key, value) pairs.
    template <class Compare>
        requires std::is_invocable_r_v<bool, Compare&, const value_type&, const value_type&>
    void sortEntries(Compare comesBefore) {
        if (count() < 2) return;
        Table& t = mutableTable();
        std::stable_sort(t.entries.begin(), t.entries.end(), std::ref(comesBefore));
        t.rebuildIndex();
    }

    /// The same keys in the same order, each value transformed. An exception from `transform`
    /// passes through.
    template <class Transform>
        requires std::is_invocable_v<Transform&, const Value&>
    auto mapValues(Transform transform) const {
        using NewValue = std::remove_cvref_t<std::invoke_result_t<Transform&, const Value&>>;
        OrderedDictionary<Key, NewValue, Hash, KeyEqual> result;
        result.reserve(count());
        for (const value_type& entry : *this) {
            result.updateValue(std::invoke(transform, entry.second), entry.first);
        }
        return result;
    }

    /// For dictionaries of lists: `a` with, for each key of `b` in `b`'s order, `b`'s list
    /// appended to `a`'s (an absent list counts as empty). Keys new to `a` follow `a`'s keys.
    static OrderedDictionary unionGroups(OrderedDictionary groupsIn, const OrderedDictionary& with)
        requires requires(Value& list, const Value& more) {
            list.insert(list.end(), more.begin(), more.end());
        }
    {
        for (const value_type& entry : with) {
            Value& list = groupsIn.guaranteedValue(entry.first, [] { return Value(); });
            list.insert(list.end(), entry.second.begin(), entry.second.end());
        }
        return groupsIn;
    }

    // --- the key-value map operations ---------------------------------------------------------

    /// The value for `key`, inserting `make()` first when the key is absent.
    template <class Make>
        requires std::is_invocable_r_v<Value, Make&>
    Value& guaranteedValue(const Key& key, Make&& make) {
        if (Value* present = find(key)) return *present;
        Table& t = mutableTable();
        auto [position, appended] =
            t.appendIfAbsent(key, Table::hashOf(key), key, std::invoke(make));
        return t.entries[position].second;
    }

    /// A copy with `value` set for `key`.
    OrderedDictionary setting(Value value, const Key& key) const {
        OrderedDictionary copy(*this);
        copy.updateValue(std::move(value), key);
        return copy;
    }

    /// A copy with the pairs of `other` set in order (later values win, as with `updateValue`).
    template <std::ranges::input_range Pairs>
        requires std::convertible_to<std::ranges::range_reference_t<Pairs>, value_type>
    OrderedDictionary appending(Pairs&& other) const {
        OrderedDictionary copy(*this);
        for (auto&& element : other) {
            value_type entry(std::forward<decltype(element)>(element));
            copy.updateValue(std::move(entry.second), entry.first);
        }
        return copy;
    }

    /// Equal keys in the same order with equal values: the order matters.
    friend bool operator==(const OrderedDictionary& a, const OrderedDictionary& b)
        requires std::equality_comparable<Value>
    {
        if (a.table() == b.table()) return true;
        return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                          [](const value_type& x, const value_type& y) {
                              return KeyEqual{}(x.first, y.first) && x.second == y.second;
                          });
    }

  private:
    const Table* table() const noexcept { return storage_.get(); }
    Table& mutableTable() { return storage_.mutableValue(); }
    const value_type* data() const noexcept {
        const Table* t = table();
        return t != nullptr ? t->entries.data() : nullptr;
    }

    detail::CopyOnWrite<Table> storage_;
};

}  // namespace mirels
