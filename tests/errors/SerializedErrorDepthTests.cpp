#include <gtest/gtest.h>

#include <string>

#include "mirels/errors/HumanReadableConversion.h"
#include "mirels/errors/PlatformError.h"
#include "mirels/futures/TimeoutError.h"
#include "mirels/platform/Log.h"
#include "mirels/plist/PlistSerialization.h"

namespace mirels {
namespace {

// The deepest packed error that is built, written and read: a leaf is one level and each
// wrapper adds one, so that a packed error inside a platform error's property-list form (two
// more levels) fits the property-list depth limit.
constexpr std::size_t errorDepthLimit = 510;

// A chain of `levels` packed levels: wrappers whose underlying error is the next wrapper.
Error chain(std::size_t levels) {
    Error error = TimeoutError::timedOut(1.0);
    for (std::size_t level = 1; level < levels; ++level) {
        error = withUnderlying(Error(TimeoutError::timedOut(static_cast<double>(level))), error);
    }
    return error;
}

std::size_t levelsOf(const HumanReadableErrorRef& error) {
    std::size_t levels = 1;
    for (const HumanReadableError* level = error.get();; ++levels) {
        const auto* wrapper = dynamic_cast<const UnderlyingErrorWrapper*>(level);
        if (wrapper == nullptr) return levels;
        level = wrapper->underlying().get();
    }
}

TEST(SerializedErrorDepth, OneLimitForBuildingWritingAndReading) {
    // At the limit: built, written in both forms, read back whole.
    const HumanReadableErrorRef deepest = humanReadable(chain(errorDepthLimit));
    const PropertyList packed = deepest->serializableNSError().propertyListValue();
    for (bool binary : {false, true}) {
        SCOPED_TRACE(binary ? "binary" : "XML");
        const PropertyList read = binary ? parsePropertyListDictionary(toBinary(packed))
                                         : parsePropertyListDictionary(toXML(packed));
        const HumanReadableErrorRef decoded =
            humanReadable(Error(PlatformError::fromPropertyListValue(read)));
        EXPECT_EQ(levelsOf(decoded), errorDepthLimit);
        EXPECT_EQ(decoded->effectiveTitle(), deepest->effectiveTitle());
        EXPECT_EQ(decoded->additionalInfo(), deepest->additionalInfo());
    }

    // One past it: building refuses with a clear error, before anything is written.
    const std::string tooDeep = "errors nested deeper than 510 levels";
    const HumanReadableErrorRef tooDeepError = humanReadable(chain(errorDepthLimit + 1));
    try {
        (void)tooDeepError->serializableNSError();
        ADD_FAILURE() << "a packed error one level past the limit was built";
    } catch (const PropertyListSerializationError& error) {
        EXPECT_EQ(error.what(), tooDeep);
    }

    // A packed error one level past it made elsewhere is refused when read, from either form.
    PlistDictionary leaf = PlistDictionary{{"errorType", "leaf"}, {"isNative", true}};
    PlistDictionary nested = leaf;
    for (std::size_t level = 1; level <= errorDepthLimit; ++level) {
        nested = PlistDictionary{{"errorType", "wrapper"}, {"main", leaf}, {"underlying", nested}};
    }
    for (bool binary : {false, true}) {
        SCOPED_TRACE(binary ? "binary" : "XML");
        const PlistValue read =
            binary ? parsePropertyList(toBinary(nested)) : parsePropertyList(toXML(nested));
        PlatformError carrier(std::string(mirelsErrorDomain), -1,
                              {{std::string(PlatformError::humanReadableErrorKey), read}});
        ScopedLogCapture capture;
        EXPECT_EQ(deserializeHumanReadableError(carrier), nullptr);
        ASSERT_EQ(capture->entries().size(), 1u);
        EXPECT_EQ(capture->entries()[0].message,
                  "Invalid HumanReadableError serialization: " + tooDeep);
    }
}

}  // namespace
}  // namespace mirels
