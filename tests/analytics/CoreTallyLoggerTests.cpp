#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "mirels/analytics/RecordingCoreTallyTransport.h"
#include "mirels/platform/Log.h"
#include "mirels/platform/ProcessInfo.h"
#include "mirels/version/UserDefaults.h"
#include "platform/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace mirels {
namespace {

namespace fs = std::filesystem;

std::optional<PlistValue> field(const RecordingCoreTallyTransport::Event& event,
                                const std::string& key) {
    auto found = event.payload.find(key);
    EXPECT_NE(found, event.payload.end()) << key;
    return found == event.payload.end() ? std::nullopt : found->second;
}

class CoreTallyLoggerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // The test runner gives this process a private, empty preferences folder.
        ASSERT_TRUE(CoreTallyLogger::isEnabled()) << "QKLogCoreTally is off in this environment";
    }
};

TEST_F(CoreTallyLoggerTest, EventsCarryTheProcessAndBuildAndReplaceThoseKeys) {
    ScopedRecordingTransport recorder;
    CoreTallyLogger logger;
    logger.logEvent("softAssert", {{"responsibleProcess", "caller's own"},
                                   {"kestrelVersion", "1.0"},
                                   {"line", 12},
                                   {"detail", std::optional<std::string>()}});
    auto events = recorder->events("softAssert");
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].name, "org.mirels.foundation.softAssert");
    EXPECT_EQ(field(events[0], "responsibleProcess"), PlistValue(processName()));
    EXPECT_EQ(field(events[0], "kestrelVersion"), std::nullopt);  // no bundle around the tests
    EXPECT_EQ(field(events[0], "line"), PlistValue(12));
    EXPECT_EQ(field(events[0], "detail"), std::nullopt);
    EXPECT_EQ(events[0].payload.size(), 4U);
    EXPECT_EQ(events[0].payload.count("isLikelySampleProject"), 0U);  // no hints, no key
}

TEST_F(CoreTallyLoggerTest, HintsFillTheSampleProjectFlagUnlessTheCallerSaidTrue) {
    struct Case {
        std::optional<AnalyticsHints> hints;
        std::optional<AnalyticsValue> callerValue;
        std::optional<PlistValue> expected;  // nullopt: key absent
    };
    const std::vector<Case> cases = {
        {AnalyticsHints{false}, AnalyticsValue::boolean(true), PlistValue(true)},
        {AnalyticsHints{true}, AnalyticsValue::boolean(false), PlistValue(true)},
        {AnalyticsHints{false}, AnalyticsValue::boolean(false), PlistValue(false)},
        {AnalyticsHints{true}, std::nullopt, PlistValue(true)},
        {AnalyticsHints{false}, AnalyticsValue::string("yes"), PlistValue(false)},
        {std::nullopt, AnalyticsValue::boolean(false), PlistValue(false)},
        {std::nullopt, std::nullopt, std::nullopt},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        ScopedRecordingTransport recorder;
        CoreTallyLogger logger;
        logger.hints = cases[i].hints;
        AnalyticsFields fields;
        if (cases[i].callerValue)
            fields.emplace(CoreTallyLogger::sampleProjectKey, *cases[i].callerValue);
        logger.logEvent("hinted", std::move(fields));
        auto events = recorder->events();
        ASSERT_EQ(events.size(), 1U);
        auto found = events[0].payload.find(CoreTallyLogger::sampleProjectKey);
        if (!cases[i].expected) {
            EXPECT_EQ(found, events[0].payload.end());
        } else {
            ASSERT_NE(found, events[0].payload.end());
            EXPECT_EQ(found->second, cases[i].expected);
        }
    }
}

// Keeps the payload builders it is given without running them.
class DeferringTransport final : public CoreTallyTransport {
  public:
    void logEvent(std::string_view, AnalyticsPayloadBuilder makePayload) override {
        builders.push_back(std::move(makePayload));
    }
    std::vector<AnalyticsPayloadBuilder> builders;
};

TEST_F(CoreTallyLoggerTest, PayloadIsBuiltOnlyWhenTheTransportAsks) {
    auto deferring = std::make_shared<DeferringTransport>();
    auto previous = setCoreTallyTransport(deferring);
    int builds = 0;
    QKCoreTallyLogEvent("org.mirels.foundation.lazy", [&builds] {
        ++builds;
        return AnalyticsPayload{{"k", PlistValue(1)}};
    });
    CoreTallyLogger().logEvent("lazy", {{"n", 1.5}});
    EXPECT_EQ(builds, 0);
    ASSERT_EQ(deferring->builders.size(), 2U);
    EXPECT_EQ(deferring->builders[0]().size(), 1U);
    EXPECT_EQ(builds, 1);
    EXPECT_EQ(deferring->builders[1]().at("n"), PlistValue(1.5));
    EXPECT_EQ(setCoreTallyTransport(previous), deferring);

    // The default transport builds the payload and writes one log line per event.
    ScopedLogCapture capture;
    auto replaced = setCoreTallyTransport(nullptr);
    CoreTallyLogger().logEvent("logged", {{"a", true}, {"b", AnalyticsValue::Data{1, 2}}});
    setCoreTallyTransport(replaced);
    auto lines = capture->entries("org.mirels.foundation", "analytics");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].level, LogLevel::info);
    EXPECT_EQ(lines[0].message,
              "org.mirels.foundation.logged {\"a\": true, \"b\": <0102>, "
              "\"kestrelVersion\": null, \"responsibleProcess\": \"" +
                  processName() + "\"}");
}

TEST_F(CoreTallyLoggerTest, ConcurrentEventsWhileTheTransportIsSwapped) {
    auto first = std::make_shared<RecordingCoreTallyTransport>();
    auto second = std::make_shared<RecordingCoreTallyTransport>();
    auto previous = setCoreTallyTransport(first);
    constexpr int threads = 4;
    constexpr int perThread = 300;
    std::atomic<bool> done{false};
    std::thread swapper([&] {
        for (bool useFirst = false; !done.load(); useFirst = !useFirst) {
            setCoreTallyTransport(useFirst ? first : second);
        }
    });
    std::vector<std::thread> reporters;
    for (int t = 0; t < threads; ++t) {
        reporters.emplace_back([t] {
            CoreTallyLogger logger;
            for (int i = 0; i < perThread; ++i)
                logger.logEvent("softAssert", {{"thread", t}, {"i", i}});
        });
    }
    for (auto& reporter : reporters) reporter.join();
    done = true;
    swapper.join();
    setCoreTallyTransport(previous);
    // Every event reached exactly one of the two transports, whole.
    auto all = first->events("softAssert");
    auto more = second->events("softAssert");
    all.insert(all.end(), more.begin(), more.end());
    ASSERT_EQ(all.size(), static_cast<std::size_t>(threads * perThread));
    for (const auto& event : all) ASSERT_EQ(event.payload.size(), 4U);
}

// The switch is read once per process, so each case runs in a fresh child process.
class CoreTallyGateTest : public ::testing::Test {
  protected:
    UserDefaults preferences() {
        return UserDefaults(std::string(UserDefaults::standardDomain),
                            folder_.path() / "mirels" / "org.mirels.foundation.plist");
    }
    std::string eventCount(const std::vector<std::string>& actions) {
        auto result =
            testing::runChild(std::string(MIRELS_TEST_PROGRAM_DIR) + "/platform_core_tally_probe",
                              actions, {{"XDG_CONFIG_HOME", folder_.path().string()}});
        EXPECT_EQ(result.exitCode, 0);
        return result.output.substr(0, result.output.find('\n'));
    }

    testing::TemporaryDirectory folder_{"mirels-gate"};
};

TEST_F(CoreTallyGateTest, OnWhenUnsetOrTrueOffWhenFalseAndReadOncePerProcess) {
    // Unset: on, and switching it off later does not stop this process.
    EXPECT_EQ(eventCount({"log", "pref=false", "log"}), "events=2");
    // The previous child left it false: off, and switching it back on later changes nothing.
    EXPECT_EQ(preferences().boolean("QKLogCoreTally"), false);
    EXPECT_EQ(eventCount({"log", "pref=unset", "log", "pref=true", "log"}), "events=0");
    // The previous child left it true.
    EXPECT_EQ(eventCount({"log"}), "events=1");
    // A damaged preferences file reads as unset.
    std::ofstream(folder_.path() / "mirels" / "org.mirels.foundation.plist")
        << "<plist><dict><key>";
    EXPECT_EQ(eventCount({"log"}), "events=1");
}

}  // namespace
}  // namespace mirels
