#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <memory>
#include <unordered_map>
#include <vector>

namespace mirels {

/// A set of objects held weakly and kept by identity (the object's address): it never keeps its
/// objects alive, and an object is in it at most once.
///
/// Iteration visits only the objects alive when it reaches them, in no particular order, and
/// hands out strong references, so an object stays alive while the caller looks at it even if
/// its last other owner lets go on another thread. Objects may die on any thread at any time;
/// the set itself is a plain value and needs external synchronisation like a
/// `std::unordered_set`.
///
/// A dead object's entry no longer counts: `contains` is false for it, and a new object that
/// happens to get the same address is a different member. Dead entries are pruned by the set
/// itself: `insert` sweeps them whenever the entries have doubled since the last sweep
/// (amortised O(1) per insert). `count()` counts living objects (O(n)). Inserting invalidates
/// iterators.
template <class T>
class WeakSet {
    using Map = std::unordered_map<const T*, std::weak_ptr<T>>;

  public:
    class Iterator {
      public:
        using value_type = std::shared_ptr<T>;
        using difference_type = std::ptrdiff_t;
        using reference = const std::shared_ptr<T>&;
        using pointer = const std::shared_ptr<T>*;
        using iterator_category = std::input_iterator_tag;

        Iterator() = default;
        reference operator*() const noexcept { return current_; }
        pointer operator->() const noexcept { return &current_; }
        Iterator& operator++() {
            ++position_;
            settle();
            return *this;
        }
        void operator++(int) { ++*this; }
        friend bool operator==(const Iterator& a, const Iterator& b) noexcept {
            return a.position_ == b.position_;
        }

      private:
        friend class WeakSet;
        using Position = typename Map::const_iterator;
        Iterator(Position position, Position end) : position_(position), end_(end) { settle(); }
        void settle() {
            current_.reset();
            for (; position_ != end_; ++position_) {
                current_ = position_->second.lock();
                if (current_) return;
            }
        }

        Position position_{};
        Position end_{};
        std::shared_ptr<T> current_;
    };

    WeakSet() = default;

    /// Adds `object`; returns false when it was a member already.
    bool insert(const std::shared_ptr<T>& object) {
        if (entries_.size() >= sweepAt_) prune();
        auto [position, inserted] = entries_.try_emplace(object.get(), object);
        if (inserted) return true;
        if (!position->second.expired()) return false;
        position->second = object;  // the old member at this address has died
        return true;
    }

    /// Removes `object`; returns whether it was a living member.
    bool remove(const T* object) {
        auto position = entries_.find(object);
        if (position == entries_.end()) return false;
        const bool living = !position->second.expired();
        entries_.erase(position);
        return living;
    }

    bool contains(const T* object) const {
        auto position = entries_.find(object);
        return position != entries_.end() && !position->second.expired();
    }

    void removeAll() noexcept { entries_.clear(); }

    /// The living members.
    std::size_t count() const {
        return static_cast<std::size_t>(
            std::count_if(entries_.begin(), entries_.end(),
                          [](const auto& entry) { return !entry.second.expired(); }));
    }
    bool isEmpty() const { return begin() == end(); }

    /// Strong references to the living members.
    std::vector<std::shared_ptr<T>> objects() const { return {begin(), end()}; }

    /// Drops the entries of dead objects now.
    void prune() {
        std::erase_if(entries_, [](const auto& entry) { return entry.second.expired(); });
        sweepAt_ = std::max<std::size_t>(minimumSweepSize, entries_.size() * 2);
    }

    /// Entries kept, dead ones included (for tests of pruning).
    std::size_t storedCount() const noexcept { return entries_.size(); }

    Iterator begin() const { return Iterator(entries_.begin(), entries_.end()); }
    Iterator end() const { return Iterator(entries_.end(), entries_.end()); }

  private:
    static constexpr std::size_t minimumSweepSize = 16;

    Map entries_;
    std::size_t sweepAt_ = minimumSweepSize;
};

}  // namespace mirels
