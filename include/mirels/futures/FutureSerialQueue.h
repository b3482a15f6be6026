#pragma once

// `FutureSerialQueue`: runs asynchronous operations one at a time, in the order they were enqueued.

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "mirels/core/Identifier.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/execution/ExecutionLane.h"
#include "mirels/futures/Future.h"
#include "mirels/futures/PromiseFuture.h"
#include "mirels/futures/detail/CommonValueTypes.h"

namespace mirels {

/// Runs asynchronous operations one at a time, in the order they were enqueued. An operation
/// is a closure that starts some work and returns a future of it; the next operation starts
/// only when that future has finished, however it finished.
///
/// `enqueue` returns at once a future that stands for the operation's eventual outcome, so a
/// caller can wait for, chain or cancel an operation that has not started yet. Canceling it
/// drops a queued operation without ever starting it; a running one is canceled in turn and
/// keeps the queue busy until its future has really finished.
///
/// Operations start on the queue's lane. With the immediate lane (`ExecutionLane::any()`) an
/// operation starts on the thread that enqueued it, or that finished the previous operation,
/// before that call returns; operations that finish at once are then started one after
/// another in a loop, never by recursion. No lock is held while an operation starts or while
/// any callback runs.
///
/// The queue lives while someone holds it, or while an operation it started is running.
template <class T>
class FutureSerialQueue final : public std::enable_shared_from_this<FutureSerialQueue<T>> {
    struct Key {
        explicit Key() = default;
    };

  public:
    using MakeFuture = UniqueFunction<Future<T>()>;

    /// An operation waiting to start: the promise of the future `enqueue` returned, the
    /// closure that starts the work, and an identifier from the process-wide counter.
    struct Operation {
        Promise<T> promise;
        MakeFuture makeFuture;
        std::int64_t identifier;
    };

    FutureSerialQueue(Key, ExecutionLane dequeueLane) : dequeueLane_(std::move(dequeueLane)) {}

    /// An empty queue that starts its operations on `dequeueLane`.
    [[nodiscard]] static std::shared_ptr<FutureSerialQueue> create(ExecutionLane dequeueLane) {
        return std::make_shared<FutureSerialQueue>(Key{}, std::move(dequeueLane));
    }

    /// Appends an operation that `makeFuture` starts, and returns the future of its outcome.
    template <class F>
        requires std::is_invocable_r_v<Future<T>, F&>
    Future<T> enqueue(F&& makeFuture) {
        FutureAndPromise<T> pair =
            Future<T>::create(detail::futureCallsite(detail::FutureFunction::serialQueueEnqueue));
        const std::int64_t identifier = nextProcessIdentifier();
        state_.syncWrite([&](State& state) {
            state.queue.push_back(Operation{std::move(pair.promise),
                                            MakeFuture(std::forward<F>(makeFuture)), identifier});
        });
        pair.future.observeCancelation([weak = this->weak_from_this(), identifier](Callsite) {
            if (auto queue = weak.lock()) queue->cancelOperation(identifier);
        });
        dequeueIfPossible();
        return std::move(pair.future);
    }

    /// Appends an operation that `body` starts with a new promise, and returns the future of
    /// its outcome.
    template <class F>
        requires detail::PromiseBody<F, T>
    Future<T> enqueue(F&& body) {
        return enqueue([body = std::forward<F>(body)]() mutable {
            return Future<T>::create(
                [&](Promise<T> promise) { body(std::move(promise)); },
                detail::futureCallsite(detail::FutureFunction::serialQueueEnqueue));
        });
    }

    const ExecutionLane& dequeueLane() const noexcept { return dequeueLane_; }

  private:
    struct Running {
        Future<T> placeholder;
        std::int64_t identifier;
    };

    struct State {
        std::deque<Operation> queue;
        std::optional<Running> running;
        // A thread is in the start loop of `dequeueIfPossible`; another call leaves its work to
        // that loop (and says so in `dequeueAgain`) instead of starting operations itself.
        bool dequeuing = false;
        bool dequeueAgain = false;
    };

    /// Starts the next operation if none is running, and goes on with the next as long as
    /// operations finish before their start step returns.
    void dequeueIfPossible() {
        for (;;) {
            std::optional<Operation> next;
            std::optional<FutureAndPromise<T>> placeholder;
            state_.syncWrite(
                [&](State& state) {
                    if (state.dequeuing) {
                        state.dequeueAgain = true;
                        return;
                    }
                    if (state.running || state.queue.empty()) return;
                    next.emplace(std::move(state.queue.front()));
                    state.queue.pop_front();
                    placeholder.emplace(Future<T>::create(
                        detail::futureCallsite(detail::FutureFunction::dequeueIfPossible)));
                    state.running = Running{placeholder->future, next->identifier};
                    state.dequeuing = true;
                },
                Callsite::library("dequeueIfPossible()"));
            if (!next) return;

            // The placeholder exists so that `running` is set inside the lock, before the
            // caller's work starts outside it; the caller's future follows it. Only the
            // placeholder's outcome needs forwarding: a cancel of the caller's future already
            // reaches the placeholder through `cancelOperation`, registered at enqueue.
            placeholder->future.object()->observeFinish(
                [promise = std::move(next->promise)](const FutureTermination<T>& termination) {
                    if (const Result<T>* result = termination.resultIfCompleted()) {
                        promise.fulfill(*result);
                    } else {
                        promise.cancel(*termination.canceledCallsite());
                    }
                });
            dequeueLane_.execute([self = this->shared_from_this(), operation = std::move(*next),
                                  promise = std::move(placeholder->promise)]() mutable {
                self->start(std::move(operation), std::move(promise));
            });

            const bool again = state_.syncWrite([](State& state) {
                state.dequeuing = false;
                return std::exchange(state.dequeueAgain, false);
            });
            if (!again) return;
        }
    }

    /// The start step, on the queue's lane: starts the work and waits for its future.
    void start(Operation operation, Promise<T> placeholder) {
        Future<T> work = [&] {
            try {
                return operation.makeFuture();
            } catch (...) {
                return Future<T>::failed(
                    Error::current(),
                    detail::futureCallsite(detail::FutureFunction::serialQueueEnqueue));
            }
        }();
        operation.makeFuture = nullptr;
        placeholder.track(work);
        work.object()->observeFinish(
            [self = this->shared_from_this(), identifier = operation.identifier](
                const FutureTermination<T>&) { self->operationFinished(identifier); });
    }

    void operationFinished(std::int64_t identifier) {
        std::optional<Running> finished;
        state_.syncWrite([&](State& state) {
            if (state.running && state.running->identifier == identifier) {
                finished = std::exchange(state.running, std::nullopt);
            }
        });
        finished.reset();
        dequeueIfPossible();
    }

    /// The caller's future of operation `identifier` was canceled: a queued operation is
    /// dropped, a running one canceled.
    void cancelOperation(std::int64_t identifier) {
        std::vector<Operation> dropped;
        std::optional<Future<T>> running;
        state_.syncWrite(
            [&](State& state) {
                for (auto it = state.queue.begin(); it != state.queue.end();) {
                    if (it->identifier == identifier) {
                        dropped.push_back(std::move(*it));
                        it = state.queue.erase(it);
                    } else {
                        ++it;
                    }
                }
                if (state.running && state.running->identifier == identifier) {
                    running = state.running->placeholder;
                }
            },
            detail::futureCallsite(detail::FutureFunction::cancelOperation));
        dropped.clear();
        if (running)
            running->cancel(detail::futureCallsite(detail::FutureFunction::cancelOperation));
    }

    ThreadSafe<State> state_;
    const ExecutionLane dequeueLane_;
};

// Compiled once in the library for the common value types (futures/detail/CommonValueTypes.h).
#define MIRELS_DETAIL_DECLARE(T) extern template class MIRELS_EXPORT FutureSerialQueue<T>;
MIRELS_DETAIL_FOR_EACH_COMMON_FUTURE_VALUE(MIRELS_DETAIL_DECLARE)
#undef MIRELS_DETAIL_DECLARE

}  // namespace mirels
