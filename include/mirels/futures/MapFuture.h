#pragma once

// `MapFuture`: a future of what a transform makes of another future's result.

#include <atomic>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "mirels/futures/ConstantFuture.h"
#include "mirels/futures/Future.h"

namespace mirels {

/// A future of what a transform makes of another future's result: what `map`, `mapSuccess`,
/// `tryMapSuccess`, `mapSuccessToResult`, `mapFailure` and `flattened` make.
///
/// The transform runs on one lane for a succeeded input and on another for a failed one; an
/// input that is canceled cancels the map with the same call site without running it.
/// Canceling the map finishes it canceled at once and then passes the cancel on to the input.
/// A map whose input has already arrived ignores a cancel: its transform still delivers.
///
/// An input that has finished already, with a transform lane that is current, needs no
/// waiting: `create` then runs the transform at once and hands out a finished future.
///
/// While it runs, a map holds its input and nothing else changes until the input is handed
/// off, once, to whichever comes first: the input's result or a cancel. That hand-off is
/// settled by one atomic exchange; with the base's lock-free state, a map takes no lock at all.
/// It observes its input through a node of its own, so a map is one allocation.
///
/// `Transform` is the transform's own type when a combinator makes the map, so calling it is a
/// direct call; a `UniqueFunction` by default.
template <class Input, class Output, class Transform>
class MapFuture final : public AbstractFuture<Output> {
    struct Key {
        explicit Key() = default;
    };

  public:
    MapFuture(Key, Future<Input> input, ExecutionLane transformSuccessLane,
              ExecutionLane transformFailureLane, Transform transform, Callsite callsite)
        : AbstractFuture<Output>(callsite),
          transform_(std::move(transform)),
          transformSuccessLane_(std::move(transformSuccessLane)),
          transformFailureLane_(std::move(transformFailureLane)),
          underlying_(std::move(input)) {}

    static Future<Output> create(Future<Input> input, ExecutionLane transformSuccessLane,
                                 ExecutionLane transformFailureLane, Transform transform,
                                 Callsite callsite = Callsite::current()) {
        if (const FutureTermination<Input>* termination = input.terminationIfFinished()) {
            if (auto canceled = termination->canceledCallsite()) {
                return ConstantFuture<Output>::create(
                    FutureTermination<Output>::canceled(*canceled), callsite);
            }
            const Result<Input>& result = *termination->resultIfCompleted();
            if ((result.isSuccess() ? transformSuccessLane : transformFailureLane).isCurrent()) {
                return ConstantFuture<Output>::create(
                    FutureTermination<Output>::completed(
                        static_cast<Result<Output>>(transform(result))),
                    callsite);
            }
        }
        // The map holds its input from here on; the pointer is for registering only. The map
        // observes it through its own node, which keeps the map alive until the input is done
        // with it.
        AbstractFuture<Input>* underlying = input.object().get();
        auto self = makeSharedRecycled<MapFuture>(
            Key{}, std::move(input), std::move(transformSuccessLane),
            std::move(transformFailureLane), std::move(transform), callsite);
        self->inputNode_.stage = self;
        underlying->observeFinishWithNode(self->inputNode_);
        return Future<Output>(std::move(self));
    }

    /// Finishes the map canceled from `callsite`, then cancels its input with the same call
    /// site; does nothing once the input has arrived or a cancel came first.
    void cancel(Callsite callsite) override {
        std::optional<Future<Input>> underlying = takeUnderlying();
        if (!underlying) return;
        transform_.reset();  // it will never run; let go of what it holds
        this->didFinish(FutureTermination<Output>::canceled(callsite));
        underlying->cancel(callsite);
    }

  private:
    /// Hands the input off to the caller, the first time only; nothing afterwards.
    std::optional<Future<Input>> takeUnderlying() noexcept {
        if (settled_.exchange(true, std::memory_order_acq_rel)) return std::nullopt;
        return std::optional<Future<Input>>(std::move(underlying_));
    }

    /// The map's observer on its input: a part of the map, not a separate allocation.
    struct InputNode final : detail::FutureObserverNode {
        void finished(const void* termination) noexcept override {
            stage->receiveUnderlyingFinish(
                *static_cast<const FutureTermination<Input>*>(termination));
        }
        void release() noexcept override {
            // May destroy the map, and this node with it: nothing is touched afterwards.
            std::shared_ptr<MapFuture> last = std::move(stage);
        }
        std::shared_ptr<MapFuture> stage;
    };

    void receiveUnderlyingFinish(const FutureTermination<Input>& termination) {
        // Held until the end: `termination` lives in the input.
        const std::optional<Future<Input>> underlying = takeUnderlying();
        if (!underlying) return;
        if (auto canceled = termination.canceledCallsite()) {
            transform_.reset();
            this->didFinish(FutureTermination<Output>::canceled(*canceled));
            return;
        }
        const Result<Input>& result = *termination.resultIfCompleted();
        const ExecutionLane& lane =
            result.isSuccess() ? transformSuccessLane_ : transformFailureLane_;
        if (lane.isCurrent()) {
            runTransform(result);
        } else {
            lane.execute([self = inputNode_.stage, result] { self->runTransform(result); });
        }
    }

    void runTransform(const Result<Input>& result) {
        if constexpr (std::is_nothrow_invocable_v<Transform&, const Result<Input>&>) {
            // The output is made in the map's own storage: the map finishes only here, on an
            // input cancel, or on a cancel of its own, and whichever takes the input first is
            // the one finisher.
            this->finishInPlace(
                [](const FutureTermination<Output>&) {},
                [&](void* storage) {
                    ::new (storage) FutureTermination<Output>(FutureTermination<Output>::completed(
                        static_cast<Result<Output>>((*transform_)(result))));
                });
        } else {
            Result<Output> output = (*transform_)(result);
            this->didFinish(FutureTermination<Output>::completed(std::move(output)));
        }
        transform_.reset();
    }

    // Touched only by whoever takes the input, which happens once.
    std::optional<Transform> transform_;
    const ExecutionLane transformSuccessLane_;
    const ExecutionLane transformFailureLane_;
    // The activity: running while `settled_` is false, holding the input in `underlying_`;
    // finished once it is true, the input handed off (and `underlying_` empty).
    std::atomic<bool> settled_{false};
    Future<Input> underlying_;
    InputNode inputNode_;
};

}  // namespace mirels
