#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

namespace mirels {

/// An insertion-ordered list of objects held weakly: it never keeps its objects alive.
///
/// Iteration visits only the objects alive at the moment it reaches them, in insertion order,
/// and hands out strong references (`std::shared_ptr<T>`), so an object stays alive while the
/// caller looks at it even if its last other owner lets go on another thread. Objects may die
/// on any thread at any time; the array itself is a plain value and needs external
/// synchronisation like a `std::vector`.
///
/// Dead entries are pruned by the array itself: `append` sweeps them whenever the entries have
/// doubled since the last sweep (amortised O(1) per append), so an array whose objects keep
/// dying does not grow without bound. `count()` and `isEmpty()` count living objects (O(n)).
/// An object appended twice is listed twice. Appending invalidates iterators.
template <class T>
class WeakArray {
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
        friend class WeakArray;
        using Position = typename std::vector<std::weak_ptr<T>>::const_iterator;
        Iterator(Position position, Position end) : position_(position), end_(end) { settle(); }
        // Moves to the next living entry and holds it.
        void settle() {
            current_.reset();
            for (; position_ != end_; ++position_) {
                current_ = position_->lock();
                if (current_) return;
            }
        }

        Position position_{};
        Position end_{};
        std::shared_ptr<T> current_;
    };

    WeakArray() = default;

    /// Adds `object` at the end.
    void append(const std::shared_ptr<T>& object) {
        if (entries_.size() >= sweepAt_) prune();
        entries_.emplace_back(object);
    }

    /// Removes every entry for `object` (and the dead entries on the way). Returns whether one
    /// was found.
    bool remove(const T* object) {
        bool found = false;
        std::erase_if(entries_, [&](const std::weak_ptr<T>& entry) {
            std::shared_ptr<T> alive = entry.lock();
            if (alive && alive.get() == object) found = true;
            return !alive || alive.get() == object;
        });
        return found;
    }

    bool contains(const T* object) const {
        for (const std::shared_ptr<T>& alive : *this) {
            if (alive.get() == object) return true;
        }
        return false;
    }

    void removeAll() noexcept { entries_.clear(); }

    /// The living objects, in order.
    std::size_t count() const {
        std::size_t living = 0;
        for (const std::weak_ptr<T>& entry : entries_) living += entry.expired() ? 0 : 1;
        return living;
    }
    bool isEmpty() const { return begin() == end(); }

    /// Strong references to the living objects, in order.
    std::vector<std::shared_ptr<T>> objects() const { return {begin(), end()}; }

    /// Drops the entries of dead objects now.
    void prune() {
        std::erase_if(entries_, [](const std::weak_ptr<T>& entry) { return entry.expired(); });
        sweepAt_ = std::max<std::size_t>(minimumSweepSize, entries_.size() * 2);
    }

    /// Entries kept, dead ones included (for tests of pruning).
    std::size_t storedCount() const noexcept { return entries_.size(); }

    Iterator begin() const { return Iterator(entries_.begin(), entries_.end()); }
    Iterator end() const { return Iterator(entries_.end(), entries_.end()); }

  private:
    static constexpr std::size_t minimumSweepSize = 16;

    std::vector<std::weak_ptr<T>> entries_;
    std::size_t sweepAt_ = minimumSweepSize;
};

}  // namespace mirels
