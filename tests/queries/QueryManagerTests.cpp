#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "mirels/queries/QueryManager.h"
#include "mirels/queries/ValueCombiner.h"
#include "queries/QueryTestSupport.h"

namespace mirels {
namespace {

using testing::CountQuery;
using testing::NameQuery;
using testing::TableResolver;
using testing::TagsQuery;

QueryResolutions tags(std::vector<std::string> values) {
    return resolve<TagsQuery>([values] { return std::optional(values); });
}

QueryResolutions name(std::string value, std::atomic<int>* asked = nullptr) {
    return resolve<NameQuery>([value, asked] {
        if (asked != nullptr) asked->fetch_add(1);
        return std::optional(value);
    });
}

/// Counts events and lets a test wait for a number of them.
class EventCounter {
  public:
    void record() {
        std::lock_guard guard(mutex_);
        ++count_;
        changed_.notify_all();
    }
    bool waitFor(int count) {
        std::unique_lock guard(mutex_);
        return changed_.wait_for(guard, std::chrono::seconds(5), [&] { return count_ >= count; });
    }
    int count() {
        std::lock_guard guard(mutex_);
        return count_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int count_ = 0;
};

TEST(QueryManager, AllValuesListsTheDelegatesAnswersFirstAndSkipsAbsentOnes) {
    auto parent = QueryManager::create(nullptr, {TableResolver::create(tags({"p1", "p2"}))});
    auto silent = TableResolver::create();
    auto child = QueryManager::create(
        parent, {TableResolver::create(tags({"c1"})), silent, TableResolver::create(tags({"c2"}))});
    EXPECT_EQ(child->allValues(TagsQuery{}),
              (std::vector<std::vector<std::string>>{{"p1", "p2"}, {"c1"}, {"c2"}}));
    EXPECT_EQ(uncachedValue(TagsQuery{}, *child),
              (std::vector<std::string>{"p1", "p2", "c1", "c2"}));
    EXPECT_EQ(silent->requests.load(), 2);
    EXPECT_TRUE(QueryManager::create()->allValues(TagsQuery{}).empty());
}

TEST(QueryManager, FirstValueTakesTheDelegatesAnswerAndAsksNoResolverAfterAnAnswer) {
    std::atomic<int> childAsked{0};
    std::atomic<int> laterAsked{0};
    auto parent = QueryManager::create(nullptr, {TableResolver::create(name("parent"))});
    auto empty = TableResolver::create();
    auto child =
        QueryManager::create(parent, {empty, TableResolver::create(name("child", &childAsked)),
                                      TableResolver::create(name("later", &laterAsked))});
    EXPECT_EQ(child->firstValue(NameQuery{}), "parent");
    EXPECT_EQ(childAsked.load(), 0);
    EXPECT_EQ(empty->requests.load(), 0);

    child->setDelegateQueryManager(QueryManager::create());  // a delegate without an answer
    EXPECT_EQ(child->firstValue(NameQuery{}), "child");
    EXPECT_EQ(uncachedValue(NameQuery{}, *child), "child");
    EXPECT_EQ(laterAsked.load(), 0);
    EXPECT_EQ(childAsked.load(), 2);
    child->setResolvers({});
    EXPECT_EQ(child->firstValue(NameQuery{}), std::nullopt);
}

TEST(QueryManager, CachedValueSharesThePendingFutureAndDropsItOnCompletion) {
    std::vector<std::string> steps;
    std::vector<Promise<int>> promises;
    auto resolver = TableResolver::create(resolve<CountQuery>([&](const CountQuery& query) {
        steps.push_back("compute " + std::to_string(query.key));
        auto [future, promise] = Future<int>::create();
        promises.push_back(promise);
        return std::optional(future);
    }));
    auto manager = QueryManager::create(nullptr, {resolver});
    manager->setTesting_didAddCachedFutureHandler([&] { steps.emplace_back("add"); });
    manager->setTesting_didRemoveCompletedCachedFutureHandler([&] {
        // The remove hook runs after the lock: the manager may be asked again here.
        steps.push_back("remove, pending " + std::to_string(manager->pendingCachedFutureCount()));
    });

    Future<int> first = manager->cachedValue(CountQuery{1});
    Future<int> second = manager->cachedValue(CountQuery{1});
    Future<int> other = manager->cachedValue(CountQuery{2});
    EXPECT_EQ(first, second);
    EXPECT_NE(first, other);
    EXPECT_EQ(manager->pendingCachedFutureCount(), 2U);
    ASSERT_EQ(promises.size(), 2U);
    promises[0].succeed(7);
    EXPECT_EQ(second.succeededValue(), 7);
    Future<int> third = manager->cachedValue(CountQuery{1});
    EXPECT_NE(third, first);
    EXPECT_EQ(steps, (std::vector<std::string>{"add", "compute 1", "add", "compute 2",
                                               "remove, pending 1", "add", "compute 1"}));

    // Canceling the shared future cancels the computation for everyone and drops the entry.
    third.cancel();
    EXPECT_TRUE(promises[2].isCanceled());
    promises[1].fail(Error(std::runtime_error("no count")));
    EXPECT_TRUE(other.recentStateSnapshot().failedError().has_value());
    EXPECT_EQ(manager->pendingCachedFutureCount(), 0U);
    EXPECT_EQ(steps.size(), 9U);
}

TEST(QueryManager, CachedValueOfAFinishedOrThrowingComputationLeavesNoEntry) {
    int removals = 0;
    bool fail = false;
    auto resolver = TableResolver::create(resolve<CountQuery>([&](const CountQuery& query) {
        if (fail) throw std::runtime_error("resolver failed");
        return std::optional(Future<int>::succeeded(query.key));
    }));
    auto manager = QueryManager::create(nullptr, {resolver, resolver});
    manager->setTesting_didRemoveCompletedCachedFutureHandler([&] { ++removals; });
    EXPECT_EQ(manager->cachedValue(CountQuery{4}).succeededValue(), 8);
    fail = true;
    Future<int> failed = manager->cachedValue(CountQuery{4});
    ASSERT_TRUE(failed.recentStateSnapshot().failedError().has_value());
    EXPECT_STREQ(failed.recentStateSnapshot().failedError()->description().c_str(),
                 "resolver failed");
    EXPECT_EQ(removals, 2);
    EXPECT_EQ(manager->pendingCachedFutureCount(), 0U);
}

TEST(QueryManager, AResolverMayAskTheManagerFromInsideItsProvider) {
    std::shared_ptr<QueryManager> manager = QueryManager::create();
    auto resolver = TableResolver::create(QueryResolutions{
        name("base"),
        resolve<TagsQuery>([](const TagsQuery&, QueryManager& asking) {
            return std::optional(std::vector<std::string>{*asking.firstValue(NameQuery{})});
        }),
        resolve<CountQuery>(
            [](const CountQuery& query, QueryManager& asking) -> std::optional<Future<int>> {
                if (query.key == 0)
                    return Future<int>::succeeded(
                        static_cast<int>(asking.allValues(TagsQuery{}).size()));
                // Another cached query, asked while this one is being computed.
                return asking.cachedValue(CountQuery{query.key - 1}).mapSuccess([](int n) {
                    return n + 1;
                });
            }),
    });
    manager->setResolvers({resolver});
    EXPECT_EQ(manager->cachedValue(CountQuery{3}).succeededValue(), 4);
    EXPECT_EQ(manager->pendingCachedFutureCount(), 0U);
}

TEST(QueryManager, ChangesAreAnnouncedAfterTheLockAndObjectWillChangeOnTheQueue) {
    auto first = TableResolver::create(name("first"));
    auto manager = QueryManager::create(nullptr, {first});

    std::vector<std::size_t> lists;
    auto listsToken = manager->resolversChanged().observe([&](const QueryResolverList& list) {
        EXPECT_EQ(manager->resolvers().size(), list.size());  // the lock is released by now
        lists.push_back(list.size());
    });
    std::vector<bool> delegates;
    auto delegateToken =
        manager->delegateChanged().observe([&](const std::shared_ptr<QueryManager>& delegate) {
            delegates.push_back(delegate != nullptr);
        });
    EventCounter willChange;
    std::atomic<bool> onQueue{true};
    auto willChangeToken = manager->objectWillChange().observe([&] {
        if (!manager->executionQueue().isCurrent()) onQueue = false;
        willChange.record();
    });

    first->announce();
    ASSERT_TRUE(willChange.waitFor(1));
    auto second = TableResolver::create(name("second"));
    manager->setResolvers({second, first});
    ASSERT_TRUE(willChange.waitFor(2));
    manager->setDelegateQueryManager(QueryManager::create());
    ASSERT_TRUE(willChange.waitFor(3));
    second->announce();
    ASSERT_TRUE(willChange.waitFor(4));
    manager->setResolvers({});
    ASSERT_TRUE(willChange.waitFor(5));
    first->announce();  // no longer a resolver of the manager
    second->announce();
    manager->setDelegateQueryManager(nullptr);  // a marker: its event comes after any stray one
    ASSERT_TRUE(willChange.waitFor(6));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(willChange.count(), 6);
    EXPECT_TRUE(onQueue.load());
    EXPECT_EQ(lists, (std::vector<std::size_t>{1, 2, 0}));
    EXPECT_EQ(delegates, (std::vector<bool>{false, true, false}));
    listsToken->cancel();
    delegateToken->cancel();
    willChangeToken->cancel();
}

}  // namespace
}  // namespace mirels
