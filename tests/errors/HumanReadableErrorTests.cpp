#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "mirels/errors/DiagnosticsCollector.h"
#include "mirels/errors/HumanReadableError.h"
#include "mirels/plist/PropertyList.h"

namespace mirels {
namespace {

/// A conformer whose every answer the test chooses.
class ConfigurableError final : public HumanReadableError {
  public:
    std::optional<std::string> high, low, info, diagnostics;
    std::optional<HumanReadableErrorOptions> flags;

    std::optional<std::string> highValueTitle() const override { return high; }
    std::optional<std::string> lowValueTitle() const override { return low; }
    std::optional<std::string> additionalInfo() const override { return info; }
    std::optional<std::string> additionalDiagnostics() const override { return diagnostics; }
    std::optional<HumanReadableErrorOptions> options() const override { return flags; }
};

TEST(HumanReadableError, DefaultsOfAConformerThatSuppliesOnlyTheRequiredTexts) {
    ConfigurableError error;
    EXPECT_EQ(error.effectiveTitle(), std::nullopt);
    EXPECT_TRUE(error.effectiveOptions().isEmpty());
    EXPECT_TRUE(error.canTryAgain());
    EXPECT_FALSE(error.isPotentialCrash());
    EXPECT_TRUE(error.isNativeHumanReadable());
    EXPECT_EQ(error.errorTypeDescription(), "ConfigurableError");
    EXPECT_EQ(error.fullDiagnosticsOutput(), "ConfigurableError");
    DiagnosticsCollector collector;
    error.collectDiagnostics(collector);
    EXPECT_TRUE(collector.attachments().empty());
}

TEST(HumanReadableError, FullDiagnosticsComposesTitleInfoAndDiagnosticsWithReplacements) {
    ConfigurableError error;
    error.low = "low";
    error.high = "Quokka failed";
    error.info = "see quokka.log\\nline two";
    error.diagnostics = "diag";
    EXPECT_EQ(error.effectiveTitle(), "Quokka failed");
    EXPECT_EQ(error.fullDiagnosticsOutput(),
              "ConfigurableError: Kestrel Mirels failed\n\nsee kestrelmirels.log\nline two\n\n"
              "diag");
    EXPECT_EQ(error.description(), error.fullDiagnosticsOutput());
    EXPECT_EQ(std::string(error.what()), error.fullDiagnosticsOutput());

    error.high.reset();
    error.info.reset();
    EXPECT_EQ(error.fullDiagnosticsOutput(), "ConfigurableError: low\n\ndiag");
}

TEST(HumanReadableError, LeafFormCarriesOnlyWhatIsPresent) {
    ConfigurableError error;
    error.low = "title";
    error.flags =
        HumanReadableErrorOptions::showTitleOnly | HumanReadableErrorOptions::generatesLiveIssues;
    PlistDictionary leaf = error.plistRepresentation().serializableDictionary();
    PlistDictionary expected{{"errorType", "leaf"},
                             {"lowValueTitle", "title"},
                             {"options", std::int64_t{12}},
                             {"isNative", true}};
    EXPECT_EQ(leaf, expected);
}

TEST(HumanReadableError, OptionBitsKeepTheirValues) {
    EXPECT_EQ(HumanReadableErrorOptions::showCrashLogsButton.rawValue, 2);
    EXPECT_EQ(HumanReadableErrorOptions::showTitleOnly.rawValue, 4);
    EXPECT_EQ(HumanReadableErrorOptions::generatesLiveIssues.rawValue, 8);
    HumanReadableErrorOptions options;
    options.insert(HumanReadableErrorOptions::showTitleOnly);
    EXPECT_TRUE(options.contains(HumanReadableErrorOptions::showTitleOnly));
    EXPECT_FALSE(options.contains(HumanReadableErrorOptions::showTitleOnly |
                                  HumanReadableErrorOptions::showCrashLogsButton));
    options.remove(HumanReadableErrorOptions::showTitleOnly);
    EXPECT_TRUE(options.isEmpty());
}

TEST(HumanReadableError, WhatIsStableAcrossThreadsAndCopiesRecompute) {
    ConfigurableError error;
    error.low = "first";
    std::vector<std::thread> threads;
    std::vector<const char*> texts(8);
    for (std::size_t i = 0; i < texts.size(); ++i) {
        threads.emplace_back([&, i] { texts[i] = error.what(); });
    }
    for (auto& thread : threads) thread.join();
    for (const char* text : texts) EXPECT_EQ(text, texts[0]);
    EXPECT_STREQ(texts[0], "ConfigurableError: first");

    ConfigurableError copy = error;
    copy.low = "second";
    EXPECT_STREQ(copy.what(), "ConfigurableError: second");
    EXPECT_STREQ(error.what(), "ConfigurableError: first");
    copy = error;
    EXPECT_STREQ(copy.what(), "ConfigurableError: first");
}

}  // namespace
}  // namespace mirels
