#include "mirels/execution/DispatchScheduler.h"

#include <limits>
#include <optional>
#include <utility>
#include <vector>

#include "ScheduledActions.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/execution/DispatchQueue.h"
#include "mirels/execution/OneShotTimer.h"

namespace mirels {

namespace {
constexpr std::uint64_t notArmed = std::numeric_limits<std::uint64_t>::max();
}  // namespace

// The state shared with the timer's callbacks, which hold it weakly: a scheduler that went away
// is never touched by a late timer.
struct DispatchScheduler::Core {
    struct State {
        detail::ScheduledActionHeap heap;
        // The deadline the armed timer serves, `notArmed` when none; each arming gets the next
        // generation, so a timer that was superseded or has fired is recognised.
        std::uint64_t armedDeadline = notArmed;
        std::uint64_t armGeneration = 0;
        OneShotTimer armedTimer;
        bool firing = false;  // a firing pass is handing actions over
    };

    struct Arming {
        std::uint64_t deadline;
        std::int64_t leeway;
        std::uint64_t generation;
    };

    explicit Core(ExecutionLane lane) : lane(std::move(lane)) {}

    ~Core() { discardPending(); }

    // Destroys the pending actions without running them and disarms the timer; nothing here
    // runs under the lock. Called when the last handle goes, not only when the core does: a
    // timer pass that is running holds the core a little longer, and the actions must not wait
    // for it.
    void discardPending() {
        std::vector<detail::ScheduledItem> items =
            state.syncWrite([](State& s) { return s.heap.takeAll(); });
        detail::discardAll(items);
        state.syncWrite([](State& s) { return std::exchange(s.armedTimer, OneShotTimer()); })
            .cancel();
    }

    // Under the lock: arms for the earliest pending action when the armed timer comes later.
    static std::optional<Arming> armingNeeded(State& s) {
        const detail::ScheduledItem* first = s.heap.top();
        if (first == nullptr || first->deadline >= s.armedDeadline) return std::nullopt;
        s.armedDeadline = first->deadline;
        return Arming{first->deadline, first->leeway, ++s.armGeneration};
    }

    static void arm(const std::shared_ptr<Core>& self, Arming arming) {
        const MonotonicTimestamp now = MonotonicTimestamp::now();
        const TimePeriod delay =
            arming.deadline > now.ticks ? MonotonicTimestamp{arming.deadline} - now : TimePeriod{};
        OneShotTimer timer = OneShotTimer::schedule(
            delay, TimePeriod{arming.leeway},
            [weak = std::weak_ptr<Core>(self), generation = arming.generation] {
                if (std::shared_ptr<Core> core = weak.lock()) core->fire(core, generation);
            });
        OneShotTimer superseded = self->state.syncWrite([&](State& s) {
            if (s.armGeneration != arming.generation) return timer;  // a later arming won
            return std::exchange(s.armedTimer, timer);
        });
        superseded.cancel();
    }

    void fire(const std::shared_ptr<Core>& self, std::uint64_t generation) {
        const bool begun = state.syncWrite([&](State& s) {
            if (s.armGeneration == generation) {
                s.armedDeadline = notArmed;
                s.armedTimer = OneShotTimer();
            }
            if (s.firing) return false;  // the running pass picks up what this timer was for
            s.firing = true;
            return true;
        });
        if (!begun) return;
        std::vector<detail::ScheduledItem> due;
        for (;;) {
            std::optional<Arming> arming;
            state.syncWrite([&](State& s) {
                // Read under the lock: any timer that found this pass running fired before now.
                const std::uint64_t now = MonotonicTimestamp::now().ticks;
                while (std::optional<detail::ScheduledItem> item = s.heap.popDue(now)) {
                    due.push_back(std::move(*item));
                }
                if (due.empty()) {
                    s.firing = false;
                    arming = armingNeeded(s);
                }
            });
            if (due.empty()) {
                if (arming) arm(self, *arming);
                return;
            }
            for (detail::ScheduledItem& item : due) {
                if (!item.block->payload.claim()) continue;  // cancelled meanwhile
                lane.execute([block = std::move(item.block)] { block->payload.run(); });
            }
            due.clear();  // releases the entries outside the lock
        }
    }

    const ExecutionLane lane;
    ThreadSafe<State> state{State{}};
};

DispatchScheduler::DispatchScheduler(Key, ExecutionLane lane)
    : core_(std::make_shared<Core>(std::move(lane))) {}

DispatchScheduler::~DispatchScheduler() {
    core_->discardPending();
}

std::shared_ptr<DispatchScheduler> DispatchScheduler::create(ExecutionLane lane) {
    return std::make_shared<DispatchScheduler>(Key{}, std::move(lane));
}

const std::shared_ptr<DispatchScheduler>& DispatchScheduler::background() {
    // Never destroyed: timers may fire while the process exits.
    static const auto* scheduler = new std::shared_ptr<DispatchScheduler>(
        create(ExecutionLane::queue(DispatchQueue::background())));
    return *scheduler;
}

const ExecutionLane& DispatchScheduler::lane() const noexcept {
    return core_->lane;
}

std::size_t DispatchScheduler::pendingCount() const {
    return core_->state.syncRead([](const Core::State& s) { return s.heap.pendingCount(); });
}

std::shared_ptr<CancellationToken> DispatchScheduler::scheduleAction(MonotonicTimestamp deadline,
                                                                     TimePeriod leeway,
                                                                     Action&& action,
                                                                     Callsite callsite) {
    std::shared_ptr<detail::ScheduledActionBlock> block =
        detail::makeScheduledAction(std::move(action), callsite);
    std::shared_ptr<CancellationToken> token = detail::tokenOf(block);
    const std::int64_t slack = std::max<std::int64_t>(0, leeway.nanosecondCount);
    std::optional<Core::Arming> arming = core_->state.syncWrite([&](Core::State& s) {
        s.heap.push(deadline.ticks, slack, std::move(block));
        // Only an action due before the armed timer needs the timer moved.
        if (deadline.ticks >= s.armedDeadline) return std::optional<Core::Arming>();
        s.armedDeadline = deadline.ticks;
        return std::optional<Core::Arming>(Core::Arming{deadline.ticks, slack, ++s.armGeneration});
    });
    if (arming) Core::arm(core_, *arming);
    return token;
}

}  // namespace mirels
