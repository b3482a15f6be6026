#pragma once

// `TimeoutFuture`: a future that is sure to finish.

#include <memory>
#include <optional>
#include <utility>

#include "mirels/Export.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/execution/OneShotTimer.h"
#include "mirels/execution/Scheduler.h"
#include "mirels/futures/ConstantFuture.h"
#include "mirels/futures/Future.h"
#include "mirels/futures/TimeoutError.h"
#include "mirels/futures/detail/CommonValueTypes.h"

namespace mirels {

namespace detail {

/// A watched future's termination as a time-out's: an outcome becomes the value, a
/// cancellation stays a cancellation.
template <class T>
FutureTermination<Result<T>> timeoutTermination(const FutureTermination<T>& termination) {
    if (const Result<T>* result = termination.resultIfCompleted()) {
        return FutureTermination<Result<T>>::succeeded(*result);
    }
    return FutureTermination<Result<T>>::canceled(*termination.canceledCallsite());
}

/// `seconds` as a period, rounded to the nanosecond: zero for anything not positive (NaN
/// included), the longest period for anything past it.
MIRELS_EXPORT TimePeriod secondsPeriod(double seconds);

}  // namespace detail

/// A future that is sure to finish: with the outcome of the future it watches (as its value),
/// or, when its interval passes first, failed with a time-out error, after which the watched
/// future is canceled.
///
/// The first of three events wins, by one write of the activity under its lock: the timer
/// firing, the watched future finishing, or a cancel of this future. The others then do
/// nothing. The timer runs on the default background queue, or on the scheduler given, and holds
/// this future weakly: a time-out that nobody holds any more is never finished by its timer.
template <class T>
class TimeoutFuture final : public AbstractFuture<Result<T>> {
    struct Key {
        explicit Key() = default;
    };
    struct Running {
        Future<T> watched;
        OneShotTimer timer;
        // The scheduler's action when a scheduler times it: cancelled exactly once, by whoever
        // ends the activity (or by `create`, when the activity ended before it was stored).
        std::shared_ptr<CancellationToken> token;

        void stopTimer() {
            timer.cancel();
            if (token) std::exchange(token, nullptr)->cancel();
        }
    };

  public:
    TimeoutFuture(Key, Future<T> watched, double interval, TimeoutErrorMaker makeTimeoutError,
                  Callsite callsite)
        : AbstractFuture<Result<T>>(callsite),
          activity_(Running{std::move(watched), OneShotTimer(), nullptr}),
          interval_(interval),
          makeTimeoutError_(std::move(makeTimeoutError)) {}

    /// The maker of the default time-out error, `TimeoutError::timedOut(interval)`.
    [[nodiscard]] static TimeoutErrorMaker timedOutError() {
        return [](double interval) { return Error(TimeoutError::timedOut(interval)); };
    }

    /// A time-out on the default background queue's timer, or on `scheduler` when one is given.
    static Future<Result<T>> create(Future<T> watched, double interval, TimePeriod leeway,
                                    TimeoutErrorMaker makeTimeoutError,
                                    Callsite callsite = Callsite::current(),
                                    const std::shared_ptr<Scheduler>& scheduler = nullptr) {
        // A watched future that has finished already needs no timer at all.
        if (const FutureTermination<T>* termination = watched.terminationIfFinished()) {
            return ConstantFuture<Result<T>>::create(detail::timeoutTermination(*termination),
                                                     callsite);
        }
        auto self = makeSharedRecycled<TimeoutFuture>(Key{}, watched, interval,
                                                      std::move(makeTimeoutError), callsite);
        auto fire = [weak = std::weak_ptr<TimeoutFuture>(self)] {
            if (auto timeout = weak.lock()) timeout->handleFire();
        };
        if (scheduler) {
            std::shared_ptr<CancellationToken> token = scheduler->scheduleAfter(
                detail::secondsPeriod(interval), leeway, std::move(fire), callsite);
            const bool kept = self->activity_.syncWrite([&](std::optional<Running>& running) {
                if (!running) return false;
                running->token = token;
                return true;
            });
            if (!kept) token->cancel();  // fired or finished already
        } else {
            OneShotTimer timer =
                OneShotTimer::schedule(detail::secondsPeriod(interval), leeway, std::move(fire));
            const bool kept = self->activity_.syncWrite([&](std::optional<Running>& running) {
                if (!running) return false;
                running->timer = timer;
                return true;
            });
            if (!kept) timer.cancel();  // fired already
        }
        watched.object()->observeFinishHere([self](const FutureTermination<T>& termination) {
            self->receiveUnderlyingFinish(termination);
        });
        return Future<Result<T>>(std::move(self));
    }

    /// Cancels the timer and the watched future (from `callsite`), then finishes canceled;
    /// does nothing once finished.
    void cancel(Callsite callsite) override {
        std::optional<Running> running = take();
        if (!running) return;
        running->stopTimer();
        running->watched.cancel(callsite);
        this->didFinish(FutureTermination<Result<T>>::canceled(callsite));
    }

  private:
    std::optional<Running> take() {
        return activity_.syncWrite(
            [](std::optional<Running>& running) { return std::exchange(running, std::nullopt); });
    }

    void handleFire() {
        std::optional<Running> running = take();
        if (!running) return;
        Future<T> watched = std::move(running->watched);
        running->stopTimer();  // it has fired: this only settles the scheduler's token
        running.reset();
        Error error = [&] {
            try {
                return makeTimeoutError_(interval_);
            } catch (...) {
                return Error::current();
            }
        }();
        this->didFinish(FutureTermination<Result<T>>::failed(std::move(error)));
        watched.cancel(detail::futureCallsite(detail::FutureFunction::timeoutFired));
    }

    void receiveUnderlyingFinish(const FutureTermination<T>& termination) {
        std::optional<Running> running = take();
        if (!running) return;
        OneShotTimer timer = running->timer;
        std::shared_ptr<CancellationToken> token = std::move(running->token);
        running.reset();
        this->didFinish(detail::timeoutTermination(termination));
        timer.cancel();
        if (token) token->cancel();
    }

    // Running: the watched future and the timer; finished: nothing.
    ThreadSafe<std::optional<Running>> activity_;
    const double interval_;
    TimeoutErrorMaker makeTimeoutError_;
};

// Compiled once in the library for the common value types (futures/detail/CommonValueTypes.h).
// NOLINTBEGIN(bugprone-macro-parentheses): a type argument cannot be parenthesised
#define MIRELS_DETAIL_DECLARE(T) extern template class MIRELS_EXPORT TimeoutFuture<T>;
MIRELS_DETAIL_FOR_EACH_COMMON_FUTURE_VALUE(MIRELS_DETAIL_DECLARE)
#undef MIRELS_DETAIL_DECLARE
// NOLINTEND(bugprone-macro-parentheses)

}  // namespace mirels
