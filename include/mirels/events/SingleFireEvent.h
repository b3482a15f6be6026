#pragma once

// `SingleFireEvent`: a latch.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "mirels/Export.h"
#include "mirels/core/CancellationToken.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/core/UniqueFunction.h"
#include "mirels/futures/PromiseFuture.h"

namespace mirels {

class InvalidationHandle;

/// A latch: it waits, then either fires or is canceled, once and for good.
///
/// Observers registered while it waits are called, in registration order, on the thread that
/// fires it; an observer registered after it fired (or was canceled) is called at once on the
/// registering thread. The event also offers itself as a `Future<void>` that succeeds when it
/// fires and is canceled when it is canceled.
///
/// One lock (the state box) settles every race: of a `fire()` and a `cancel()` on different
/// threads exactly one wins, and each observer runs once or never. The lock is released before
/// any observer, token or future is touched. Firing an event whose `future()` was never asked
/// for takes that one lock and allocates nothing: the future's promise is made on first request.
///
/// A reference type, made with `create()`.
class MIRELS_EXPORT SingleFireEvent final : public std::enable_shared_from_this<SingleFireEvent> {
    struct Key {
        explicit Key() = default;
    };

  public:
    using Observer = UniqueFunction<void()>;

    [[nodiscard]] static std::shared_ptr<SingleFireEvent> create();

    explicit SingleFireEvent(Key);
    SingleFireEvent(const SingleFireEvent&) = delete;
    SingleFireEvent& operator=(const SingleFireEvent&) = delete;

    /// Registers `observer` for the firing and returns the token that unregisters it. When the
    /// event has fired or been canceled already, calls `observer` at once (a late observer of a
    /// canceled event too) and returns null.
    [[nodiscard]] std::shared_ptr<CancellationToken> observe(Observer observer);

    /// As `observe`, for an observer that stays registered until the event fires or is
    /// canceled: there is no token to hand back or to cancel.
    void observeUntilFiredOrCanceled(Observer observer);

    /// Keeps `token` until the event fires or is canceled, and cancels it then (after the
    /// observers and the future); cancels it at once when the event has finished already.
    void keepUntilFiredOrCanceled(std::shared_ptr<CancellationToken> token);

    /// Fires the event: the observers run in registration order on this thread, then the future
    /// succeeds, then the kept tokens are canceled. Does nothing once fired or canceled.
    void fire();

    /// Cancels the event: no observer runs; the kept tokens are canceled, then the future.
    /// Does nothing once fired or canceled.
    void cancel();

    /// Whether the event has fired (a canceled event has not).
    bool hasFired() const noexcept {
        return phase_.load(std::memory_order_acquire) == Phase::fired;
    }

    /// Whether the event has fired or been canceled.
    bool hasFinished() const noexcept {
        return phase_.load(std::memory_order_acquire) != Phase::waiting;
    }

    /// A future of nothing: succeeds when the event fires, canceled (from the library's
    /// "cancel()") when it is canceled. The same future for every call made before the event
    /// finishes; once it has finished, a call may give an already finished one.
    Future<void> future() const;

  private:
    friend class InvalidationHandle;

    enum class Phase : unsigned char { waiting, fired, canceled };

    /// One registered observer. Observers without a token share the number 0.
    struct Registration {
        std::uint64_t number;
        Observer observer;
    };
    /// The observers in registration order. A plain vector rather than a keyed collection:
    /// an event has few observers, is fired once, and must fire without allocating; removing
    /// one by its number is a short scan.
    using Observers = std::vector<Registration>;

    struct State {
        Phase phase = Phase::waiting;
        Observers observers;
        /// The last number given to an observer with a token.
        std::uint64_t lastNumber = 0;
        std::vector<std::shared_ptr<CancellationToken>> keptTokens;
        /// Made on the first request of `future()` while waiting, and finished with the event.
        std::shared_ptr<PromiseFuture<void>> promise;
        /// What `future()` hands out: the promise's future, or a finished one when the first
        /// request came after the event finished.
        std::shared_ptr<AbstractFuture<void>> future;
    };

    /// What finishing takes out of the state, to act on after the lock is released.
    struct Finishing {
        Observers observers;
        std::vector<std::shared_ptr<CancellationToken>> keptTokens;
        std::shared_ptr<PromiseFuture<void>> promise;

        /// Calls the observers in registration order.
        void notify() {
            for (Registration& registration : observers) registration.observer();
        }
        /// Succeeds the future, when one was made.
        void succeedFuture() const;
        /// Cancels the future, when one was made.
        void cancelFuture() const;
        /// Cancels the kept tokens in order.
        void cancelKeptTokens() const;
    };

    /// Adds `observer` under a new number (or 0 when `numbered` is false) and returns the
    /// number; absent, with `observer` untouched, when the event has finished.
    std::optional<std::uint64_t> add(Observer& observer, bool numbered);
    /// Removes the observer numbered `number`, if still there.
    void remove(std::uint64_t number);

    /// Moves the event to `to` under the lock and returns what the caller must act on; absent
    /// when the event had finished already.
    std::optional<Finishing> finish(Phase to);

    mutable ThreadSafe<State> state_;
    /// The phase, mirrored outside the lock for lock-free reads and for cancels of observer
    /// tokens after the event finished (those have nothing left to remove).
    std::atomic<Phase> phase_{Phase::waiting};
};

}  // namespace mirels
