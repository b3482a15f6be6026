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
class TrackedSession final : public Invalidatable {
  public:
    explicit TrackedSession(std::string name)
        : handle_(InvalidationHandle::create(std::move(name))) {}
    InvalidationHandle& invalidationHandle() const override { return *handle_; }

  private:
    std::shared_ptr<InvalidationHandle> handle_;
};

TEST(Invalidation, BoundHandlesInvalidateEachOtherOnceAndTraceTheCascade) {
    SoftAssertionRecorder reports;
    auto a = InvalidationHandle::create("a");
    auto b = InvalidationHandle::create("b");
    auto c = InvalidationHandle::create();
    bindInvalidation(*a, *b, *c);
    std::vector<std::string> order;
    for (auto* handle : {&a, &b, &c}) {
        (*handle)->onInvalidation(
            [&, handle] { order.push_back((*handle)->name().value_or("c")); });
    }
    // Asked for before the invalidation, and inside the cascade, before b's cause (a) has
    // recorded its link: both are answered once the chain is complete.
    std::vector<Trace> delivered;
    b->requestInvalidationTrace([&](const Trace& trace) { delivered.push_back(trace); });
    std::optional<Trace> insideCascade = Trace{};
    b->onInvalidation([&] {
        insideCascade = b->invalidationTrace();
        b->requestInvalidationTrace([&](const Trace& trace) { delivered.push_back(trace); });
    });

    EXPECT_FALSE(b->invalidationTrace());
    c->invalidate();
    // Bindings were registered first, so c's invalidates a, whose binding to b runs first.
    EXPECT_EQ(order, (std::vector<std::string>{"b", "a", "c"}));
    EXPECT_FALSE(insideCascade);
    std::optional<Trace> trace = b->invalidationTrace();
    ASSERT_TRUE(trace && trace->links.size() == 3);
    EXPECT_EQ(trace->links[0].previous, a);
    EXPECT_EQ(trace->links[1].previous, c);
    EXPECT_EQ(trace->links[2].previous, nullptr);
    EXPECT_EQ(delivered, (std::vector<Trace>{*trace, *trace}));
    auto callsites = [](const Trace::Link& link) {
        return "Initialized: " + link.initializationCallsite.description() +
               "\n   Invalidated: " + link.invalidationCallsite.description() + "\n";
    };
    EXPECT_STREQ(trace->links[0].invalidationCallsite.function(), "bindInvalidation(of:_:)");
    EXPECT_EQ(trace->description(), "0: " + callsites(trace->links[2]) + "1: [a] " +
                                        callsites(trace->links[1]) + "2: [b] " +
                                        callsites(trace->links[0]));
    EXPECT_EQ(Trace{}.description(), "");

    // A second invalidation runs nothing and records nothing.
    b->invalidate();
    c->invalidate();
    EXPECT_EQ(order.size(), 3U);
    EXPECT_EQ(b->invalidationTrace(), trace);
    EXPECT_EQ(reports.count(), 0U);
}

TEST(Invalidation, ConformersObserveTrackAndManageTokens) {
    SoftAssertionRecorder reports;
    TrackedSession session("session"), child("child");
    child.trackInvalidation(session);
    int observed = 0, managedCancels = 0;
    auto token = session.observeInvalidation([&] { ++observed; });
    trackInvalidation(CancellationToken::create([&] { ++managedCancels; }), session);
    manage(CancellationToken::create([&] { ++managedCancels; }), child.invalidationHandle());

    session.invalidate();
    EXPECT_EQ(observed, 1);
    EXPECT_EQ(managedCancels, 2);
    EXPECT_TRUE(child.isInvalidated());
    token->cancel();
    // Afterwards, a managed token is canceled and a tracking object invalidated at once.
    trackInvalidation(CancellationToken::create([&] { ++managedCancels; }), session);
    EXPECT_EQ(managedCancels, 3);
    TrackedSession late("late");
    late.trackInvalidation(session);
    EXPECT_TRUE(late.isInvalidated());
    EXPECT_EQ(reports.count(), 0U);
}

TEST(Invalidation, BoundHandlesReleaseEachOtherAfterInvalidation) {
    std::vector<std::weak_ptr<InvalidationHandle>> weak;
    {
        auto a = InvalidationHandle::create(), b = InvalidationHandle::create(),
             c = InvalidationHandle::create();
        bindInvalidation(*a, *b, *c);
        weak = {a, b, c};
        b->invalidate();
    }
    for (const auto& handle : weak) EXPECT_TRUE(handle.expired());
}

// Members bound to a hub, with several threads invalidating different members at once: every
// handle is invalidated once, and every trace is a complete chain down to a direct invalidation.
TEST(InvalidationStress, ConcurrentCascadesInvalidateEachHandleOnceWithCompleteTraces) {
    SoftAssertionRecorder reports;
    for (int round = 0; round < 100; ++round) {
        std::vector<std::shared_ptr<InvalidationHandle>> handles{InvalidationHandle::create("hub")};
        for (int i = 0; i < 8; ++i) {
            handles.push_back(InvalidationHandle::create(std::to_string(i)));
            bindInvalidation(*handles.front(), *handles.back());
        }
        std::vector<std::atomic<int>> invalidations(handles.size()), traces(handles.size());
        for (std::size_t i = 0; i < handles.size(); ++i) {
            handles[i]->onInvalidation([&invalidations, i] { invalidations[i].fetch_add(1); });
            handles[i]->requestInvalidationTrace([&traces, i](const Trace& trace) {
                if (trace.links.back().previous == nullptr) traces[i].fetch_add(1);
            });
        }
        std::atomic<bool> go{false};
        std::vector<std::thread> invalidators;
        for (std::size_t t = 1; t < handles.size(); t += 2) {
            invalidators.emplace_back([&, t] {
                while (!go.load()) {
                }
                handles[t]->invalidate();
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
