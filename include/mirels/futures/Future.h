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

#include <time.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

#include "mirels/core/Assertions.h"
#include "mirels/core/Callsite.h"
#include "mirels/core/FatalError.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/core/TimePeriod.h"
#include "mirels/core/UniqueFunction.h"
#include "mirels/errors/Error.h"
#include "mirels/errors/Result.h"
#include "mirels/errors/Unreachable.h"
#include "mirels/execution/ExecutionLane.h"
#include "mirels/futures/FutureTermination.h"
#include "mirels/futures/detail/FutureCallsites.h"

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
template <class Input, class Output>
class MapFuture;
template <class Input, class Output>
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
std::uint8_t terminationCaseBit(const FutureTermination<T>& termination) noexcept {
    if (termination.isCanceled())
        return static_cast<std::uint8_t>(FutureTerminationCases::canceled);
    return static_cast<std::uint8_t>(termination.isSucceeded() ? FutureTerminationCases::succeeded
                                                               : FutureTerminationCases::failed);
}

/// The clock futures record their initialization and finish times with: the monotonic clock
/// at the kernel's tick resolution (CLOCK_MONOTONIC_COARSE, 1 to 4 ms). The same time base as
/// `MonotonicTimestamp::now()`, at a quarter of its cost; futures are made and finished far too
/// often for a precise reading, and running times worth looking at are longer than a tick.
inline MonotonicTimestamp futureClockNow() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return {static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000ULL +
            static_cast<std::uint64_t>(now.tv_nsec)};
}

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
/// future through the `Future<T>` handle.
///
/// The state is one atomic word: running with the head of a list of observers, or finished.
/// Registering an observer pushes it with one compare-and-swap; finishing claims the future,
/// builds the termination in place, and takes the whole list with one exchange, after which the
/// finishing thread calls the observers in registration order. No lock is taken on either path,
/// so no callback ever runs under one. The first observer lives inside the future; only later
/// ones take an allocation. Once finished, the termination never changes, so every read of a
/// finished future goes without synchronisation beyond one acquire load.
///
/// Kinds are made with `std::make_shared` and keep themselves alive through the closures they
/// register on the futures they wait for. Whoever finishes a future holds a strong reference
/// to it while it does (the observers may drop every other one). Observers must not throw.
template <class T>
class AbstractFuture {
  public:
    using Value = T;
    using Termination = FutureTermination<T>;
    using Observer = UniqueFunction<void(const Termination&)>;

    AbstractFuture(const AbstractFuture&) = delete;
    AbstractFuture& operator=(const AbstractFuture&) = delete;
    virtual ~AbstractFuture() {
        const std::uintptr_t state = state_.load(std::memory_order_acquire);
        if (state == finishedState) {
            storedTermination()->~Termination();
            return;
        }
        // Never finished: the observers are dropped without a call.
        ObserverNode* node = nodeOf(state);
        while (node != nullptr) {
            ObserverNode* next = node->next;
            release(node);
            node = next;
        }
    }

    /// The state now (it may change as soon as it is returned).
    FutureState<T> recentStateSnapshot() const {
        if (const Termination* termination = terminationIfFinished()) {
            return FutureState<T>::finished(*termination);
        }
        return FutureState<T>::running();
    }

    /// The value, when the future has succeeded.
    std::optional<FutureValue<T>> succeededValue() const {
        const Termination* termination = terminationIfFinished();
        return termination != nullptr ? termination->succeededValue() : std::nullopt;
    }

    bool isCanceled() const noexcept {
        const Termination* termination = terminationIfFinished();
        return termination != nullptr && termination->isCanceled();
    }

    bool hasFinishedSuccessfully() const noexcept {
        const Termination* termination = terminationIfFinished();
        return termination != nullptr && termination->isSucceeded();
    }

    /// From construction to finish; absent while running.
    std::optional<TimePeriod> runningTime() const noexcept {
        if (terminationIfFinished() == nullptr) return std::nullopt;
        return finishTime_ - initializationTime_;
    }

    /// The termination of a finished future, read in place; null while running. A finished
    /// future never changes, so the pointer stays valid for as long as the future lives.
    const Termination* terminationIfFinished() const noexcept {
        // The acquire load pairs with the finishing exchange, which follows the termination's
        // construction.
        return state_.load(std::memory_order_acquire) == finishedState ? storedTermination()
                                                                       : nullptr;
    }

    /// Where the future was made.
    Callsite initializationCallsite() const noexcept { return initializationCallsite_; }
    /// When the future was made (monotonic clock).
    MonotonicTimestamp initializationTime() const noexcept { return initializationTime_; }

    /// The primitive that every observation rests on: `observer` is called once with the
    /// termination, if it is one of `cases`, on `lane`. On a finished future it is called at
    /// once (on the calling thread, when the lane is current); otherwise it is kept and called
    /// by the thread that finishes the future.
    ///
    /// `observer` is any callable that takes the termination; it is stored as an `Observer`,
    /// made in place.
    template <class F>
        requires(std::is_invocable_v<std::decay_t<F>&, const Termination&>)
    void _observeFinish(ExecutionLane lane, F&& observer,
                        FutureTerminationCases cases = FutureTerminationCases::all) {
        const auto caseBits = static_cast<std::uint8_t>(cases);
        std::uintptr_t state = state_.load(std::memory_order_acquire);
        if (state == finishedState) {
            deliver(lane, observer, caseBits, *storedTermination());
            return;
        }
        // The first observer takes the node inside the future, claimed with a bit of the state
        // (the finished value has that bit set too, so a finish ends the loop).
        bool inlineNode = false;
        while ((state & inlineNodeTaken) == 0) {
            if (state_.compare_exchange_weak(state, state | inlineNodeTaken,
                                             std::memory_order_acquire,
                                             std::memory_order_acquire)) {
                state |= inlineNodeTaken;
                inlineNode = true;
                break;
            }
        }
        if (!inlineNode && state == finishedState) {
            deliver(lane, observer, caseBits, *storedTermination());
            return;
        }
        ObserverNode* node =
            inlineNode
                ? ::new (static_cast<void*>(inlineNode_))
                      ObserverNode(std::forward<F>(observer), std::move(lane), caseBits, false)
                : new ObserverNode(std::forward<F>(observer), std::move(lane), caseBits, true);
        for (;;) {
            if (state == finishedState) {
                // Finished while the node was being made: this thread delivers it itself.
                deliver(node->lane, node->callback, node->cases, *storedTermination());
                release(node);
                return;
            }
            node->next = nodeOf(state);
            if (state_.compare_exchange_weak(state, (state & flagBits) | address(node),
                                             std::memory_order_release,
                                             std::memory_order_acquire)) {
                return;
            }
        }
    }

    /// `_observeFinish` on the finishing (or, when finished, the calling) thread.
    template <class F>
        requires(std::is_invocable_v<std::decay_t<F>&, const Termination&>)
    void _observeFinish(F&& observer) {
        _observeFinish(ExecutionLane::any(), std::forward<F>(observer));
    }

    /// Asks the future to cancel, from `callsite`. What that means is the kind's to say: a
    /// promise-backed future finishes canceled, a combinator passes the request on to what it
    /// waits for, an uncancelable future ignores it. Canceling a finished future does nothing.
    ///
    /// Every kind must override it; the base body stops the process.
    virtual void cancel(Callsite callsite = Callsite::current()) = 0;

  protected:
    /// A running future.
    explicit AbstractFuture(Callsite callsite)
        : initializationCallsite_(callsite), initializationTime_(detail::futureClockNow()) {}

    /// A future finished at construction with `termination`. It never changes, so it never
    /// holds an observer.
    AbstractFuture(Termination termination, Callsite callsite)
        : initializationCallsite_(callsite),
          initializationTime_(detail::futureClockNow()),
          finishTime_(initializationTime_),
          state_(finishedState) {
        ::new (static_cast<void*>(terminationStorage_)) Termination(std::move(termination));
    }

    /// Finishes the future with `termination` and calls its observers. A second finish is a
    /// fault of the kind: it is reported as a soft assertion and dropped, and the first
    /// termination stays.
    void didFinish(Termination termination) {
        if (!finishIfRunning(termination, [](const Termination&) {})) {
            detail::reportSoftAssertionFailure(
                detail::futureCallsite(detail::FutureFunction::didFinish));
        }
    }

    /// Keeps the future alive through `self`, a reference to itself, until it finishes: for
    /// kinds whose work must go on when every caller has let go. Released after the observers
    /// have run.
    void retainSelfWhileRunning(std::shared_ptr<AbstractFuture> self) {
        if (terminationIfFinished() != nullptr) return;
        _observeFinish([self = std::move(self)](const Termination&) {});
    }

    /// The one finishing step: when the future is running, stores `termination` (moved from),
    /// calls the observers and returns true; when it has finished already, calls
    /// `whenFinished` with the present termination and returns false, leaving `termination`
    /// untouched.
    template <class WhenFinished>
    bool finishIfRunning(Termination& termination, WhenFinished&& whenFinished) {
        return finishInPlace(whenFinished, [&](void* storage) {
            ::new (storage) Termination(std::move(termination));
        });
    }

    /// `finishIfRunning` with the termination made by `make(storage)` in the future's own
    /// storage, once the future is known to be running: nothing is built for a finish that
    /// loses.
    template <class WhenFinished, class Make>
    bool finishInPlace(WhenFinished&& whenFinished, Make&& make) {
        // Claim the future: of competing finishers, the one that sets the bit wins.
        const std::uintptr_t before = state_.fetch_or(finishing, std::memory_order_acquire);
        if ((before & finishing) != 0) {
            whenFinished(awaitTermination());
            return false;
        }
        // Only this thread touches the storage until the exchange below publishes it.
        make(static_cast<void*>(terminationStorage_));
        finishTime_ = detail::futureClockNow();
        const std::uintptr_t state = state_.exchange(finishedState, std::memory_order_acq_rel);
        // The list was pushed newest first: turn it round to call in registration order.
        ObserverNode* node = nullptr;
        for (ObserverNode* pushed = nodeOf(state); pushed != nullptr;) {
            ObserverNode* next = pushed->next;
            pushed->next = node;
            node = pushed;
            pushed = next;
        }
        if (node == nullptr) return true;
        const Termination& finished = *storedTermination();
        for (ObserverNode* at = node; at != nullptr; at = at->next) {
            deliver(at->lane, at->callback, at->cases, finished);
        }
        // What the observers captured (a reference to this very future, perhaps) goes last.
        while (node != nullptr) {
            ObserverNode* next = node->next;
            release(node);
            node = next;
        }
        return true;
    }

  private:
    struct ObserverNode {
        template <class F>
        ObserverNode(F&& observer, ExecutionLane&& observerLane, std::uint8_t observerCases,
                     bool onHeap)
            : callback(std::forward<F>(observer)),
              lane(std::move(observerLane)),
              cases(observerCases),
              heap(onHeap) {}

        ObserverNode* next = nullptr;
        Observer callback;
        ExecutionLane lane;
        std::uint8_t cases;
        bool heap;
    };

    // The state word: a node address (aligned, so its low bits are free) with two flags, or the
    // finished value, which no running state can equal (its flag bits both set, and no node
    // below the address 8).
    static constexpr std::uintptr_t inlineNodeTaken = 1;
    static constexpr std::uintptr_t finishing = 2;
    static constexpr std::uintptr_t flagBits = inlineNodeTaken | finishing;
    static constexpr std::uintptr_t finishedState = 4 | flagBits;
    static_assert(alignof(ObserverNode) >= 8, "node addresses leave the flag bits free");

    static ObserverNode* nodeOf(std::uintptr_t state) noexcept {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the word holds a node's address
        return reinterpret_cast<ObserverNode*>(state & ~flagBits);
    }
    static std::uintptr_t address(ObserverNode* node) noexcept {
        return reinterpret_cast<std::uintptr_t>(node);
    }

    void release(ObserverNode* node) noexcept {
        if (node->heap) {
            delete node;
        } else {
            node->~ObserverNode();
        }
    }

    const Termination* storedTermination() const noexcept {
        return std::launder(reinterpret_cast<const Termination*>(terminationStorage_));
    }

    /// The termination of a future that another thread is finishing: it is being built now.
    const Termination& awaitTermination() const noexcept {
        while (state_.load(std::memory_order_acquire) != finishedState) {
            std::this_thread::yield();
        }
        return *storedTermination();
    }

    /// Calls `callback` with the termination if it is one of `cases`: directly when `lane` is
    /// current, else handed to the lane with a copy of the termination.
    template <class F>
    static void deliver(const ExecutionLane& lane, F& callback, std::uint8_t cases,
                        const Termination& termination) noexcept {
        if ((cases & detail::terminationCaseBit(termination)) == 0) return;
        if (lane.isCurrent()) {
            callback(termination);
        } else {
            lane.execute(
                [callback = std::move(callback), termination]() mutable { callback(termination); });
        }
    }

    Callsite initializationCallsite_;
    MonotonicTimestamp initializationTime_;
    // Written by the finishing thread before the state says finished; read-only afterwards.
    MonotonicTimestamp finishTime_{};
    std::atomic<std::uintptr_t> state_{0};
    alignas(Termination) std::byte terminationStorage_[sizeof(Termination)];
    alignas(ObserverNode) std::byte inlineNode_[sizeof(ObserverNode)];
};

template <class T>
void AbstractFuture<T>::cancel(Callsite /*callsite*/) {
    fatalError("", detail::futureCallsite(detail::FutureFunction::cancel));
}

/// A new promise-backed future and the promise that finishes it.
template <class T>
struct FutureAndPromise {
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
class Future {
  public:
    using Value = T;
    using Termination = FutureTermination<T>;
    using Observer = typename AbstractFuture<T>::Observer;
    /// Lets a coroutine return a `Future<T>` (see `FutureCoroutines.h`).
    using promise_type = detail::FutureCoroutinePromise<T>;

    /// A handle on `object`, which must not be null.
    explicit Future(std::shared_ptr<AbstractFuture<T>> object) noexcept
        : object_(std::move(object)) {}

    /// Makes a promise-backed future and calls `callback` with its promise at once.
    template <class F>
        requires std::is_invocable_v<F&&, Promise<T>>
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
        object_->_observeFinish(std::move(lane), std::forward<F>(callback));
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
        object_->_observeFinish(
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
        object_->_observeFinish(
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
        object_->_observeFinish(
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
        object_->_observeFinish(
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
        object_->_observeFinish(
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
        object_->_observeFinish(std::move(lane), [f = std::forward<F>(completion)](
                                                     const Termination& termination) mutable {
            if (const Result<T>* result = termination.resultIfCompleted()) {
                f(*result);
            } else {
                f(termination.result());
            }
        });
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

    FutureState<T> recentStateSnapshot() const { return object_->recentStateSnapshot(); }
    std::optional<FutureValue<T>> succeededValue() const { return object_->succeededValue(); }
    bool isCanceled() const noexcept { return object_->isCanceled(); }
    bool hasFinishedSuccessfully() const noexcept { return object_->hasFinishedSuccessfully(); }
    std::optional<TimePeriod> runningTime() const noexcept { return object_->runningTime(); }
    const Termination* terminationIfFinished() const noexcept {
        return object_->terminationIfFinished();
    }
    Callsite initializationCallsite() const noexcept { return object_->initializationCallsite(); }
    MonotonicTimestamp initializationTime() const noexcept { return object_->initializationTime(); }

    /// Blocks the calling thread until the future finishes and returns the termination. For
    /// tools and tests only: never call it on a lane that the future needs in order to finish.
    Termination unpleasantWait() const {
        struct Waiter {
            std::mutex mutex;
            std::condition_variable finished;
            std::optional<Termination> termination;
        };
        auto waiter = std::make_shared<Waiter>();
        object_->_observeFinish([waiter](const Termination& termination) {
            std::lock_guard guard(waiter->mutex);
            waiter->termination = termination;
            waiter->finished.notify_one();
        });
        std::unique_lock lock(waiter->mutex);
        waiter->finished.wait(lock, [&] { return waiter->termination.has_value(); });
        return std::move(*waiter->termination);
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
        return MapFuture<T, Out>::create(
            *this, std::move(lane), std::move(failureLane),
            [f = std::forward<F>(transform)](const Result<T>& result) mutable -> Result<Out> {
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
        return MapFuture<T, Out>::create(
            *this, std::move(lane), ExecutionLane::any(),
            [f = std::forward<F>(transform)](const Result<T>& result) mutable {
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
        return MapFuture<T, Out>::create(
            *this, std::move(lane), ExecutionLane::any(),
            [f = std::forward<F>(transform)](const Result<T>& result) mutable -> Result<Out> {
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
        return MapFuture<T, T>::create(
            *this, ExecutionLane::any(), std::move(lane),
            [f = std::forward<F>(transform)](const Result<T>& result) mutable -> Result<T> {
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
        return FlatMapFuture<T, Out>::create(
            *this, std::move(lane), std::move(failureLane),
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
        return FlatMapFuture<T, T>::create(
            *this, ExecutionLane::any(), std::move(lane),
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
        return MapFuture<T, Out>::create(
            *this, ExecutionLane::any(), ExecutionLane::any(),
            [](const Result<T>& result) -> Result<Out> {
                if (const Error* error = result.failureError()) return Result<Out>(*error);
                return *result.successValue();
            },
            callsite);
    }

    /// A future that is sure to finish: with this future's outcome as its value (a failure
    /// arrives as a failure result), or, when `after` seconds pass first, failed with
    /// `timeoutError(after)`, in which case this future is canceled. The timer runs on the
    /// default background queue with `leeway` of slack.
    Future<Result<T>> timeout(double after, TimePeriod leeway, TimeoutErrorMaker timeoutError,
                              Callsite callsite = Callsite::current()) const;
    /// `timeout` failing with `TimeoutError::timedOut(after)`.
    Future<Result<T>> timeout(double after, TimePeriod leeway,
                              Callsite callsite = Callsite::current()) const;
    /// `timeout` with no leeway, failing with `TimeoutError::timedOut(after)`.
    Future<Result<T>> timeout(double after, Callsite callsite = Callsite::current()) const;
    /// `timeout` timed by `scheduler` instead of the background queue's timer (a
    /// `StepScheduler` lets a test time out without waiting).
    Future<Result<T>> timeout(double after, TimePeriod leeway, TimeoutErrorMaker timeoutError,
                              const std::shared_ptr<Scheduler>& scheduler,
                              Callsite callsite = Callsite::current()) const;
    /// `timeout` timed by `scheduler`, with no leeway, failing with
    /// `TimeoutError::timedOut(after)`.
    Future<Result<T>> timeout(double after, const std::shared_ptr<Scheduler>& scheduler,
                              Callsite callsite = Callsite::current()) const;

    // --- coroutines ---

    /// `co_await future`: the value, the error thrown, or `FutureCanceled` thrown on
    /// cancellation; the coroutine resumes on the thread that finishes the future.
    FutureAwaitable<T> operator co_await() const;

    /// `co_await future.on(lane)`: as `co_await future`, resuming on `lane`.
    FutureAwaitable<T> on(ExecutionLane lane) const;

    // --- identity ---

    /// The future object itself.
    const std::shared_ptr<AbstractFuture<T>>& object() const noexcept { return object_; }

    friend bool operator==(const Future& a, const Future& b) noexcept {
        return a.object_ == b.object_;
    }

  private:
    static Future constant(Termination termination, Callsite callsite);

    template <class F>
    auto chain(ExecutionLane lane, F&& transform, Callsite callsite,
               detail::FutureFunction function) const {
        using Out = typename std::remove_cvref_t<detail::SuccessInvokeResultType<F, T>>::Value;
        return FlatMapFuture<T, Out>::create(
            *this, std::move(lane), ExecutionLane::any(),
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

// The kinds of futures, and the definitions that need them.
#include "mirels/futures/ConstantFuture.h"
#include "mirels/futures/FlatMapFuture.h"
#include "mirels/futures/FutureCoroutines.h"
#include "mirels/futures/MapFuture.h"
#include "mirels/futures/PromiseFuture.h"
#include "mirels/futures/TimeoutFuture.h"
#include "mirels/futures/UncancelableFuture.h"
