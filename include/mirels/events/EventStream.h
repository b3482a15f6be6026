#pragma once

// `EventStream`: the library's push channel, as a value that describes how to subscribe.
//
// Example:
//
//     auto titles = EventStream<std::string>::Sink::create();
//     std::shared_ptr<CancellationToken> token =
//         titles->map([](const std::string& t) { return t.size(); })
//             .observe([](std::size_t length) { std::printf("%zu\n", length); });
//     titles->send("Notes");  // prints 5; token->cancel() ends the observation

#include <sched.h>

#include <atomic>
#include <concepts>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

#include "mirels/collections/detail/CopyOnWrite.h"
#include "mirels/core/Callsite.h"
#include "mirels/core/CancellationToken.h"
#include "mirels/core/RecycledMemory.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/core/UniqueFunction.h"
#include "mirels/events/EventStreamOperators.h"
#include "mirels/events/SharedFunction.h"
#include "mirels/events/SubscriberCollection.h"

namespace mirels {

/// The library's push channel, as a value that describes how to subscribe.
///
/// Observing calls the stream's observe action with a handler and returns a `CancellationToken`
/// that ends the subscription (it must be cancelled exactly once). Nothing else is stored, so the
/// operators (`map`, `filter`, `merged`, `switchToLatest`, ...) make new streams without doing any
/// work until somebody observes; each observation then makes one fresh upstream subscription with
/// its own state.
///
/// Events are delivered on the sending thread; a consumer that needs a particular thread
/// re-dispatches through an `ExecutionLane`. `EventStream<void>` carries events without a value:
/// its handlers take no argument and its sink's `send()` takes none.
///
/// A stream is copyable (copies share the action) and safe to observe from any thread.
template <class E>
class EventStream : public EventStreamOperators<EventStream<E>, E> {
  public:
    using Event = E;
    using Handler = EventHandler<E>;
    using ObserveAction = UniqueFunction<std::shared_ptr<CancellationToken>(Handler, Callsite)>;

    class Sink;

    /// A stream whose observing runs `observeAction` with the handler and the call site.
    explicit EventStream(ObserveAction observeAction)
        : observeAction_(std::make_shared<ObserveAction>(std::move(observeAction))) {}

    /// Subscribes `handler`; the token ends the subscription.
    [[nodiscard]] std::shared_ptr<CancellationToken> observe(
        Handler handler, Callsite callsite = Callsite::current()) const {
        return (*observeAction_)(std::move(handler), callsite);
    }

    /// The stream itself (every stream-like type offers its stream).
    const EventStream& eventStream() const noexcept { return *this; }

    /// A stream that never sends; its tokens do nothing when cancelled.
    static EventStream empty() {
        return EventStream([](Handler, Callsite callsite) {
            return CancellationToken::create(nullptr, callsite);
        });
    }

    /// The events of all `streams`. Observing subscribes to each in the order given; the token
    /// cancels those subscriptions in the same order. With no streams it never sends.
    static EventStream merge(std::vector<EventStream> streams) {
        auto sources = std::make_shared<const std::vector<EventStream>>(std::move(streams));
        return EventStream([sources](Handler handler, Callsite callsite) {
            SharedEventHandler<E> shared(std::move(handler));
            std::vector<std::shared_ptr<CancellationToken>> tokens;
            tokens.reserve(sources->size());
            for (const EventStream& source : *sources) {
                tokens.push_back(source.observe(Handler(shared), callsite));
            }
            return CancellationToken::create(
                [tokens = std::move(tokens)] {
                    for (const auto& token : tokens) token->cancel();
                },
                callsite);
        });
    }

    /// The variadic form of `merge`.
    template <class... Streams>
        requires(std::convertible_to<const Streams&, EventStream> && ...)
    static EventStream merge(const Streams&... streams) {
        return merge(std::vector<EventStream>{EventStream(streams)...});
    }

  private:
    std::shared_ptr<ObserveAction> observeAction_;
};

/// The producer's side of a stream: a reference type that sends events to its subscribers.
///
/// Sending takes a snapshot of the subscribers under the sink's lock (one reference-count
/// increment of the copy-on-write collection), releases the lock, and calls every handler of the
/// snapshot in subscription order on the sending thread. So handlers never run under the lock
/// and may send, subscribe or cancel freely; a subscriber added during a send does not get that
/// event; one cancelled during a send still gets it if it was in the snapshot, and none sent by
/// a send that starts after its cancel returned. Sends from several threads may interleave;
/// each delivers to its own snapshot in order.
///
/// The sink lives while its producer or a stream made from it holds it; subscriptions do not
/// keep it. The storage box is part of the sink, and each subscription reaches it through a
/// plain pointer that the sink clears when it goes away (so cancelling needs neither a counted
/// reference nor a weak-reference promotion): dropping the producer and the streams destroys
/// the sink and releases every handler even while subscribed, and a late cancel does nothing.
template <class E>
class EventStream<E>::Sink final : public std::enable_shared_from_this<Sink>,
                                   public EventStreamOperators<Sink, E> {
    struct Key {
        explicit Key() = default;
    };

  public:
    using Event = E;
    using Handler = EventHandler<E>;

    [[nodiscard]] static std::shared_ptr<Sink> create() { return std::make_shared<Sink>(Key{}); }

    explicit Sink(Key) {}
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    ~Sink() {
        Subscribers remaining = storage_.syncUpdate(Subscribers(), Callsite::library("deinit"));
        // Cut every remaining subscription off the box before it goes; a cancel already on its
        // way finishes with the box first. Handlers are destroyed after the lock is released
        // (their captures may use the sink).
        for (const Listed& listed : remaining.all()) listed.subscription()->detach();
    }

    /// Delivers `event` to every current subscriber.
    void send(const detail::EventParameter<E>& event)
        requires(!std::is_void_v<E>)
    {
        Subscribers snapshot = storage_.peek(Callsite::library("send(_:)"));
        for (const Listed& listed : snapshot.all()) listed(event);
    }

    /// Delivers an event that carries nothing to every current subscriber.
    void send()
        requires std::is_void_v<E>
    {
        Subscribers snapshot = storage_.peek(Callsite::library("send()"));
        for (const Listed& listed : snapshot.all()) listed();
    }

    /// Whether at least one subscriber is registered.
    bool isObserved() const {
        return storage_.syncRead(
            [](const Subscribers& subscribers) { return !subscribers.isEmpty(); });
    }

    /// Subscribes `handler` to this sink directly (what observing its stream does).
    ///
    /// One allocation (a recycled block) holds the token and the handler together; the subscriber
    /// table lists the subscription by a counted pointer, so a snapshot taken by a send keeps the
    /// handler for as long as it needs it, and the handler is released as soon as no table lists
    /// it.
    [[nodiscard]] std::shared_ptr<CancellationToken> observe(
        Handler handler, Callsite callsite = Callsite::current()) {
        auto box = makeSharedRecycled<CancellationTokenWithPayload<Subscription>>(
            callsite, &storage_, std::move(handler));
        Subscription& subscription = box->payload;
        subscription.keepWhileListed = box;
        storage_.syncWrite(
            [&](Subscribers& subscribers) { subscribers.insert(Listed(&subscription)); },
            Callsite::library("observe(_:)"));
        CancellationToken* token = &box->token;
        return std::shared_ptr<CancellationToken>(std::move(box), token);
    }

    /// The stream of this sink's events. It holds the sink strongly while it lives.
    EventStream<E> eventStream() const {
        auto self = std::const_pointer_cast<Sink>(this->shared_from_this());
        return EventStream<E>([self = std::move(self)](Handler handler, Callsite callsite) {
            return self->observe(std::move(handler), callsite);
        });
    }

  private:
    class Subscription;

    /// What the subscriber table holds: a counted reference to a subscription, which calls its
    /// handler. Copies of the table (a send's snapshot) count too.
    class Listed {
      public:
        Listed() noexcept = default;
        explicit Listed(Subscription* subscription) noexcept : subscription_(subscription) {}
        Listed(const Listed& other) noexcept : subscription_(other.subscription_) {
            if (subscription_ != nullptr) {
                subscription_->listings.fetch_add(1, std::memory_order_relaxed);
            }
        }
        Listed(Listed&& other) noexcept
            : subscription_(std::exchange(other.subscription_, nullptr)) {}
        Listed& operator=(Listed other) noexcept {
            std::swap(subscription_, other.subscription_);
            return *this;
        }
        ~Listed() {
            if (subscription_ != nullptr) subscription_->unlist();
        }

        template <class... Args>
        void operator()(Args&&... args) const {
            subscription_->handler()(std::forward<Args>(args)...);
        }

        Subscription* subscription() const noexcept { return subscription_; }

      private:
        Subscription* subscription_ = nullptr;
    };

    /// The subscriber table: listings in subscription order, in a copy-on-write array, so a
    /// snapshot is one reference-count increment and an edit copies the array only while a
    /// send still holds an older snapshot. Appending is amortised O(1); removing is O(n), a scan
    /// of pointers and a shift, as in any ordered array.
    class Subscribers {
      public:
        void insert(Listed listed) { rows_.mutableValue().push_back(std::move(listed)); }

        /// Removes the listing of `subscription`, or returns absent when it is not listed.
        std::optional<Listed> remove(const Subscription* subscription) {
            const std::vector<Listed>* rows = rows_.get();
            if (rows == nullptr) return std::nullopt;
            // Search the array as it is; copy it (when shared) only to remove what is there.
            std::size_t position = rows->size();
            while (position > 0 && (*rows)[position - 1].subscription() != subscription) {
                --position;
            }
            if (position == 0) return std::nullopt;
            std::vector<Listed>& owned = rows_.mutableValue();
            auto at = owned.begin() + static_cast<std::ptrdiff_t>(position - 1);
            std::optional<Listed> removed(std::move(*at));
            owned.erase(at);
            return removed;
        }

        /// The listings in subscription order.
        std::span<const Listed> all() const noexcept {
            const std::vector<Listed>* rows = rows_.get();
            return rows == nullptr ? std::span<const Listed>() : std::span<const Listed>(*rows);
        }

        bool isEmpty() const noexcept { return all().empty(); }

      private:
        detail::CopyOnWrite<std::vector<Listed>> rows_;
    };

    using Storage = ThreadSafe<Subscribers>;

    /// One subscription, made together with its token: the handler, the identifier it is listed
    /// under, and the sink's storage box to remove it from when the token is cancelled. The
    /// handler lives while some table lists it; the object lives while its token or a listing
    /// does.
    ///
    /// The box is reached through `storage_`, which holds the box while the sink lives, the
    /// cancelling mark while a cancel works on the box, and null once the sink has cut the
    /// subscription off or a cancel is done with it. The sink waits for a marked cancel to
    /// finish before it lets the box go, so a cancel never touches a destroyed box.
    class Subscription {
      public:
        Subscription(Storage* storage, Handler handler) : storage_(storage) {
            ::new (static_cast<void*>(handler_)) Handler(std::move(handler));
        }
        Subscription(const Subscription&) = delete;
        Subscription& operator=(const Subscription&) = delete;
        ~Subscription() = default;

        Handler& handler() noexcept { return *std::launder(reinterpret_cast<Handler*>(handler_)); }

        /// The token's cancel: removes the listing; the handler goes (outside the lock) when the
        /// last snapshot that lists it does. Nothing happens once the sink has gone.
        void didCancel() {
            void* const seen = storage_.exchange(cancellingMark(), std::memory_order_acquire);
            // Another cancel of this token is at work (a misuse the token reports): it finishes.
            if (seen == cancellingMark()) return;
            if (seen != nullptr) {
                std::optional<Listed> removed = static_cast<Storage*>(seen)->syncWrite(
                    [&](Subscribers& subscribers) { return subscribers.remove(this); },
                    Callsite::library("cancel()"));
                // The box is not touched after this store: the sink may destroy it at once.
                storage_.store(nullptr, std::memory_order_release);
                return;  // `removed` releases the listing here, outside the lock
            }
            storage_.store(nullptr, std::memory_order_release);
        }

        /// The sink's farewell (from its destructor, not under its lock): clears the pointer to
        /// the box, first waiting out a cancel that is working on it.
        void detach() noexcept {
            void* seen = storage_.load(std::memory_order_acquire);
            while (seen != nullptr) {
                if (seen == cancellingMark()) {
                    // A cancel holds the box for a moment: a lock, a removal, an unlock.
                    sched_yield();
                    seen = storage_.load(std::memory_order_acquire);
                } else if (storage_.compare_exchange_weak(seen, nullptr, std::memory_order_acq_rel,
                                                          std::memory_order_acquire)) {
                    return;
                }
            }
        }

        /// Drops one listing; the last one destroys the handler and lets go of the object.
        void unlist() noexcept {
            // A listing that sees itself alone may skip the atomic decrement: no other exists
            // that could be copied meanwhile.
            if (listings.load(std::memory_order_acquire) != 1 &&
                listings.fetch_sub(1, std::memory_order_acq_rel) != 1) {
                return;
            }
            handler().~Handler();
            // May destroy this object: nothing is touched afterwards.
            std::shared_ptr<void> last = std::move(keepWhileListed);
        }

        const Identifier identifier;
        std::atomic<std::size_t> listings{1};
        /// The subscription's own allocation, held on behalf of the tables that list it.
        std::shared_ptr<void> keepWhileListed;

      private:
        /// A value of `storage_` that is never a box: a cancel is working on the box.
        static void* cancellingMark() noexcept {
            static char mark;
            return &mark;
        }

        std::atomic<void*> storage_;
        alignas(Handler) std::byte handler_[sizeof(Handler)];
    };

    Storage storage_;
};

}  // namespace mirels
