#pragma once

// `OrderedTable` (internal): the insertion-ordered storage with a hash index behind
// `OrderedDictionary` and `OrderedSet`.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

namespace mirels::detail {

/// The storage behind `OrderedDictionary` and `OrderedSet`: the entries in insertion order in one
/// contiguous array (so iteration is a plain array walk), plus an open-addressing index from a
/// key's hash to the entry's position (so lookups are hash-based).
///
/// Each index slot holds a position and 32 bits of the key's mixed hash. The slot of a key is
/// chosen from the top bits of those 32 bits, so growing the index never hashes a key again, and
/// the stored bits let a probe skip almost every non-matching key without comparing it. Probing is
/// linear and the index is kept at most half full; removal shifts the following slots back, so
/// there are no tombstones.
///
/// `KeyOf` gives the key of an entry (the pair's first for a dictionary, the element itself for a
/// set). `Hash` and `KeyEqual` are stateless function objects.
template <class Entry, class Key, class KeyOf, class Hash, class KeyEqual>
class OrderedTable {
  public:
    static constexpr std::size_t notFound = std::numeric_limits<std::size_t>::max();

    std::vector<Entry> entries;

    static std::uint32_t hashOf(const Key& key) {
        // Fibonacci mixing: spreads identity hashes (integers, pointers) over the top bits.
        auto mixed = static_cast<std::uint64_t>(Hash{}(key)) * 0x9E3779B97F4A7C15ull;
        return static_cast<std::uint32_t>(mixed >> 32);
    }

    static const Key& keyOf(const Entry& entry) { return KeyOf{}(entry); }

    std::size_t size() const noexcept { return entries.size(); }

    /// The position of `key`, or `notFound`.
    std::size_t find(const Key& key, std::uint32_t hash) const {
        if (slots_.empty()) return notFound;
        std::size_t i = hash >> shift_;
        for (;;) {
            const Slot& slot = slots_[i];
            if (slot.position == emptySlot) return notFound;
            if (slot.hash == hash && KeyEqual{}(keyOf(entries[slot.position]), key)) {
                return slot.position;
            }
            i = (i + 1) & mask();
        }
    }
    std::size_t find(const Key& key) const { return find(key, hashOf(key)); }

    /// Appends the entry made from `args` unless `key` is present. Returns the key's position and
    /// whether it was appended.
    template <class... Args>
    std::pair<std::size_t, bool> appendIfAbsent(const Key& key, std::uint32_t hash,
                                                Args&&... args) {
        reserveSlotsFor(entries.size() + 1);
        std::size_t i = hash >> shift_;
        for (;;) {
            Slot& slot = slots_[i];
            if (slot.position == emptySlot) break;
            if (slot.hash == hash && KeyEqual{}(keyOf(entries[slot.position]), key)) {
                return {slot.position, false};
            }
            i = (i + 1) & mask();
        }
        entries.emplace_back(std::forward<Args>(args)...);
        auto position = static_cast<std::uint32_t>(entries.size() - 1);
        slots_[i] = Slot{position, hash};
        return {position, true};
    }

    /// Inserts an entry whose key is absent at `position` (at most `size()`), moving the later
    /// entries up by one.
    void insertAbsent(std::size_t position, Entry entry, std::uint32_t hash) {
        reserveSlotsFor(entries.size() + 1);
        entries.insert(entries.begin() + static_cast<std::ptrdiff_t>(position), std::move(entry));
        if (position + 1 < entries.size()) {
            for (Slot& slot : slots_) {
                if (slot.position != emptySlot && slot.position >= position) ++slot.position;
            }
        }
        std::size_t i = hash >> shift_;
        while (slots_[i].position != emptySlot) i = (i + 1) & mask();
        slots_[i] = Slot{static_cast<std::uint32_t>(position), hash};
    }

    /// Removes and returns the entry at `position`, moving the later entries down by one. The
    /// last entry is removed in constant time.
    Entry takeAt(std::size_t position) {
        std::uint32_t hash = hashOf(keyOf(entries[position]));
        std::size_t i = hash >> shift_;
        while (slots_[i].position != position) i = (i + 1) & mask();
        return takeSlot(i);
    }

    /// Removes and returns the entry for `key`, or nothing when absent; one probe.
    std::optional<Entry> take(const Key& key) {
        if (slots_.empty()) return std::nullopt;
        std::uint32_t hash = hashOf(key);
        std::size_t i = hash >> shift_;
        for (;;) {
            const Slot& slot = slots_[i];
            if (slot.position == emptySlot) return std::nullopt;
            if (slot.hash == hash && KeyEqual{}(keyOf(entries[slot.position]), key)) break;
            i = (i + 1) & mask();
        }
        return takeSlot(i);
    }

  private:
    Entry takeSlot(std::size_t i) {
        std::size_t position = slots_[i].position;
        removeSlot(i);
        Entry removed(std::move(entries[position]));
        entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(position));
        if (position < entries.size()) {
            for (Slot& slot : slots_) {
                if (slot.position != emptySlot && slot.position > position) --slot.position;
            }
        }
        return removed;
    }

  public:
    /// Keeps the entries for which `keep` is true, in order, and reindexes them.
    template <class Predicate>
    void retain(Predicate&& keep) {
        auto removed = std::remove_if(entries.begin(), entries.end(),
                                      [&](const Entry& entry) { return !keep(entry); });
        if (removed == entries.end()) return;
        entries.erase(removed, entries.end());
        rebuildIndex();
    }

    /// Rebuilds the index after the entries were reordered in place.
    void rebuildIndex() {
        std::fill(slots_.begin(), slots_.end(), Slot{});
        for (std::size_t position = 0; position < entries.size(); ++position) {
            std::uint32_t hash = hashOf(keyOf(entries[position]));
            std::size_t i = hash >> shift_;
            while (slots_[i].position != emptySlot) i = (i + 1) & mask();
            slots_[i] = Slot{static_cast<std::uint32_t>(position), hash};
        }
    }

    void clear(bool keepingCapacity) {
        entries.clear();
        if (keepingCapacity) {
            std::fill(slots_.begin(), slots_.end(), Slot{});
        } else {
            entries.shrink_to_fit();
            slots_.clear();
            slots_.shrink_to_fit();
            shift_ = 32;
        }
    }

    void reserve(std::size_t count) {
        entries.reserve(count);
        reserveSlotsFor(count);
    }

  private:
    static constexpr std::uint32_t emptySlot = std::numeric_limits<std::uint32_t>::max();
    static constexpr std::size_t minimumSlots = 8;

    struct Slot {
        std::uint32_t position = emptySlot;
        std::uint32_t hash = 0;
    };

    std::size_t mask() const noexcept { return slots_.size() - 1; }

    /// Grows the index so that `count` entries fill at most half of it.
    void reserveSlotsFor(std::size_t count) {
        if (count * 2 <= slots_.size()) [[likely]]
            return;
        std::size_t capacity = std::max(minimumSlots, slots_.size());
        while (count * 2 > capacity) capacity *= 2;
        unsigned bits = 0;
        while ((std::size_t{1} << bits) < capacity) ++bits;

        std::vector<Slot> old(capacity);
        old.swap(slots_);
        shift_ = 32 - bits;
        for (const Slot& slot : old) {
            if (slot.position == emptySlot) continue;
            std::size_t i = slot.hash >> shift_;
            while (slots_[i].position != emptySlot) i = (i + 1) & mask();
            slots_[i] = slot;
        }
    }

    /// Empties slot `hole` and shifts back the slots of the same probe run that belong before it.
    void removeSlot(std::size_t hole) {
        std::size_t i = hole;
        for (;;) {
            i = (i + 1) & mask();
            if (slots_[i].position == emptySlot) break;
            std::size_t home = slots_[i].hash >> shift_;
            // The slot at i may move into the hole when its home is not cyclically in (hole, i].
            bool homeInRun = hole <= i ? (hole < home && home <= i) : (hole < home || home <= i);
            if (!homeInRun) {
                slots_[hole] = slots_[i];
                hole = i;
            }
        }
        slots_[hole] = Slot{};
    }

    std::vector<Slot> slots_;
    unsigned shift_ = 32;
};

/// Key extraction for dictionary entries (pairs) and set entries (the element itself).
struct PairFirst {
    template <class Pair>
    const typename Pair::first_type& operator()(const Pair& pair) const noexcept {
        return pair.first;
    }
};
struct Itself {
    template <class T>
    const T& operator()(const T& value) const noexcept {
        return value;
    }
};

/// Combines element hashes in order (the 64-bit variant of the common golden-ratio combiner).
inline std::size_t hashCombine(std::size_t seed, std::size_t hash) noexcept {
    return seed ^ (hash + 0x9E3779B97F4A7C15ull + (seed << 6) + (seed >> 2));
}

}  // namespace mirels::detail
