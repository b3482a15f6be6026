#pragma once

// `FutureSerialQueue`: runs asynchronous operations one at a time, in the order they were enqueued.

#include <algorithm>
#include <cstddef>
#include <cstdint>
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
    /// The operation in progress: its identifier, and its work's future once the start step
    /// has made it. A cancel that arrives before then is remembered and passed on to the work
    /// as soon as it exists.
    struct Running {
        std::int64_t identifier;
        std::optional<Future<T>> work;
        std::optional<Callsite> pendingCancel;
    };

    /// The waiting operations, oldest first, in a ring that keeps its storage: a queue that
    /// fills and drains one operation at a time allocates nothing once warm.
    class Waiting {
      public:
        bool empty() const noexcept { return count_ == 0; }
        void push_back(Operation operation) {
            if (count_ == slots_.size()) grow();
            slots_[(head_ + count_) % slots_.size()].emplace(std::move(operation));
            ++count_;
        }
        /// Moves the oldest operation into `out` (one move, straight from its slot).
        void popFrontInto(std::optional<Operation>& out) {
            std::optional<Operation>& slot = slots_[head_];
            out.emplace(std::move(*slot));
            slot.reset();
            head_ = (head_ + 1) % slots_.size();
            --count_;
        }
        /// Moves out every operation with `identifier`, keeping the others in order.
        void removeInto(std::int64_t identifier, std::vector<Operation>& removed) {
            std::size_t kept = 0;
            for (std::size_t i = 0; i < count_; ++i) {
                std::optional<Operation>& slot = slots_[(head_ + i) % slots_.size()];
                if (slot->identifier == identifier) {
                    removed.push_back(std::move(*slot));
                    slot.reset();
                } else {
                    if (kept != i) {
                        slots_[(head_ + kept) % slots_.size()] = std::move(slot);
                        slot.reset();
                    }
                    ++kept;
                }
            }
            count_ = kept;
        }

      private:
        void grow() {
            std::vector<std::optional<Operation>> larger(std::max<std::size_t>(4, 2 * count_));
            for (std::size_t i = 0; i < count_; ++i) {
                larger[i] = std::move(slots_[(head_ + i) % slots_.size()]);
            }
            slots_ = std::move(larger);
            head_ = 0;
        }

        std::vector<std::optional<Operation>> slots_;
        std::size_t head_ = 0;
        std::size_t count_ = 0;
    };

    struct State {
        Waiting queue;
        std::optional<Running> running;
        // A thread is in the start loop of `dequeueIfPossible`; another call leaves its work to
        // that loop (and says so in `dequeueAgain`) instead of starting operations itself.
        bool dequeuing = false;
        bool dequeueAgain = false;
    };

    /// Starts the next operation if none is running, and goes on with the next as long as
    /// operations finish before their start step returns. With `finished`, first ends the
    /// running operation of that identifier, in the same locked step.
    void dequeueIfPossible(std::optional<std::int64_t> finished = std::nullopt) {
        std::optional<Running> ended;
        std::optional<Operation> next;
        state_.syncWrite(
            [&](State& state) {
                if (finished && state.running && state.running->identifier == *finished) {
                    ended = std::exchange(state.running, std::nullopt);
                }
                if (state.dequeuing) {
                    // The thread in the start loop below takes the next one.
                    state.dequeueAgain = true;
                    return;
                }
                if (takeNext(state, next)) state.dequeuing = true;
            },
            Callsite::library("dequeueIfPossible()"));
        ended.reset();
        while (next) {
            dequeueLane_.execute(
                [self = this->shared_from_this(), operation = std::move(*next)]() mutable {
                    self->start(std::move(operation));
                });
            next.reset();
            state_.syncWrite(
                [&](State& state) {
                    if (std::exchange(state.dequeueAgain, false) && takeNext(state, next)) return;
                    state.dequeuing = false;
                },
                Callsite::library("dequeueIfPossible()"));
        }
    }

    /// Takes the first waiting operation into `next` and makes it the running one, when none
    /// runs. Called under the state lock.
    static bool takeNext(State& state, std::optional<Operation>& next) {
        if (state.running || state.queue.empty()) return false;
        state.queue.popFrontInto(next);
        // `running` is set here, inside the lock, before the caller's work starts outside it.
        state.running.emplace(Running{next->identifier, std::nullopt, std::nullopt});
        return true;
    }

    /// The start step, on the queue's lane: starts the work, lets the caller's future follow
    /// it, and moves on when it has finished.
    void start(Operation&& operation) {
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
        const std::int64_t identifier = operation.identifier;
        if (!work.terminationIfFinished()) {
            // A cancel can still matter: make the work reachable for one, and pass on one that
            // came before the work existed.
            std::optional<Callsite> cancel;
            state_.syncWrite([&](State& state) {
                if (state.running && state.running->identifier == identifier) {
                    state.running->work = work;
                    cancel = state.running->pendingCancel;
                }
            });
            if (cancel) work.cancel(*cancel);
        }
        // The outcome flows from the work to the caller's future; the caller's cancel reaches
        // the work through `cancelOperation`, registered at enqueue.
        work.object()->observeFinishHere([self = this->shared_from_this(),
                                          promise = std::move(operation.promise),
                                          identifier](const FutureTermination<T>& termination) {
            if (const Result<T>* result = termination.resultIfCompleted()) {
                promise.fulfill(*result);
            } else {
                promise.cancel(*termination.canceledCallsite());
            }
            self->dequeueIfPossible(identifier);
        });
    }

    /// The caller's future of operation `identifier` was canceled: a queued operation is
    /// dropped, a running one's work canceled (now, or as soon as its start step has made it).
    void cancelOperation(std::int64_t identifier) {
        const Callsite callsite = detail::futureCallsite(detail::FutureFunction::cancelOperation);
        std::vector<Operation> dropped;
        std::optional<Future<T>> running;
        state_.syncWrite(
            [&](State& state) {
                state.queue.removeInto(identifier, dropped);
                if (state.running && state.running->identifier == identifier) {
                    if (state.running->work) {
                        running = state.running->work;
                    } else {
                        state.running->pendingCancel = callsite;
                    }
                }
            },
            callsite);
        dropped.clear();
        if (running) running->cancel(callsite);
    }

    ThreadSafe<State> state_;
    const ExecutionLane dequeueLane_;
};

// Compiled once in the library for the common value types (futures/detail/CommonValueTypes.h).
// NOLINTBEGIN(bugprone-macro-parentheses): a type argument cannot be parenthesised
#define MIRELS_DETAIL_DECLARE(T) extern template class MIRELS_EXPORT FutureSerialQueue<T>;
MIRELS_DETAIL_FOR_EACH_COMMON_FUTURE_VALUE(MIRELS_DETAIL_DECLARE)
#undef MIRELS_DETAIL_DECLARE
// NOLINTEND(bugprone-macro-parentheses)

}  // namespace mirels
