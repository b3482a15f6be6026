#pragma once

// `Future`: a handle on a future. Also `TimeoutErrorMaker`, `FutureTerminationCases`,
// `AbstractFuture`, `FutureAndPromise`, `future()`.
//
// Example:
//
//     auto [future, promise] = Future<int>::create();
//     queue->async([promise] { promise.succeed(42); });
//     Future<std::string> text = future.mapSuccess([](int n) { return std::to_string(n); });
//     auto token = text.observeSuccess([](const std::string& s) { std::puts(s.c_str()); });

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "mirels/core/Assertions.h"
#include "mirels/core/Callsite.h"
#include "mirels/core/FatalError.h"
#include "mirels/core/RecycledMemory.h"
#include "mirels/core/TimePeriod.h"
#include "mirels/core/UniqueFunction.h"
#include "mirels/errors/Error.h"
#include "mirels/errors/Result.h"
#include "mirels/errors/Unreachable.h"
#include "mirels/execution/ExecutionLane.h"
#include "mirels/futures/FutureTermination.h"
#include "mirels/futures/detail/CommonValueTypes.h"
#include "mirels/futures/detail/FutureCallsites.h"
#include "mirels/futures/detail/FutureCore.h"

namespace mirels {

class Scheduler;

template <class T>
class Future;
template <class T>
class Promise;
template <class T>
class PromiseFuture;
template <class T>
class ConstantFuture;
template <class Input, class Output,
          class Transform = UniqueFunction<Result<Output>(const Result<Input>&)>>
class MapFuture;
template <class Input, class Output,
          class Transform = UniqueFunction<Future<Output>(const Result<Input>&)>>
class FlatMapFuture;
template <class T>
class UncancelableFuture;
template <class T>
class TimeoutFuture;
template <class T>
class FutureAwaitable;
namespace detail {
template <class T>
class FutureCoroutinePromise;
}  // namespace detail

/// Makes the error a time-out fails with, from the interval in seconds.
using TimeoutErrorMaker = UniqueFunction<Error(double)>;

/// The cases of a termination that an observer is called for, as a bit set.
enum class FutureTerminationCases : std::uint8_t {
    succeeded = 1,
    failed = 2,
    canceled = 4,
    completed = succeeded | failed,
    unsuccessful = failed | canceled,
    all = succeeded | failed | canceled,
};

namespace detail {

template <class T>
struct IsFuture : std::false_type {};
template <class T>
struct IsFuture<Future<T>> : std::true_type {};

/// `f` takes a future's success-or-failure result.
template <class F, class T>
concept ResultCallable = std::is_invocable_v<F&, const Result<T>&>;

/// `f` makes a result of a result.
template <class F, class T>
concept ResultToResult =
    ResultCallable<F, T> &&
    IsResult<std::remove_cvref_t<std::invoke_result_t<F&, const Result<T>&>>>::value;

/// `f` makes a future of a result.
template <class F, class T>
concept ResultToFuture =
    ResultCallable<F, T> &&
    IsFuture<std::remove_cvref_t<std::invoke_result_t<F&, const Result<T>&>>>::value;

/// `f` makes a result of a success value.
template <class F, class T>
concept SuccessToResult =
    SuccessCallable<F, T> && IsResult<std::remove_cvref_t<SuccessInvokeResultType<F, T>>>::value;

/// `f` makes a future of a success value.
template <class F, class T>
concept SuccessToFuture =
    SuccessCallable<F, T> && IsFuture<std::remove_cvref_t<SuccessInvokeResultType<F, T>>>::value;

/// `f` takes no arguments and makes a value of `T` (or throws), and is no result itself.
template <class F, class T>
concept ValueMaker = std::is_invocable_v<F&&> && !std::is_convertible_v<F&&, Result<T>>;

/// `f` takes a promise of `T` (and nothing else).
template <class F, class T>
concept PromiseBody = std::is_invocable_v<F&, Promise<T>> && !std::is_invocable_v<F&>;

/// `f` makes a future of the same value type of an error.
template <class F, class T>
concept ErrorToFuture = std::is_invocable_v<F&, const Error&> &&
                        std::is_convertible_v<std::invoke_result_t<F&, const Error&>, Future<T>>;

}  // namespace detail

/// The asynchronous result: an object that runs until it finishes exactly once, by succeeding
/// with a value, failing with an error, or being canceled from some call site.
///
/// `AbstractFuture` is the base of every kind of future (`PromiseFuture`, `MapFuture`,
/// `FlatMapFuture`, `TraverseFuture`, `ConstantFuture`, `UncancelableFuture`, `TimeoutFuture`,
/// and callers' own kinds). The base owns the state, the observers and their delivery; a kind
/// says what canceling it means (`cancel`) and finishes it through `didFinish`. Callers hold a
/// future through the `Future<T>` handle. What does not depend on `T` (the state word, the
/// observer list, the call site and times) lives in the non-template `detail::FutureCore`.
///
/// The state machine, on one atomic word (no lock on any transition):
///
///      make ──► RUNNING(list) ──push (CAS)──► RUNNING(list + node)
///                  │   the future owns the observer nodes; no termination yet
///                  │
///                  │ claim (fetch-or "finishing"; one finisher wins, the others wait
///                  │        for the publish and see the winner's termination)
///                  ▼
///               FINISHING: the winner alone builds the termination in place; pushes
///                  │        still succeed, onto the list the winner will take
///                  │ publish (exchange to FINISHED; takes the whole list)
///                  ▼
///               FINISHED: the termination is immutable and read without synchronisation
///                         beyond one acquire load; the finishing thread owns the taken list,
///                         calls it in registration order, then releases every node. A push
///                         that finds FINISHED delivers to its own node at once.
///
/// The first observer lives in the future's inline slot; later ones take an allocation, and a
/// combinator stage observes its input through a node that is part of the stage itself.
///
/// Kinds are made with `std::make_shared`, or `makeSharedRecycled` (the library's own kinds:
/// the object and its control block come from the thread's cache of recycled blocks). Whoever
/// finishes a future holds a strong reference to it while it does (the observers may drop every
/// other one). Observers must not throw.
template <class T>
class AbstractFuture : public detail::FutureCore {
  public:
    using Value = T;
    using Termination = FutureTermination<T>;
    using Observer = UniqueFunction<void(const Termination&)>;

    AbstractFuture(const AbstractFuture&) = delete;
    AbstractFuture& operator=(const AbstractFuture&) = delete;
    virtual ~AbstractFuture();

    /// The state now (it may change as soon as it is returned).
    [[nodiscard]] FutureState<T> recentStateSnapshot() const;
    /// The value, when the future has succeeded.
    [[nodiscard]] std::optional<FutureValue<T>> succeededValue() const;
    bool isCanceled() const noexcept;
    bool hasFinishedSuccessfully() const noexcept;

    /// The termination of a finished future, read in place; null while running. A finished
    /// future never changes, so the pointer stays valid for as long as the future lives.
    [[nodiscard]] const Termination* terminationIfFinished() const noexcept {
        return isFinished() ? storedTermination() : nullptr;
    }

    /// The primitive that every observation rests on: `observer` is called once with the
    /// termination, if it is one of `cases`, on `lane`. On a finished future it is called at
    /// once (on the calling thread, when the lane is current); otherwise it is kept and called
    /// by the thread that finishes the future.
    void observeFinish(ExecutionLane lane, Observer observer,
                       FutureTerminationCases cases = FutureTerminationCases::all);
    /// `observeFinish` on the finishing (or, when finished, the calling) thread.
    void observeFinish(Observer observer);

    /// `observeFinish` on the finishing (or, when finished, the calling) thread, with
    /// `callback` kept as it is rather than as an `Observer`: no type-erased function and no
    /// lane, so the common observer without a lane costs only its node (inline when the slot
    /// is free and the callback fits).
    template <class F>
    void observeFinishHere(F&& callback,
                           FutureTerminationCases cases = FutureTerminationCases::all);

    /// Adds `node` as an observer: its `finished` gets a `const Termination*`. For combinator
    /// stages that observe through a node of their own. `node` must stay valid until its
    /// `release` is called.
    void observeFinishWithNode(detail::FutureObserverNode& node);

    /// Asks the future to cancel, from `callsite`. What that means is the kind's to say: a
    /// promise-backed future finishes canceled, a combinator passes the request on to what it
    /// waits for, an uncancelable future ignores it. Canceling a finished future does nothing.
    /// (Handles default the call site: `Future<T>::cancel`.)
    virtual void cancel(Callsite callsite) = 0;

  protected:
    /// A running future.
    explicit AbstractFuture(Callsite callsite) : FutureCore(callsite) {}

    /// A future finished at construction with `termination`. It never changes, so it never
    /// holds an observer.
    AbstractFuture(Termination termination, Callsite callsite);

    /// Finishes the future with `termination` and calls its observers. A second finish is a
    /// fault of the kind: it is reported as a soft assertion and dropped, and the first
    /// termination stays.
    void didFinish(Termination termination);

    /// Keeps the future alive through `self`, a reference to itself, until it finishes: for
    /// kinds whose work must go on when every caller has let go. Released after the observers
    /// have run.
    void retainSelfWhileRunning(std::shared_ptr<AbstractFuture> self);

    /// The one finishing step: when the future is running, stores `termination` (moved from),
    /// calls the observers and returns true; when it has finished already, calls
    /// `whenFinished` with the present termination and returns false, leaving `termination`
    /// untouched.
    template <class WhenFinished>
    bool finishIfRunning(Termination& termination, WhenFinished&& whenFinished);

    /// `finishIfRunning` with the termination made by `make(storage)` in the future's own
    /// storage, once the future is known to be running: nothing is built for a finish that
    /// loses.
    template <class WhenFinished, class Make>
    bool finishInPlace(WhenFinished&& whenFinished, Make&& make);

  private:
    /// A stored callback with its lane and cases.
    class ObserverNode;
    /// A callback of its own type, called on the finishing thread for its cases.
    template <class F>
    class CallableNode;

    /// Registers a new `Node(onHeap, args...)`: in the inline slot when it fits and is free,
    /// else in a recycled block of its own.
    template <class Node, class... Args>
    void observeWithPlacedNode(Args&&... args);

    const Termination* storedTermination() const noexcept {
        return std::launder(reinterpret_cast<const Termination*>(terminationStorage_));
    }

    /// Calls `callback` with the termination if it is one of `cases`: directly when `lane` is
    /// current, else handed to the lane with a copy of the termination.
    static void deliver(const ExecutionLane& lane, Observer& callback, std::uint8_t cases,
                        const Termination& termination) noexcept;

    alignas(Termination) std::byte terminationStorage_[sizeof(Termination)];
};

/// A new promise-backed future and the promise that finishes it.
template <class T>
struct [[nodiscard]] FutureAndPromise {
    Future<T> future;
    Promise<T> promise;
};

/// A handle on a future: copies share the future, and `==` compares identity.
///
/// Observing operations take a callback and, optionally, the `ExecutionLane` to call it on;
/// without a lane the callback runs on the thread that finishes the future (or at once, on the
/// calling thread, when the future has finished already). Combinators make a new future that
/// follows this one; canceling the new future travels upstream to this one.
///
/// Values of type `T` are copied to each observer, so they must be copyable. A `Future<T>` can
/// be awaited with `co_await` in a C++20 coroutine, and a coroutine can return one (see
/// `FutureCoroutines.h`).
template <class T>
class [[nodiscard]] Future {
  public:
    using Value = T;
    using Termination = FutureTermination<T>;
    using Observer = typename AbstractFuture<T>::Observer;
    /// Lets a coroutine return a `Future<T>` (see `FutureCoroutines.h`).
    using promise_type = detail::FutureCoroutinePromise<T>;

    /// A handle on `object`, which must not be null.
    explicit Future(std::shared_ptr<AbstractFuture<T>> object) noexcept
        : object_(std::move(object)) {}

    /// Makes a promise-backed future and calls `callback` with its promise at once. (The first
    /// condition keeps copies and moves from asking about `Promise<T>`, which may still be
    /// incomplete where a future is first copied.)
    template <class F>
        requires(!std::is_same_v<std::remove_cvref_t<F>, Future>) &&
                std::is_invocable_v<F&&, Promise<T>>
    explicit Future(F&& callback, Callsite callsite = Callsite::current())
        : Future(create(std::forward<F>(callback), callsite)) {}

    // --- creation ---

    /// A running promise-backed future and its promise.
    static FutureAndPromise<T> create(Callsite callsite = Callsite::current());

    /// Makes a promise-backed future, calls `body` with its promise at once and returns the
    /// future.
    template <class F>
        requires std::is_invocable_v<F&&, Promise<T>>
    static Future create(F&& body, Callsite callsite = Callsite::current()) {
        FutureAndPromise<T> pair = create(callsite);
        std::forward<F>(body)(std::move(pair.promise));
        return std::move(pair.future);
    }

    /// A future finished with `result`.
    static Future completed(Result<T> result, Callsite callsite = Callsite::current()) {
        return constant(Termination::completed(std::move(result)), callsite);
    }

    /// A future finished with what `body` returns, or with the error it throws. `body` runs at
    /// once.
    template <class F>
        requires detail::ValueMaker<F, T>
    static Future completed(F&& body, Callsite callsite = Callsite::current()) {
        return completed(Result<T>::catching(std::forward<F>(body)), callsite);
    }

    static Future succeeded(FutureValue<T> value, Callsite callsite = Callsite::current())
        requires(!std::is_void_v<T>)
    {
        return constant(Termination::succeeded(std::move(value)), callsite);
    }
    static Future succeeded(Callsite callsite = Callsite::current())
        requires std::is_void_v<T>
    {
        return constant(Termination::succeeded(), callsite);
    }

    static Future failed(Error error, Callsite callsite = Callsite::current()) {
        return constant(Termination::failed(std::move(error)), callsite);
    }

    /// A future failed with `Unreachable`, which reports a soft assertion for `callsite`.
    static Future unreachable(std::string message, Callsite callsite = Callsite::current()) {
        return failed(Error(Unreachable(std::move(message), callsite)), callsite);
    }

    // --- observation ---

    /// Calls `callback` with the termination, on `lane`.
    template <class F>
        requires std::is_invocable_v<F&, const Termination&>
    void observeFinish(ExecutionLane lane, F&& callback) const {
        observeOn(std::move(lane), std::forward<F>(callback), FutureTerminationCases::all);
    }
    template <class F>
        requires std::is_invocable_v<F&, const Termination&>
    void observeFinish(F&& callback) const {
        observeFinish(ExecutionLane::any(), std::forward<F>(callback));
    }

    /// Calls `callback` with the result when the future succeeds or fails; never on cancel.
    template <class F>
        requires detail::ResultCallable<F, T>
    void observeCompletion(ExecutionLane lane, F&& callback) const {
        observeOn(
            std::move(lane),
            [f = std::forward<F>(callback)](const Termination& termination) mutable {
                f(*termination.resultIfCompleted());
            },
            FutureTerminationCases::completed);
    }
    template <class F>
        requires detail::ResultCallable<F, T>
    void observeCompletion(F&& callback) const {
        observeCompletion(ExecutionLane::any(), std::forward<F>(callback));
    }

    /// Calls `callback` with the value (with nothing for a future of nothing) on success.
    template <class F>
        requires detail::SuccessCallable<F, T>
    void observeSuccess(ExecutionLane lane, F&& callback) const {
        observeOn(
            std::move(lane),
            [f = std::forward<F>(callback)](const Termination& termination) mutable {
                detail::invokeWithSuccess<T>(f, *termination.resultIfCompleted());
            },
            FutureTerminationCases::succeeded);
    }
    template <class F>
        requires detail::SuccessCallable<F, T>
    void observeSuccess(F&& callback) const {
        observeSuccess(ExecutionLane::any(), std::forward<F>(callback));
    }

    /// Calls `callback` with the error on failure.
    template <class F>
        requires std::is_invocable_v<F&, const Error&>
    void observeFailure(ExecutionLane lane, F&& callback) const {
        observeOn(
            std::move(lane),
            [f = std::forward<F>(callback)](const Termination& termination) mutable {
                f(*termination.resultIfCompleted()->failureError());
            },
            FutureTerminationCases::failed);
    }
    template <class F>
        requires std::is_invocable_v<F&, const Error&>
    void observeFailure(F&& callback) const {
        observeFailure(ExecutionLane::any(), std::forward<F>(callback));
    }

    /// Calls `callback` with the cancel call site on cancellation.
    template <class F>
        requires std::is_invocable_v<F&, Callsite>
    void observeCancelation(ExecutionLane lane, F&& callback) const {
        observeOn(
            std::move(lane),
            [f = std::forward<F>(callback)](const Termination& termination) mutable {
                f(*termination.canceledCallsite());
            },
            FutureTerminationCases::canceled);
    }
    template <class F>
        requires std::is_invocable_v<F&, Callsite>
    void observeCancelation(F&& callback) const {
        observeCancelation(ExecutionLane::any(), std::forward<F>(callback));
    }

    /// Calls `callback` with the error on failure, and with a `FutureCanceled` on cancellation.
    template <class F>
        requires std::is_invocable_v<F&, const Error&>
    void observeUnsuccessfulResult(ExecutionLane lane, F&& callback) const {
        observeOn(
            std::move(lane),
            [f = std::forward<F>(callback)](const Termination& termination) mutable {
                if (const Result<T>* result = termination.resultIfCompleted()) {
                    f(*result->failureError());
                } else {
                    f(Error(FutureCanceled(*termination.canceledCallsite())));
                }
            },
            FutureTerminationCases::unsuccessful);
    }
    template <class F>
        requires std::is_invocable_v<F&, const Error&>
    void observeUnsuccessfulResult(F&& callback) const {
        observeUnsuccessfulResult(ExecutionLane::any(), std::forward<F>(callback));
    }

    /// Calls `completion` with the termination's result: a cancellation arrives as a
    /// `FutureCanceled` failure.
    template <class F>
        requires detail::ResultCallable<F, T>
    void observeFinishConvertingCancelationToFailure(ExecutionLane lane, F&& completion) const {
        observeOn(
            std::move(lane),
            [f = std::forward<F>(completion)](const Termination& termination) mutable {
                if (const Result<T>* result = termination.resultIfCompleted()) {
                    f(*result);
                } else {
                    f(termination.result());
                }
            },
            FutureTerminationCases::all);
    }
    template <class F>
        requires detail::ResultCallable<F, T>
    void observeFinishConvertingCancelationToFailure(F&& completion) const {
        observeFinishConvertingCancelationToFailure(ExecutionLane::any(),
                                                    std::forward<F>(completion));
    }

    /// Gives up on the future without losing a value that is already there: registers
    /// `closure` as a success observer on `lane`, then cancels from `callsite`. A succeeded
    /// future still hands its value to `closure`; a running one is canceled, and `closure`
    /// runs only if it succeeds anyway.
    template <class F>
        requires detail::SuccessCallable<F, T>
    void cancelOrObserveSuccess(ExecutionLane lane, F&& closure,
                                Callsite callsite = Callsite::current()) const {
        observeSuccess(std::move(lane), std::forward<F>(closure));
        object_->cancel(callsite);
    }
    template <class F>
        requires detail::SuccessCallable<F, T>
    void cancelOrObserveSuccess(F&& closure, Callsite callsite = Callsite::current()) const {
        cancelOrObserveSuccess(ExecutionLane::any(), std::forward<F>(closure), callsite);
    }

    // --- inspection ---

    [[nodiscard]] FutureState<T> recentStateSnapshot() const {
        return object_->recentStateSnapshot();
    }
    [[nodiscard]] std::optional<FutureValue<T>> succeededValue() const {
        return object_->succeededValue();
    }
    bool isCanceled() const noexcept { return object_->isCanceled(); }
    bool hasFinishedSuccessfully() const noexcept { return object_->hasFinishedSuccessfully(); }
    [[nodiscard]] std::optional<TimePeriod> runningTime() const noexcept {
        return object_->runningTime();
    }
    [[nodiscard]] const Termination* terminationIfFinished() const noexcept {
        return object_->terminationIfFinished();
    }
    Callsite initializationCallsite() const noexcept { return object_->initializationCallsite(); }
    MonotonicTimestamp initializationTime() const noexcept { return object_->initializationTime(); }

    /// Blocks the calling thread until the future finishes and returns the termination. For
    /// tools and tests only: never call it on a lane that the future needs in order to finish.
    Termination unpleasantWait() const {
        object_->waitUntilFinished();
        return *object_->terminationIfFinished();
    }

    // --- cancellation ---

    /// Asks the future to cancel (see `AbstractFuture::cancel`).
    void cancel(Callsite callsite = Callsite::current()) const {
        // Held here, not only by this handle: an observer that runs now may drop the handle.
        const std::shared_ptr<AbstractFuture<T>> object = object_;
        object->cancel(callsite);
    }

    // --- combinators ---

    /// A future of what `transform` makes of this future's result (run on `lane`). A thrown
    /// error fails it; cancellation passes through.
    template <class F>
        requires detail::ResultToResult<F, T>
    auto map(ExecutionLane lane, F&& transform, Callsite callsite = Callsite::current()) const {
        using Out = typename std::remove_cvref_t<std::invoke_result_t<F&, const Result<T>&>>::Value;
        ExecutionLane failureLane = lane;
        return makeMap<Out>(
            std::move(lane), std::move(failureLane),
            [f = std::forward<F>(transform)](
                const Result<T>& result) mutable noexcept -> Result<Out> {
                try {
                    return f(result);
                } catch (...) {
                    return Result<Out>(Error::current());
                }
            },
            callsite);
    }
    template <class F>
        requires detail::ResultToResult<F, T>
    auto map(F&& transform, Callsite callsite = Callsite::current()) const {
        return map(ExecutionLane::any(), std::forward<F>(transform), callsite);
    }

    /// A future of what `transform` makes of the value (run on `lane`); a failure passes
    /// through on the delivering thread. A thrown error fails the new future.
    template <class F>
        requires detail::SuccessCallable<F, T>
    auto mapSuccess(ExecutionLane lane, F&& transform,
                    Callsite callsite = Callsite::current()) const {
        using Out = std::remove_cvref_t<detail::SuccessInvokeResultType<F, T>>;
        return makeMap<Out>(
            std::move(lane), ExecutionLane::any(),
            [f = std::forward<F>(transform)](const Result<T>& result) mutable noexcept {
                return detail::mapSuccessResult<Out, T>(f, result);
            },
            callsite);
    }
    template <class F>
        requires detail::SuccessCallable<F, T>
    auto mapSuccess(F&& transform, Callsite callsite = Callsite::current()) const {
        return mapSuccess(ExecutionLane::any(), std::forward<F>(transform), callsite);
    }

    /// `mapSuccess` for transforms that throw to fail: the thrown error fails the new future.
    template <class F>
        requires detail::SuccessCallable<F, T>
    auto tryMapSuccess(ExecutionLane lane, F&& transform,
                       Callsite callsite = Callsite::current()) const {
        return mapSuccess(std::move(lane), std::forward<F>(transform), callsite);
    }
    template <class F>
        requires detail::SuccessCallable<F, T>
    auto tryMapSuccess(F&& transform, Callsite callsite = Callsite::current()) const {
        return mapSuccess(ExecutionLane::any(), std::forward<F>(transform), callsite);
    }

    /// A future of the result that `transform` makes of the value (run on `lane`); a failure
    /// passes through.
    template <class F>
        requires detail::SuccessToResult<F, T>
    auto mapSuccessToResult(ExecutionLane lane, F&& transform,
                            Callsite callsite = Callsite::current()) const {
        using Out = typename std::remove_cvref_t<detail::SuccessInvokeResultType<F, T>>::Value;
        return makeMap<Out>(
            std::move(lane), ExecutionLane::any(),
            [f = std::forward<F>(transform)](
                const Result<T>& result) mutable noexcept -> Result<Out> {
                if (const Error* error = result.failureError()) return Result<Out>(*error);
                try {
                    return detail::invokeWithSuccess<T>(f, result);
                } catch (...) {
                    return Result<Out>(Error::current());
                }
            },
            callsite);
    }
    template <class F>
        requires detail::SuccessToResult<F, T>
    auto mapSuccessToResult(F&& transform, Callsite callsite = Callsite::current()) const {
        return mapSuccessToResult(ExecutionLane::any(), std::forward<F>(transform), callsite);
    }

    /// A future that fails with what `transform` makes of the error (run on `lane`); success
    /// passes through.
    template <class F>
        requires std::is_invocable_v<F&, const Error&>
    Future mapFailure(ExecutionLane lane, F&& transform,
                      Callsite callsite = Callsite::current()) const {
        return makeMap<T>(
            ExecutionLane::any(), std::move(lane),
            [f = std::forward<F>(transform)](
                const Result<T>& result) mutable noexcept -> Result<T> {
                if (result.isSuccess()) return result;
                try {
                    return Result<T>(Error(f(*result.failureError())));
                } catch (...) {
                    return Result<T>(Error::current());
                }
            },
            callsite);
    }
    template <class F>
        requires std::is_invocable_v<F&, const Error&>
    Future mapFailure(F&& transform, Callsite callsite = Callsite::current()) const {
        return mapFailure(ExecutionLane::any(), std::forward<F>(transform), callsite);
    }

    /// A future that follows the future `transform` makes of this future's result (run on
    /// `lane`).
    template <class F>
        requires detail::ResultToFuture<F, T>
    auto flatMap(ExecutionLane lane, F&& transform, Callsite callsite = Callsite::current()) const {
        using Out = typename std::remove_cvref_t<std::invoke_result_t<F&, const Result<T>&>>::Value;
        ExecutionLane failureLane = lane;
        return makeFlatMap<Out>(
            std::move(lane), std::move(failureLane),
            [f = std::forward<F>(transform)](const Result<T>& result) mutable -> Future<Out> {
                try {
                    return f(result);
                } catch (...) {
                    return Future<Out>::failed(
                        Error::current(), detail::futureCallsite(detail::FutureFunction::flatMap));
                }
            },
            callsite);
    }
    template <class F>
        requires detail::ResultToFuture<F, T>
    auto flatMap(F&& transform, Callsite callsite = Callsite::current()) const {
        return flatMap(ExecutionLane::any(), std::forward<F>(transform), callsite);
    }

    /// Chains a second asynchronous step: a future that follows the future `transform` makes
    /// of the value (run on `lane`). A failure passes through without running `transform`.
    template <class F>
        requires detail::SuccessToFuture<F, T>
    auto then(ExecutionLane lane, F&& transform, Callsite callsite = Callsite::current()) const {
        return chain(std::move(lane), std::forward<F>(transform), callsite,
                     detail::FutureFunction::then);
    }
    template <class F>
        requires detail::SuccessToFuture<F, T>
    auto then(F&& transform, Callsite callsite = Callsite::current()) const {
        return then(ExecutionLane::any(), std::forward<F>(transform), callsite);
    }

    /// `then` for transforms that throw to fail: the thrown error fails the new future.
    template <class F>
        requires detail::SuccessToFuture<F, T>
    auto tryThen(ExecutionLane lane, F&& transform, Callsite callsite = Callsite::current()) const {
        return chain(std::move(lane), std::forward<F>(transform), callsite,
                     detail::FutureFunction::tryThen);
    }
    template <class F>
        requires detail::SuccessToFuture<F, T>
    auto tryThen(F&& transform, Callsite callsite = Callsite::current()) const {
        return tryThen(ExecutionLane::any(), std::forward<F>(transform), callsite);
    }

    /// Recovers from a failure: a future that follows the future `resultCallback` makes of the
    /// error (run on `lane`). A success passes through.
    template <class F>
        requires detail::ErrorToFuture<F, T>
    Future flatMapFailure(ExecutionLane lane, F&& resultCallback,
                          Callsite callsite = Callsite::current()) const {
        return makeFlatMap<T>(
            ExecutionLane::any(), std::move(lane),
            [f = std::forward<F>(resultCallback)](const Result<T>& result) mutable -> Future {
                const Callsite library =
                    detail::futureCallsite(detail::FutureFunction::flatMapFailure);
                if (result.isSuccess()) return Future::completed(result, library);
                try {
                    return f(*result.failureError());
                } catch (...) {
                    return Future::failed(Error::current(), library);
                }
            },
            callsite);
    }
    template <class F>
        requires detail::ErrorToFuture<F, T>
    Future flatMapFailure(F&& resultCallback, Callsite callsite = Callsite::current()) const {
        return flatMapFailure(ExecutionLane::any(), std::forward<F>(resultCallback), callsite);
    }

    /// A future that follows this one but ignores `cancel`: a cancel never travels upstream
    /// from it. A cancellation that reaches this future from elsewhere still comes through.
    Future uncancelable(Callsite callsite = Callsite::current()) const;

    /// For a future of a result: a future that succeeds or fails as the inner result says.
    template <class R = T>
        requires detail::IsResult<R>::value
    Future<typename R::Value> flattened(Callsite callsite = Callsite::current()) const {
        using Out = typename R::Value;
        return makeMap<Out>(
            ExecutionLane::any(), ExecutionLane::any(),
            [](const Result<T>& result) noexcept -> Result<Out> {
                if (const Error* error = result.failureError()) return Result<Out>(*error);
                return *result.successValue();
            },
            callsite);
    }

    // --- time-outs (defined by the types in "mirels/futures/TimeoutFuture.h": include it to
    // call these; without it a call fails to compile on the incomplete `TimeoutFuture<T>`) ---

    /// A future that is sure to finish: with this future's outcome as its value (a failure
    /// arrives as a failure result), or, when `after` seconds pass first, failed with
    /// `timeoutError(after)`, in which case this future is canceled. The timer runs on the
    /// default background queue with `leeway` of slack.
    Future<Result<T>> timeout(double after, TimePeriod leeway, TimeoutErrorMaker timeoutError,
                              Callsite callsite = Callsite::current()) const {
        return TimeoutFuture<T>::create(*this, after, leeway, std::move(timeoutError), callsite);
    }
    /// `timeout` failing with `TimeoutError::timedOut(after)`.
    Future<Result<T>> timeout(double after, TimePeriod leeway,
                              Callsite callsite = Callsite::current()) const {
        return timeout(after, leeway, TimeoutFuture<T>::timedOutError(), callsite);
    }
    /// `timeout` with no leeway, failing with `TimeoutError::timedOut(after)`.
    Future<Result<T>> timeout(double after, Callsite callsite = Callsite::current()) const {
        return timeout(after, TimePeriod{}, callsite);
    }
    /// `timeout` timed by `scheduler` instead of the background queue's timer (a
    /// `StepScheduler` lets a test time out without waiting).
    Future<Result<T>> timeout(double after, TimePeriod leeway, TimeoutErrorMaker timeoutError,
                              const std::shared_ptr<Scheduler>& scheduler,
                              Callsite callsite = Callsite::current()) const {
        return TimeoutFuture<T>::create(*this, after, leeway, std::move(timeoutError), callsite,
                                        scheduler);
    }
    /// `timeout` timed by `scheduler`, with no leeway, failing with
    /// `TimeoutError::timedOut(after)`.
    Future<Result<T>> timeout(double after, const std::shared_ptr<Scheduler>& scheduler,
                              Callsite callsite = Callsite::current()) const {
        return timeout(after, TimePeriod{}, TimeoutFuture<T>::timedOutError(), scheduler, callsite);
    }

    // --- coroutines (defined by the types in "mirels/futures/FutureCoroutines.h": include it
    // to await a future or to return one from a coroutine) ---

    /// `co_await future`: the value, the error thrown, or `FutureCanceled` thrown on
    /// cancellation; the coroutine resumes on the thread that finishes the future.
    FutureAwaitable<T> operator co_await() const {
        return FutureAwaitable<T>(*this, ExecutionLane::any());
    }

    /// `co_await future.on(lane)`: as `co_await future`, resuming on `lane`.
    FutureAwaitable<T> on(ExecutionLane lane) const {
        return FutureAwaitable<T>(*this, std::move(lane));
    }

    // --- identity ---

    /// The future object itself.
    const std::shared_ptr<AbstractFuture<T>>& object() const noexcept { return object_; }

    friend bool operator==(const Future& a, const Future& b) noexcept {
        return a.object_ == b.object_;
    }

  private:
    static Future constant(Termination termination, Callsite callsite);

    /// A map over this future whose transform keeps its own type (a direct call, no
    /// type-erased function).
    template <class Out, class Fn>
    Future<Out> makeMap(ExecutionLane successLane, ExecutionLane failureLane, Fn&& transform,
                        Callsite callsite) const {
        return MapFuture<T, Out, std::decay_t<Fn>>::create(*this, std::move(successLane),
                                                           std::move(failureLane),
                                                           std::forward<Fn>(transform), callsite);
    }
    /// A flat-map over this future whose transform keeps its own type.
    template <class Out, class Fn>
    Future<Out> makeFlatMap(ExecutionLane successLane, ExecutionLane failureLane, Fn&& transform,
                            Callsite callsite) const {
        return FlatMapFuture<T, Out, std::decay_t<Fn>>::create(
            *this, std::move(successLane), std::move(failureLane), std::forward<Fn>(transform),
            callsite);
    }

    /// Registers `adapter` for `cases`: held as it is when it runs on the delivering thread
    /// (the immediate lane), as an `Observer` handed to `lane` otherwise.
    template <class Adapter>
    void observeOn(ExecutionLane lane, Adapter&& adapter, FutureTerminationCases cases) const {
        if (lane.isAny()) {
            object_->observeFinishHere(std::forward<Adapter>(adapter), cases);
        } else {
            object_->observeFinish(std::move(lane), Observer(std::forward<Adapter>(adapter)),
                                   cases);
        }
    }

    template <class F>
    auto chain(ExecutionLane lane, F&& transform, Callsite callsite,
               detail::FutureFunction function) const {
        using Out = typename std::remove_cvref_t<detail::SuccessInvokeResultType<F, T>>::Value;
        return makeFlatMap<Out>(
            std::move(lane), ExecutionLane::any(),
            [f = std::forward<F>(transform),
             function](const Result<T>& result) mutable -> Future<Out> {
                if (const Error* error = result.failureError()) {
                    return Future<Out>::failed(
                        *error, detail::futureCallsite(detail::FutureFunction::then));
                }
                try {
                    return detail::invokeWithSuccess<T>(f, result);
                } catch (...) {
                    return Future<Out>::failed(Error::current(), detail::futureCallsite(function));
                }
            },
            callsite);
    }

    std::shared_ptr<AbstractFuture<T>> object_;
};

/// A failed future of any value type, made from `error`. Its initialization call site is the
/// library's own.
template <class T>
Future<T> future(const Error& error) {
    return Future<T>::failed(error, detail::futureCallsite(detail::FutureFunction::errorFuture));
}

}  // namespace mirels

template <class T>
struct std::hash<mirels::Future<T>> {
    std::size_t operator()(const mirels::Future<T>& future) const noexcept {
        return std::hash<const void*>{}(future.object().get());
    }
};

// Compiled once in the library for the common value types (futures/detail/CommonValueTypes.h).
namespace mirels {
// NOLINTBEGIN(bugprone-macro-parentheses): a type argument cannot be parenthesised
#define MIRELS_DETAIL_DECLARE(T)                                        \
    extern template class MIRELS_EXPORT AbstractFuture<Result<T>>;      \
    extern template class MIRELS_EXPORT Future<Result<T>>;              \
    extern template class MIRELS_EXPORT AbstractFuture<std::vector<T>>; \
    extern template class MIRELS_EXPORT Future<std::vector<T>>;         \
    extern template class MIRELS_EXPORT AbstractFuture<T>;              \
    extern template class MIRELS_EXPORT Future<T>;
MIRELS_DETAIL_FOR_EACH_COMMON_FUTURE_VALUE(MIRELS_DETAIL_DECLARE)
#undef MIRELS_DETAIL_DECLARE
// NOLINTEND(bugprone-macro-parentheses)
}  // namespace mirels

// The definitions of the templates above, the kinds of futures, and the definitions that need
// them.
#include "mirels/futures/ConstantFuture.h"
#include "mirels/futures/FlatMapFuture.h"
#include "mirels/futures/Future-inl.h"  // IWYU pragma: export
#include "mirels/futures/MapFuture.h"
#include "mirels/futures/PromiseFuture.h"
#include "mirels/futures/UncancelableFuture.h"
