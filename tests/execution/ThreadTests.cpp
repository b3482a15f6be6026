#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "mirels/execution/ExecutionExclusivity.h"
#include "mirels/execution/Thread.h"

namespace mirels {
namespace {

TEST(ExecutionExclusivity, IsOrderedByWhatItAllows) {
    EXPECT_LT(ExecutionExclusivity::none, ExecutionExclusivity::shared);
    EXPECT_LT(ExecutionExclusivity::shared, ExecutionExclusivity::exclusive);
    EXPECT_GE(ExecutionExclusivity::exclusive, ExecutionExclusivity::shared);
}

TEST(Thread, OneObjectPerThreadThatGrantsExclusivityOnlyToItself) {
    std::shared_ptr<const Thread> mainThread = Thread::current();
    EXPECT_EQ(Thread::current(), mainThread);
    EXPECT_EQ(mainThread->systemIdentifier(), gettid());
    EXPECT_TRUE(mainThread->isMain());
    EXPECT_TRUE(Thread::isMainThread());
    EXPECT_EQ(mainThread->currentExecutionExclusivity(), ExecutionExclusivity::exclusive);

    std::shared_ptr<const Thread> otherThread;
    ExecutionExclusivity mainSeenFromOther = ExecutionExclusivity::exclusive;
    ExecutionExclusivity otherSeenFromOther = ExecutionExclusivity::none;
    bool otherIsMain = true;
    std::thread([&] {
        otherThread = Thread::current();
        mainSeenFromOther = mainThread->currentExecutionExclusivity();
        otherSeenFromOther = otherThread->currentExecutionExclusivity();
        otherIsMain = Thread::isMainThread();
    }).join();

    EXPECT_NE(otherThread, mainThread);
    EXPECT_FALSE(otherIsMain);
    EXPECT_FALSE(otherThread->isMain());
    EXPECT_EQ(mainSeenFromOther, ExecutionExclusivity::none);
    EXPECT_EQ(otherSeenFromOther, ExecutionExclusivity::exclusive);
    // The other thread has ended; its object still answers, and grants nothing to us.
    EXPECT_EQ(otherThread->currentExecutionExclusivity(), ExecutionExclusivity::none);
}

}  // namespace
}  // namespace mirels
