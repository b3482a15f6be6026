#include <gtest/gtest.h>

#include <any>
#include <memory>
#include <stdexcept>
#include <vector>

#include "mirels/core/Assertions.h"
#include "mirels/errors/CallsiteError.h"
#include "mirels/errors/Unreachable.h"
#include "support/SoftAssertions.h"

namespace mirels {
namespace {

using testing::SoftAssertionRecorder;

struct Base {
    virtual ~Base() = default;
};
struct Derived : Base {};
struct Other : Base {};

TEST(SoftAssertions, HoldingChecksReportNothingAndReturnTheirValue) {
    SoftAssertionRecorder reports;
    int evaluations = 0;
    EXPECT_TRUE(assertTrue([&] { return ++evaluations == 1; }));
    EXPECT_EQ(evaluations, 1);
    EXPECT_TRUE(assertEqual(2, 2));
    EXPECT_TRUE(assertLess(1, 2));
    EXPECT_TRUE(assertLessOrEqual(2, 2));
    EXPECT_TRUE(assertGreater(3, 2));
    EXPECT_TRUE(assertGreaterOrEqual(3, 3));
    EXPECT_TRUE(assertNil(std::optional<int>()));
    EXPECT_TRUE(assertEmpty(std::vector<int>{}));
    EXPECT_EQ(assertUnwrap(std::optional<int>(7)), 7);
    EXPECT_EQ(assertCast<int>(std::any(5)), 5);
    EXPECT_EQ(assertNoThrow([] { return 9; }), 9);
    EXPECT_TRUE(assertNoThrow([] {}));
    Derived derived;
    Base* base = &derived;
    EXPECT_EQ(assertCast<Derived>(base), &derived);
    EXPECT_EQ(reports.count(), 0u);
}

TEST(SoftAssertions, EachFailureReportsOneEventNamingFileLineAndColumn) {
    SoftAssertionRecorder reports;
    EXPECT_FALSE(assertTrue(false));
    const auto line = static_cast<std::size_t>(__LINE__ - 1);
    EXPECT_FALSE(assertEqual(1, 2));
    EXPECT_FALSE(assertLess(2, 1));
    EXPECT_FALSE(assertLessOrEqual(3, 2));
    EXPECT_FALSE(assertGreater(1, 1));
    EXPECT_FALSE(assertGreaterOrEqual(1, 2));
    EXPECT_FALSE(assertNil(std::optional<int>(1)));
    EXPECT_FALSE(assertEmpty(std::vector<int>{1}));
    EXPECT_EQ(assertUnwrap(std::optional<int>()), std::nullopt);
    EXPECT_EQ(assertUnwrap(static_cast<int*>(nullptr)), nullptr);
    EXPECT_EQ(assertCast<int>(std::any(std::string("x"))), std::nullopt);
    Other other;
    Base* base = &other;
    EXPECT_EQ(assertCast<Derived>(base), nullptr);
    EXPECT_EQ(assertNoThrow([]() -> int { throw std::runtime_error("swallowed"); }), std::nullopt);
    EXPECT_FALSE(assertNoThrow([] { throw 42; }));
    assertUnreachable();
    assertUnreachable("with a message");
    assertionFailure("message not reported");
    assertMainThread();

    std::vector<std::string> files = reports.files();
    ASSERT_EQ(files.size(), 18u);
    // The column is the compiler's choice (the call's name or its parenthesis); the line is not.
    EXPECT_TRUE(files[0].starts_with("AssertionsTests.cpp:" + std::to_string(line) + ":"))
        << files[0];
    for (const auto& file : files) EXPECT_TRUE(file.starts_with("AssertionsTests.cpp:")) << file;
}

TEST(SoftAssertions, ReportCarriesOnlyTheFileField) {
    SoftAssertionRecorder reports;
    int messageEvaluations = 0;
    EXPECT_FALSE(assertNil(std::make_shared<int>(1), [&] {
        ++messageEvaluations;
        return std::string("secret message");
    }));
    EXPECT_EQ(messageEvaluations, 1);
    auto events = reports.transport().events("softAssert");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].name, std::string(CoreTallyLogger::eventNamePrefix) + "softAssert");
    for (const auto& [key, value] : events[0].payload) {
        if (value && value->getIf<std::string>()) {
            EXPECT_EQ(value->getIf<std::string>()->find("secret"), std::string::npos) << key;
        }
    }
    EXPECT_TRUE(events[0].payload.contains("file"));
}

TEST(SoftAssertions, IdentityComparesObjectsNotContents) {
    SoftAssertionRecorder reports;
    auto a = std::make_shared<int>(1);
    auto b = std::make_shared<int>(1);
    EXPECT_TRUE(assertIdentical(nullptr, nullptr));
    EXPECT_TRUE(assertIdentical(std::shared_ptr<int>(), static_cast<int*>(nullptr)));
    EXPECT_TRUE(assertIdentical(a, a.get()));
    EXPECT_EQ(reports.count(), 0u);
    EXPECT_FALSE(assertIdentical(a, nullptr));
    EXPECT_FALSE(assertIdentical(a, b));
    EXPECT_EQ(reports.count(), 2u);
}

struct Positive {
    using Value = int;
    int value;
    static std::optional<Positive> wrapping(int v) {
        if (v > 0) return Positive{v};
        return std::nullopt;
    }
};

TEST(SoftAssertions, PredicatesAndWrappers) {
    SoftAssertionRecorder reports;
    EXPECT_EQ(assertPredicate<Positive>(3)->value, 3);
    EXPECT_EQ(assertPredicate<IsSome<int>>(std::optional<int>(4)), 4);
    EXPECT_EQ(reports.count(), 0u);
    EXPECT_FALSE(assertPredicate<Positive>(0).has_value());
    EXPECT_FALSE(assertPredicate<IsSome<int>>(std::nullopt).has_value());
    EXPECT_EQ(reports.count(), 2u);
}

TEST(Unreachable, ReportsOnceWhenMadeEvenIfNeverThrown) {
    SoftAssertionRecorder reports;
    int evaluations = 0;
    Unreachable error([&] {
        ++evaluations;
        return std::string("cannot happen");
    });
    EXPECT_EQ(evaluations, 1);
    EXPECT_EQ(reports.count(), 1u);
    Unreachable copy = error;  // copies are not new reports
    EXPECT_EQ(reports.count(), 1u);
    EXPECT_EQ(copy.lowValueTitle(), "A mirels logic error occurred");
    EXPECT_EQ(copy.additionalInfo(), "cannot happen");
    EXPECT_EQ(copy.additionalDiagnostics(), std::nullopt);
    EXPECT_EQ(copy.highValueTitle(), std::nullopt);
    EXPECT_TRUE(copy.isNativeHumanReadable());
    EXPECT_STREQ(copy.what(), "Unreachable: A mirels logic error occurred\n\ncannot happen");
}

TEST(CallsiteError, TitleIsTheCallSiteDescription) {
    Callsite site(nullptr, "/src/Layout/Grid", 12, 5, "body");
    CallsiteError<std::runtime_error> error(std::runtime_error("boom"), site);
    EXPECT_EQ(error.lowValueTitle(), "Grid:12:5 within body");
    EXPECT_EQ(error.effectiveTitle(), "Grid:12:5 within body");
    EXPECT_EQ(error.additionalInfo(), std::nullopt);
    EXPECT_STREQ(error.underlying().what(), "boom");
    EXPECT_EQ(error.callsite(), site);
    EXPECT_EQ(error.description(), "CallsiteError<runtime_error>: Grid:12:5 within body");
}

}  // namespace
}  // namespace mirels
