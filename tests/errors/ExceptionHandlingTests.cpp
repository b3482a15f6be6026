#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "mirels/errors/ExceptionHandling.h"
#include "mirels/errors/HumanReadableConversion.h"
#include "mirels/errors/Unreachable.h"
#include "mirels/plist/PropertyListError.h"
#include "support/SoftAssertions.h"

namespace mirels {
namespace {

/// The QKExceptionError that `perform` throws, or nothing.
template <class F>
std::optional<QKExceptionError> raisedBy(F perform) {
    try {
        withCaughtObjectiveCExceptions(perform);
    } catch (const QKExceptionError& error) {
        return error;
    }
    return std::nullopt;
}

TEST(ExceptionBridge, RaisedExceptionsBecomeExceptionErrors) {
    auto named = raisedBy([] { throw NamedException("Overflow", "too many items"); });
    ASSERT_TRUE(named);
    EXPECT_EQ(named->domain(), "org.mirels.foundation.ExceptionError");
    EXPECT_EQ(named->code(), 0);
    EXPECT_EQ(named->userInfo().size(), 2u);
    EXPECT_EQ(named->localizedDescription(), "Overflow");
    EXPECT_EQ(named->localizedFailureReason(), "too many items");
    EXPECT_THROW(std::rethrow_exception(named->exception()), NamedException);

    auto standard = raisedBy([] { return std::string().at(3); });
    ASSERT_TRUE(standard);
    EXPECT_EQ(standard->exceptionName(), "out_of_range");
    EXPECT_NE(standard->exceptionReason().find("basic_string"), std::string::npos);

    // As an error value it shows as a platform error with the reason in the diagnostics.
    HumanReadableErrorRef human = humanReadable(Error(*named));
    EXPECT_EQ(human->lowValueTitle(), "Overflow");
    EXPECT_EQ(
        human->additionalDiagnostics(),
        "org.mirels.foundation.ExceptionError (0):\n==LocalizedFailureReason: too many items");
}

TEST(ExceptionBridge, ErrorsAndOtherObjectsPassThroughUnchanged) {
    EXPECT_EQ(withCaughtObjectiveCExceptions([] { return 7; }), 7);
    EXPECT_EQ(*withCaughtObjectiveCExceptions([] { return std::make_unique<int>(8); }), 8);
    withCaughtObjectiveCExceptions([] {});

    // The very object, not a copy.
    auto throwsItself = [](auto thrown) {
        std::exception_ptr original;
        try {
            withCaughtObjectiveCExceptions([&] {
                try {
                    throw thrown;
                } catch (...) {
                    original = std::current_exception();
                    throw;
                }
            });
        } catch (...) {
            return std::current_exception() == original;
        }
        return false;
    };
    testing::SoftAssertionRecorder reports;
    EXPECT_TRUE(throwsItself(Unreachable("library error")));
    EXPECT_TRUE(throwsItself(PlatformError("org.example", 3)));
    EXPECT_TRUE(throwsItself(QKExceptionError::qk_errorWithDescription("nested bridge")));
    EXPECT_TRUE(throwsItself(42));
    EXPECT_EQ(reports.count(), 1u);  // the Unreachable's own report; the bridge adds none

    // perform: true when the block returns, false (with or without an out-pointer) when it raises.
    std::optional<QKExceptionError> error;
    EXPECT_TRUE(QKObjCExceptionHandler::perform([] {}, &error));
    EXPECT_FALSE(error);
    EXPECT_FALSE(QKObjCExceptionHandler::perform([] { throw std::runtime_error("x"); }));
    EXPECT_FALSE(QKObjCExceptionHandler::perform([] { throw std::runtime_error("boom"); }, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->exceptionName(), "runtime_error");
    EXPECT_EQ(error->exceptionReason(), "boom");
    EXPECT_THROW(QKObjCExceptionHandler::perform([] { throw 1.5; }, &error), double);
}

TEST(PlatformError, FactoriesAndPlaceholders) {
    PlatformError described = PlatformError::qk_errorWithDescription("Nope");
    EXPECT_EQ(described.domain(), mirelsErrorDomain);
    EXPECT_EQ(described.code(), -1);
    EXPECT_EQ(described.userInfo().size(), 1u);
    EXPECT_STREQ(described.what(), "Nope");

    // Formats are type-safe: each argument prints by its own type, never redacted, and a
    // conversion without an argument cannot read memory.
    PlatformError formatted = PlatformError::qk_errorWithFormat(
        "%@ has %d items (%{private}s, %.1f%%) %s %n", std::string("Cart"), 3, "hidden", 99.5);
    EXPECT_EQ(formatted.localizedDescription(), "Cart has 3 items (hidden, 99.5%) <missing> %n");

    // The exception error's own factories give placeholders with this class's domain.
    QKExceptionError placeholder = QKExceptionError::qk_errorWithFormat("id %d", 5);
    EXPECT_EQ(placeholder.domain(), "org.mirels.foundation.ExceptionError");
    EXPECT_EQ(placeholder.code(), 0);
    EXPECT_EQ(placeholder.exceptionName(), "No exception specified");
    EXPECT_EQ(placeholder.exceptionReason(),
              "QKExceptionError instantiated for domain org.mirels.foundation with code -1.");
    EXPECT_EQ(QKExceptionError("org.example", 12).exceptionReason(),
              "QKExceptionError instantiated for domain org.example with code 12.");

    auto handling = QKExceptionHandlingError::neitherRaisedExceptionNorReturnedValue();
    EXPECT_EQ(handling.fullDiagnosticsOutput(),
              "QKExceptionHandlingError\n\nneitherRaisedExceptionNorReturnedValue");
}

TEST(PlatformError, PropertyListFormKeepsValuesAndNestedErrors) {
    PlatformError::UserInfo inner;
    inner.emplace(std::string(PlatformError::localizedDescriptionKey), PlistValue("inner"));
    PlatformError::UserInfo userInfo;
    userInfo.emplace(std::string(PlatformError::localizedDescriptionKey), PlistValue("outer"));
    userInfo.emplace("count", PlistValue(2));
    userInfo.emplace(std::string(PlatformError::underlyingErrorKey),
                     Error(PlatformError("org.example.inner", 5, inner)));
    userInfo.emplace("cause", Error(std::runtime_error("disk")));
    PlatformError outer("org.example", 4, userInfo);

    PlatformError back = PlatformError::fromPropertyListValue(outer.propertyListValue());
    EXPECT_EQ(back.domain(), "org.example");
    EXPECT_EQ(back.code(), 4);
    EXPECT_EQ(back.localizedDescription(), "outer");
    EXPECT_EQ(std::get<PlistValue>(*back.userInfoValue("count")), PlistValue(2));
    ASSERT_TRUE(back.underlyingError());
    EXPECT_EQ(back.underlyingError()->as<PlatformError>()->localizedDescription(), "inner");
    // A foreign nested error travels packed, and unpacks into its human-readable texts.
    const Error& cause = std::get<Error>(*back.userInfoValue("cause"));
    EXPECT_EQ(humanReadable(cause)->additionalDiagnostics(), "runtime_error: disk");

    EXPECT_THROW(PlatformError::fromPropertyListValue(PropertyList(PlistDictionary{{"code", 1}})),
                 PropertyListError);
    EXPECT_EQ(bridgeToPlatformError(Error(std::runtime_error("x"))).domain(), "runtime_error");
    EXPECT_EQ(bridgeToPlatformError(Error(outer)).code(), 4);
}

}  // namespace
}  // namespace mirels
