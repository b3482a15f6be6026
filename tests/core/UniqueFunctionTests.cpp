#include <gtest/gtest.h>

#include <array>
#include <memory>

#include "mirels/core/Identifier.h"
#include "mirels/core/UniqueFunction.h"

namespace mirels {
namespace {

/// Counts live instances, to prove captures are destroyed exactly once.
struct Tracked {
    static inline int alive = 0;
    Tracked() { ++alive; }
    Tracked(const Tracked&) { ++alive; }
    Tracked(Tracked&&) noexcept { ++alive; }
    ~Tracked() { --alive; }
};

TEST(UniqueFunction, HoldsMoveOnlyCapturesInlineOrOnTheHeap) {
    auto small = [p = std::make_unique<int>(5)] { return *p; };
    auto large = [big = std::array<char, 256>{}, p = std::make_unique<int>(6)] {
        return *p + big[0];
    };
    static_assert(UniqueFunction<int()>::isStoredInline<decltype(small)>());
    static_assert(!UniqueFunction<int()>::isStoredInline<decltype(large)>());

    UniqueFunction<int()> a(std::move(small));
    UniqueFunction<int()> b(std::move(large));
    EXPECT_EQ(a(), 5);
    EXPECT_EQ(b(), 6);
    std::swap(a, b);
    EXPECT_EQ(a(), 6);
    EXPECT_EQ(b(), 5);
    UniqueFunction<int()> c(std::move(a));
    EXPECT_FALSE(a);  // NOLINT(bugprone-use-after-move): moved-from is empty by contract
    EXPECT_EQ(c(), 6);
    c = nullptr;
    EXPECT_FALSE(c);
    UniqueFunction<int(int, int)> plus = [](int x, int y) { return x + y; };
    EXPECT_EQ(plus(2, 3), 5);
}

TEST(UniqueFunction, DestroysCapturesExactlyOnceAcrossMovesAndReassignment) {
    {
        UniqueFunction<void()> inlineFn = [t = Tracked()] {};
        UniqueFunction<void()> heapFn = [t = Tracked(), pad = std::array<char, 128>{}] {
            (void)pad;
        };
        EXPECT_EQ(Tracked::alive, 2);
        UniqueFunction<void()> moved = std::move(inlineFn);
        moved = std::move(heapFn);  // destroys the inline capture
        EXPECT_EQ(Tracked::alive, 1);
        UniqueFunction<void()> empty;
        moved = std::move(empty);
        EXPECT_EQ(Tracked::alive, 0);
    }
    EXPECT_EQ(Tracked::alive, 0);
    void (*nullFunction)() = nullptr;
    EXPECT_FALSE(UniqueFunction<void()>(nullFunction));
}

TEST(Identifier, ConsecutiveValuesFromTheProcessWideCounter) {
    Identifier first;
    Identifier second;
    EXPECT_EQ(second.identifier, first.identifier + 1);
    EXPECT_GE(first.identifier, 0);
    EXPECT_NE(std::hash<Identifier>{}(Identifier(3)), std::hash<Identifier>{}(Identifier(4)));
}

}  // namespace
}  // namespace mirels
