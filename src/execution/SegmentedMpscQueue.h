#pragma once

#include <sched.h>

#include <atomic>
#include <cstdint>
#include <new>
#include <utility>

#include "Futex.h"

namespace mirels::detail {

/// An unbounded multi-producer single-consumer FIFO queue of values stored in linked segments of
/// consecutive slots (after the segmented queue of the crossbeam project).
///
/// A producer claims the next slot with one compare-and-swap on the tail position, moves its
/// value in, and marks the slot written. The consumer reads slots in order and runs values in
/// place. Because slots are consecutive, both sides walk memory sequentially, which the
/// processor prefetches; no value costs an allocation, and a segment is allocated once per
/// `segmentCapacity` values only when no spent segment is waiting to be reused. Only a queue
/// that builds up a backlog allocates; a queue keeps up to `maxSpares` spent segments.
///
/// Positions are 64-bit counters that never wrap; the last position of each lap of
/// `segmentCapacity + 1` is a placeholder that marks "the next segment is being installed".
template <class T>
class SegmentedMpscQueue {
    static constexpr std::uint64_t lap = 32;
    static constexpr std::uint64_t segmentCapacity = lap - 1;

    struct Slot {
        alignas(T) unsigned char storage[sizeof(T)];
        std::atomic<std::uint32_t> written{0};

        T* value() noexcept { return std::launder(reinterpret_cast<T*>(storage)); }
    };

    struct Segment {
        std::atomic<Segment*> next{nullptr};
        Slot slots[segmentCapacity];
    };

  public:
    SegmentedMpscQueue() : headSegment_(new Segment()), tailSegment_(headSegment_) {}

    ~SegmentedMpscQueue() {
        while (T* value = front()) {
            (void)value;
            popFront();
        }
        delete headSegment_;
        Segment* spare = spares_.load(std::memory_order_relaxed);
        while (spare != nullptr)
            delete std::exchange(spare, spare->next.load(std::memory_order_relaxed));
    }

    SegmentedMpscQueue(const SegmentedMpscQueue&) = delete;
    SegmentedMpscQueue& operator=(const SegmentedMpscQueue&) = delete;

    /// Appends `value`. Any thread. The claim of the slot is sequentially consistent, so that a
    /// producer that pushes and then reads a consumer's flag, and a consumer that writes its flag
    /// and then checks `isSettledEmpty`, cannot both miss each other.
    void push(T&& value) {
        unsigned spins = 0;
        for (;;) {
            std::uint64_t tail = tailPosition_.load(std::memory_order_acquire);
            Segment* segment = tailSegment_.load(std::memory_order_acquire);
            const std::uint64_t offset = tail % lap;
            if (offset == segmentCapacity) {
                // Another producer is installing the next segment: a few instructions, unless it
                // was preempted.
                backOff(spins);
                continue;
            }
            if (tailPosition_.compare_exchange_weak(tail, tail + 1, std::memory_order_seq_cst,
                                                    std::memory_order_relaxed)) {
                if (offset + 1 == segmentCapacity) {
                    // This push took the last slot, so it installs the next segment while the
                    // other producers wait. Installers follow one another (each waits for the
                    // previous installation), which makes this the spare stack's only popper.
                    Segment* fresh = takeSpare();
                    tailSegment_.store(fresh, std::memory_order_release);
                    tailPosition_.store(tail + 2, std::memory_order_release);
                    segment->next.store(fresh, std::memory_order_release);
                }
                Slot& slot = segment->slots[offset];
                // The slots ahead were last written on the consumer's core. Ask for them now, so
                // that later pushes find them in cache: otherwise each push's stores wait for a
                // transfer between cores, and the next claim (a locked instruction) waits for
                // those stores.
                prefetchForWrite(segment, offset + prefetchDistance);
                ::new (static_cast<void*>(slot.storage)) T(std::move(value));
                slot.written.store(1, std::memory_order_release);
                return;
            }
            cpuRelax();
        }
    }

    /// The oldest value, left in place, or null when the queue is empty or the oldest push is
    /// still in progress. Consumer only.
    T* front() noexcept {
        if (headPosition_ % lap == segmentCapacity) {
            Segment* next = headSegment_->next.load(std::memory_order_acquire);
            if (next == nullptr) return nullptr;
            recycle(std::exchange(headSegment_, next));
            ++headPosition_;
        }
        Slot& slot = headSegment_->slots[headPosition_ % lap];
        if (slot.written.load(std::memory_order_acquire) == 0) return nullptr;
        return slot.value();
    }

    /// Destroys the value `front()` returned and moves on. Consumer only.
    void popFront() noexcept {
        Slot& slot = headSegment_->slots[headPosition_ % lap];
        slot.value()->~T();
        slot.written.store(0, std::memory_order_relaxed);
        ++headPosition_;
    }

    /// True when nothing is queued and no push has begun. Consumer only.
    bool isSettledEmpty() const noexcept { return !hasPushesAfter(consumerPosition()); }

    /// How far the consumer has come. Consumer only.
    std::uint64_t consumerPosition() const noexcept { return headPosition_; }

    /// Whether any push has begun beyond `position`, a consumer position read earlier. Reads
    /// only the tail, so a former consumer may call it after handing the queue on.
    bool hasPushesAfter(std::uint64_t position) const noexcept {
        return tailPosition_.load(std::memory_order_seq_cst) != position;
    }

  private:
    static constexpr std::uint64_t prefetchDistance = 4;
    static constexpr int maxSpares = 32;

    static void prefetchForWrite(Segment* segment, std::uint64_t offset) noexcept {
        if (offset >= segmentCapacity) return;
        const char* address = reinterpret_cast<const char*>(&segment->slots[offset]);
        __builtin_prefetch(address, 1);
        __builtin_prefetch(address + sizeof(Slot) - 1, 1);
    }

    static void backOff(unsigned& spins) noexcept {
        if (++spins % 64 == 0) {
            sched_yield();
        } else {
            cpuRelax();
        }
    }

    // Spent segments wait on a stack for reuse, so that a queue that is busy for a while stops
    // allocating. The consumer pushes; only the installing producer pops (see push), and a
    // stack with a single popper has no ABA problem. At most maxSpares are kept.
    Segment* takeSpare() {
        Segment* top = spares_.load(std::memory_order_acquire);
        while (top != nullptr) {
            Segment* below = top->next.load(std::memory_order_relaxed);
            if (spares_.compare_exchange_weak(top, below, std::memory_order_acquire,
                                              std::memory_order_acquire)) {
                spareCount_.fetch_sub(1, std::memory_order_relaxed);
                top->next.store(nullptr, std::memory_order_relaxed);
                return top;
            }
        }
        return new Segment();
    }

    // A spent segment is clean: every slot was marked unwritten as it was consumed.
    void recycle(Segment* segment) noexcept {
        if (spareCount_.load(std::memory_order_relaxed) >= maxSpares) {
            delete segment;
            return;
        }
        spareCount_.fetch_add(1, std::memory_order_relaxed);
        Segment* top = spares_.load(std::memory_order_relaxed);
        do {
            segment->next.store(top, std::memory_order_relaxed);
        } while (!spares_.compare_exchange_weak(top, segment, std::memory_order_release,
                                                std::memory_order_relaxed));
    }

    // Consumer side.
    Segment* headSegment_;
    std::uint64_t headPosition_ = 0;
    // Producer side, on cache lines of its own.
    alignas(64) std::atomic<std::uint64_t> tailPosition_{0};
    std::atomic<Segment*> tailSegment_;
    alignas(64) std::atomic<Segment*> spares_{nullptr};
    std::atomic<int> spareCount_{0};
};

}  // namespace mirels::detail
