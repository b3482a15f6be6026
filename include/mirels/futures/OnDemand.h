#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <type_traits>
#include <utility>

#include "mirels/core/FatalError.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/core/UniqueFunction.h"
#include "mirels/futures/Future.h"
#include "mirels/futures/PromiseFuture.h"

namespace mirels {

/// A value computed at its first demand, exactly once however many threads demand it at the
/// same moment: the first demander runs the computation (on its own thread, with no lock held)
/// and the others wait for it and share its outcome.
///
/// - Reading the value once it exists is one acquire load: no lock, no atomic write, no
///   allocation, the same as a `std::call_once`-guarded read.
/// - A computation that throws is not kept: its demanders (the one who ran it and those who
///   waited for it) get the exception, and the next demand computes again.
/// - `reset()` makes the next demand compute again. A computation that was running when
///   `reset()` was called still hands its value to those who were waiting for it, but the value
///   is not kept; demands that arrive after the reset wait for it to end and then compute
///   afresh, so computations never overlap and `compute` needs no locking of its own.
/// - References returned by `value()` stay valid until the `OnDemand` is destroyed, also across
///   `reset()`: a reader on another thread may still hold one, so superseded values are kept
///   until then. Values meant to be reset often should be small or shared handles.
/// - A computation that demands its own value stops the process with a message, rather than
///   waiting for itself forever.
///
/// Neither copyable nor movable; embed it in the object that owns it.
template <class T>
class OnDemand {
    static_assert(std::is_object_v<T> && !std::is_array_v<T>,
                  "OnDemand holds an object type: not a reference, array or void");

  public:
    using Compute = UniqueFunction<T()>;

    explicit OnDemand(Compute compute) : compute_(std::move(compute)) {}
    OnDemand(const OnDemand&) = delete;
    OnDemand& operator=(const OnDemand&) = delete;

    ~OnDemand() {
        for (Node* node = nodes_; node != nullptr;) delete std::exchange(node, node->next);
    }

    /// The value, computed now if it does not exist yet (or waited for, when another thread
    /// is computing it). Rethrows what the computation threw.
    const T& value() {
        if (Node* node = current_.load(std::memory_order_acquire)) [[likely]] {
            return node->value;
        }
        return demandSlowly();
    }

    /// The value if it exists now; never computes.
    const T* valueIfPresent() const noexcept {
        Node* node = current_.load(std::memory_order_acquire);
        return node != nullptr ? &node->value : nullptr;
    }

    bool hasValue() const noexcept { return current_.load(std::memory_order_acquire) != nullptr; }

    /// Makes the next demand compute the value again.
    void reset() {
        std::lock_guard lock(mutex_);
        ++generation_;
        current_.store(nullptr, std::memory_order_release);
    }

  private:
    struct Node {
        T value;
        Node* next = nullptr;
    };
    struct Computation {
        std::uint64_t generation = 0;
        std::thread::id thread;
        bool done = false;
        Node* node = nullptr;
        std::exception_ptr error;
    };

    const T& demandSlowly() {
        std::unique_lock lock(mutex_);
        for (;;) {
            if (Node* node = current_.load(std::memory_order_relaxed)) return node->value;
            if (running_ == nullptr) break;
            if (running_->thread == std::this_thread::get_id()) {
                fatalError("OnDemand: the computation demanded its own value");
            }
            std::shared_ptr<Computation> running = running_;
            ended_.wait(lock, [&] { return running->done; });
            if (running->generation == generation_ || running->node == nullptr) {
                // Shared the computation: its outcome is ours.
                if (running->error) std::rethrow_exception(running->error);
                return running->node->value;
            }
            // It was made stale by a reset after we came: go round and compute afresh.
        }
        auto computation = std::make_shared<Computation>();
        computation->generation = generation_;
        computation->thread = std::this_thread::get_id();
        running_ = computation;
        lock.unlock();
        Node* node = nullptr;
        std::exception_ptr error;
        try {
            node = new Node{compute_()};
        } catch (...) {
            error = std::current_exception();
        }
        lock.lock();
        computation->done = true;
        computation->node = node;
        computation->error = error;
        running_ = nullptr;
        if (node != nullptr) {
            node->next = nodes_;
            nodes_ = node;
            if (computation->generation == generation_) {
                current_.store(node, std::memory_order_release);
            }
        }
        lock.unlock();
        ended_.notify_all();
        if (error) std::rethrow_exception(error);
        return node->value;
    }

    std::atomic<Node*> current_{nullptr};
    Compute compute_;  // called by one thread at a time
    std::mutex mutex_;
    std::condition_variable ended_;
    // Guarded by mutex_:
    std::shared_ptr<Computation> running_;
    Node* nodes_ = nullptr;  // every value made, freed on destruction
    std::uint64_t generation_ = 0;
};

/// The asynchronous form of `OnDemand`: the computation returns a `Future<T>`, made at the
/// first demand; every demand until it fails hands out the same future, so concurrent
/// demanders share one computation.
///
/// - `compute` runs on the demanding thread with no lock held. Demanders that arrive while it
///   runs get the same future at once (a promise-backed future that follows the computed one).
/// - A computation that fails, is canceled or throws is not kept: the demanders that share it
///   see that outcome, and the next demand computes again.
/// - `reset()` makes the next demand compute again; futures already handed out carry on. A
///   demand right after a reset may call `compute` while an earlier call has not returned yet,
///   so `compute` must be safe to call from two threads at once when `reset()` is used.
/// - The future is shared: cancelling it cancels it (and the computation) for every demander.
///   A demander that only wants to stop listening should take `value().uncancelable()`.
///
/// Thread-safe. Neither copyable nor movable.
template <class T>
class AsyncOnDemand {
  public:
    using Compute = UniqueFunction<Future<T>()>;

    explicit AsyncOnDemand(Compute compute)
        : state_(std::make_shared<ThreadSafe<State>>()), compute_(std::move(compute)) {}
    AsyncOnDemand(const AsyncOnDemand&) = delete;
    AsyncOnDemand& operator=(const AsyncOnDemand&) = delete;

    /// The shared future, starting the computation if none is kept.
    [[nodiscard]] Future<T> value(Callsite callsite = Callsite::current()) {
        std::optional<Promise<T>> promise;
        std::uint64_t generation = 0;
        Future<T> shared = state_->syncWrite([&](State& s) {
            if (s.current) return *s.current;
            FutureAndPromise<T> pair = Future<T>::create(callsite);
            s.current = pair.future;
            generation = ++s.generation;
            promise.emplace(std::move(pair.promise));
            return std::move(pair.future);
        });
        if (!promise) return shared;
        // Whatever does not succeed is forgotten, so that the next demand tries again.
        shared.observeUnsuccessfulResult(
            [weak = std::weak_ptr<ThreadSafe<State>>(state_), generation](const auto&) {
                if (auto state = weak.lock()) {
                    std::optional<Future<T>> dropped = state->syncWrite([&](State& s) {
                        if (s.generation != generation) return std::optional<Future<T>>();
                        return std::exchange(s.current, std::nullopt);
                    });
                }
            });
        Future<T> computed = [&] {
            try {
                return compute_();
            } catch (...) {
                return Future<T>::failed(Error::current(), callsite);
            }
        }();
        promise->track(computed);
        return shared;
    }

    /// Whether a future is kept (running or succeeded).
    bool hasValue() const {
        return state_->syncRead([](const State& s) { return s.current.has_value(); });
    }

    /// Makes the next demand compute again.
    void reset() {
        std::optional<Future<T>> dropped = state_->syncWrite([](State& s) {
            ++s.generation;
            return std::exchange(s.current, std::nullopt);
        });
    }

  private:
    struct State {
        std::optional<Future<T>> current;
        std::uint64_t generation = 0;
    };

    std::shared_ptr<ThreadSafe<State>> state_;
    Compute compute_;
};

}  // namespace mirels
