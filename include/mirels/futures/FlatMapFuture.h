#pragma once

#include <memory>
#include <optional>
#include <utility>
#include <variant>

#include "mirels/core/ThreadSafe.h"
#include "mirels/futures/ConstantFuture.h"
#include "mirels/futures/Future.h"

namespace mirels {

/// A future that chains a second asynchronous step: what `flatMap`, `then`, `tryThen` and
/// `flatMapFailure` make. When the first future completes, the transform (on the lane for its
/// success or failure) makes the second future, whose termination, whatever it is, becomes
/// this future's.
///
/// A canceled first future cancels this one with the same call site, without running the
/// transform. Canceling this future cancels whichever future it waits for (the first, or the
/// second once it exists) and then finishes it canceled: the upstream future's observers run
/// before this one's.
template <class Input, class Output>
class FlatMapFuture final : public AbstractFuture<Output> {
    struct Key {
        explicit Key() = default;
    };
    struct RunningFirst {
        Future<Input> first;
    };
    struct RunningSecond {
        Future<Output> second;
    };
    struct Finished {};
    using Activity = std::variant<RunningFirst, RunningSecond, Finished>;

  public:
    using Transform = UniqueFunction<Future<Output>(const Result<Input>&)>;

    template <class Waiting>
    FlatMapFuture(Key, Waiting waiting, ExecutionLane transformSuccessLane,
                  ExecutionLane transformFailureLane, Transform transform, Callsite callsite)
        : AbstractFuture<Output>(callsite),
          transform_(std::move(transform)),
          transformSuccessLane_(std::move(transformSuccessLane)),
          transformFailureLane_(std::move(transformFailureLane)),
          activity_(Activity(std::move(waiting))) {}

    static Future<Output> create(Future<Input> first, ExecutionLane transformSuccessLane,
                                 ExecutionLane transformFailureLane, Transform transform,
                                 Callsite callsite = Callsite::current()) {
        // A first future that has finished, with a current lane: the transform runs now, and
        // only the second step is left to wait for (if anything).
        if (const FutureTermination<Input>* termination = first.terminationIfFinished()) {
            if (auto canceled = termination->canceledCallsite()) {
                return ConstantFuture<Output>::create(
                    FutureTermination<Output>::canceled(*canceled), callsite);
            }
            const Result<Input>& result = *termination->resultIfCompleted();
            if ((result.isSuccess() ? transformSuccessLane : transformFailureLane).isCurrent()) {
                Future<Output> second = transform(result);
                transform = nullptr;
                if (const FutureTermination<Output>* secondTermination =
                        second.terminationIfFinished()) {
                    return ConstantFuture<Output>::create(*secondTermination, callsite);
                }
                auto self = std::make_shared<FlatMapFuture>(
                    Key{}, RunningSecond{second}, std::move(transformSuccessLane),
                    std::move(transformFailureLane), nullptr, callsite);
                observeSecond(self, second);
                return Future<Output>(std::move(self));
            }
        }
        // The flat-map holds the first future from here on; the pointer is for registering.
        AbstractFuture<Input>* observed = first.object().get();
        auto self = std::make_shared<FlatMapFuture>(
            Key{}, RunningFirst{std::move(first)}, std::move(transformSuccessLane),
            std::move(transformFailureLane), std::move(transform), callsite);
        observed->_observeFinish([self](const FutureTermination<Input>& termination) {
            self->firstFinished(self, termination);
        });
        return Future<Output>(std::move(self));
    }

    /// Cancels the future this one waits for, then finishes canceled from `callsite`; does
    /// nothing once finished.
    void cancel(Callsite callsite = Callsite::current()) override {
        Activity taken = activity_.syncWrite(
            [](Activity& activity) { return std::exchange(activity, Activity(Finished{})); },
            Callsite::library("cancel(callsite:)"));
        if (auto* running = std::get_if<RunningFirst>(&taken)) {
            running->first.cancel(callsite);
        } else if (auto* running = std::get_if<RunningSecond>(&taken)) {
            running->second.cancel(callsite);
        } else {
            return;
        }
        this->didFinish(FutureTermination<Output>::canceled(callsite));
    }

  private:
    bool isRunningFirst() const {
        return activity_.syncRead([](const Activity& activity) {
            return std::holds_alternative<RunningFirst>(activity);
        });
    }

    void firstFinished(const std::shared_ptr<FlatMapFuture>& self,
                       const FutureTermination<Input>& termination) {
        if (auto canceled = termination.canceledCallsite()) {
            transform_ = nullptr;
            std::optional<Future<Input>> first;
            activity_.syncWrite([&](Activity& activity) {
                if (auto* running = std::get_if<RunningFirst>(&activity)) {
                    first = std::move(running->first);
                    activity = Finished{};
                }
            });
            if (first) this->didFinish(FutureTermination<Output>::canceled(*canceled));
            return;
        }
        const Result<Input>& result = *termination.resultIfCompleted();
        const ExecutionLane& lane =
            result.isSuccess() ? transformSuccessLane_ : transformFailureLane_;
        if (lane.isCurrent()) {
            firstCompleted(self, result);
        } else {
            lane.execute([self, result] { self->firstCompleted(self, result); });
        }
    }

    void firstCompleted(const std::shared_ptr<FlatMapFuture>& self, const Result<Input>& result) {
        Transform transform = std::move(transform_);
        // A cancel that came while the transform waited for its lane: it does not run.
        if (!isRunningFirst()) return;
        Future<Output> second = transform(result);
        transform = nullptr;
        std::optional<Future<Input>> first;
        if (const FutureTermination<Output>* secondTermination = second.terminationIfFinished()) {
            // Nothing left to wait for: finish now, unless a cancel came meanwhile.
            activity_.syncWrite([&](Activity& activity) {
                if (auto* running = std::get_if<RunningFirst>(&activity)) {
                    first = std::move(running->first);
                    activity = Finished{};
                }
            });
            if (first) this->didFinish(*secondTermination);
            return;
        }
        const bool moved = activity_.syncWrite([&](Activity& activity) {
            auto* running = std::get_if<RunningFirst>(&activity);
            if (running == nullptr) return false;
            first = std::move(running->first);
            activity = RunningSecond{second};
            return true;
        });
        if (!moved) {
            // Canceled while the transform ran: nobody waits for the second step any more.
            second.cancel(detail::futureCallsite(detail::FutureFunction::firstCompleted));
            return;
        }
        observeSecond(self, second);
    }

    static void observeSecond(const std::shared_ptr<FlatMapFuture>& self,
                              const Future<Output>& second) {
        second.object()->_observeFinish([self](const FutureTermination<Output>& termination) {
            self->secondFinished(termination);
        });
    }

    void secondFinished(const FutureTermination<Output>& termination) {
        std::optional<Future<Output>> second;
        activity_.syncWrite(
            [&](Activity& activity) {
                if (auto* running = std::get_if<RunningSecond>(&activity)) {
                    second = std::move(running->second);
                    activity = Finished{};
                }
            },
            Callsite::library("secondFinished(_:)"));
        if (second) this->didFinish(termination);
    }

    // Used once, by the thread that delivers the first result (or released unused).
    Transform transform_;
    const ExecutionLane transformSuccessLane_;
    const ExecutionLane transformFailureLane_;
    ThreadSafe<Activity> activity_;
};

}  // namespace mirels
