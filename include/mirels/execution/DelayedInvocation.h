#pragma once

#include <cstdint>
#include <memory>

#include "mirels/Export.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/execution/DispatchScheduler.h"
#include "mirels/execution/ExecutionLane.h"
#include "mirels/execution/Scheduler.h"

namespace mirels {

/// An action that runs on a lane a fixed delay after it is asked for, once per burst of
/// requests: the usual tool for coalescing edits, saves or refreshes.
///
/// `schedule()` opens a pending period if none is open; the action runs when the period ends.
/// Asking again while the period is open does what the mode says:
/// - `debounce`: moves the end to one delay after the latest request, so the action runs once
///   the requests have paused for a whole delay;
/// - `throttle`: keeps the first end, so the action runs at most once per delay however often
///   it is asked for.
///
/// Each pending period ends exactly once, in one of three ways, also when they race on
/// different threads: the delay passes (the action runs), `fireNow()` (the action runs at
/// once), or `cancel()` (it does not run). A request after the end opens a new period. The
/// action runs on `lane`, outside every lock; periods that end close together on a concurrent
/// lane may run the action concurrently, so pick a serial lane when runs must not overlap.
///
/// Costs: rescheduling a pending debounce takes the lock and reads the clock; it allocates
/// nothing and does not touch the scheduler. When the scheduler's action comes due before the
/// moved deadline, it is armed again for the rest, so a burst of n requests arms at most a
/// handful of times, not n. The action may run up to a tenth of the delay late (the scheduler's
/// leeway), which lets the timer coalesce wake-ups.
///
/// Made with `create`, shared by `std::shared_ptr`; the scheduler holds it weakly, so dropping
/// the last handle cancels a pending run. Thread-safe.
class MIRELS_EXPORT DelayedInvocation final
    : public std::enable_shared_from_this<DelayedInvocation> {
    struct Key {
        explicit Key() = default;
    };

  public:
    enum class Mode : std::uint8_t {
        /// A request while pending moves the end to one delay after it.
        debounce,
        /// A request while pending changes nothing.
        throttle,
    };

    /// An invocation of `action` on `lane`, `delay` after a request, timed by `scheduler`.
    [[nodiscard]] static std::shared_ptr<DelayedInvocation> create(
        TimePeriod delay, Mode mode, ExecutionLane lane, UniqueFunction<void()> action,
        std::shared_ptr<Scheduler> scheduler = DispatchScheduler::background(),
        Callsite callsite = Callsite::current());

    DelayedInvocation(Key, TimePeriod delay, Mode mode, ExecutionLane lane,
                      UniqueFunction<void()> action, std::shared_ptr<Scheduler> scheduler,
                      Callsite callsite);
    ~DelayedInvocation();
    DelayedInvocation(const DelayedInvocation&) = delete;
    DelayedInvocation& operator=(const DelayedInvocation&) = delete;

    /// Asks for a run: opens a pending period, or moves or keeps its end by the mode. Returns
    /// true when this request opened the period.
    bool schedule();

    /// Ends the pending period without running the action. Returns false when none was open.
    bool cancel();

    /// Ends the pending period by running the action now (through the lane: on the calling
    /// thread for `any`). Returns false, and runs nothing, when none was open.
    bool fireNow();

    /// Whether a period is open: a run is pending.
    bool isScheduled() const;

    TimePeriod delay() const noexcept { return delay_; }
    Mode mode() const noexcept { return mode_; }

  private:
    struct State {
        bool pending = false;
        std::uint64_t period = 0;    // numbers the pending periods; stale arms compare it
        std::uint64_t deadline = 0;  // when the open period ends, on the scheduler's clock
        std::shared_ptr<CancellationToken> armed;
    };

    void arm(std::uint64_t period, std::uint64_t deadline);
    void scheduledActionFired(std::uint64_t period);
    void run();
    // Ends the pending period, if any, and cancels its armed scheduler token; true when it did.
    bool endPendingPeriod();
    static void cancelToken(const std::shared_ptr<CancellationToken>& token);

    const TimePeriod delay_;
    const TimePeriod leeway_;
    const Mode mode_;
    const ExecutionLane lane_;
    UniqueFunction<void()> action_;
    const std::shared_ptr<Scheduler> scheduler_;
    const Callsite callsite_;
    ThreadSafe<State> state_;
};

}  // namespace mirels
