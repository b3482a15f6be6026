#pragma once

// `OneShotTimer`: a callback that runs once on the background queue after a delay, unless cancelled
// first.

#include <cstdint>

#include "mirels/Export.h"
#include "mirels/core/TimePeriod.h"
#include "mirels/core/UniqueFunction.h"

namespace mirels {

namespace detail {
struct TimerEntry;
}

/// A callback that runs once on the default background queue (`DispatchQueue::background()`)
/// after a delay, unless it is cancelled first. Time-outs are built on it.
///
/// The callback runs no earlier than `delay` after `schedule` and, load permitting, no later than
/// `delay + leeway`. The leeway lets the timer thread wake once for several timers whose windows
/// overlap instead of once for each; give time-outs a generous leeway.
///
/// A timer ends in exactly one of two ways: it fires (its callback is handed to the background
/// queue and will run) or it is cancelled before firing (its callback never runs and is
/// destroyed at once, releasing what it captured). `cancel()` is lock-free and safe from any
/// thread, also while the timer is firing: whoever settles the timer first wins, and the loser
/// does nothing.
///
/// `OneShotTimer` is a handle: copies refer to the same timer. Dropping every handle does not
/// cancel the timer.
class MIRELS_EXPORT OneShotTimer {
  public:
    enum class State : std::uint8_t {
        /// Neither fired nor cancelled yet.
        pending,
        /// Handed to the background queue; its callback runs or has run.
        fired,
        /// Cancelled before it fired; its callback never runs.
        cancelled,
    };

    /// An empty handle: no timer; `cancel()` returns false.
    OneShotTimer() noexcept = default;

    /// Arms a timer that runs `callback` on the background queue after `delay` (at once when the
    /// delay is zero or negative), allowing it to run up to `leeway` late. Starts the timer
    /// thread on first use.
    static OneShotTimer schedule(TimePeriod delay, TimePeriod leeway,
                                 UniqueFunction<void()> callback);

    OneShotTimer(const OneShotTimer& other) noexcept;
    OneShotTimer(OneShotTimer&& other) noexcept;
    OneShotTimer& operator=(OneShotTimer other) noexcept;
    ~OneShotTimer();

    /// Cancels the timer if it is still pending. Returns true when this call cancelled it (its
    /// callback will never run), false when it had already fired or been cancelled, or when the
    /// handle is empty.
    bool cancel() const noexcept;

    /// Where the timer stands now (`cancelled` for an empty handle).
    State state() const noexcept;

    explicit operator bool() const noexcept { return entry_ != nullptr; }

    friend bool operator==(const OneShotTimer& a, const OneShotTimer& b) noexcept {
        return a.entry_ == b.entry_;
    }

  private:
    explicit OneShotTimer(detail::TimerEntry* entry) noexcept : entry_(entry) {}

    detail::TimerEntry* entry_ = nullptr;
};

}  // namespace mirels
