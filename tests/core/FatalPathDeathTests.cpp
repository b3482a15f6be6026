// The programming errors that stop the process rather than return an error: each must stop it
// with a message that says what was wrong, and not limp on with a broken invariant.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <exception>
#include <limits>
#include <memory>
#include <utility>

#include "mirels/core/RawValueCases.h"
#include "mirels/errors/Error.h"
#include "mirels/execution/DispatchQueue.h"
#include "mirels/execution/ExecutionLane.h"
#include "mirels/execution/ThreadGuard.h"
#include "mirels/plist/PropertyList.h"

namespace mirels {

enum class Shade { light, dark };

template <>
struct RawValueCases<Shade> {
    static constexpr std::array cases = {std::pair{Shade::light, "light"},
                                         std::pair{Shade::dark, "dark"}};
};

namespace {
/// A value type for which this test grants itself access to a guard's counters.
struct Probed {
    int value = 0;
};
}  // namespace

// The guard befriends its unchecked-access base; specialising that base for a value type of the
// test's own is the one way in to counters that no real caller can drive to their limits.
template <>
class UnsafeSynchronousAccessProviding<ThreadGuard<Probed>, Probed> {
  public:
    static void setReaders(const ThreadGuard<Probed>& guard, std::intptr_t value) {
        guard.readers_.store(value, std::memory_order_relaxed);
    }

  protected:
    UnsafeSynchronousAccessProviding() = default;
    ~UnsafeSynchronousAccessProviding() = default;
};

namespace {

using GuardAccess = UnsafeSynchronousAccessProviding<ThreadGuard<Probed>, Probed>;

TEST(FatalPathDeathTest, MisuseStopsTheProcessNamingWhatWasWrong) {
    EXPECT_DEATH((void)Error(std::exception_ptr()), "Error made from a null exception_ptr");
    EXPECT_DEATH((void)ExecutionLane::queue(std::shared_ptr<DispatchQueue>()),
                 "ExecutionLane::queue needs a queue, not null");

    // A cast-made value has no raw value: as a raw value, and as a property-list key.
    EXPECT_EQ(rawValue(Shade::dark), "dark");
    EXPECT_DEATH((void)rawValue(static_cast<Shade>(7)),
                 "an enumeration value without a raw value: Shade\\(7\\)");
    EXPECT_DEATH(PropertyList().archiveValue(1, static_cast<Shade>(7)),
                 "a key enumeration value without a raw value: Shade");
}

TEST(FatalPathDeathTest, ThreadGuardCountersStopAtTheirLimits) {
    auto guard = ThreadGuard<Probed>::requiringAccessOnThread(Probed{4});
    EXPECT_EQ(guard.syncRead([](const Probed& probed) { return probed.value; }), 4);
    EXPECT_EQ(guard.readers(), 0);

    // One more reader than the counter can hold.
    EXPECT_DEATH(
        {
            GuardAccess::setReaders(guard, std::numeric_limits<std::intptr_t>::max());
            guard.syncRead([](const Probed&) {});
        },
        "ThreadGuard access counter overflow");
    // A reader leaving when the count says nobody is inside.
    EXPECT_DEATH(guard.syncRead([&](const Probed&) { GuardAccess::setReaders(guard, 0); }),
                 "ThreadGuard access counter underflow");
    EXPECT_EQ(guard.readers(), 0);  // the deaths happened in children only
}

}  // namespace
}  // namespace mirels
