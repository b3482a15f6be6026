#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "mirels/collections/AssociatedObjectCache.h"
#include "mirels/collections/WeakArray.h"
#include "mirels/collections/WeakSet.h"
#include "mirels/core/CaptureWeak.h"

namespace mirels {
namespace {

struct Item {
    explicit Item(int n) : number(n) {}
    int number;
};

template <class Container>
std::vector<int> numbers(const Container& container) {
    std::vector<int> result;
    for (const std::shared_ptr<Item>& item : container) result.push_back(item->number);
    return result;
}

TEST(WeakArray, IteratesLivingObjectsInInsertionOrderAndPrunesTheDeadByItself) {
    std::vector<std::shared_ptr<Item>> owners;
    WeakArray<Item> array;
    for (int i = 0; i < 6; ++i) {
        owners.push_back(std::make_shared<Item>(i));
        array.append(owners.back());
    }
    array.append(owners[2]);  // listed twice
    owners[0].reset();
    owners[3].reset();
    EXPECT_EQ(numbers(array), (std::vector<int>{1, 2, 4, 5, 2}));
    EXPECT_EQ(array.count(), 5U);
    EXPECT_TRUE(array.contains(owners[4].get()));
    EXPECT_TRUE(array.remove(owners[2].get()));
    EXPECT_FALSE(array.remove(owners[2].get()));
    EXPECT_EQ(numbers(array), (std::vector<int>{1, 4, 5}));

    // Objects that die as fast as they are added never make the array grow without bound.
    for (int i = 0; i < 10000; ++i) array.append(std::make_shared<Item>(100 + i));
    EXPECT_LT(array.storedCount(), 64U);
    EXPECT_EQ(array.count(), 3U);
    owners.clear();
    EXPECT_TRUE(array.isEmpty());
    EXPECT_TRUE(array.objects().empty());
}

TEST(WeakSet, KeepsMembersByIdentityAndADeadMembersAddressIsFreeAgain) {
    WeakSet<Item> set;
    auto a = std::make_shared<Item>(1);
    auto b = std::make_shared<Item>(2);
    EXPECT_TRUE(set.insert(a));
    EXPECT_FALSE(set.insert(a));
    EXPECT_TRUE(set.insert(b));
    EXPECT_EQ(set.count(), 2U);
    const Item* address = a.get();
    a.reset();
    EXPECT_FALSE(set.contains(address));
    EXPECT_EQ(numbers(set), (std::vector<int>{2}));
    // A stale entry at an address does not make a new object there a member.
    auto reborn = std::shared_ptr<Item>(new (const_cast<Item*>(address)) Item(3), [](Item*) {});
    EXPECT_FALSE(set.contains(reborn.get()));
    EXPECT_TRUE(set.insert(reborn));
    EXPECT_TRUE(set.contains(reborn.get()));
    reborn.reset();
    EXPECT_TRUE(set.remove(b.get()));
    EXPECT_TRUE(set.isEmpty());
    for (int i = 0; i < 10000; ++i) set.insert(std::make_shared<Item>(i));
    EXPECT_LT(set.storedCount(), 64U);
}

TEST(WeakContainersStress, IterationWhileObjectsDieOnOtherThreads) {
    constexpr int count = 2000;
    std::vector<std::shared_ptr<Item>> owners;
    WeakArray<Item> array;
    WeakSet<Item> set;
    for (int i = 0; i < count; ++i) {
        owners.push_back(std::make_shared<Item>(i));
        array.append(owners.back());
        set.insert(owners.back());
    }
    // Each killer owns a share of the objects and drops them while the main thread iterates.
    std::vector<std::vector<std::shared_ptr<Item>>> shares(4);
    for (int i = 0; i < count; ++i) shares[i % 4].push_back(std::move(owners[i]));
    std::atomic<bool> go{false};
    std::vector<std::thread> killers;
    for (auto& share : shares) {
        killers.emplace_back([&go, mine = std::move(share)]() mutable {
            while (!go.load()) std::this_thread::yield();
            while (!mine.empty()) mine.pop_back();
        });
    }
    go = true;
    std::size_t seen = 0;
    while (!array.isEmpty() || !set.isEmpty()) {
        for (const auto& item : array) seen += item->number >= 0 ? 1 : 0;
        for (const auto& item : set) seen += item->number >= 0 ? 1 : 0;
    }
    for (auto& killer : killers) killer.join();
    EXPECT_EQ(array.count() + set.count(), 0U);
    EXPECT_GE(seen, 0U);
}

TEST(CaptureWeak, RunsOnlyWhileTheObjectLivesAndReportsWhetherItRan) {
    auto item = std::make_shared<Item>(5);
    auto bump = captureWeak(item, [](Item& it, int by) { it.number += by; });
    auto read = captureWeak(item, [](Item& it) { return it.number; });
    EXPECT_TRUE(bump(2));
    EXPECT_EQ(read(), std::optional<int>(7));
    EXPECT_EQ(item.use_count(), 1);  // the callables hold it weakly
    item.reset();
    EXPECT_FALSE(bump(1));
    EXPECT_EQ(read(), std::nullopt);
}

TEST(CaptureWeak, ReferenceResultsReferToTheObjectAndRvaluesAreMovedOut) {
    struct Named {
        std::string name;
    };
    auto named = std::make_shared<Named>(Named{"first"});
    auto name = captureWeak(named, [](Named& n) -> std::string& { return n.name; });
    auto constName =
        captureWeak(named, [](const Named& n) -> const std::string& { return n.name; });
    auto take = captureWeak(named, [](Named& n) -> std::string&& { return std::move(n.name); });
    static_assert(
        std::is_same_v<decltype(name()), std::optional<std::reference_wrapper<std::string>>>);
    static_assert(std::is_same_v<decltype(constName()),
                                 std::optional<std::reference_wrapper<const std::string>>>);
    static_assert(std::is_same_v<decltype(take()), std::optional<std::string>>);

    name()->get() = "second";  // writes through to the object, no copy in between
    EXPECT_EQ(&constName()->get(), &named->name);
    EXPECT_EQ(take(), std::optional<std::string>("second"));
    EXPECT_TRUE(named->name.empty());  // moved out, not copied
    named.reset();
    EXPECT_EQ(name(), std::nullopt);
    EXPECT_EQ(take(), std::nullopt);
}

struct Session {
    int id;
};

TEST(AssociatedObjectCache, OneValuePerLiveObjectGoneWithItsLastHandleOrItsObject) {
    int made = 0;
    AssociatedObjectCache<Session, std::string> cache(
        [&](Session& s) { return "for " + std::to_string(s.id) + " #" + std::to_string(++made); });
    auto session = std::make_shared<Session>(Session{1});
    auto first = cache.value(session);
    auto again = cache.value(session);
    EXPECT_EQ(first.get(), again.get());
    EXPECT_EQ(*first, "for 1 #1");
    EXPECT_EQ(session.use_count(), 1);  // the cache never keeps the object

    // Edge 1: the last handle goes, the entry goes; the next request makes a new value.
    first.reset();
    again.reset();
    EXPECT_EQ(cache.storedCount(), 0U);
    EXPECT_EQ(cache.existingValue(session), nullptr);
    auto second = cache.value(session);
    EXPECT_EQ(*second, "for 1 #2");

    // Edge 2: the object dies while a handle lives: the handle keeps the value, the entry no
    // longer answers, and a new object at the same address gets a value of its own.
    const Session* address = session.get();
    std::weak_ptr<Session> weakSession = session;
    session.reset();
    EXPECT_TRUE(weakSession.expired());
    EXPECT_EQ(*second, "for 1 #2");
    EXPECT_EQ(cache.count(), 0U);
    auto reborn =
        std::shared_ptr<Session>(new (const_cast<Session*>(address)) Session{2}, [](Session*) {});
    EXPECT_EQ(*cache.value(reborn), "for 2 #3");
    second.reset();
    EXPECT_EQ(cache.storedCount(), 0U);
}

TEST(AssociatedObjectCacheStress, HandlesReleasedOnManyThreadsWhileNewRequestsArrive) {
    std::atomic<int> made{0};
    AssociatedObjectCache<Session, int> cache([&](Session& s) {
        ++made;
        return s.id;
    });
    std::vector<std::shared_ptr<Session>> sessions;
    for (int i = 0; i < 8; ++i) sessions.push_back(std::make_shared<Session>(Session{i}));
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            std::vector<std::shared_ptr<int>> held;
            for (int i = 0; i < 20000; ++i) {
                const auto& session = sessions[(i * 7 + t) % sessions.size()];
                auto handle = cache.value(session);
                if (*handle != session->id) ++wrong;
                if (i % 3 == 0) held.push_back(std::move(handle));
                if (held.size() > 5) held.erase(held.begin());
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(cache.storedCount(), 0U);  // every handle released: every entry gone
    EXPECT_GE(made.load(), 8);
}

}  // namespace
}  // namespace mirels
