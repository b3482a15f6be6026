#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "mirels/Export.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/execution/Scheduler.h"

namespace mirels {

/// A scheduler on virtual time that moves only when told, for tests of code that waits:
/// `advance(by)` and `advanceTo` move the clock and run what falls due on the way,
/// `runNext()` jumps to the next pending action and runs it, `runUntilIdle()` runs everything.
///
/// Actions run on the thread that advances, outside the scheduler's lock, one at a time in
/// deadline order (same deadlines in scheduling order). While an action runs, `now()` reads its
/// deadline (or the present time, when the deadline was already past), so an action that
/// schedules another after a delay measures from its own deadline; the new action runs in the
/// same advance if it falls due before the target. Leeways are ignored: an action runs exactly
/// at its deadline. Scheduling and cancelling are safe from any thread; advancing from several
/// threads at once is safe too, but then actions may run on either.
///
/// Each step costs O(log n) in the pending actions (a binary heap), so scheduling n actions and
/// advancing through them all is O(n log n).
class MIRELS_EXPORT StepScheduler final : public Scheduler {
    struct Key {
        explicit Key() = default;
    };

  public:
    /// A scheduler whose clock starts at `start`.
    [[nodiscard]] static std::shared_ptr<StepScheduler> create(
        MonotonicTimestamp start = MonotonicTimestamp{});

    StepScheduler(Key, MonotonicTimestamp start);
    ~StepScheduler() override;

    MonotonicTimestamp now() const noexcept override;

    /// Moves the clock forward by `period` (a negative period counts as zero), running every
    /// action that falls due on the way, including actions those actions schedule. Returns how
    /// many actions ran.
    std::size_t advance(TimePeriod period);

    /// Moves the clock to `time` (never backwards) and runs what falls due, as `advance`.
    std::size_t advanceTo(MonotonicTimestamp time);

    /// Moves the clock to the deadline of the earliest pending action, if later than now, and
    /// runs that one action. Returns false when nothing was pending.
    bool runNext();

    /// Runs pending actions, moving the clock as needed, until none is left; returns how many
    /// ran. An action that always schedules another keeps this from returning.
    std::size_t runUntilIdle();

    /// How many actions wait to run (neither run nor cancelled).
    std::size_t pendingCount() const;

    /// The deadline of the earliest pending action, if any.
    std::optional<MonotonicTimestamp> nextDeadline() const;

  protected:
    std::shared_ptr<CancellationToken> scheduleAction(MonotonicTimestamp deadline,
                                                      TimePeriod leeway, Action&& action,
                                                      Callsite callsite) override;

  private:
    struct State;
    bool runOneDue(const std::uint64_t* limit);

    std::unique_ptr<ThreadSafe<State>> state_;
};

}  // namespace mirels
