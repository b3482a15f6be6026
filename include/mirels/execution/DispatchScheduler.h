#pragma once

#include <memory>

#include "mirels/Export.h"
#include "mirels/execution/ExecutionLane.h"
#include "mirels/execution/Scheduler.h"

namespace mirels {

/// A scheduler on real time (the monotonic clock) that runs its actions on an `ExecutionLane`.
///
/// The scheduler keeps its pending actions in one heap and arms one `OneShotTimer` for the
/// earliest of them; when the timer fires (on the background queue), every action that is due
/// is handed to the lane in deadline order, then the timer is armed for the next one. Handing
/// over is done by one firing pass at a time, so on a serial lane (and on `any`, where actions
/// run on the firing thread) actions run one after another in deadline order, same deadlines in
/// scheduling order; on a concurrent queue they start in that order.
///
/// Costs: scheduling is one allocation (the token and the action together) and a heap push
/// under the scheduler's lock; it touches the timer only when the new action is due before
/// every other one. Cancelling is lock-free (one compare-and-swap) and destroys the action at
/// once; the cancelled entry leaves the heap later. An action captured in up to 48 bytes is
/// stored without a further allocation.
///
/// An action runs no earlier than its deadline and, load permitting, within its leeway; give a
/// leeway where precision does not matter, so the timer thread can wake once for several timers.
/// Dropping the last handle on a scheduler destroys its pending actions without running them;
/// `background()` lives for the whole process.
class MIRELS_EXPORT DispatchScheduler final : public Scheduler {
    struct Key {
        explicit Key() = default;
    };

  public:
    struct Core;

    /// A scheduler that runs its actions on `lane`.
    [[nodiscard]] static std::shared_ptr<DispatchScheduler> create(ExecutionLane lane);

    /// The process-wide scheduler whose actions run on the default background queue
    /// (`DispatchQueue::background()`), which is what time-outs and delayed invocations use
    /// unless told otherwise. Made on first use and never destroyed.
    static const std::shared_ptr<DispatchScheduler>& background();

    DispatchScheduler(Key, ExecutionLane lane);
    ~DispatchScheduler() override;

    /// The monotonic clock.
    MonotonicTimestamp now() const noexcept override { return MonotonicTimestamp::now(); }

    /// Where the actions run.
    const ExecutionLane& lane() const noexcept;

    /// How many actions wait to run (neither run nor cancelled). For tests and diagnostics.
    std::size_t pendingCount() const;

  protected:
    std::shared_ptr<CancellationToken> scheduleAction(MonotonicTimestamp deadline,
                                                      TimePeriod leeway, Action&& action,
                                                      Callsite callsite) override;

  private:
    std::shared_ptr<Core> core_;
};

}  // namespace mirels
