#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "errors/RemoteErrorScenarios.h"
#include "mirels/errors/HumanReadableConversion.h"
#include "mirels/platform/Log.h"

namespace mirels {
namespace {

/// A conformer whose every answer the test chooses.
class Configurable final : public HumanReadableError {
  public:
    std::optional<std::string> high, low, info, diagnostics;
    std::optional<HumanReadableErrorOptions> flags;
    bool retry = true;
    bool native = true;

    std::optional<std::string> highValueTitle() const override { return high; }
    std::optional<std::string> lowValueTitle() const override { return low; }
    std::optional<std::string> additionalInfo() const override { return info; }
    std::optional<std::string> additionalDiagnostics() const override { return diagnostics; }
    std::optional<HumanReadableErrorOptions> options() const override { return flags; }
    bool canTryAgain() const override { return retry; }
    bool isNativeHumanReadable() const override { return native; }
};

Configurable make(std::optional<std::string> low, std::optional<std::string> info) {
    Configurable error;
    error.low = std::move(low);
    error.info = std::move(info);
    return error;
}

PlatformError platformError(PlatformError::UserInfo userInfo) {
    return PlatformError("org.example", 7, std::move(userInfo));
}

template <class T>
const T& as(const HumanReadableErrorRef& error) {
    const T* cast = dynamic_cast<const T*>(error.get());
    if (cast == nullptr) throw std::logic_error("unexpected type " + error->errorTypeDescription());
    return *cast;
}

TEST(HumanReadable, ErrorsThatAlreadyAreHumanReadableComeBackThemselves) {
    Error error(make("title", std::nullopt));
    HumanReadableErrorRef human = humanReadable(error);
    EXPECT_EQ(human.get(), error.humanReadableError());
    try {
        throw make("thrown", std::nullopt);
    } catch (...) {
        Error caught = Error::current();
        EXPECT_EQ(humanReadable(std::current_exception()).get(), caught.humanReadableError());
    }
    EXPECT_EQ(errorTypeDescription(error), "Configurable");
    EXPECT_EQ(errorTypeDescription(Error(std::out_of_range("x"))), "out_of_range");
}

TEST(HumanReadable, ForeignValuesBecomeSwiftErrors) {
    auto caught = [](auto thrown) {
        try {
            throw thrown;
        } catch (...) {
            return humanReadable(std::current_exception());
        }
    };
    HumanReadableErrorRef number = caught(42);
    EXPECT_EQ(as<HumanReadableSwiftError>(number).errorType(), typeid(int));
    EXPECT_EQ(number->additionalDiagnostics(), "int: 42");
    EXPECT_EQ(number->errorTypeDescription(), "int");
    EXPECT_EQ(number->fullDiagnosticsOutput(), "HumanReadableSwiftError\n\nint: 42");
    EXPECT_EQ(number->effectiveTitle(), std::nullopt);
    EXPECT_FALSE(number->isNativeHumanReadable());
    EXPECT_TRUE(number->canTryAgain());
    EXPECT_EQ(caught(std::string("text"))->additionalDiagnostics(),
              "basic_string<char, "
              "char_traits<char>, "
              "allocator<char> >: text");
    EXPECT_EQ(humanReadable(Error(std::logic_error("bad state")))->additionalDiagnostics(),
              "logic_error: bad state");
    // A platform error with an empty user info has nothing more to say.
    EXPECT_EQ(humanReadable(Error(platformError({})))->additionalDiagnostics(),
              "PlatformError: org.example error 7");
}

TEST(HumanReadable, PlatformErrorsShowTheirUserInfo) {
    PlatformError::UserInfo userInfo;
    userInfo.emplace(std::string(PlatformError::localizedDescriptionKey),
                     PlistValue("Cannot open"));
    userInfo.emplace(std::string(PlatformError::localizedRecoverySuggestionKey),
                     PlistValue("Try another file"));
    userInfo.emplace(std::string(PlatformError::localizedFailureReasonKey), PlistValue("locked"));
    userInfo.emplace("attempts", PlistValue(3));
    userInfo.emplace("paths", PlistValue(PlistArray{"/a"}));
    HumanReadableErrorRef human = humanReadable(Error(platformError(userInfo)));
    const auto& described = as<HumanReadableNSError>(human);
    EXPECT_EQ(described.error().code(), 7);
    EXPECT_EQ(human->highValueTitle(), std::nullopt);
    EXPECT_EQ(human->lowValueTitle(), "Cannot open");
    EXPECT_EQ(human->additionalInfo(), "Try another file");
    EXPECT_EQ(
        human->additionalDiagnostics(),
        "org.example (7):\n==LocalizedFailureReason: locked\n==attempts: 3\n==paths: [\"/a\"]");
    EXPECT_EQ(human->errorTypeDescription(), "NSError.org.example.7");
    EXPECT_FALSE(human->isNativeHumanReadable());

    // The underlying error makes a wrapper, also when it is the only entry.
    userInfo.emplace(std::string(PlatformError::underlyingErrorKey),
                     Error(std::runtime_error("io")));
    HumanReadableErrorRef wrapped = humanReadable(Error(platformError(userInfo)));
    const auto& wrapper = as<UnderlyingErrorWrapper>(wrapped);
    EXPECT_NE(dynamic_cast<const HumanReadableNSError*>(wrapper.main().get()), nullptr);
    EXPECT_EQ(wrapper.underlying()->additionalDiagnostics(), "runtime_error: io");
    PlatformError::UserInfo onlyUnderlying;
    onlyUnderlying.emplace(std::string(PlatformError::underlyingErrorKey),
                           Error(make("inner", {})));
    HumanReadableErrorRef loneRef = humanReadable(Error(platformError(onlyUnderlying)));
    const auto& lone = as<UnderlyingErrorWrapper>(loneRef);
    EXPECT_EQ(lone.main()->lowValueTitle(), "org.example error 7");
    EXPECT_EQ(lone.underlying()->lowValueTitle(), "inner");
}

TEST(UnderlyingErrorWrapper, AnswersFromItsTwoParts) {
    Configurable main = make(std::nullopt, "main info");
    main.diagnostics = "main diagnostics";
    main.retry = false;
    main.native = false;
    Configurable middle = make("middle\ntwo lines", std::nullopt);
    middle.flags = HumanReadableErrorOptions::showCrashLogsButton;
    Configurable inner = make("inner", "inner info");
    inner.high = "inner high";

    Error chain = withUnderlying(main, withUnderlying(middle, Error(inner)));
    HumanReadableErrorRef human = humanReadable(chain);
    const auto& wrapper = as<UnderlyingErrorWrapper>(human);
    EXPECT_EQ(human->highValueTitle(), "inner high");
    EXPECT_EQ(human->lowValueTitle(), "middle\ntwo lines");
    EXPECT_EQ(human->effectiveTitle(), "inner high");
    EXPECT_EQ(human->additionalInfo(), "main info: inner info");
    EXPECT_EQ(wrapper.underlying()->additionalInfo(), "inner info");  // no ": " when alone
    EXPECT_EQ(human->additionalDiagnostics(), "main diagnostics");
    EXPECT_EQ(human->options(), HumanReadableErrorOptions::showCrashLogsButton);
    EXPECT_FALSE(human->canTryAgain());
    EXPECT_FALSE(human->isNativeHumanReadable());
    EXPECT_FALSE(human->isPotentialCrash());
    EXPECT_EQ(human->errorTypeDescription(), "Configurable.Configurable.Configurable");
    EXPECT_EQ(&human->unwrapped(), wrapper.main().get());
    EXPECT_EQ(&wrapper.main()->unwrapped(), wrapper.main().get());
    EXPECT_EQ(human->fullDiagnosticsOutput(),
              "Configurable\n\nmain info\n\nmain diagnostics"
              "\n\n==================================\n\n"
              "|  Configurable: middle\n"
              "|  two lines\n"
              "|  \n"
              "|  ==================================\n"
              "|  \n"
              "|  |  Configurable: inner high\n"
              "|  |  \n"
              "|  |  inner info");
    EXPECT_EQ(std::string(human->what()), human->fullDiagnosticsOutput());

    // Absent causes change nothing.
    EXPECT_EQ(withUnderlying(chain, std::nullopt), chain);
    EXPECT_EQ(withUnderlying(human, std::nullopt), human);
    EXPECT_NE(dynamic_cast<const UnderlyingErrorWrapper*>(
                  withUnderlying(human, Error(std::runtime_error("x"))).get()),
              nullptr);
}

TEST(HumanReadable, TrackingACallsiteNamesThePlace) {
    Callsite here = Callsite::current();
    UnderlyingErrorWrapper tracked = trackingCallsite(Error(std::runtime_error("lost")), here);
    EXPECT_EQ(tracked.effectiveTitle(), here.description());
    EXPECT_EQ(tracked.main()->additionalDiagnostics(), "runtime_error: lost");
    const auto& callsiteError = as<CallsiteError<Error>>(tracked.underlying());
    EXPECT_EQ(callsiteError.callsite(), here);
    EXPECT_EQ(callsiteError.underlying().description(), "lost");
    // Titled errors keep their own title; the place is still in the trail.
    Error titled = trackingCallsite(make("Save failed", std::nullopt));
    EXPECT_EQ(humanReadable(titled)->effectiveTitle(), "Save failed");
    EXPECT_NE(humanReadable(titled)->fullDiagnosticsOutput().find(
                  "|  CallsiteError<Error>: HumanReadableConversionTests.cpp:"),
              std::string::npos);
}

TEST(HumanReadable, PackedErrorsUnpackInTheSameShape) {
    Configurable untitled;
    PlatformError packed = untitled.serializableNSError();
    EXPECT_EQ(packed.domain(), "org.mirels.foundation");
    EXPECT_EQ(packed.code(), -1);
    EXPECT_EQ(packed.localizedDescription(), "Unexpected mirel error");
    EXPECT_EQ(packed.userInfo().size(), 2u);
    EXPECT_EQ(untitled.fullDiagnosticsOutput(), "Configurable");

    Error original = testing::throwScenario("nested");
    HumanReadableErrorRef sent = humanReadable(original);
    PlatformError nested = sent->serializableNSError();
    EXPECT_EQ(nested.localizedDescription(), "Disk full");
    HumanReadableErrorRef received = humanReadable(Error(nested));
    EXPECT_EQ(testing::summarize(*received), testing::summarize(*sent));
    EXPECT_EQ(received->plistRepresentation(), sent->plistRepresentation());
    const PlistDictionary form = sent->plistRepresentation().serializableDictionary();
    EXPECT_EQ(form.at("errorType"), PlistValue("wrapper"));
    EXPECT_EQ(form.at("underlying").getIf<PlistDictionary>()->at("errorType"), PlistValue("leaf"));
}

TEST(HumanReadable, DamagedPackedErrorsAreLoggedAndIgnored) {
    const PlistDictionary leaf{{"errorType", "leaf"}, {"isNative", true}};
    struct Case {
        PlistValue payload;
        std::string logged;  // empty: not a packed error, nothing logged
    };
    const std::vector<Case> cases = {
        {PlistDictionary{{"isNative", true}},
         "Property list missing value for required key \"errorType\""},
        {PlistDictionary{{"errorType", "tree"}, {"isNative", true}},
         "invalid raw value for RawRepresentable type ErrorType: no member \"tree\""},
        {PlistDictionary{{"errorType", "leaf"}, {"isNative", 1}},
         "invalid value for key \"isNative\": value was Int, expected Bool"},
        {PlistDictionary{{"errorType", "leaf"}, {"isNative", true}, {"options", "all"}},
         "invalid value for key \"options\": value was String, expected Int"},
        {PlistDictionary{{"errorType", "wrapper"}, {"main", leaf}, {"underlying", "leaf"}},
         "invalid value for key \"underlying\": value was String, expected PropertyList"},
        {PlistDictionary{{"errorType", "wrapper"},
                         {"main", leaf},
                         {"underlying", PlistDictionary{{"errorType", 5}}}},
         "invalid value for key \"errorType\": value was Int, expected String"},
        {PlistValue("not a dictionary"), ""},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.logged);
        ScopedLogCapture log;
        PlatformError::UserInfo userInfo;
        userInfo.emplace(std::string(PlatformError::localizedDescriptionKey), PlistValue("Oops"));
        userInfo.emplace(std::string(PlatformError::humanReadableErrorKey), test.payload);
        HumanReadableErrorRef human = humanReadable(Error(platformError(userInfo)));
        EXPECT_NE(dynamic_cast<const HumanReadableNSError*>(human.get()), nullptr);
        EXPECT_EQ(human->lowValueTitle(), "Oops");
        auto entries = log->entries("org.mirels.foundation", "errors");
        if (test.logged.empty()) {
            EXPECT_TRUE(entries.empty());
            continue;
        }
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_EQ(entries[0].level, LogLevel::error);
        EXPECT_TRUE(entries[0].message.starts_with(
            "Invalid HumanReadableError serialization: PropertyListError\n\n"))
            << entries[0].message;
        EXPECT_NE(entries[0].message.find(test.logged), std::string::npos) << entries[0].message;
    }
}

TEST(HumanReadable, AccumulatedErrorsListEveryErrorIndented) {
    EXPECT_EQ(accumulatedDiagnosticsOutput({}), "");
    std::vector<Error> errors = {Error(make("first", "a\nb")), Error(std::runtime_error("second"))};
    EXPECT_EQ(accumulatedDiagnosticsOutput(errors),
              "Error 1:\n   Configurable: first\n   \n   a\n   b"
              "\n\n==============================\n\n"
              "Error 2:\n   HumanReadableSwiftError\n   \n   runtime_error: second");
}

}  // namespace
}  // namespace mirels
