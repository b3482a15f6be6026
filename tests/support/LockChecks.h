#pragma once

#include <gtest/gtest.h>

#include "mirels/core/ThreadSafetyAnnotations.h"
#include "mirels/core/UnfairLock.h"

namespace mirels::testing {

/// Checks that `lock` is free now and excludes a second owner once taken; leaves it free.
inline void expectFreeThenExclusive(UnfairLock& lock) MIRELS_NO_THREAD_SAFETY_ANALYSIS {
    EXPECT_TRUE(lock.try_lock());
    EXPECT_FALSE(lock.try_lock());
    lock.unlock();
}

}  // namespace mirels::testing
