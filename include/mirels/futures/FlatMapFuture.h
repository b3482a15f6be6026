#pragma once

// `FlatMapFuture`: a future that chains a second asynchronous step.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

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
///
/// `Transform` is the transform's own type when a combinator makes the flat-map, so calling it
/// is a direct call; a `UniqueFunction` by default.
template <class Input, class Output, class Transform>
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

    // Where the flat-map is: waiting for the first future (held in `first_`), waiting for the
    // second (held in `second_`), or finished. Each step away from a waiting phase is one
    // compare-and-swap, and whoever makes it owns the future that phase held: a cancel and a
    // delivery that race settle on it without a lock.
    enum class Phase : std::uint8_t { first, second, finished };

  public:
    FlatMapFuture(Key, RunningFirst waiting, ExecutionLane transformSuccessLane,
                  ExecutionLane transformFailureLane, std::optional<Transform> transform,
                  Callsite callsite)
        : AbstractFuture<Output>(callsite),
          transform_(std::move(transform)),
          transformSuccessLane_(std::move(transformSuccessLane)),
          transformFailureLane_(std::move(transformFailureLane)),
          first_(std::move(waiting.first)) {}

    FlatMapFuture(Key, RunningSecond waiting, ExecutionLane transformSuccessLane,
                  ExecutionLane transformFailureLane, std::optional<Transform> transform,
                  Callsite callsite)
        : AbstractFuture<Output>(callsite),
          transform_(std::move(transform)),
          transformSuccessLane_(std::move(transformSuccessLane)),
          transformFailureLane_(std::move(transformFailureLane)),
          phase_(Phase::second),
          second_(std::move(waiting.second)) {}

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
                if (const FutureTermination<Output>* secondTermination =
                        second.terminationIfFinished()) {
                    return ConstantFuture<Output>::create(*secondTermination, callsite);
                }
                auto self = makeSharedRecycled<FlatMapFuture>(
                    Key{}, RunningSecond{second}, std::move(transformSuccessLane),
                    std::move(transformFailureLane), std::nullopt, callsite);
                observeSecond(self, second);
                return Future<Output>(std::move(self));
            }
        }
        // The flat-map holds the first future from here on; the pointer is for registering. It
        // observes each of its two futures through a node of its own.
        AbstractFuture<Input>* observed = first.object().get();
        auto self = makeSharedRecycled<FlatMapFuture>(
            Key{}, RunningFirst{std::move(first)}, std::move(transformSuccessLane),
            std::move(transformFailureLane), std::move(transform), callsite);
        self->firstNode_.stage = self;
        observed->observeFinishWithNode(self->firstNode_);
        return Future<Output>(std::move(self));
    }

    /// Cancels the future this one waits for, then finishes canceled from `callsite`; does
    /// nothing once finished.
    void cancel(Callsite callsite) override {
        Phase phase = phase_.load(std::memory_order_acquire);
        while (phase != Phase::finished) {
            if (phase_.compare_exchange_weak(phase, Phase::finished, std::memory_order_acq_rel,
                                             std::memory_order_acquire)) {
                break;
            }
        }
        if (phase == Phase::first) {
            Future<Input> first = std::move(*first_);
            first_.reset();
            first.cancel(callsite);
        } else if (phase == Phase::second) {
            Future<Output> second = std::move(*second_);
            second_.reset();
            second.cancel(callsite);
        } else {
            return;
        }
        this->didFinish(FutureTermination<Output>::canceled(callsite));
    }

  private:
    /// Leaves `from` for finished; true when this call made the step (and owns what `from`
    /// held).
    bool leave(Phase from) noexcept {
        return phase_.compare_exchange_strong(from, Phase::finished, std::memory_order_acq_rel,
                                              std::memory_order_acquire);
    }

    /// The observer on one of the two futures: a part of the flat-map, which it keeps alive
    /// until that future is done with it.
    template <class Observed, void (FlatMapFuture::*receive)(const FutureTermination<Observed>&)>
    struct StageNode final : detail::FutureObserverNode {
        void finished(const void* termination) noexcept override {
            (stage.get()->*receive)(*static_cast<const FutureTermination<Observed>*>(termination));
        }
        void release() noexcept override {
            // May destroy the flat-map, and this node with it: nothing is touched afterwards.
            std::shared_ptr<FlatMapFuture> last = std::move(stage);
        }
        std::shared_ptr<FlatMapFuture> stage;
    };

    void firstFinished(const FutureTermination<Input>& termination) {
        const std::shared_ptr<FlatMapFuture>& self = firstNode_.stage;
        if (auto canceled = termination.canceledCallsite()) {
            transform_.reset();
            if (leave(Phase::first)) {
                first_.reset();
                this->didFinish(FutureTermination<Output>::canceled(*canceled));
            }
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
        // A cancel that came while the transform waited for its lane: it does not run.
        if (phase_.load(std::memory_order_acquire) != Phase::first) {
            transform_.reset();
            return;
        }
        Future<Output> second = (*transform_)(result);
        transform_.reset();
        if (const FutureTermination<Output>* secondTermination = second.terminationIfFinished()) {
            // Nothing left to wait for: finish now, unless a cancel came meanwhile.
            if (leave(Phase::first)) {
                first_.reset();
                this->didFinish(*secondTermination);
            }
            return;
        }
        // Stored before the step that publishes it; nobody else reads it while the phase is
        // still `first`.
        second_.emplace(second);
        Phase expected = Phase::first;
        if (!phase_.compare_exchange_strong(expected, Phase::second, std::memory_order_acq_rel,
                                            std::memory_order_acquire)) {
            // Canceled while the transform ran: nobody waits for the second step any more.
            second_.reset();
            second.cancel(detail::futureCallsite(detail::FutureFunction::firstCompleted));
            return;
        }
        // The step to `second` made this thread the owner of the first future.
        first_.reset();
        observeSecond(self, second);
    }

    static void observeSecond(const std::shared_ptr<FlatMapFuture>& self,
                              const Future<Output>& second) {
        self->secondNode_.stage = self;
        second.object()->observeFinishWithNode(self->secondNode_);
    }

    void secondFinished(const FutureTermination<Output>& termination) {
        if (!leave(Phase::second)) return;
        second_.reset();
        this->didFinish(termination);
    }

    // Used once, by the thread that delivers the first result (or released unused).
    std::optional<Transform> transform_;
    const ExecutionLane transformSuccessLane_;
    const ExecutionLane transformFailureLane_;
    std::atomic<Phase> phase_{Phase::first};
    // Owned by whoever moves the phase away from the one that holds it.
    std::optional<Future<Input>> first_;
    std::optional<Future<Output>> second_;
    StageNode<Input, &FlatMapFuture::firstFinished> firstNode_;
    StageNode<Output, &FlatMapFuture::secondFinished> secondNode_;
};

}  // namespace mirels
