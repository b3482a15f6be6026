#pragma once

#include <chrono>
#include <cmath>
#include <memory>
#include <optional>
#include <utility>

#include "mirels/core/ThreadSafe.h"
#include "mirels/execution/OneShotTimer.h"
#include "mirels/futures/ConstantFuture.h"
#include "mirels/futures/Future.h"
#include "mirels/futures/TimeoutError.h"

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

inline TimePeriod secondsPeriod(double seconds) {
    if (!(seconds > 0)) return TimePeriod{};
    if (seconds >= 9.2e9) return TimePeriod::fromNanoseconds(INT64_MAX);
    return TimePeriod::fromNanoseconds(static_cast<std::int64_t>(std::llround(seconds * 1e9)));
}

}  // namespace detail

/// A future that is sure to finish: with the outcome of the future it watches (as its value),
/// or, when its interval passes first, failed with a time-out error, after which the watched
/// future is canceled.
///
/// The first of three events wins, by one write of the activity under its lock: the timer
/// firing, the watched future finishing, or a cancel of this future. The others then do
/// nothing. The timer runs on the default background queue and holds this future weakly: a
/// time-out that nobody holds any more is never finished by its timer.
template <class T>
class TimeoutFuture final : public AbstractFuture<Result<T>> {
    struct Key {
        explicit Key() = default;
    };
    struct Running {
        Future<T> watched;
        OneShotTimer timer;
    };

  public:
    TimeoutFuture(Key, Future<T> watched, double interval, TimeoutErrorMaker makeTimeoutError,
                  Callsite callsite)
        : AbstractFuture<Result<T>>(callsite),
          activity_(Running{std::move(watched), OneShotTimer()}),
          interval_(interval),
          makeTimeoutError_(std::move(makeTimeoutError)) {}

    static Future<Result<T>> create(Future<T> watched, double interval, TimePeriod leeway,
                                    TimeoutErrorMaker makeTimeoutError,
                                    Callsite callsite = Callsite::current()) {
        // A watched future that has finished already needs no timer at all.
        if (const FutureTermination<T>* termination = watched.terminationIfFinished()) {
            return ConstantFuture<Result<T>>::create(detail::timeoutTermination(*termination),
                                                     callsite);
        }
        auto self = std::make_shared<TimeoutFuture>(Key{}, watched, interval,
                                                    std::move(makeTimeoutError), callsite);
        OneShotTimer timer = OneShotTimer::schedule(detail::secondsPeriod(interval), leeway,
                                                    [weak = std::weak_ptr<TimeoutFuture>(self)] {
                                                        if (auto timeout = weak.lock())
                                                            timeout->handleFire();
                                                    });
        const bool kept = self->activity_.syncWrite([&](std::optional<Running>& running) {
            if (!running) return false;
            running->timer = timer;
            return true;
        });
        if (!kept) timer.cancel();  // fired already
        watched.object()->observeFinish([self](const FutureTermination<T>& termination) {
            self->receiveUnderlyingFinish(termination);
        });
        return Future<Result<T>>(std::move(self));
    }

    /// Cancels the timer and the watched future (from `callsite`), then finishes canceled;
    /// does nothing once finished.
    void cancel(Callsite callsite) override {
        std::optional<Running> running = take();
        if (!running) return;
        running->timer.cancel();
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
        running.reset();
        this->didFinish(detail::timeoutTermination(termination));
        timer.cancel();
    }

    // Running: the watched future and the timer; finished: nothing.
    ThreadSafe<std::optional<Running>> activity_;
    const double interval_;
    TimeoutErrorMaker makeTimeoutError_;
};

template <class T>
Future<Result<T>> Future<T>::timeout(double after, TimePeriod leeway,
                                     TimeoutErrorMaker timeoutError, Callsite callsite) const {
    return TimeoutFuture<T>::create(*this, after, leeway, std::move(timeoutError), callsite);
}

template <class T>
Future<Result<T>> Future<T>::timeout(double after, TimePeriod leeway, Callsite callsite) const {
    return timeout(
        after, leeway, [](double interval) { return Error(TimeoutError::timedOut(interval)); },
        callsite);
}

template <class T>
Future<Result<T>> Future<T>::timeout(double after, Callsite callsite) const {
    return timeout(after, TimePeriod{}, callsite);
}

}  // namespace mirels
