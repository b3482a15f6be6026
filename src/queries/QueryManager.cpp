#include "mirels/queries/QueryManager.h"

#include <memory>
#include <optional>
#include <utility>

namespace mirels {

namespace {

std::shared_ptr<const QueryResolverList> shareList(QueryResolverList resolvers) {
    return std::make_shared<const QueryResolverList>(std::move(resolvers));
}

}  // namespace

std::shared_ptr<QueryManager> QueryManager::create(
    std::shared_ptr<QueryManager> delegateQueryManager, QueryResolverList resolvers) {
    auto manager = std::make_shared<QueryManager>(Key{}, std::move(delegateQueryManager),
                                                  std::move(resolvers));
    // Nobody else sees the manager yet, so the first wiring may run here rather than on its
    // queue, and no resolver announcement made after `create` returns is missed.
    manager->subscribeToOwnAnnouncements();
    manager->rewireResolverAnnouncements();
    return manager;
}

QueryManager::QueryManager(Key, std::shared_ptr<QueryManager> delegateQueryManager,
                           QueryResolverList resolvers)
    : executionQueue_(ExecutionLane::queue("org.mirels.foundation.QueryManager")),
      state_(State{shareList(std::move(resolvers)), std::move(delegateQueryManager)}),
      resolversChanged_(EventStream<QueryResolverList>::Sink::create()),
      delegateChanged_(EventStream<std::shared_ptr<QueryManager>>::Sink::create()),
      objectWillChange_(EventStream<void>::Sink::create()) {}

QueryManager::~QueryManager() {
    for (const std::shared_ptr<CancellationToken>& token : resolverAnnouncements_) token->cancel();
}

QueryResolverList QueryManager::resolvers() const {
    return state_.syncRead([](const State& state) { return *state.resolvers; },
                           Callsite::library("resolvers"));
}

void QueryManager::setResolvers(QueryResolverList resolvers) {
    std::shared_ptr<const QueryResolverList> list = shareList(std::move(resolvers));
    // The previous list is released after the lock: it may hold the last reference to a resolver.
    std::shared_ptr<const QueryResolverList> previous =
        state_.syncWrite([&](State& state) { return std::exchange(state.resolvers, list); },
                         Callsite::library("resolvers"));
    resolversChanged_->send(*list);
}

std::shared_ptr<QueryManager> QueryManager::delegateQueryManager() const {
    return state_.syncRead([](const State& state) { return state.delegateQueryManager; },
                           Callsite::library("delegateQueryManager"));
}

void QueryManager::setDelegateQueryManager(std::shared_ptr<QueryManager> delegateQueryManager) {
    std::shared_ptr<QueryManager> previous = state_.syncWrite(
        [&](State& state) {
            return std::exchange(state.delegateQueryManager, delegateQueryManager);
        },
        Callsite::library("delegateQueryManager"));
    delegateChanged_->send(delegateQueryManager);
}

QueryManager::State QueryManager::readState() const {
    return state_.syncRead([](const State& state) { return state; }, Callsite::library("state"));
}

EventStream<QueryResolverList> QueryManager::resolversChanged() const {
    auto self = std::const_pointer_cast<QueryManager>(shared_from_this());
    return EventStream<QueryResolverList>(
        [self = std::move(self)](EventHandler<QueryResolverList> handler, Callsite callsite) {
            handler(self->resolvers());
            return self->resolversChanged_->observe(std::move(handler), callsite);
        });
}

EventStream<std::shared_ptr<QueryManager>> QueryManager::delegateChanged() const {
    auto self = std::const_pointer_cast<QueryManager>(shared_from_this());
    return EventStream<std::shared_ptr<QueryManager>>(
        [self = std::move(self)](EventHandler<std::shared_ptr<QueryManager>> handler,
                                 Callsite callsite) {
            handler(self->delegateQueryManager());
            return self->delegateChanged_->observe(std::move(handler), callsite);
        });
}

EventStream<void> QueryManager::objectWillChange() const {
    return objectWillChange_->eventStream();
}

void QueryManager::subscribeToOwnAnnouncements() {
    std::weak_ptr<QueryManager> weakSelf = weak_from_this();
    // The subscriptions go straight to the sinks: the current values need no replay here.
    store(resolversChanged_->observe(
              [weakSelf, lane = executionQueue_](const QueryResolverList&) {
                  lane.execute([weakSelf] {
                      if (std::shared_ptr<QueryManager> self = weakSelf.lock()) {
                          self->rewireResolverAnnouncements();
                          self->announceObjectWillChange();
                      }
                  });
              },
              Callsite::library("init(delegateQueryManager:resolvers:)")),
          resolversChangedCancellation_);
    store(delegateChanged_->observe(
              [weakSelf, lane = executionQueue_](const std::shared_ptr<QueryManager>&) {
                  lane.execute([weakSelf] {
                      if (std::shared_ptr<QueryManager> self = weakSelf.lock()) {
                          self->announceObjectWillChange();
                      }
                  });
              },
              Callsite::library("init(delegateQueryManager:resolvers:)")),
          resolversChangedCancellation_);
}

void QueryManager::rewireResolverAnnouncements() {
    for (const std::shared_ptr<CancellationToken>& token : resolverAnnouncements_) token->cancel();
    resolverAnnouncements_.clear();
    // The list is read now rather than taken from the announcement: announcements of writes on
    // different threads may arrive in any order, but the last wiring always sees the last write.
    State state = readState();
    std::weak_ptr<QueryManager> weakSelf = weak_from_this();
    for (const std::shared_ptr<QueryResolver>& resolver : *state.resolvers) {
        if (!resolver) continue;
        std::optional<EventStream<void>> publisher = resolver->queryResolverPublisher();
        if (!publisher) continue;
        resolverAnnouncements_.push_back(publisher->observe(
            [weakSelf, lane = executionQueue_] {
                lane.execute([weakSelf] {
                    if (std::shared_ptr<QueryManager> self = weakSelf.lock()) {
                        self->announceObjectWillChange();
                    }
                });
            },
            Callsite::library("init(delegateQueryManager:resolvers:)")));
    }
}

void QueryManager::announceObjectWillChange() {
    objectWillChange_->send();
}

void QueryManager::setTesting_didAddCachedFutureHandler(Hook hook) {
    std::shared_ptr<const Hook> shared =
        hook ? std::make_shared<const Hook>(std::move(hook)) : nullptr;
    std::shared_ptr<const Hook> previous = pendingFuturesByQuery_.syncWrite(
        [&](PendingFutures& pending) { return std::exchange(pending.didAddCachedFuture, shared); },
        Callsite::library("testing_didAddCachedFutureHandler"));
}

void QueryManager::setTesting_didRemoveCompletedCachedFutureHandler(Hook hook) {
    std::shared_ptr<const Hook> shared =
        hook ? std::make_shared<const Hook>(std::move(hook)) : nullptr;
    std::shared_ptr<const Hook> previous = pendingFuturesByQuery_.syncWrite(
        [&](PendingFutures& pending) {
            return std::exchange(pending.didRemoveCompletedCachedFuture, shared);
        },
        Callsite::library("testing_didRemoveCompletedCachedFutureHandler"));
}

std::size_t QueryManager::pendingCachedFutureCount() const {
    return pendingFuturesByQuery_.syncRead(
        [](const PendingFutures& pending) { return pending.futuresByQuery.size(); },
        Callsite::library("cachedValue(for:)"));
}

void QueryManager::removeCompletedCachedFuture(const AnyHashable& key, const void* future) {
    std::optional<PendingTable::node_type> removed;
    std::shared_ptr<const Hook> hook = pendingFuturesByQuery_.syncWrite(
        [&](PendingFutures& pending) -> std::shared_ptr<const Hook> {
            auto found = pending.futuresByQuery.find(key);
            // Only the entry's own future removes it; a later entry for an equal query is made
            // only after this one is gone.
            if (found == pending.futuresByQuery.end() || found->second.get() != future) {
                return nullptr;
            }
            removed.emplace(pending.futuresByQuery.extract(found));
            return pending.didRemoveCompletedCachedFuture;
        },
        Callsite::library("cachedValue(for:)"));
    removed.reset();  // the key and the table's reference go outside the lock
    if (hook) (*hook)();
}

}  // namespace mirels
