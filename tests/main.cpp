#include <gtest/gtest.h>

#include "support/TestEnvironment.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    // Death tests fork; "threadsafe" re-executes the binary so that the child does not inherit
    // the parent's worker threads mid-flight.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    testing::AddGlobalTestEnvironment(new mirels::testing::MirelsEnvironment);
    return RUN_ALL_TESTS();
}
