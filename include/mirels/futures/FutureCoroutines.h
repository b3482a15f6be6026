#pragma once

// `FutureAwaitable`: what `co_await future` and `co_await future.on(lane)` wait on.

#include <coroutine>
#include <exception>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "mirels/core/ThreadSafe.h"
#include "mirels/futures/Future.h"
#include "mirels/futures/PromiseFuture.h"

// Futures and C++20 coroutines, both ways.
//
// Awaiting: inside any coroutine, `co_await future` gives the value (nothing for a future of
// nothing), rethrows the failure, or throws `FutureCanceled` when the future was canceled. The
// coroutine resumes on the thread that finishes the future; `co_await future.on(lane)` resumes
// it on `lane` instead. A future that has finished already, awaited on a current lane, does not
// suspend at all.
//
// Returning: a coroutine declared to return `Future<T>` starts at once, on the caller's
// thread, and hands out a promise-backed future. `co_return value` succeeds it; an exception
// that escapes fails it, except `FutureCanceled`, which cancels it with the call site it
// carries (so cancellation passes through a chain of coroutines as it does through
// combinators). Canceling the returned future cancels the future the coroutine is awaiting at
// that moment, or the next one it awaits; the awaited future then throws `FutureCanceled` into
// the coroutine, unless its kind ignores cancels.

namespace mirels {

namespace detail {

/// What a coroutine returning a future shares with the observer of its own future's
/// cancellation: whether it was canceled, and how to cancel the future it awaits now.
class CoroutineCancellation {
  public:
    using CancelAwaited = UniqueFunction<void(Callsite)>;

    /// The coroutine starts waiting: `cancelAwaited` cancels what it waits for. Returns the
    /// cancel call site when the coroutine's future was canceled already (then `cancelAwaited`
    /// is not kept).
    std::optional<Callsite> willAwait(CancelAwaited& cancelAwaited) {
        return state_.syncWrite([&](State& state) -> std::optional<Callsite> {
            if (state.canceled) return state.canceled;
            state.cancelAwaited = std::move(cancelAwaited);
            return std::nullopt;
        });
    }

    /// The coroutine has resumed: it waits for nothing now.
    void didAwait() {
        CancelAwaited released =
            state_.syncWrite([](State& state) { return std::move(state.cancelAwaited); });
    }

    /// The coroutine's future was canceled from `callsite`.
    void cancel(Callsite callsite) {
        CancelAwaited cancelAwaited = state_.syncWrite([&](State& state) {
            state.canceled = callsite;
            return std::move(state.cancelAwaited);
        });
        if (cancelAwaited) cancelAwaited(callsite);
    }

  private:
    struct State {
        std::optional<Callsite> canceled;
        CancelAwaited cancelAwaited;
    };
    ThreadSafe<State> state_;
};

template <class T>
class FutureCoroutinePromiseBase {
  public:
    FutureCoroutinePromiseBase()
        : promise_(PromiseFuture<T>::create(futureCallsite(FutureFunction::coroutine))),
          cancellation_(std::make_shared<CoroutineCancellation>()) {
        promise_.observeCancelation(
            [cancellation = cancellation_](Callsite callsite) { cancellation->cancel(callsite); });
    }

    Future<T> get_return_object() const { return promise_.future(); }
    std::suspend_never initial_suspend() const noexcept { return {}; }
    std::suspend_never final_suspend() const noexcept { return {}; }

    void unhandled_exception() const {
        try {
            throw;
        } catch (const FutureCanceled& canceled) {
            promise_.cancel(canceled.callsite());
        } catch (...) {
            promise_.fail(Error::current());
        }
    }

    CoroutineCancellation& futureCoroutineCancellation() const noexcept { return *cancellation_; }

  protected:
    Promise<T> promise_;
    std::shared_ptr<CoroutineCancellation> cancellation_;
};

/// The promise type of a coroutine that returns `Future<T>`.
template <class T>
class FutureCoroutinePromise final : public FutureCoroutinePromiseBase<T> {
  public:
    template <class U>
        requires std::is_convertible_v<U&&, T>
    void return_value(U&& value) const {
        this->promise_.succeed(T(std::forward<U>(value)));
    }
};

template <class T>
    requires std::is_void_v<T>
class FutureCoroutinePromise<T> final : public FutureCoroutinePromiseBase<T> {
  public:
    void return_void() const { this->promise_.succeed(); }
};

}  // namespace detail

/// What `co_await future` and `co_await future.on(lane)` wait on.
template <class T>
class FutureAwaitable {
  public:
    FutureAwaitable(Future<T> future, ExecutionLane lane) noexcept
        : future_(std::move(future)), lane_(std::move(lane)) {}

    bool await_ready() const noexcept {
        return future_.terminationIfFinished() != nullptr && lane_.isCurrent();
    }

    template <class P>
    void await_suspend(std::coroutine_handle<P> coroutine) {
        if constexpr (requires { coroutine.promise().futureCoroutineCancellation(); }) {
            cancellation_ = &coroutine.promise().futureCoroutineCancellation();
            detail::CoroutineCancellation::CancelAwaited cancelAwaited =
                [future = future_](Callsite callsite) { future.cancel(callsite); };
            if (auto canceled = cancellation_->willAwait(cancelAwaited)) {
                future_.cancel(*canceled);
            }
        }
        // Once the observer is registered the coroutine may resume (and end) on another thread
        // at any moment: nothing of this awaiter is touched afterwards.
        std::shared_ptr<AbstractFuture<T>> object = future_.object();
        object->observeFinish(lane_,
                              [coroutine](const FutureTermination<T>&) { coroutine.resume(); });
    }

    T await_resume() const {
        if (cancellation_ != nullptr) cancellation_->didAwait();
        const FutureTermination<T>& termination = *future_.terminationIfFinished();
        if (auto canceled = termination.canceledCallsite()) throw FutureCanceled(*canceled);
        const Result<T>& result = *termination.resultIfCompleted();
        if (const Error* error = result.failureError()) error->rethrow();
        if constexpr (!std::is_void_v<T>) return *result.successValue();
    }

  private:
    Future<T> future_;
    ExecutionLane lane_;
    detail::CoroutineCancellation* cancellation_ = nullptr;
};

}  // namespace mirels
