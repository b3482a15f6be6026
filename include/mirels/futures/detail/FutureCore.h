#pragma once

#include <time.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "mirels/Export.h"
#include "mirels/core/Callsite.h"
#include "mirels/core/TimePeriod.h"

namespace mirels::detail {

/// The clock futures record their initialization and finish times with: the monotonic clock at
/// the kernel's tick resolution (CLOCK_MONOTONIC_COARSE, 1 to 4 ms), on the same time base as
/// `MonotonicTimestamp::now()` at a fraction of its cost. Futures are made and finished far too
/// often for a precise reading, and running times worth looking at are longer than a tick.
/// Inline: it is read twice on every future's way.
inline MonotonicTimestamp futureClockNow() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return {static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000ULL +
            static_cast<std::uint64_t>(now.tv_nsec)};
}

/// One observer waiting for a future to finish: a node of the future's intrusive list.
///
/// The future calls `finished` once with its termination (a `const FutureTermination<T>*` for a
/// future of `T`), on the finishing thread, and `release` once afterwards; a future that goes
/// away running calls only `release`. A node says for itself where it lives: in the future's
/// inline slot, on the heap, or inside another object (a combinator stage observes its input
/// through a node that is one of its own members).
class FutureObserverNode {
  public:
    FutureObserverNode() = default;
    FutureObserverNode(const FutureObserverNode&) = delete;
    FutureObserverNode& operator=(const FutureObserverNode&) = delete;

    /// The future has finished with `termination`. Must not throw.
    virtual void finished(const void* termination) noexcept = 0;
    /// The future is done with the node: it lets go of what it holds (itself, perhaps).
    virtual void release() noexcept = 0;

  protected:
    ~FutureObserverNode() = default;

  private:
    friend class FutureCore;
    FutureObserverNode* next_ = nullptr;
};

/// What every future has whatever its value type: the state word, the observer list, the inline
/// observer slot, the call site and the times. Defined once, out of line; `AbstractFuture<T>`
/// adds only the typed termination and the typed observers.
///
/// The state word is one of
///   running:   a list head (newest first) and two flags, "inline slot taken" and "finishing";
///   finished:  a fixed value no running state can equal.
/// Pushing an observer is one compare-and-swap on the word; the finisher claims the future by
/// setting "finishing" (one fetch-or: of competing finishers, the first wins), builds the
/// termination, then takes the whole list with one exchange to "finished" and runs it. No lock
/// is taken anywhere.
class MIRELS_EXPORT FutureCore {
  public:
    FutureCore(const FutureCore&) = delete;
    FutureCore& operator=(const FutureCore&) = delete;
    FutureCore(FutureCore&&) = delete;
    FutureCore& operator=(FutureCore&&) = delete;

    /// Where the future was made.
    Callsite initializationCallsite() const noexcept { return initializationCallsite_; }
    /// When the future was made (monotonic clock).
    MonotonicTimestamp initializationTime() const noexcept { return initializationTime_; }

    /// Whether the future has finished; once true, it stays true.
    bool isFinished() const noexcept {
        // The acquire load pairs with the finishing exchange, which follows the termination's
        // construction.
        return state_.load(std::memory_order_acquire) == finishedState;
    }

    /// From construction to finish; absent while running.
    std::optional<TimePeriod> runningTime() const noexcept {
        if (!isFinished()) return std::nullopt;
        return finishTime_ - initializationTime_;
    }

    /// Blocks the calling thread until the future has finished.
    void waitUntilFinished();

    /// Room for a typed observer node inside the future.
    static constexpr std::size_t inlineNodeSize = 128;

  protected:
    /// A running future.
    explicit FutureCore(Callsite callsite) noexcept
        : initializationCallsite_(callsite), initializationTime_(futureClockNow()) {}
    struct FinishedAtConstruction {};
    /// A future finished from the start (its owner builds the termination).
    FutureCore(Callsite callsite, FinishedAtConstruction /*unused*/) noexcept
        : initializationCallsite_(callsite),
          initializationTime_(futureClockNow()),
          finishTime_(initializationTime_),
          state_(finishedState) {}
    /// Releases, without a call, the observers of a future that never finished.
    ~FutureCore() {
        const std::uintptr_t state = state_.load(std::memory_order_acquire);
        if (state != finishedState) releaseUnfinished(state);
    }

    // The three steps below are on every round trip: defined here, so that they inline.

    /// The inline node slot when this caller is the first to ask (and the future runs); null
    /// otherwise.
    void* takeInlineNodeStorage() noexcept {
        std::uintptr_t state = state_.load(std::memory_order_relaxed);
        // The finished value has the bit set too, so a finish ends the loop.
        while ((state & inlineNodeTaken) == 0) {
            if (state_.compare_exchange_weak(state, state | inlineNodeTaken,
                                             std::memory_order_relaxed,
                                             std::memory_order_relaxed)) {
                return static_cast<void*>(inlineNode_);
            }
        }
        return nullptr;
    }

    /// Adds `node` to the list of a running future and returns true; returns false when the
    /// future has finished (the caller then delivers to the node itself).
    bool push(FutureObserverNode& node) noexcept {
        std::uintptr_t state = state_.load(std::memory_order_acquire);
        for (;;) {
            if (state == finishedState) return false;
            node.next_ = nodeOf(state);
            if (state_.compare_exchange_weak(
                    state, (state & flagBits) | reinterpret_cast<std::uintptr_t>(&node),
                    std::memory_order_release, std::memory_order_acquire)) {
                return true;
            }
        }
    }

    /// Claims the finish: true for exactly one caller, which must then build the termination
    /// and call `publishFinish`.
    bool claimFinish() noexcept {
        return (state_.fetch_or(finishing, std::memory_order_acquire) & finishing) == 0;
    }

    /// Records the finish time, marks the future finished and runs its observers in
    /// registration order with `termination`, then releases them.
    void publishFinish(const void* termination) noexcept {
        finishTime_ = futureClockNow();
        const std::uintptr_t state = state_.exchange(finishedState, std::memory_order_acq_rel);
        FutureObserverNode* node = nodeOf(state);
        if (node == nullptr) return;
        if (node->next_ != nullptr) {
            runObservers(node, termination);
            return;
        }
        // One observer, the common case.
        node->finished(termination);
        node->release();
    }

    /// Waits for a finish that another thread has claimed to be published.
    void awaitFinished() const noexcept;

  private:
    /// Calls and then releases the observers of `newest`, a list pushed newest first.
    static void runObservers(FutureObserverNode* newest, const void* termination) noexcept;
    /// Releases the observers of a future that goes away running.
    static void releaseUnfinished(std::uintptr_t state) noexcept;

    // A node address (aligned, so its low bits are free) with two flags, or the finished value,
    // which no running state can equal (both flag bits set, and no node below the address 8).
    static constexpr std::uintptr_t inlineNodeTaken = 1;
    static constexpr std::uintptr_t finishing = 2;
    static constexpr std::uintptr_t flagBits = inlineNodeTaken | finishing;
    static constexpr std::uintptr_t finishedState = 4 | flagBits;

    static FutureObserverNode* nodeOf(std::uintptr_t state) noexcept {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the word holds a node's address
        return reinterpret_cast<FutureObserverNode*>(state & ~flagBits);
    }

    Callsite initializationCallsite_;
    MonotonicTimestamp initializationTime_;
    // Written by the finishing thread before the state says finished; read-only afterwards.
    MonotonicTimestamp finishTime_{};
    std::atomic<std::uintptr_t> state_{0};
    alignas(std::max_align_t) std::byte inlineNode_[inlineNodeSize];
};

}  // namespace mirels::detail
