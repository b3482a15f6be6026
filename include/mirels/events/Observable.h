#pragma once

// `Observable`: one value whose every change is published as an event stream (used like a property
// wrapper.

#include <memory>
#include <type_traits>
#include <utility>

#include "mirels/core/Callsite.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/events/EventStream.h"

namespace mirels {

/// One value whose every change is published as an event stream (used like a property
/// wrapper: `wrappedValue` is the value, `projectedValue` its stream of changes).
///
/// Every write sends the new value, even a write of an equal value. Observing the projected
/// stream first hands the handler the current value, on the observing thread, and then
/// subscribes it; a write racing with a new observation can therefore deliver the same value
/// twice to the newcomer. A reference type, made with `create`.
template <class Value>
class Observable final : public std::enable_shared_from_this<Observable<Value>> {
    struct Key {
        explicit Key() = default;
    };

  public:
    using Sink = typename EventStream<Value>::Sink;

    [[nodiscard]] static std::shared_ptr<Observable> create(Value initialValue) {
        return std::make_shared<Observable>(Key{}, std::move(initialValue));
    }

    Observable(Key, Value initialValue) : sink_(Sink::create()), value_(std::move(initialValue)) {}
    Observable(const Observable&) = delete;
    Observable& operator=(const Observable&) = delete;

    /// A copy of the current value, read under the value's lock.
    Value wrappedValue() const { return value_.peek(Callsite::library("wrappedValue")); }

    /// Stores `newValue` under the lock, then, after the lock, sends it.
    void setWrappedValue(Value newValue) {
        value_.syncWrite([&](Value& value) { value = newValue; },
                         Callsite::library("syncSetValue(at:to:)"));
        sink_->send(newValue);
    }

    /// In-place change: `body` changes a copy of the current value, which is then written and
    /// sent as by `setWrappedValue`. Like a read followed by a write, it is not atomic against
    /// a concurrent write (and `body` never runs under the lock).
    template <class Body>
        requires std::is_invocable_v<Body&&, Value&>
    void modifyWrappedValue(Body&& body) {
        Value value = wrappedValue();
        std::forward<Body>(body)(value);
        setWrappedValue(std::move(value));
    }

    /// The stream of values: the current one at once on observing, then every write. It holds
    /// this observable while it lives.
    EventStream<Value> projectedValue() const {
        auto self = std::const_pointer_cast<Observable>(this->shared_from_this());
        return EventStream<Value>(
            [self = std::move(self)](EventHandler<Value> handler, Callsite callsite) {
                handler(self->wrappedValue());
                return self->sink_->observe(std::move(handler), callsite);
            });
    }

  private:
    std::shared_ptr<Sink> sink_;
    ThreadSafe<Value> value_;
};

}  // namespace mirels
