// Streaming a value gives the same text as its description, so values read the same in logs,
// test failure messages and user-facing text.
#include <gtest/gtest.h>

#include <exception>
#include <sstream>
#include <stdexcept>
#include <string>

#include "mirels/core/Callsite.h"
#include "mirels/core/Identifier.h"
#include "mirels/core/TimePeriod.h"
#include "mirels/core/UUID.h"
#include "mirels/errors/Error.h"
#include "mirels/execution/QualityOfService.h"
#include "mirels/futures/FutureTermination.h"
#include "mirels/geometry/Axis.h"
#include "mirels/plist/PropertyList.h"
#include "mirels/version/BuildNumber.h"
#include "mirels/version/VersionNumber.h"

namespace mirels {
namespace {

template <class T>
std::string streamed(const T& value) {
    std::ostringstream stream;
    stream << value;
    return stream.str();
}

TEST(Streaming, ValueTypesStreamTheirDescriptionOrTextForm) {
    const Callsite here = Callsite::current();
    EXPECT_EQ(streamed(here), here.description());
    EXPECT_NE(streamed(here).find("StreamingTests.cpp"), std::string::npos);

    const auto uuid = UUID::fromString("123E4567-E89B-42D3-A456-426614174000");
    ASSERT_TRUE(uuid.has_value());
    EXPECT_EQ(streamed(*uuid), "123e4567-e89b-42d3-a456-426614174000");

    EXPECT_EQ(streamed(Identifier(42)), "42");
    EXPECT_EQ(streamed(TimePeriod::fromNanoseconds(250'000'000)), "0.25s");
    EXPECT_EQ(streamed(QualityOfService::userInitiated), "userInitiated");
    EXPECT_EQ(streamed(Axis::vertical), "vertical");

    const Error error(std::make_exception_ptr(std::runtime_error("disk full")));
    EXPECT_EQ(streamed(error), error.description());
    EXPECT_NE(streamed(error).find("disk full"), std::string::npos);

    PropertyList list;
    list.archiveValue(std::string("b"), "session");
    list.archiveValue(3, "count");
    EXPECT_EQ(streamed(list), list.description());
    EXPECT_NE(streamed(list).find("session"), std::string::npos);

    EXPECT_EQ(streamed(FutureState<int>::running()), "running");
    const auto succeeded = FutureTermination<int>::succeeded(7);
    EXPECT_EQ(streamed(succeeded), succeeded.description());
    EXPECT_EQ(streamed(FutureState<int>::finished(succeeded)), succeeded.description());
    const auto canceled = FutureTermination<int>::canceled(here);
    EXPECT_EQ(streamed(canceled), "canceled");
    EXPECT_EQ(streamed(FutureTermination<int>::failed(error)), "failed");

    const auto version = VersionNumber::fromString("1.2.3");
    ASSERT_TRUE(version.has_value());
    EXPECT_EQ(streamed(*version), version->description());
    const BuildNumber build("21A5248v");
    EXPECT_EQ(streamed(build), build.description());
}

}  // namespace
}  // namespace mirels
