#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "mirels/collections/ChunkStack.h"
#include "mirels/collections/FixedStack.h"
#include "support/SoftAssertions.h"

namespace mirels {
namespace {

TEST(FixedStack, RefusesPushesWhenFullAndPopsTopFirst) {
    FixedStack<std::string> stack(2);
    EXPECT_TRUE(stack.push("a"));
    EXPECT_TRUE(stack.push("b"));
    std::string c = "c";
    EXPECT_FALSE(stack.push(std::move(c)));
    EXPECT_EQ(c, "c");  // a refused element is left alone
    EXPECT_EQ(stack.endIndex(), 2);
    EXPECT_EQ(stack[1], "b");
    EXPECT_EQ(stack.pop(), "b");
    EXPECT_EQ(stack.pop(), "a");
    EXPECT_EQ(stack.pop(), std::nullopt);
    EXPECT_EQ(stack.capacity(), 2);
}

TEST(FixedStack, CopiesAreIndependentValuesAndElementsAreDestroyedOnce) {
    auto tracked = std::make_shared<int>(0);
    {
        FixedStack<std::shared_ptr<int>> first(3);
        first.push(tracked);
        FixedStack<std::shared_ptr<int>> second = first;
        EXPECT_EQ(tracked.use_count(), 2);  // shared buffer, one stored copy
        second.push(tracked);
        EXPECT_EQ(tracked.use_count(), 4);  // second copied the buffer, then pushed
        EXPECT_EQ(first.count(), 1);
        EXPECT_EQ(second.count(), 2);
        EXPECT_NE(first, second);
        second.pop();
        EXPECT_EQ(first, second);
        EXPECT_EQ(std::hash<FixedStack<std::shared_ptr<int>>>{}(first),
                  std::hash<FixedStack<std::shared_ptr<int>>>{}(second));
    }
    EXPECT_EQ(tracked.use_count(), 1);
}

TEST(FixedStack, SubscriptPastTheTopStopsWithTheBounds) {
    FixedStack<int> stack(4);
    for (int i = 0; i < 3; ++i) stack.push(i);
    EXPECT_DEATH(stack[3],
                 "Attempting to subscript into index 3 which is out of bounds 0\\.\\.<3\\.");
}

TEST(ChunkStack, GrowsByChunksWithoutMovingElements) {
    ChunkStack<int> stack(2);
    stack.push(1);
    const int* firstAddress = &stack[0];
    stack.push(2);
    stack.push(3);
    EXPECT_EQ(stack.chunks().size(), 2u);
    EXPECT_EQ(stack.endIndex(), 3);
    EXPECT_EQ(stack[2], 3);
    for (int i = 4; i < 100; ++i) stack.push(i);
    EXPECT_EQ(&stack[0], firstAddress);

    std::vector<int> all(stack.begin(), stack.end());
    EXPECT_EQ(all.size(), 99u);
    EXPECT_TRUE(std::ranges::is_sorted(stack));
    EXPECT_EQ(stack.end() - stack.begin(), 99);
}

TEST(ChunkStack, KeepsAnEmptiedChunkForTheNextPush) {
    ChunkStack<int> stack(2);
    for (int i = 1; i <= 3; ++i) stack.push(i);
    ChunkStack<int> copy = stack;

    EXPECT_EQ(stack.pop(), 3);
    EXPECT_EQ(stack.chunks().size(), 2u);  // the emptied chunk stays
    stack.push(30);                        // and takes the next push
    EXPECT_EQ(stack.chunks().size(), 2u);
    EXPECT_EQ(stack[2], 30);

    EXPECT_EQ(stack.pop(), 30);
    EXPECT_EQ(stack.pop(), 2);  // drops the empty chunk, pops below it
    EXPECT_EQ(stack.chunks().size(), 1u);
    EXPECT_EQ(stack.pop(), 1);
    EXPECT_EQ(stack.pop(), std::nullopt);
    EXPECT_TRUE(stack.chunks().empty());

    EXPECT_EQ(std::vector<int>(copy.begin(), copy.end()), (std::vector{1, 2, 3}));
    ChunkStack<int> other(3);
    for (int i = 1; i <= 3; ++i) other.push(i);
    EXPECT_EQ(copy, other);  // equal elements, whatever the chunking
    std::unordered_set<ChunkStack<int>> set{copy, other};
    EXPECT_EQ(set.size(), 1u);
}

TEST(ChunkStack, ZeroChunkSizeReportsOnPushAndStopsOnSubscript) {
    testing::SoftAssertionRecorder reports;
    ChunkStack<int> stack(0);
    stack.push(1);
    EXPECT_EQ(reports.count(), 1u);
    EXPECT_EQ(stack.chunks().size(), 1u);
    EXPECT_EQ(stack.pop(), std::nullopt);
    EXPECT_DEATH(stack[0], "Division by zero");
}

}  // namespace
}  // namespace mirels
