#pragma once

// `QueryManager`: the meeting point of the query system. Also `FutureQuery`, `performMerge()`,
// `MergeOperationDefaults`, `uncachedValue()`, `value()`, `debugDescription()` and more.

#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <typeinfo>
#include <unordered_map>
#include <utility>
#include <vector>

#include "mirels/Export.h"
#include "mirels/core/AnyEquatable.h"
#include "mirels/core/AutoCancelling.h"
#include "mirels/core/Callsite.h"
#include "mirels/core/CancellationToken.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/core/TypeName.h"
#include "mirels/errors/Error.h"
#include "mirels/events/EventStream.h"
#include "mirels/execution/ExecutionLane.h"
#include "mirels/futures/Future.h"
#include "mirels/futures/PromiseFuture.h"
#include "mirels/queries/Query.h"

namespace mirels {

/// A query whose merged value is a `Future`, the kind whose pending answers the manager shares.
template <class Q>
concept FutureQuery = HashableQuery<Q> && detail::IsFuture<QueryOutput<Q>>::value;

/// The meeting point of the query system: holds the resolvers that answer queries, may defer to a
/// delegate manager (so that a child scope sees its parent's answers first), gathers all answers
/// or the first one for a query, and shares one pending future per equal asynchronous query.
///
/// State and locks. Two locks, never held together: the state box (the resolver list, in
/// priority order, and the delegate) and the pending-futures box (the table of futures still
/// running, keyed by the query value, and the two test hooks). No lock is held while resolvers,
/// merge strategies, announcements or the remove hook run, so a resolver may ask the manager
/// other queries from inside its provider. The add hook alone runs inside the pending-futures
/// lock: it must not ask this manager for a cached value.
///
/// Reading `resolvers()` or `delegateQueryManager()` takes the state lock once. Every query
/// reads both in one step and then works on that snapshot: a change of resolvers or delegate
/// takes effect for the next request, and futures already pending are not recomputed.
///
/// Cached values. `cachedValue(for:)` keeps a future only while it runs: equal queries asked
/// meanwhile share it (the merge strategy runs once per pending period), and the entry is
/// dropped when the future finishes, however it finishes, so a later request computes afresh.
/// Canceling the shared future cancels the computation for every asker.
///
/// Announcements. `resolversChanged()` and `delegateChanged()` send each new value on the
/// writing thread, after the state lock is released; observing either first hands the observer
/// the current value. `objectWillChange()` tells observers that answers may change: it sends
/// once for each new resolver list, each new delegate, and each announcement of a current
/// resolver's `queryResolverPublisher()`. Those events are delivered on `executionQueue()`, the
/// manager's private serial queue, which also does the bookkeeping of the resolvers'
/// subscriptions; so `objectWillChange` observers run one at a time, in order, never on the
/// thread that changed something (which may hold locks of its own), and shortly after the change
/// rather than before it.
///
/// A reference type made by `create`; every operation may be called from any thread. A manager
/// must not be (directly or through delegates) its own delegate.
class MIRELS_EXPORT QueryManager final : public std::enable_shared_from_this<QueryManager> {
    struct Key {
        explicit Key() = default;
    };

  public:
    /// The resolvers and the delegate, as one snapshot.
    struct State {
        std::shared_ptr<const QueryResolverList> resolvers;
        std::shared_ptr<QueryManager> delegateQueryManager;
    };

    using Hook = std::function<void()>;

    [[nodiscard]] static std::shared_ptr<QueryManager> create(
        std::shared_ptr<QueryManager> delegateQueryManager = nullptr,
        QueryResolverList resolvers = {});

    QueryManager(Key, std::shared_ptr<QueryManager> delegateQueryManager,
                 QueryResolverList resolvers);
    ~QueryManager();
    QueryManager(const QueryManager&) = delete;
    QueryManager& operator=(const QueryManager&) = delete;

    /// The resolvers, in priority order.
    QueryResolverList resolvers() const;
    /// Replaces the resolvers under the lock, then sends the new list to `resolversChanged()`.
    void setResolvers(QueryResolverList resolvers);

    /// The delegate, or null.
    std::shared_ptr<QueryManager> delegateQueryManager() const;
    /// Replaces the delegate under the lock, then sends it to `delegateChanged()`.
    void setDelegateQueryManager(std::shared_ptr<QueryManager> delegateQueryManager);

    /// Every answer to `query`: the delegate's `allValues` first (when a delegate is set), then
    /// each resolver's answer in order; absent answers are skipped.
    template <Query Q>
    std::vector<QueryPrimitive<Q>> allValues(const Q& query) {
        State state = readState();
        std::vector<QueryPrimitive<Q>> values;
        if (state.delegateQueryManager) values = state.delegateQueryManager->allValues(query);
        for (const std::shared_ptr<QueryResolver>& resolver : *state.resolvers) {
            std::optional<QueryPrimitive<Q>> answer =
                mirels::resolutions(resolver).value(query, *this);
            if (answer) values.push_back(std::move(*answer));
        }
        return values;
    }

    /// The delegate's first answer when it has one; otherwise the first answer among the
    /// resolvers in order, asking no further resolver once one has answered; absent if none
    /// answers.
    template <Query Q>
    std::optional<QueryPrimitive<Q>> firstValue(const Q& query) {
        State state = readState();
        if (state.delegateQueryManager) {
            std::optional<QueryPrimitive<Q>> answer = state.delegateQueryManager->firstValue(query);
            if (answer) return answer;
        }
        for (const std::shared_ptr<QueryResolver>& resolver : *state.resolvers) {
            std::optional<QueryPrimitive<Q>> answer =
                mirels::resolutions(resolver).value(query, *this);
            if (answer) return answer;
        }
        return std::nullopt;
    }

    /// The merged future of `query`, shared with every equal query asked while it runs.
    ///
    /// Under the pending-futures lock: an entry for an equal query is returned as it is.
    /// Otherwise a promise-backed future is made and stored, the add hook is called, and a finish
    /// observer is registered on it. After the lock, and only for a new entry, the query's
    /// uncached value (its merge strategy with this manager) is computed and the promise follows
    /// it (`Promise::track`); an exception thrown by the computation fails the shared future. When
    /// the stored future finishes, its entry is removed under the lock, then the remove hook is
    /// called.
    template <FutureQuery Q>
    QueryOutput<Q> cachedValue(const Q& query);

    /// A stream of resolver lists: the current one on observing, then each new one.
    EventStream<QueryResolverList> resolversChanged() const;
    /// A stream of delegates: the current one (maybe null) on observing, then each new one.
    EventStream<std::shared_ptr<QueryManager>> delegateChanged() const;
    /// Sends when answers may have changed, on `executionQueue()`.
    EventStream<void> objectWillChange() const;
    /// The manager's private serial queue (see above).
    const ExecutionLane& executionQueue() const noexcept { return executionQueue_; }

    /// Test hook: called, inside the pending-futures lock, when a pending future is added.
    void setTesting_didAddCachedFutureHandler(Hook hook);
    /// Test hook: called, after the lock, when a finished future has been removed.
    void setTesting_didRemoveCompletedCachedFutureHandler(Hook hook);

    /// How many futures are pending now.
    std::size_t pendingCachedFutureCount() const;

  private:
    struct PendingKeyHash {
        using is_transparent = void;
        std::size_t operator()(const AnyHashable& key) const { return key.hashValue(); }
        template <AnyHashableValue T>
        std::size_t operator()(const T& query) const {
            return AnyHashable::hashOf(query);
        }
    };
    struct PendingKeyEqual {
        using is_transparent = void;
        bool operator()(const AnyHashable& a, const AnyHashable& b) const { return a == b; }
        template <AnyHashableValue T>
        bool operator()(const AnyHashable& a, const T& b) const {
            return a.isEqual(b);
        }
        template <AnyHashableValue T>
        bool operator()(const T& a, const AnyHashable& b) const {
            return b.isEqual(a);
        }
    };
    using PendingTable =
        std::unordered_map<AnyHashable, std::shared_ptr<void>, PendingKeyHash, PendingKeyEqual>;

    struct PendingFutures {
        PendingTable futuresByQuery;
        std::shared_ptr<const Hook> didAddCachedFuture;
        std::shared_ptr<const Hook> didRemoveCompletedCachedFuture;
    };

    State readState() const;
    void subscribeToOwnAnnouncements();
    void rewireResolverAnnouncements();
    void announceObjectWillChange();
    void removeCompletedCachedFuture(const AnyHashable& key, const void* future);

    ExecutionLane executionQueue_;
    ThreadSafe<PendingFutures> pendingFuturesByQuery_;
    AutoCancelling resolversChangedCancellation_;
    ThreadSafe<State> state_;
    std::shared_ptr<EventStream<QueryResolverList>::Sink> resolversChanged_;
    std::shared_ptr<EventStream<std::shared_ptr<QueryManager>>::Sink> delegateChanged_;
    std::shared_ptr<EventStream<void>::Sink> objectWillChange_;
    // The subscriptions to the current resolvers' announcements. Touched only on
    // `executionQueue_` (and by `create` and the destructor, when nobody else can).
    std::vector<std::shared_ptr<CancellationToken>> resolverAnnouncements_;
};

/// A merge strategy's value for `query` asked through `manager` (its `perform(for:in:)`): the
/// strategy's own `perform(query, manager)` when it has one (as `FirstValueMerge` does);
/// otherwise `perform` of the manager's `allValues(query)`.
template <MergeOperation M, Query Q>
typename M::Output performMerge(const Q& query, QueryManager& manager) {
    if constexpr (requires { M::perform(query, manager); }) {
        return M::perform(query, manager);
    } else {
        return M::perform(manager.allValues(query));
    }
}

/// Gives a combiner the default `perform(for:in:)` as a static `perform(query, manager)`, next to
/// its `perform(values)`. A combiner that derives from it writes
/// `using MergeOperationDefaults<Self>::perform;` to keep both forms visible.
template <class Self>
struct MergeOperationDefaults {
    template <Query Q>
    static auto perform(const Q& query, QueryManager& manager) {
        return Self::perform(manager.allValues(query));
    }
};

/// The query's merged value, computed afresh: its merge strategy's `perform(for:in:)` with this
/// query and `manager`.
template <Query Q>
QueryOutput<Q> uncachedValue(const Q& query, QueryManager& manager) {
    return performMerge<QueryMergeStrategy<Q>>(query, manager);
}

/// The query's merged value: through the manager's `cachedValue` when the query is hashable and
/// its merged value is a future, else `uncachedValue`.
template <Query Q>
QueryOutput<Q> value(const Q& query, QueryManager& manager) {
    if constexpr (FutureQuery<Q>) {
        return manager.cachedValue(query);
    } else {
        return uncachedValue(query, manager);
    }
}

/// The query's dynamic type name, unqualified.
template <Query Q>
std::string debugDescription(const Q& query) {
    return unqualifiedTypeName(typeid(query));
}

/// An optional base that gives a query type its associated types and the query operations as
/// members: `MyQuery::resolve(...)`, `query.value(manager)`, and so on.
///
///     struct ThemeQuery : QueryType<ThemeQuery, std::string, FirstValueMerge<std::string>> {
///         int screen = 0;
///     };
template <class Derived, class PrimitiveType, class MergeStrategyType>
struct QueryType {
    using Primitive = PrimitiveType;
    using MergeStrategy = MergeStrategyType;

    /// `mirels::resolve<Derived>(provider)`.
    template <class F>
    static QueryResolutions resolve(F&& provider) {
        return mirels::resolve<Derived>(std::forward<F>(provider));
    }
    /// `mirels::resolveWith<Derived>(makeValue)`.
    template <class F>
    static QueryResolutions resolveWith(F&& makeValue) {
        return mirels::resolveWith<Derived>(std::forward<F>(makeValue));
    }

    auto uncachedValue(QueryManager& manager) const {
        return mirels::uncachedValue(self(), manager);
    }
    auto value(QueryManager& manager) const { return mirels::value(self(), manager); }
    std::string debugDescription() const { return mirels::debugDescription(self()); }

  private:
    const Derived& self() const noexcept { return static_cast<const Derived&>(*this); }
};

template <FutureQuery Q>
QueryOutput<Q> QueryManager::cachedValue(const Q& query) {
    using Output = QueryOutput<Q>;
    using V = typename Output::Value;
    const Callsite callsite = Callsite::library("cachedValue(for:)");

    // The hit path copies the stored future out under the lock and nothing else.
    std::shared_ptr<void> shared;
    std::optional<Promise<V>> created;
    pendingFuturesByQuery_.syncWrite(
        [&](PendingFutures& pending) {
            auto found = pending.futuresByQuery.find(query);
            if (found != pending.futuresByQuery.end()) {
                shared = found->second;
                return;
            }
            FutureAndPromise<V> made = Future<V>::create(callsite);
            AnyHashable key(query);
            pending.futuresByQuery.emplace(key, made.future.object());
            if (pending.didAddCachedFuture) (*pending.didAddCachedFuture)();
            const void* identity = made.future.object().get();
            made.future.object()->observeFinish([manager = weak_from_this(), key = std::move(key),
                                                 identity](const FutureTermination<V>&) {
                if (std::shared_ptr<QueryManager> self = manager.lock()) {
                    self->removeCompletedCachedFuture(key, identity);
                }
            });
            created.emplace(std::move(made.promise));
        },
        callsite);
    if (!created) return Output(std::static_pointer_cast<AbstractFuture<V>>(std::move(shared)));
    Output future = created->future();
    try {
        Output computed = uncachedValue(query, *this);
        created->track(computed);
    } catch (...) {
        created->fail(Error(std::current_exception()));
    }
    return future;
}

}  // namespace mirels
