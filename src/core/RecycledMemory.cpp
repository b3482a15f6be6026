#include "mirels/core/RecycledMemory.h"

#include <cstdint>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
#define MIRELS_RECYCLING_BYPASSED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MIRELS_RECYCLING_BYPASSED 1
#endif
#endif

namespace mirels {

namespace {
/// Gives a block back to the heap, with its size where the compiler has sized deallocation.
void freeToHeap(void* block, std::size_t size) noexcept {
#if defined(__cpp_sized_deallocation)
    ::operator delete(block, size);
#else
    static_cast<void>(size);
    ::operator delete(block);
#endif
}
}  // namespace

#if !defined(MIRELS_RECYCLING_BYPASSED)
namespace {

constexpr std::size_t recycledGranule = 64;
/// The bytes of free blocks a thread keeps per class.
constexpr std::size_t recycledBytesPerClass = 8192;
constexpr std::size_t recycledClassCount = largestRecycledBlock / recycledGranule;
static_assert(largestRecycledBlock % recycledGranule == 0);

/// The bytes of one class of block: a multiple of the granule.
constexpr std::size_t recycledClassSize(std::size_t sizeClass) noexcept {
    return (sizeClass + 1) * recycledGranule;
}

/// How many free blocks of a class a thread keeps: 8 KiB worth, and at least four.
constexpr std::uint32_t recycledClassLimit(std::size_t sizeClass) noexcept {
    const std::size_t blocks = recycledBytesPerClass / recycledClassSize(sizeClass);
    return static_cast<std::uint32_t>(blocks < 4 ? 4 : blocks);
}

struct FreeBlock {
    FreeBlock* next;
};

/// A thread's free blocks, one list per class, and the room left in each. Plain data with
/// constant initialization, so that reaching it costs no initialization check. All room starts
/// at zero: the first free on a thread takes the slow path, which makes the object that
/// empties the cache when the thread ends (`RecycledCacheReaper`) and only then opens the room.
struct RecycledCache {
    FreeBlock* heads[recycledClassCount];
    std::uint32_t room[recycledClassCount];
    /// The reaper exists: room is open, or closed for good once the reaper has run.
    bool reaperMade;
};

// initial-exec: the library's own thread-local, reached with one offset from the thread
// pointer rather than a call to the dynamic linker's lookup.
constinit thread_local RecycledCache recycledCache __attribute__((tls_model("initial-exec"))) = {};

/// Empties the thread's cache when the thread ends, and closes its room, so that later frees
/// on the thread (from the destructors of thread-locals made before it) go to the heap.
struct RecycledCacheReaper {
    RecycledCacheReaper() = default;
    RecycledCacheReaper(const RecycledCacheReaper&) = delete;
    RecycledCacheReaper& operator=(const RecycledCacheReaper&) = delete;
    ~RecycledCacheReaper() {
        RecycledCache& cache = recycledCache;
        for (std::size_t sizeClass = 0; sizeClass < recycledClassCount; ++sizeClass) {
            FreeBlock* block = cache.heads[sizeClass];
            while (block != nullptr) {
                FreeBlock* next = block->next;
                freeToHeap(block, recycledClassSize(sizeClass));
                block = next;
            }
            cache.heads[sizeClass] = nullptr;
            cache.room[sizeClass] = 0;
        }
    }
};

/// A free with no room in its class: the thread's first (which makes the reaper and opens the
/// room), or one into a full class or on an ending thread.
[[gnu::noinline]] void deallocateRecycledSlowly(void* block, std::size_t sizeClass) noexcept {
    RecycledCache& cache = recycledCache;
    if (!cache.reaperMade) {
        thread_local RecycledCacheReaper reaper;
        static_cast<void>(reaper);
        cache.reaperMade = true;
        for (std::size_t each = 0; each < recycledClassCount; ++each) {
            cache.room[each] = recycledClassLimit(each);
        }
        cache.heads[sizeClass] = ::new (block) FreeBlock{cache.heads[sizeClass]};
        --cache.room[sizeClass];
        return;
    }
    freeToHeap(block, recycledClassSize(sizeClass));
}

}  // namespace
#endif

void* allocateRecycled(std::size_t size) {
#if !defined(MIRELS_RECYCLING_BYPASSED)
    const std::size_t sizeClass = (size - 1) / recycledGranule;
    if (sizeClass < recycledClassCount) {
        RecycledCache& cache = recycledCache;
        if (FreeBlock* block = cache.heads[sizeClass]) {
            cache.heads[sizeClass] = block->next;
            ++cache.room[sizeClass];
            return block;
        }
        return ::operator new(recycledClassSize(sizeClass));
    }
#endif
    return ::operator new(size);
}

void deallocateRecycled(void* block, std::size_t size) noexcept {
#if !defined(MIRELS_RECYCLING_BYPASSED)
    const std::size_t sizeClass = (size - 1) / recycledGranule;
    if (sizeClass < recycledClassCount) {
        RecycledCache& cache = recycledCache;
        if (cache.room[sizeClass] == 0) {
            deallocateRecycledSlowly(block, sizeClass);
            return;
        }
        cache.heads[sizeClass] = ::new (block) FreeBlock{cache.heads[sizeClass]};
        --cache.room[sizeClass];
        return;
    }
#endif
    freeToHeap(block, size);
}

}  // namespace mirels
