#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "mirels/events/Invalidatable.h"
#include "support/SoftAssertions.h"

namespace mirels {
namespace {

using testing::SoftAssertionRecorder;
using Trace = InvalidationHandle::InvalidationTrace;

/// A caller's type that is invalidated through a handle it owns.
class Session final : public Invalidatable {
  public:
    explicit Session(std::string name) : handle_(InvalidationHandle::create(std::move(name))) {}
    InvalidationHandle& invalidationHandle() const override { return *handle_; }

  private:
    std::shared_ptr<InvalidationHandle> handle_;
};

std::vector<std::string> namesOf(const Trace& trace) {
    std::vector<std::string> names;
    for (const auto& link : trace.links) names.push_back(link.name.value_or("<none>"));
    return names;
}

TEST(Invalidation, BoundHandlesInvalidateEachOtherOnceAndTraceTheCascade) {
    SoftAssertionRecorder reports;
    auto a = InvalidationHandle::create("a");
    auto b = InvalidationHandle::create("b");
    auto c = InvalidationHandle::create("c");
    bindInvalidation(*a, *b, *c);
    std::vector<std::string> order;
    a->onInvalidation([&] { order.push_back("a"); });
    b->onInvalidation([&] { order.push_back("b"); });
    c->onInvalidation([&] { order.push_back("c"); });

    // Asked for before the invalidation, and from inside the cascade, where b's cause (a) has
    // not recorded its link yet: both answers come once the chain is complete.
    std::vector<Trace> delivered;
    b->requestInvalidationTrace([&](const Trace& trace) { delivered.push_back(trace); });
    std::optional<Trace> insideCascade = Trace{};
    b->onInvalidation([&] {
        insideCascade = b->invalidationTrace();
        b->requestInvalidationTrace([&](const Trace& trace) { delivered.push_back(trace); });
    });

    EXPECT_FALSE(b->invalidationTrace());
    Callsite direct = Callsite::current();
    c->invalidate(direct);
    // Observers run in registration order, the bindings (made first) nesting: c invalidates a,
    // whose binding to b runs before a's own observer, and c's own observer comes last.
    EXPECT_EQ(order, (std::vector<std::string>{"b", "a", "c"}));
    EXPECT_TRUE(a->isInvalidated() && b->isInvalidated() && c->isInvalidated());
    EXPECT_FALSE(insideCascade);

    std::optional<Trace> trace = b->invalidationTrace();
    ASSERT_TRUE(trace);
    EXPECT_EQ(namesOf(*trace), (std::vector<std::string>{"b", "a", "c"}));
    EXPECT_EQ(trace->links[0].previous, a);
    EXPECT_EQ(trace->links[1].previous, c);
    EXPECT_EQ(trace->links[2].previous, nullptr);
    EXPECT_STREQ(trace->links[0].invalidationCallsite.function(), "bindInvalidation(of:_:)");
    EXPECT_EQ(trace->links[2].invalidationCallsite, direct);
    ASSERT_EQ(delivered.size(), 2U);
    EXPECT_EQ(delivered[0], *trace);
    EXPECT_EQ(delivered[1], *trace);

    // A second invalidation runs nothing and records nothing.
    b->invalidate();
    c->invalidate();
    EXPECT_EQ(order.size(), 3U);
    EXPECT_EQ(b->invalidationTrace(), trace);
    // A late request is answered at once.
    b->requestInvalidationTrace([&](const Trace& late) { delivered.push_back(late); });
    EXPECT_EQ(delivered.size(), 3U);
    EXPECT_EQ(reports.count(), 0U);
}

TEST(Invalidation, TraceDescriptionListsTheDirectInvalidationFirst) {
    auto named = InvalidationHandle::create("root");
    auto unnamed = InvalidationHandle::create();
    unnamed->trackInvalidation(*named);
    named->invalidate();
    std::optional<Trace> trace = unnamed->invalidationTrace();
    ASSERT_TRUE(trace);
    ASSERT_EQ(trace->links.size(), 2U);
    const auto& root = trace->links[1];
    const auto& tracker = trace->links[0];
    EXPECT_EQ(trace->description(),
              "0: [root] Initialized: " + root.initializationCallsite.description() +
                  "\n   Invalidated: " + root.invalidationCallsite.description() +
                  "\n1: Initialized: " + tracker.initializationCallsite.description() +
                  "\n   Invalidated: " + tracker.invalidationCallsite.description() + "\n");
    EXPECT_EQ(Trace{}.description(), "");
}

TEST(Invalidation, ConformersObserveTrackAndManageTokens) {
    SoftAssertionRecorder reports;
    Session session("session"), child("child");
    child.trackInvalidation(session);
    int observed = 0, managedCancels = 0;
    auto token = session.observeInvalidation([&] { ++observed; });
    auto unregistered = session.observeInvalidation([&] { observed += 100; });
    unregistered->cancel();
    trackInvalidation(CancellationToken::create([&] { ++managedCancels; }), session);
    manage(CancellationToken::create([&] { ++managedCancels; }), child.invalidationHandle());

    EXPECT_FALSE(child.isInvalidated());
    session.invalidate();
    EXPECT_EQ(observed, 1);
    EXPECT_EQ(managedCancels, 2);
    EXPECT_TRUE(child.isInvalidated());
    token->cancel();

    // After the invalidation: observers run at once, managed tokens are canceled at once, and
    // tracking an invalidated object invalidates at once.
    EXPECT_EQ(session.observeInvalidation([&] { ++observed; }), nullptr);
    EXPECT_EQ(observed, 2);
    trackInvalidation(CancellationToken::create([&] { ++managedCancels; }), session);
    EXPECT_EQ(managedCancels, 3);
    Session late("late");
    late.trackInvalidation(session);
    EXPECT_TRUE(late.isInvalidated());
    EXPECT_EQ(reports.count(), 0U);
}

TEST(Invalidation, BoundHandlesReleaseEachOtherAfterInvalidation) {
    std::weak_ptr<InvalidationHandle> weakA, weakB, weakC;
    {
        auto a = InvalidationHandle::create("a");
        auto b = InvalidationHandle::create("b");
        auto c = InvalidationHandle::create("c");
        bindInvalidation(*a, *b, *c);
        weakA = a;
        weakB = b;
        weakC = c;
        b->invalidate();
    }
    EXPECT_TRUE(weakA.expired());
    EXPECT_TRUE(weakB.expired());
    EXPECT_TRUE(weakC.expired());
}

// Groups of handles bound to a hub, with several threads invalidating different members at
// once: every handle is invalidated exactly once, and every trace is a complete chain that ends
// with a direct invalidation.
TEST(InvalidationStress, ConcurrentCascadesInvalidateEachHandleOnceWithCompleteTraces) {
    SoftAssertionRecorder reports;
    constexpr int rounds = 100;
    constexpr int members = 8;
    constexpr int threads = 4;
    for (int round = 0; round < rounds; ++round) {
        auto hub = InvalidationHandle::create("hub");
        std::vector<std::shared_ptr<InvalidationHandle>> handles;
        for (int i = 0; i < members; ++i) {
            handles.push_back(InvalidationHandle::create("member " + std::to_string(i)));
            bindInvalidation(*hub, *handles.back());
        }
        handles.push_back(hub);
        std::vector<std::atomic<int>> invalidations(handles.size());
        std::vector<std::atomic<int>> traces(handles.size());
        for (std::size_t i = 0; i < handles.size(); ++i) {
            handles[i]->onInvalidation([&invalidations, i] { invalidations[i].fetch_add(1); });
            handles[i]->requestInvalidationTrace([&traces, i](const Trace& trace) {
                if (!trace.links.empty() && trace.links.back().previous == nullptr) {
                    traces[i].fetch_add(1);
                }
            });
        }

        std::atomic<bool> go{false};
        std::vector<std::thread> invalidators;
        for (int t = 0; t < threads; ++t) {
            invalidators.emplace_back([&, t] {
                while (!go.load()) {
                }
                handles[static_cast<std::size_t>(t * 2)]->invalidate();
            });
        }
        go.store(true);
        for (auto& thread : invalidators) thread.join();

        for (std::size_t i = 0; i < handles.size(); ++i) {
            EXPECT_EQ(invalidations[i].load(), 1);
            EXPECT_EQ(traces[i].load(), 1);
            std::optional<Trace> trace = handles[i]->invalidationTrace();
            ASSERT_TRUE(trace);
            EXPECT_EQ(trace->links.front().name, handles[i]->name());
            for (std::size_t k = 0; k + 1 < trace->links.size(); ++k) {
                EXPECT_EQ(trace->links[k].previous->name(), trace->links[k + 1].name);
            }
        }
    }
    EXPECT_EQ(reports.count(), 0U);
}

}  // namespace
}  // namespace mirels
