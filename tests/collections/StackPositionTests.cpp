#include <gtest/gtest.h>

#include "mirels/collections/ChunkStack.h"
#include "mirels/collections/FixedStack.h"

namespace mirels {
namespace {

// Positions past the last element, in the last chunk or beyond every chunk, and negative ones
// stop the process with the message a fixed stack gives, in every build type.
TEST(ChunkStackDeathTest, PositionsOutOfRangeStopTheProcess) {
    ChunkStack<int> stack(4);
    for (int i = 0; i < 6; ++i) stack.push(i);
    EXPECT_EQ(stack[5], 5);
    EXPECT_DEATH(stack[6],
                 "Attempting to subscript into index 6 which is out of bounds 0\\.\\.<6\\.");
    EXPECT_DEATH(stack[8],
                 "Attempting to subscript into index 8 which is out of bounds 0\\.\\.<6\\.");
    EXPECT_DEATH(stack[1000],
                 "Attempting to subscript into index 1000 which is out of bounds 0\\.\\.<6\\.");
    EXPECT_DEATH(stack[-1],
                 "Attempting to subscript into index -1 which is out of bounds 0\\.\\.<6\\.");

    // A chunk emptied by pops is kept: its positions are out of range all the same.
    stack.pop();
    stack.pop();
    EXPECT_EQ(stack.chunks().size(), 2u);
    EXPECT_DEATH(stack[4],
                 "Attempting to subscript into index 4 which is out of bounds 0\\.\\.<4\\.");
    EXPECT_DEATH(ChunkStack<int>(3)[0],
                 "Attempting to subscript into index 0 which is out of bounds 0\\.\\.<0\\.");
    // Through an iterator as well.
    EXPECT_DEATH(stack.begin()[7], "Attempting to subscript into index 7 which is out of bounds");
}

TEST(FixedStackDeathTest, NegativePositionsStopTheProcess) {
    FixedStack<int> stack(4);
    stack.push(1);
    EXPECT_DEATH(stack[-1],
                 "Attempting to subscript into index -1 which is out of bounds 0\\.\\.<1\\.");
}

}  // namespace
}  // namespace mirels
