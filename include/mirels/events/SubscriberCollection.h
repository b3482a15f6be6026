#pragma once

// `SubscriberCollection`: subscribers in subscription order, each under an `Identifier` from the
// process-wide counter.

#include <concepts>
#include <functional>
#include <memory>
#include <optional>
#include <ranges>
#include <type_traits>
#include <utility>

#include "mirels/collections/OrderedDictionary.h"
#include "mirels/core/Callsite.h"
#include "mirels/core/CancellationToken.h"
#include "mirels/core/Identifier.h"
#include "mirels/core/UniqueFunction.h"

namespace mirels {

/// Subscribers in subscription order, each under an `Identifier` from the process-wide counter.
///
/// A value type over a copy-on-write `OrderedDictionary`: a copy is one reference-count
/// increment, which is what lets an owner take a snapshot under its lock and notify from the
/// snapshot after releasing it. Elements are therefore copyable; keep move-only callbacks in a
/// `SharedFunction`. The collection has no lock of its own: the owner edits it under its lock
/// through the `modify` callback given to `add`.
template <class Element>
class SubscriberCollection {
  public:
    using Subscribers = OrderedDictionary<Identifier, Element>;
    /// An edit of the collection, which `modify` must run (under the owner's lock).
    using Edit = UniqueFunction<void(SubscriberCollection&)>;

    SubscriberCollection() noexcept = default;

    /// Adds `element` under a new identifier by running `modify` with an edit that appends it,
    /// and returns a token whose cancel runs `modify` again with an edit that removes it (doing
    /// nothing when it is gone already). `modify` is kept by the token: it must be callable from
    /// any thread, and should hold its owner weakly so that subscriptions do not keep the owner
    /// alive. A removed element is destroyed after `modify` returns, outside the owner's lock.
    template <class Modify>
        requires std::is_invocable_v<Modify&, Edit&> && std::is_move_constructible_v<Modify>
    [[nodiscard]] static std::shared_ptr<CancellationToken> add(
        Element element, Modify modify, Callsite callsite = Callsite::current()) {
        Identifier identifier;
        {
            Edit insert([&](SubscriberCollection& collection) {
                collection.insert(identifier, std::move(element));
            });
            std::invoke(modify, insert);
        }
        return CancellationToken::create(
            [modify = std::move(modify), identifier]() mutable {
                std::optional<Element> removed;
                Edit remove([&](SubscriberCollection& collection) {
                    removed = collection.remove(identifier);
                });
                std::invoke(modify, remove);
            },
            callsite);
    }

    /// As above, with the collection reached as the member `at` of the object `of`, without a
    /// lock (for objects confined to one thread). The token holds the object weakly.
    template <class Object>
    [[nodiscard]] static std::shared_ptr<CancellationToken> add(
        Element element, SubscriberCollection Object::*at, const std::shared_ptr<Object>& of,
        Callsite callsite = Callsite::current()) {
        auto modify = [object = std::weak_ptr<Object>(of), at](Edit& edit) {
            if (auto strong = object.lock()) edit((*strong).*at);
        };
        return add(std::move(element), std::move(modify), callsite);
    }

    /// Appends `element` under `identifier` (the edit that `add` makes).
    void insert(Identifier identifier, Element element) {
        subscribers_.updateValue(std::move(element), identifier);
    }

    /// Removes the element under `identifier` and returns it, or absent when it is gone (the
    /// edit that a token made by `add` makes).
    std::optional<Element> remove(Identifier identifier) {
        return subscribers_.removeValue(identifier);
    }

    /// The elements in order (a view; invalidated by any change of this collection).
    auto all() const { return subscribers_.values(); }
    /// The identifiers and elements in order.
    const Subscribers& subscribers() const noexcept { return subscribers_; }

    std::size_t count() const noexcept { return subscribers_.count(); }
    bool isEmpty() const noexcept { return subscribers_.isEmpty(); }

    void removeAll() { subscribers_.removeAll(); }

    /// Reorders the subscribers by `comesBefore` on their elements. The sort is stable:
    /// elements that compare equal keep their subscription order.
    template <class Compare>
        requires std::is_invocable_r_v<bool, Compare&, const Element&, const Element&>
    void sort(Compare comesBefore) {
        subscribers_.sortEntries([&](const auto& a, const auto& b) {
            return std::invoke(comesBefore, a.second, b.second);
        });
    }

    /// Calls `closure` with each element, in order.
    template <class Closure>
        requires std::is_invocable_v<Closure&, const Element&>
    void notifyAll(Closure&& closure) const {
        for (const auto& entry : subscribers_) std::invoke(closure, entry.second);
    }

    /// Calls each element, in order (elements that are callbacks taking nothing).
    void notify() const
        requires std::is_invocable_v<const Element&>
    {
        for (const auto& entry : subscribers_) std::invoke(entry.second);
    }

  private:
    Subscribers subscribers_;
};

}  // namespace mirels
