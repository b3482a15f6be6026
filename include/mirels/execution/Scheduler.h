#pragma once

#include <cstdint>
#include <limits>
#include <memory>

#include "mirels/Export.h"
#include "mirels/core/Callsite.h"
#include "mirels/core/CancellationToken.h"
#include "mirels/core/TimePeriod.h"
#include "mirels/core/UniqueFunction.h"

namespace mirels {

/// Something that runs actions at deadlines on a clock of its own: real time for a
/// `DispatchScheduler`, virtual time that moves only when told for a `StepScheduler`. Operations
/// that wait (time-outs, delayed invocations) take a scheduler, so that tests can drive them
/// through virtual time instead of sleeping.
///
/// Contract every scheduler keeps:
/// - An action runs at most once, no earlier than its deadline on the scheduler's clock, and
///   (load permitting) no later than its deadline plus its leeway.
/// - Actions run in deadline order; actions with the same deadline run in the order they were
///   scheduled.
/// - Each scheduling returns a `CancellationToken`. Cancelling it before the action has started
///   guarantees that the action never runs, and destroys it (releasing what it captured) at
///   once; cancelling later does nothing. As with every token of the library, cancel it exactly
///   once, also after the action ran: a token dropped uncancelled is reported.
/// - Scheduling and cancelling are safe from any thread, also from inside a running action, and
///   never run an action on the calling thread while a lock of the scheduler is held.
/// - Actions must not throw.
///
/// Schedulers are shared reference objects (`std::shared_ptr`). When a scheduler goes away, the
/// actions still pending are destroyed without running.
class MIRELS_EXPORT Scheduler {
  public:
    using Action = UniqueFunction<void()>;

    virtual ~Scheduler();
    Scheduler() = default;
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    /// The scheduler's present time.
    virtual MonotonicTimestamp now() const noexcept = 0;

    /// Runs `action` as soon as possible: at the present time, after the actions already due.
    [[nodiscard]] std::shared_ptr<CancellationToken> schedule(
        Action action, Callsite callsite = Callsite::current()) {
        return scheduleAction(now(), TimePeriod{}, std::move(action), callsite);
    }

    /// Runs `action` once `delay` has passed (at once for a zero or negative delay), allowing it
    /// to run up to `leeway` late.
    [[nodiscard]] std::shared_ptr<CancellationToken> scheduleAfter(
        TimePeriod delay, TimePeriod leeway, Action action,
        Callsite callsite = Callsite::current()) {
        return scheduleAction(deadlineAfter(now(), delay), leeway, std::move(action), callsite);
    }

    /// `scheduleAfter` with no leeway.
    [[nodiscard]] std::shared_ptr<CancellationToken> scheduleAfter(
        TimePeriod delay, Action action, Callsite callsite = Callsite::current()) {
        return scheduleAction(deadlineAfter(now(), delay), TimePeriod{}, std::move(action),
                              callsite);
    }

    /// Runs `action` at `deadline` on this scheduler's clock (at once when it has passed),
    /// allowing it to run up to `leeway` late.
    [[nodiscard]] std::shared_ptr<CancellationToken> scheduleAt(
        MonotonicTimestamp deadline, TimePeriod leeway, Action action,
        Callsite callsite = Callsite::current()) {
        return scheduleAction(deadline, leeway, std::move(action), callsite);
    }

    /// `scheduleAt` with no leeway.
    [[nodiscard]] std::shared_ptr<CancellationToken> scheduleAt(
        MonotonicTimestamp deadline, Action action, Callsite callsite = Callsite::current()) {
        return scheduleAction(deadline, TimePeriod{}, std::move(action), callsite);
    }

    /// `start + delay`, saturating at the end of time; a negative delay gives `start`.
    static constexpr MonotonicTimestamp deadlineAfter(MonotonicTimestamp start,
                                                      TimePeriod delay) noexcept {
        constexpr std::uint64_t end = std::numeric_limits<std::uint64_t>::max() - 1;
        if (delay.nanosecondCount <= 0) return start;
        const auto amount = static_cast<std::uint64_t>(delay.nanosecondCount);
        return {amount > end - start.ticks ? end : start.ticks + amount};
    }

  protected:
    /// What every scheduling form comes down to; see the class contract.
    /// The action is passed by reference so that it is moved once, into its final place.
    virtual std::shared_ptr<CancellationToken> scheduleAction(MonotonicTimestamp deadline,
                                                              TimePeriod leeway, Action&& action,
                                                              Callsite callsite) = 0;
};

}  // namespace mirels
