#pragma once

// `PromiseFuture`: the future behind a `Promise`. Also `Promise`.

#include <memory>
#include <new>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "mirels/Export.h"
#include "mirels/core/Assertions.h"
#include "mirels/errors/HumanReadableError.h"
#include "mirels/execution/DispatchQueue.h"
#include "mirels/futures/Future.h"
#include "mirels/futures/detail/CommonValueTypes.h"

namespace mirels {

namespace detail {
/// "Future cannot transition from <from> to <to>."
MIRELS_EXPORT std::string transitionErrorText(const std::string& from, const std::string& to);
}  // namespace detail

/// The future behind a `Promise`: the one kind whose termination is set from outside.
///
/// Transitions follow three rules, decided in one atomic step on the future's state: a running
/// future takes the requested termination; a succeeded or failed future refuses a second
/// completion (`TransitionError`) and ignores a cancel; a canceled future ignores everything,
/// so a producer that completes after its consumer canceled is silently ignored.
template <class T>
class PromiseFuture final : public AbstractFuture<T> {
    struct Key {
        explicit Key() = default;
    };

  public:
    /// A completion refused because the future had completed already.
    class TransitionError final : public HumanReadableError {
      public:
        TransitionError(FutureTermination<T> from, FutureTermination<T> to)
            : from_(std::move(from)),
              to_(std::move(to)),
              text_(detail::transitionErrorText(from_.description(), to_.description())) {}

        /// The termination the future already has.
        const FutureTermination<T>& from() const noexcept { return from_; }
        /// The termination that was refused.
        const FutureTermination<T>& to() const noexcept { return to_; }

        /// "Future cannot transition from <from> to <to>.", e.g. "Future cannot transition
        /// from succeeded<int> to failed."
        const std::string& text() const noexcept { return text_; }

        std::optional<std::string> lowValueTitle() const override { return text_; }
        std::optional<std::string> additionalInfo() const override { return std::nullopt; }
        std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }
        /// The text, as the error's description.
        const char* what() const noexcept override { return text_.c_str(); }

      private:
        FutureTermination<T> from_;
        FutureTermination<T> to_;
        std::string text_;
    };

    PromiseFuture(Key, Callsite callsite) : AbstractFuture<T>(callsite) {}

    [[nodiscard]] static std::shared_ptr<PromiseFuture> create(
        Callsite callsite = Callsite::current()) {
        return makeSharedRecycled<PromiseFuture>(Key{}, callsite);
    }

    /// Requests `to`; throws `TransitionError` when the future has completed already and `to`
    /// is a completion too. Observers are called after the lock is released.
    void tryTransition(FutureTermination<T> to) {
        std::optional<FutureTermination<T>> refusedFrom;
        this->finishIfRunning(to, [&](const FutureTermination<T>& present) {
            if (present.isCompleted() && to.isCompleted()) refusedFrom = present;
        });
        if (refusedFrom) throw TransitionError(std::move(*refusedFrom), std::move(to));
    }

    /// `tryTransition`, reporting a refusal as a soft assertion instead of throwing.
    void transition(FutureTermination<T> to) {
        bool refused = false;
        this->finishIfRunning(to, [&](const FutureTermination<T>& present) {
            refused = present.isCompleted() && to.isCompleted();
        });
        if (refused) {
            detail::reportSoftAssertionFailure(
                detail::futureCallsite(detail::FutureFunction::transition));
        }
    }

    /// `transition` to the termination that `make()` returns, built in the future's own storage
    /// and only when the future is running; `completes` says whether it is a completion.
    template <class Make>
    void transitionInPlace(bool completes, Make&& make) {
        bool refused = false;
        this->finishInPlace(
            [&](const FutureTermination<T>& present) {
                refused = present.isCompleted() && completes;
            },
            [&](void* storage) { ::new (storage) FutureTermination<T>(make()); });
        if (refused) {
            detail::reportSoftAssertionFailure(
                detail::futureCallsite(detail::FutureFunction::transition));
        }
    }

    /// Finishes the future canceled from `callsite`, unless it has finished already.
    void cancel(Callsite callsite) override {
        transition(FutureTermination<T>::canceled(callsite));
    }
};

/// The writable side of a promise-backed future: the producer keeps the promise and hands out
/// its `future()`. A handle: copies write the same future, and `==` compares identity.
///
/// Dropping every promise without finishing leaves the future running for ever, deliberately:
/// its observers stay registered until the future itself goes away.
template <class T>
class Promise {
  public:
    using Value = T;

    explicit Promise(std::shared_ptr<PromiseFuture<T>> future) noexcept
        : future_(std::move(future)) {}

    /// The future this promise finishes.
    Future<T> future() const { return Future<T>(future_); }
    /// The future object itself.
    const std::shared_ptr<PromiseFuture<T>>& promiseFuture() const noexcept { return future_; }

    /// Completes with `result`; a second completion is reported as a soft assertion and
    /// ignored, as are completions after a cancel.
    void fulfill(Result<T> result) const {
        finishing()->transitionInPlace(
            true, [&] { return FutureTermination<T>::completed(std::move(result)); });
    }

    /// Runs `handler` at once on the calling thread and completes with its value, or with the
    /// error it throws.
    template <class F>
        requires detail::ValueMaker<F, T>
    void fulfill(F&& handler) const {
        fulfill(Result<T>::catching(std::forward<F>(handler)));
    }

    /// Submits `handler` to `queue` and there completes with its value, or with the error it
    /// throws.
    template <class F>
        requires std::is_invocable_v<F&>
    void fulfill(const std::shared_ptr<DispatchQueue>& queue, F&& handler) const {
        queue->async([promise = *this, handler = std::forward<F>(handler)]() mutable {
            promise.fulfill(Result<T>::catching(handler));
        });
    }

    void succeed(FutureValue<T> value) const
        requires(!std::is_void_v<T>)
    {
        finishing()->transitionInPlace(
            true, [&] { return FutureTermination<T>::succeeded(std::move(value)); });
    }
    void succeed() const
        requires std::is_void_v<T>
    {
        finishing()->transitionInPlace(true, [] { return FutureTermination<T>::succeeded(); });
    }

    void fail(Error error) const {
        finishing()->transitionInPlace(
            true, [&] { return FutureTermination<T>::failed(std::move(error)); });
    }

    /// Finishes the future canceled from `callsite`; ignored once it has finished.
    void cancel(Callsite callsite = Callsite::current()) const { finishing()->cancel(callsite); }

    /// As `fulfill`, but a refused completion throws `PromiseFuture<T>::TransitionError`.
    void tryFulfill(Result<T> result) const {
        finishing()->tryTransition(FutureTermination<T>::completed(std::move(result)));
    }
    void trySucceed(FutureValue<T> value) const
        requires(!std::is_void_v<T>)
    {
        finishing()->tryTransition(FutureTermination<T>::succeeded(std::move(value)));
    }
    void trySucceed() const
        requires std::is_void_v<T>
    {
        finishing()->tryTransition(FutureTermination<T>::succeeded());
    }
    void tryFail(Error error) const {
        finishing()->tryTransition(FutureTermination<T>::failed(std::move(error)));
    }

    /// Makes this promise follow `other`: its completion fulfills this promise, its
    /// cancellation cancels this promise with the same call site, and canceling this promise's
    /// future cancels `other` (as `other`'s kind decides). Whichever side ends first decides.
    /// Following its own future does nothing.
    void track(const Future<T>& other) const {
        if (other.object().get() == future_.get()) return;
        other.object()->observeFinishHere(
            [promise = *this](const FutureTermination<T>& termination) {
                if (const Result<T>* result = termination.resultIfCompleted()) {
                    promise.fulfill(*result);
                } else {
                    promise.cancel(*termination.canceledCallsite());
                }
            });
        future().observeCancelation([other](Callsite callsite) { other.cancel(callsite); });
    }

    /// Calls `callback` with the cancel call site when the future is canceled, so that the
    /// producer can stop its work.
    template <class F>
        requires std::is_invocable_v<F&, Callsite>
    void observeCancelation(ExecutionLane lane, F&& callback) const {
        future().observeCancelation(std::move(lane), std::forward<F>(callback));
    }
    template <class F>
        requires std::is_invocable_v<F&, Callsite>
    void observeCancelation(F&& callback) const {
        future().observeCancelation(std::forward<F>(callback));
    }

    /// Whether the future has been canceled.
    bool isCanceled() const noexcept { return future_->isCanceled(); }

    friend bool operator==(const Promise& a, const Promise& b) noexcept {
        return a.future_ == b.future_;
    }

  private:
    /// The future, held for the duration of a finishing call: the observers it runs may drop
    /// this very promise.
    std::shared_ptr<PromiseFuture<T>> finishing() const noexcept { return future_; }

    std::shared_ptr<PromiseFuture<T>> future_;
};

template <class T>
FutureAndPromise<T> Future<T>::create(Callsite callsite) {
    std::shared_ptr<PromiseFuture<T>> object = PromiseFuture<T>::create(callsite);
    Future<T> future(object);
    return {std::move(future), Promise<T>(std::move(object))};
}

// Compiled once in the library for the common value types (futures/detail/CommonValueTypes.h).
// NOLINTBEGIN(bugprone-macro-parentheses): a type argument cannot be parenthesised
#define MIRELS_DETAIL_DECLARE(T)                          \
    extern template class MIRELS_EXPORT PromiseFuture<T>; \
    extern template class MIRELS_EXPORT Promise<T>;
MIRELS_DETAIL_FOR_EACH_COMMON_FUTURE_VALUE(MIRELS_DETAIL_DECLARE)
#undef MIRELS_DETAIL_DECLARE
// NOLINTEND(bugprone-macro-parentheses)

}  // namespace mirels
