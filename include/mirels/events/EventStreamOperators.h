#pragma once

#include "mirels/Export.h"

// The operators every stream-like type offers (`EventStream` and its `Sink`), written once as a
// mixin over the type's `eventStream()`. Each makes a new stream that holds what it needs (the
// upstream stream and the caller's function, shared) and does its work per observation: every
// observation makes one fresh upstream subscription with its own state, and the returned token
// cancels exactly that.

#include <concepts>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "mirels/core/Assertions.h"
#include "mirels/core/Callsite.h"
#include "mirels/core/CancellationToken.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/core/UniqueFunction.h"
#include "mirels/events/SharedFunction.h"

namespace mirels {

template <class E>
class EventStream;

namespace detail {
/// The signature of a handler of `E` events: one argument, or none for `void`.
template <class E>
struct EventSignature {
    using type = void(const E&);
};
template <>
struct EventSignature<void> {
    using type = void();
};

/// The parameter type of `send` (a placeholder for `void` streams, whose `send` takes nothing).
struct NoEventParameter {};
template <class E>
using EventParameter = std::conditional_t<std::is_void_v<E>, NoEventParameter, E>;

/// What calling `F` with an `E` event returns.
template <class F, class E>
struct EventInvokeResult {
    using type = std::invoke_result_t<F&, const E&>;
};
template <class F>
struct EventInvokeResult<F, void> {
    using type = std::invoke_result_t<F&>;
};

template <class F, class E>
struct IsEventInvocable : std::is_invocable<F&, const E&> {};
template <class F>
struct IsEventInvocable<F, void> : std::is_invocable<F&> {};

/// `F` can be called with an `E` event (with nothing for `void`).
template <class F, class E>
concept EventInvocable = IsEventInvocable<F, E>::value;

template <class T>
struct IsEventStream : std::false_type {};
template <class U>
struct IsEventStream<EventStream<U>> : std::true_type {};
}  // namespace detail

/// The stored handler of a stream of `E` events.
template <class E>
using EventHandler = UniqueFunction<typename detail::EventSignature<E>::type>;

/// A handler of `E` events shared by several holders (a subscriber collection and its
/// snapshots, the several subscriptions of one `switchToLatest` observer).
template <class E>
using SharedEventHandler = SharedFunction<typename detail::EventSignature<E>::type>;

/// Anything that offers an `EventStream` of its `Event`s: streams themselves and sinks. The
/// operators are offered on all of them.
template <class S>
concept EventStreamProtocol = requires(const S& source) {
    typename S::Event;
    { source.eventStream() } -> std::convertible_to<EventStream<typename S::Event>>;
};

/// The per-observation state of `filterDuplicateEvents()`: the last event seen, absent at
/// first.
template <class Event>
struct FilterDuplicateEventsState {
    std::optional<Event> lastEvent;
};

/// The per-observation state of `switchToLatest()`: the subscription to the current inner
/// stream, and whether the observation was cancelled.
struct SwitchToLatestState {
    std::shared_ptr<CancellationToken> token;
    bool isCancelled = false;
};

namespace detail {
/// A new inner subscription arrived: keep it and cancel the previous one, or cancel it at once
/// when the observation is already cancelled. Tokens are cancelled after the lock is released.
MIRELS_EXPORT void switchToLatestAdopt(ThreadSafe<SwitchToLatestState>& state,
                                       std::shared_ptr<CancellationToken> token);
/// The observation ends: mark it cancelled and cancel the current inner subscription.
MIRELS_EXPORT void switchToLatestCancel(ThreadSafe<SwitchToLatestState>& state);
}  // namespace detail

template <class Derived, class E>
class EventStreamOperators {
  public:
    /// Each event transformed by `transform`.
    template <class Transform>
        requires detail::EventInvocable<Transform, E>
    auto map(Transform transform) const {
        using Result = std::remove_cvref_t<typename detail::EventInvokeResult<Transform, E>::type>;
        auto shared = std::make_shared<Transform>(std::move(transform));
        return EventStream<Result>(
            [upstream = upstream(), shared](EventHandler<Result> handler, Callsite callsite) {
                return upstream.observe(
                    [shared, handler = std::move(handler)](const auto&... event) mutable {
                        if constexpr (std::is_void_v<Result>) {
                            (*shared)(event...);
                            handler();
                        } else {
                            handler((*shared)(event...));
                        }
                    },
                    callsite);
            });
    }

    /// Each event transformed by `transform`, which gives an optional; absent results are
    /// dropped.
    template <class Transform>
        requires detail::EventInvocable<Transform, E> &&
                 detail::IsOptional<std::remove_cvref_t<
                     typename detail::EventInvokeResult<Transform, E>::type>>::value
    auto compactMap(Transform transform) const {
        using Result = typename std::remove_cvref_t<
            typename detail::EventInvokeResult<Transform, E>::type>::value_type;
        auto shared = std::make_shared<Transform>(std::move(transform));
        return EventStream<Result>(
            [upstream = upstream(), shared](EventHandler<Result> handler, Callsite callsite) {
                return upstream.observe(
                    [shared, handler = std::move(handler)](const auto&... event) mutable {
                        if (auto result = (*shared)(event...)) handler(*result);
                    },
                    callsite);
            });
    }

    /// Only the events for which `isIncluded` is true.
    template <class Predicate>
        requires detail::EventInvocable<Predicate, E>
    EventStream<E> filter(Predicate isIncluded) const {
        auto shared = std::make_shared<Predicate>(std::move(isIncluded));
        return EventStream<E>(
            [upstream = upstream(), shared](EventHandler<E> handler, Callsite callsite) {
                return upstream.observe(
                    [shared, handler = std::move(handler)](const auto&... event) mutable {
                        if ((*shared)(event...)) handler(event...);
                    },
                    callsite);
            });
    }

    /// For optional events: absent events replaced by `replacement`.
    template <class Replacement>
        requires detail::IsOptional<E>::value &&
                 std::convertible_to<Replacement, typename E::value_type>
    auto replacingNil(Replacement replacement) const {
        using Value = typename E::value_type;
        auto shared = std::make_shared<const Value>(std::move(replacement));
        return EventStream<Value>(
            [upstream = upstream(), shared](EventHandler<Value> handler, Callsite callsite) {
                return upstream.observe(
                    [shared, handler = std::move(handler)](const E& event) mutable {
                        handler(event ? *event : *shared);
                    },
                    callsite);
            });
    }

    /// The events of this stream and of `other`.
    template <EventStreamProtocol Other>
        requires std::same_as<typename Other::Event, E>
    EventStream<E> merged(const Other& other) const {
        return EventStream<E>::merge(
            std::vector<EventStream<E>>{upstream(), EventStream<E>(other.eventStream())});
    }

    /// For streams of streams: the events of the most recent inner stream only. Each inner
    /// stream that arrives is subscribed, and then the subscription to the previous one is
    /// cancelled; cancelling the returned token cancels the current inner subscription and then
    /// the outer one.
    auto switchToLatest() const
        requires EventStreamProtocol<E>
    {
        using Inner = typename E::Event;
        return EventStream<Inner>([upstream = upstream()](EventHandler<Inner> handler,
                                                          Callsite callsite) {
            SharedEventHandler<Inner> shared(std::move(handler));
            auto state = std::make_shared<ThreadSafe<SwitchToLatestState>>();
            auto outer = upstream.observe(
                [state, shared, callsite](const E& inner) {
                    detail::switchToLatestAdopt(
                        *state, inner.eventStream().observe(EventHandler<Inner>(shared), callsite));
                },
                callsite);
            return CancellationToken::create(
                [state, outer = std::move(outer)] {
                    detail::switchToLatestCancel(*state);
                    outer->cancel();
                },
                callsite);
        });
    }

    /// Drops an event equal to the one before it. Each observation keeps its own last event:
    /// the first event always passes, a repeat of the last never does.
    EventStream<E> filterDuplicateEvents() const
        requires std::equality_comparable<E>
    {
        return EventStream<E>([upstream = upstream()](EventHandler<E> handler, Callsite callsite) {
            auto state = std::make_shared<ThreadSafe<FilterDuplicateEventsState<E>>>();
            return upstream.observe(
                [state, handler = std::move(handler)](const E& event) mutable {
                    // Compare and remember in one step, so that concurrent sends cannot both
                    // pass the same value; forward after the lock is released.
                    bool isNew = state->syncWrite([&](FilterDuplicateEventsState<E>& s) {
                        bool differs = !s.lastEvent || !(*s.lastEvent == event);
                        s.lastEvent = event;
                        return differs;
                    });
                    if (isNew) handler(event);
                },
                callsite);
        });
    }

    /// Runs `action` at each new observation, before subscribing upstream. The action gets a
    /// function that delivers events to the new observer's handler alone, so that it can replay
    /// state to a newcomer.
    template <class Action>
        requires std::is_invocable_v<Action&, const SharedEventHandler<E>&>
    EventStream<E> onObserve(Action action) const {
        auto shared = std::make_shared<Action>(std::move(action));
        return EventStream<E>(
            [upstream = upstream(), shared](EventHandler<E> handler, Callsite callsite) {
                SharedEventHandler<E> deliver(std::move(handler));
                (*shared)(deliver);
                return upstream.observe(EventHandler<E>(deliver), callsite);
            });
    }

  protected:
    EventStreamOperators() = default;
    ~EventStreamOperators() = default;

  private:
    EventStream<E> upstream() const {
        return EventStream<E>(static_cast<const Derived&>(*this).eventStream());
    }
};

}  // namespace mirels
