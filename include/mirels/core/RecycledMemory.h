#pragma once

// `allocateRecycled`, `deallocateRecycled`, `RecyclingAllocator`, `makeSharedRecycled`: small
// blocks recycled through a per-thread cache, for objects that are made and dropped at a high
// rate (futures and their observer nodes).

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "mirels/Export.h"

namespace mirels {

/// The largest block the per-thread cache keeps; larger requests go straight to the heap.
inline constexpr std::size_t largestRecycledBlock = 1024;

/// A block of at least `size` bytes (`size` > 0), aligned for any object the default `new`
/// serves. Blocks of at most `largestRecycledBlock` bytes are rounded up to a multiple of 64
/// and come from the calling thread's cache of freed blocks of that class when it has one, so
/// a warm thread makes and drops short-lived objects without a call to the heap; otherwise,
/// and for larger blocks, from `::operator new`. Throws `std::bad_alloc` as that does.
///
/// Costs and limits: a cache hit is a few instructions (one thread-local list pop). Each
/// thread keeps at most 8 KiB of free blocks per class (at least four blocks), at most 128 KiB
/// in all; the rest go back to the heap. A block may be freed on any thread: it joins that
/// thread's cache. A thread's cache is emptied into the heap when the thread ends. Builds with
/// AddressSanitizer bypass the cache, so that a use after free is still caught.
[[nodiscard]] MIRELS_EXPORT void* allocateRecycled(std::size_t size);

/// Frees `block`, which `allocateRecycled(size)` returned, with the same `size`.
MIRELS_EXPORT void deallocateRecycled(void* block, std::size_t size) noexcept;

/// A standard allocator over `allocateRecycled`, for `std::allocate_shared` and containers of
/// short-lived nodes. Stateless: every instance can free what any other allocated.
template <class T>
class RecyclingAllocator {
    static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__,
                  "recycled blocks have the default new alignment");

  public:
    using value_type = T;

    RecyclingAllocator() noexcept = default;
    /// Rebinding, as the standard allocator model requires (implicit, like `std::allocator`'s).
    template <class U>
    // NOLINTNEXTLINE(google-explicit-constructor)
    RecyclingAllocator(const RecyclingAllocator<U>& /*other*/) noexcept {}

    [[nodiscard]] T* allocate(std::size_t count) {
        if (count > static_cast<std::size_t>(-1) / sizeof(T)) throw std::bad_array_new_length();
        return static_cast<T*>(allocateRecycled(count * sizeof(T)));
    }
    void deallocate(T* block, std::size_t count) noexcept {
        deallocateRecycled(block, count * sizeof(T));
    }

    template <class U>
    friend bool operator==(const RecyclingAllocator& /*a*/,
                           const RecyclingAllocator<U>& /*b*/) noexcept {
        return true;
    }
};

/// `std::make_shared<T>(args...)` with the object and its control block in one recycled block.
template <class T, class... Args>
[[nodiscard]] std::shared_ptr<T> makeSharedRecycled(Args&&... args) {
    return std::allocate_shared<T>(RecyclingAllocator<T>(), std::forward<Args>(args)...);
}

/// A base that gives a class recycled `new` and `delete` (for nodes that are made with `new`
/// and delete themselves). The deleting type must be the most derived one, or have a virtual
/// destructor, so that the size freed is the size allocated.
struct RecycledAllocation {
    static void* operator new(std::size_t size) { return allocateRecycled(size); }
    static void operator delete(void* block, std::size_t size) noexcept {
        deallocateRecycled(block, size);
    }
};

}  // namespace mirels
