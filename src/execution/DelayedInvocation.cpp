#include "mirels/execution/DelayedInvocation.h"

#include <algorithm>
#include <utility>

namespace mirels {

std::shared_ptr<DelayedInvocation> DelayedInvocation::create(TimePeriod delay, Mode mode,
                                                             ExecutionLane lane,
                                                             UniqueFunction<void()> action,
                                                             std::shared_ptr<Scheduler> scheduler,
                                                             Callsite callsite) {
    return std::make_shared<DelayedInvocation>(Key{}, delay, mode, std::move(lane),
                                               std::move(action), std::move(scheduler), callsite);
}

DelayedInvocation::DelayedInvocation(Key, TimePeriod delay, Mode mode, ExecutionLane lane,
                                     UniqueFunction<void()> action,
                                     std::shared_ptr<Scheduler> scheduler, Callsite callsite)
    : delay_(TimePeriod{std::max<std::int64_t>(0, delay.nanosecondCount)}),
      leeway_(TimePeriod{delay_.nanosecondCount / 10}),
      mode_(mode),
      lane_(std::move(lane)),
      action_(std::move(action)),
      scheduler_(std::move(scheduler)),
      callsite_(callsite),
      state_(State{}) {}

DelayedInvocation::~DelayedInvocation() {
    // The armed action can no longer reach this object (it holds it weakly), so a pending run
    // is dropped here; its token is due its one cancel.
    cancelToken(state_.syncWrite([](State& s) { return std::exchange(s.armed, nullptr); }));
}

void DelayedInvocation::cancelToken(const std::shared_ptr<CancellationToken>& token) {
    if (token) token->cancel();
}

bool DelayedInvocation::schedule() {
    const std::uint64_t now = scheduler_->now().ticks;
    const std::uint64_t end = Scheduler::deadlineAfter(MonotonicTimestamp{now}, delay_).ticks;
    std::uint64_t opened = 0;
    const bool open = state_.syncWrite([&](State& s) {
        if (s.pending) {
            if (mode_ == Mode::debounce) s.deadline = std::max(s.deadline, end);
            return false;
        }
        s.pending = true;
        s.deadline = end;
        opened = ++s.period;
        return true;
    });
    if (open) arm(opened, end);
    return open;
}

// Arms the scheduler for `deadline` on behalf of `period`. The token is kept only while that
// period is still open and has no armed action; otherwise it is cancelled here, so every token
// is cancelled exactly once, by whoever takes it out of the state or by this function.
void DelayedInvocation::arm(std::uint64_t period, std::uint64_t deadline) {
    std::shared_ptr<CancellationToken> token = scheduler_->scheduleAt(
        MonotonicTimestamp{deadline}, leeway_,
        [weak = weak_from_this(), period] {
            if (std::shared_ptr<DelayedInvocation> self = weak.lock()) {
                self->scheduledActionFired(period);
            }
        },
        callsite_);
    const bool kept = state_.syncWrite([&](State& s) {
        if (!s.pending || s.period != period || s.armed) return false;
        s.armed = token;
        return true;
    });
    if (!kept) token->cancel();
}

void DelayedInvocation::scheduledActionFired(std::uint64_t period) {
    const std::uint64_t now = scheduler_->now().ticks;
    enum class Outcome : std::uint8_t { stale, rearm, run };
    std::shared_ptr<CancellationToken> spent;
    std::uint64_t deadline = 0;
    const Outcome outcome = state_.syncWrite([&](State& s) {
        if (!s.pending || s.period != period) return Outcome::stale;
        spent = std::exchange(s.armed, nullptr);
        if (s.deadline > now) {
            deadline = s.deadline;  // moved by a debounce since it was armed
            return Outcome::rearm;
        }
        s.pending = false;
        return Outcome::run;
    });
    cancelToken(spent);
    switch (outcome) {
        case Outcome::stale:
            return;
        case Outcome::rearm:
            arm(period, deadline);
            return;
        case Outcome::run:
            run();
            return;
    }
}

void DelayedInvocation::run() {
    lane_.execute([self = shared_from_this()] { self->action_(); });
}

bool DelayedInvocation::endPendingPeriod() {
    std::shared_ptr<CancellationToken> armed;
    const bool ended = state_.syncWrite([&](State& s) {
        if (!s.pending) return false;
        s.pending = false;
        armed = std::exchange(s.armed, nullptr);
        return true;
    });
    cancelToken(armed);
    return ended;
}

bool DelayedInvocation::cancel() {
    return endPendingPeriod();
}

bool DelayedInvocation::fireNow() {
    const bool ended = endPendingPeriod();
    if (ended) run();
    return ended;
}

bool DelayedInvocation::isScheduled() const {
    return state_.syncRead([](const State& s) { return s.pending; });
}

}  // namespace mirels
