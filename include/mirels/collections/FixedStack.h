#pragma once

// `FixedStack`: a stack of fixed capacity over one buffer allocated at creation.

#include <algorithm>
#include <atomic>
#include <concepts>
#include <cstddef>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>

#include "mirels/Export.h"
#include "mirels/collections/detail/OrderedTable.h"

namespace mirels {

namespace detail {
/// Stops the process with "Attempting to subscript into index «position» which is out of bounds
/// 0..<«filled»."
[[noreturn]] MIRELS_EXPORT void fixedStackIndexOutOfBounds(std::ptrdiff_t position,
                                                           std::ptrdiff_t filled);
[[noreturn]] MIRELS_EXPORT void fixedStackNegativeCapacity(std::ptrdiff_t capacity);
}  // namespace detail

/// A stack of fixed capacity over one buffer allocated at creation: a push into a full stack is
/// refused, never grown, so an element never moves once stored.
///
/// A copy-on-write value: copies share the buffer until one of them pushes or pops, which then
/// copies the elements into a new buffer of the same capacity. A random-access collection indexed
/// from the bottom (position 0 is the first element pushed); iterators are pointers.
///
/// The shared implementation holds the reference count, the capacity and the slots; the number
/// of filled slots is kept in the value as a pointer to the first free slot, like a vector's end.
/// A value writes to the buffer only after making it its own, so the elements below each sharing
/// value's count stay as that value left them; popping a trivially copyable element writes
/// nothing, so it needs no private buffer. A pointer cursor lets the compiler keep the count in
/// a register across the element stores of a push loop.
template <class Element>
class FixedStack {
  public:
    using Index = std::ptrdiff_t;
    using value_type = Element;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using reference = const Element&;
    using const_reference = const Element&;
    using const_iterator = const Element*;
    using iterator = const_iterator;

    /// An empty stack whose buffer holds `capacity` elements.
    explicit FixedStack(Index capacity)
        : implementation_(Implementation::make(capacity)), end_(implementation_->elements()) {}

    FixedStack(const FixedStack& other) noexcept
        : implementation_(other.implementation_), end_(other.end_) {
        if (implementation_ != nullptr) implementation_->retain();
    }
    /// A moved-from stack is empty with capacity 0.
    FixedStack(FixedStack&& other) noexcept
        : implementation_(std::exchange(other.implementation_, nullptr)),
          end_(std::exchange(other.end_, nullptr)) {}
    FixedStack& operator=(const FixedStack& other) noexcept {
        FixedStack copy(other);
        swap(copy);
        return *this;
    }
    FixedStack& operator=(FixedStack&& other) noexcept {
        FixedStack taken(std::move(other));
        swap(taken);
        return *this;
    }
    ~FixedStack() {
        if (implementation_ != nullptr) implementation_->release(count());
    }

    void swap(FixedStack& other) noexcept {
        std::swap(implementation_, other.implementation_);
        std::swap(end_, other.end_);
    }

    /// Stores `element` on top: true when stored, false when the stack is full (then nothing
    /// changes and `element` is left as it was).
    bool push(const Element& element) { return emplace(element); }
    bool push(Element&& element) { return emplace(std::move(element)); }

    template <class... Args>
    bool emplace(Args&&... args) {
        // One test on the common path: a private buffer with room. The header's two fields sit
        // in one cache line, next to the slots being written.
        if (!isUniquelyReferenced() || end_ == implementation_->limit) [[unlikely]] {
            if (implementation_ != nullptr && end_ == implementation_->limit) return false;
            unshare();
            if (end_ == implementation_->limit) return false;
        }
        ::new (static_cast<void*>(end_)) Element(std::forward<Args>(args)...);
        ++end_;
        return true;
    }

    /// The top element, moved out, or absent when the stack is empty.
    std::optional<Element> pop() {
        if (end_ == data()) return std::nullopt;
        if constexpr (std::is_trivially_copyable_v<Element> &&
                      std::is_trivially_destructible_v<Element>) {
            // Reading and forgetting the top changes nothing in the buffer, so a shared one
            // need not be copied: the values that share it keep their own counts.
            return *--end_;
        } else {
            if (!isUniquelyReferenced()) [[unlikely]]
                unshare();
            Element* top = --end_;
            std::optional<Element> result(std::move(*top));
            top->~Element();
            return result;
        }
    }

    /// The element at `position`; stops the process when `position` is negative or not below
    /// the count.
    const Element& operator[](Index position) const {
        Index filled = count();
        // One unsigned comparison covers both ends: a negative position wraps to a huge one.
        if (static_cast<size_type>(position) >= static_cast<size_type>(filled)) [[unlikely]]
            detail::fixedStackIndexOutOfBounds(position, filled);
        return data()[position];
    }

    Index startIndex() const noexcept { return 0; }
    Index endIndex() const noexcept { return count(); }
    static constexpr Index indexAfter(Index i) noexcept { return i + 1; }
    static constexpr Index indexBefore(Index i) noexcept { return i - 1; }
    static constexpr Index index(Index i, Index offsetBy) noexcept { return i + offsetBy; }
    static constexpr Index distance(Index from, Index to) noexcept { return to - from; }

    Index capacity() const noexcept {
        return implementation_ != nullptr ? implementation_->capacity : 0;
    }
    Index count() const noexcept { return end_ - data(); }
    size_type size() const noexcept { return static_cast<size_type>(count()); }
    bool isEmpty() const noexcept { return count() == 0; }
    bool empty() const noexcept { return isEmpty(); }
    bool isFull() const noexcept { return count() >= capacity(); }

    const_iterator begin() const noexcept { return data(); }
    const_iterator end() const noexcept { return end_; }

    friend bool operator==(const FixedStack& a, const FixedStack& b)
        requires std::equality_comparable<Element>
    {
        return std::equal(a.begin(), a.end(), b.begin(), b.end());
    }

  private:
    /// One allocation: the header, then the element slots, aligned for `Element`.
    struct Implementation {
        std::atomic<std::ptrdiff_t> references{1};
        Index capacity = 0;
        /// One past the last slot.
        Element* limit = nullptr;

        static constexpr std::size_t alignment() noexcept {
            return std::max(alignof(Implementation), alignof(Element));
        }
        static constexpr std::size_t elementsOffset() noexcept {
            return (sizeof(Implementation) + alignof(Element) - 1) / alignof(Element) *
                   alignof(Element);
        }

        Element* elements() noexcept {
            return reinterpret_cast<Element*>(reinterpret_cast<std::byte*>(this) +
                                              elementsOffset());
        }

        static Implementation* make(Index capacity) {
            if (capacity < 0) detail::fixedStackNegativeCapacity(capacity);
            void* memory = ::operator new(
                elementsOffset() + static_cast<std::size_t>(capacity) * sizeof(Element),
                std::align_val_t(alignment()));
            auto* impl = ::new (memory) Implementation();
            impl->capacity = capacity;
            impl->limit = impl->elements() + capacity;
            return impl;
        }

        /// A private copy: a new buffer of the same capacity holding copies of the first
        /// `filled` elements.
        Implementation* copy(Index filled) {
            Implementation* fresh = make(capacity);
            Index copied = 0;
            try {
                for (; copied < filled; ++copied) {
                    ::new (static_cast<void*>(fresh->elements() + copied))
                        Element(elements()[copied]);
                }
            } catch (...) {
                fresh->release(copied);
                throw;
            }
            return fresh;
        }

        void retain() noexcept { references.fetch_add(1, std::memory_order_relaxed); }

        /// Drops one reference; the last one destroys the `filled` elements and the buffer.
        void release(Index filled) noexcept {
            if (references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
            std::destroy_n(elements(), filled);
            this->~Implementation();
            ::operator delete(static_cast<void*>(this), std::align_val_t(alignment()));
        }
    };

    /// The acquire load makes the reads that other owners made of the buffer before letting go
    /// of it happen before this value writes to it.
    bool isUniquelyReferenced() const noexcept {
        return implementation_ != nullptr &&
               implementation_->references.load(std::memory_order_acquire) == 1;
    }

    /// Makes the buffer private to this value (copy on write).
    void unshare() {
        Index filled = count();
        Implementation* fresh =
            implementation_ != nullptr ? implementation_->copy(filled) : Implementation::make(0);
        if (implementation_ != nullptr) implementation_->release(filled);
        implementation_ = fresh;
        end_ = fresh->elements() + filled;
    }

    const Element* data() const noexcept {
        return implementation_ != nullptr ? implementation_->elements() : nullptr;
    }

    Implementation* implementation_;
    Element* end_;
};

}  // namespace mirels

template <class Element>
    requires requires(const Element& e) { std::hash<Element>{}(e); }
struct std::hash<mirels::FixedStack<Element>> {
    std::size_t operator()(const mirels::FixedStack<Element>& stack) const {
        std::size_t seed = 0;
        for (const Element& element : stack) {
            seed = mirels::detail::hashCombine(seed, std::hash<Element>{}(element));
        }
        return seed;
    }
};
