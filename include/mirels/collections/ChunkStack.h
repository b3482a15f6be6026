#pragma once

// `ChunkStack`: an unbounded stack made of `FixedStack` chunks of one size.

#include <algorithm>
#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <iterator>
#include <optional>
#include <utility>
#include <vector>

#include "mirels/Export.h"
#include "mirels/collections/FixedStack.h"
#include "mirels/core/Assertions.h"
#include "mirels/core/Callsite.h"

namespace mirels {

namespace detail {
[[noreturn]] MIRELS_EXPORT void chunkStackZeroChunkSize();
}  // namespace detail

/// An unbounded stack made of `FixedStack` chunks of one size: growing adds a chunk, so an
/// element never moves once stored. Popping keeps a chunk that it emptied until the next pop
/// finds it empty, so a push that follows a pop does not allocate again.
///
/// A value: copies share their chunks until one of them changes (each chunk is copy on write).
/// A random-access collection indexed from the bottom; equality and hashing go over the elements
/// in order, whatever their chunks.
template <class Element>
class ChunkStack {
  public:
    using Index = std::ptrdiff_t;
    using value_type = Element;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using reference = const Element&;
    using const_reference = const Element&;

    /// Random access over positions; dereferencing finds the chunk by division.
    class const_iterator {
      public:
        using iterator_category = std::random_access_iterator_tag;
        using iterator_concept = std::random_access_iterator_tag;
        using value_type = Element;
        using difference_type = std::ptrdiff_t;
        using pointer = const Element*;
        using reference = const Element&;

        const_iterator() noexcept = default;
        const_iterator(const ChunkStack* stack, Index position) noexcept
            : stack_(stack), position_(position) {}

        reference operator*() const { return (*stack_)[position_]; }
        pointer operator->() const { return &(*stack_)[position_]; }
        reference operator[](difference_type n) const { return (*stack_)[position_ + n]; }

        const_iterator& operator++() noexcept { return ++position_, *this; }
        const_iterator operator++(int) noexcept { return {stack_, position_++}; }
        const_iterator& operator--() noexcept { return --position_, *this; }
        const_iterator operator--(int) noexcept { return {stack_, position_--}; }
        const_iterator& operator+=(difference_type n) noexcept { return position_ += n, *this; }
        const_iterator& operator-=(difference_type n) noexcept { return position_ -= n, *this; }
        friend const_iterator operator+(const_iterator i, difference_type n) noexcept {
            return i += n;
        }
        friend const_iterator operator+(difference_type n, const_iterator i) noexcept {
            return i += n;
        }
        friend const_iterator operator-(const_iterator i, difference_type n) noexcept {
            return i -= n;
        }
        friend difference_type operator-(const const_iterator& a,
                                         const const_iterator& b) noexcept {
            return a.position_ - b.position_;
        }
        friend bool operator==(const const_iterator& a, const const_iterator& b) noexcept {
            return a.position_ == b.position_;
        }
        friend auto operator<=>(const const_iterator& a, const const_iterator& b) noexcept {
            return a.position_ <=> b.position_;
        }

      private:
        const ChunkStack* stack_ = nullptr;
        Index position_ = 0;
    };
    using iterator = const_iterator;

    /// An empty stack whose chunks will each hold `size` elements. No chunk is made yet.
    explicit ChunkStack(Index size) : size_(size) {}

    /// Stores `element` on top, in the last chunk when it has room, else in a new chunk.
    void push(Element element) {
        if (!chunks_.empty() && chunks_.back().push(std::move(element))) return;
        FixedStack<Element> chunk(size_);
        if (!chunk.push(std::move(element))) {
            // Only a chunk size of zero gets here; the empty chunk is kept all the same.
            detail::reportSoftAssertionFailure(Callsite::library("push(_:)"));
        }
        chunks_.push_back(std::move(chunk));
    }

    /// The top element, moved out, or absent when the stack is empty. A chunk emptied by this pop
    /// is kept; an already empty last chunk is dropped and the pop goes on below it.
    std::optional<Element> pop() {
        while (!chunks_.empty()) {
            if (std::optional<Element> element = chunks_.back().pop()) return element;
            chunks_.pop_back();
        }
        return std::nullopt;
    }

    /// The element at `position` (counted from the bottom): element `position % size` of chunk
    /// `position / size`. A chunk size of zero stops the process, and so does a position that
    /// is negative or not below the count ("Attempting to subscript into index N which is out of
    /// bounds 0..<M."), in every build type.
    const Element& operator[](Index position) const {
        if (size_ == 0) detail::chunkStackZeroChunkSize();
        const Index filled = endIndex();
        if (static_cast<std::size_t>(position) >= static_cast<std::size_t>(filled)) [[unlikely]]
            detail::fixedStackIndexOutOfBounds(position, filled);
        return chunks_[static_cast<std::size_t>(position / size_)][position % size_];
    }

    Index startIndex() const noexcept { return 0; }
    Index endIndex() const noexcept {
        if (chunks_.empty()) return 0;
        return static_cast<Index>(chunks_.size() - 1) * size_ + chunks_.back().count();
    }
    static constexpr Index indexAfter(Index i) noexcept { return i + 1; }
    static constexpr Index indexBefore(Index i) noexcept { return i - 1; }
    static constexpr Index index(Index i, Index offsetBy) noexcept { return i + offsetBy; }
    static constexpr Index distance(Index from, Index to) noexcept { return to - from; }

    Index chunkSize() const noexcept { return size_; }
    /// The chunks, bottom first; every chunk but the last is full.
    const std::vector<FixedStack<Element>>& chunks() const noexcept { return chunks_; }

    Index count() const noexcept { return endIndex(); }
    size_type size() const noexcept { return static_cast<size_type>(count()); }
    bool isEmpty() const noexcept { return count() == 0; }
    bool empty() const noexcept { return isEmpty(); }

    const_iterator begin() const noexcept { return {this, 0}; }
    const_iterator end() const noexcept { return {this, endIndex()}; }

    friend bool operator==(const ChunkStack& a, const ChunkStack& b)
        requires std::equality_comparable<Element>
    {
        return std::equal(a.begin(), a.end(), b.begin(), b.end());
    }

  private:
    Index size_;
    std::vector<FixedStack<Element>> chunks_;
};

}  // namespace mirels

template <class Element>
    requires requires(const Element& e) { std::hash<Element>{}(e); }
struct std::hash<mirels::ChunkStack<Element>> {
    std::size_t operator()(const mirels::ChunkStack<Element>& stack) const {
        std::size_t seed = 0;
        for (const mirels::FixedStack<Element>& chunk : stack.chunks()) {
            for (const Element& element : chunk) {
                seed = mirels::detail::hashCombine(seed, std::hash<Element>{}(element));
            }
        }
        return seed;
    }
};
