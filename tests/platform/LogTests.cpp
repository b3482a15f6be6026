#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "mirels/platform/Log.h"

namespace mirels {
namespace {

struct Described {
    std::string description() const { return "described"; }
};

struct Streamed {
    friend std::ostream& operator<<(std::ostream& stream, const Streamed&) {
        return stream << "streamed";
    }
};

TEST(LogFormat, PublicArgumentsAndNumbersAppearVerbatim) {
    std::string name = "Grid";
    EXPECT_EQ(formatLogMessage("%{public}@ has %d rows, %ld cols, %lld cells, %u left", name, 3, 4L,
                               12LL, 7U),
              "Grid has 3 rows, 4 cols, 12 cells, 7 left");
    EXPECT_EQ(formatLogMessage("%{public}s|%{public}@|%{public}@|%{public}@",
                               std::string_view("view"), "literal", Described{}, Streamed{}),
              "view|literal|described|streamed");
    EXPECT_EQ(formatLogMessage("%f %.2f %g %{public}@", 1.5, 2.0, 0.25, 0.1),
              "1.500000 2.00 0.25 0.1");
    EXPECT_EQ(formatLogMessage("%x %X %o %5d|%-4d|%03d", 255, 255U, 8, 42, 7, 5),
              "ff FF 10    42|7   |005");
    EXPECT_EQ(formatLogMessage("%x %d", static_cast<signed char>(-1), -1), "ff -1");
    EXPECT_EQ(
        formatLogMessage("%d %{public}@ %c %{public}@", true, false, 'A', std::optional<int>()),
        "1 false A (null)");
    EXPECT_EQ(formatLogMessage("100%% done, %{public, name=x}s", "ok"), "100% done, ok");
}

TEST(LogFormat, PrivateAndUnmarkedStringsAreRedacted) {
    EXPECT_EQ(formatLogMessage("%{private}@ %@ %s %{private}d %{sensitive}s", "secret",
                               std::string("path"), "user", 42, "token"),
              "<private> <private> <private> <private> <private>");
    // A string under a number conversion stays private unless marked public.
    EXPECT_EQ(formatLogMessage("%d %{public}d", "oops", "fine"), "<private> fine");
    // Objects under a scalar conversion are still objects.
    EXPECT_EQ(formatLogMessage("%d", Described{}), "<private>");
}

TEST(LogFormat, MismatchesNeverFail) {
    EXPECT_EQ(formatLogMessage("%d and %{public}@ and %s"),
              "<missing> and <missing> and <missing>");
    EXPECT_EQ(formatLogMessage("%d", 1, 2, "extra"), "1");
    EXPECT_EQ(formatLogMessage("%n %y %d", 5), "%n %y 5");
    EXPECT_EQ(formatLogMessage("trailing %"), "trailing %");
    EXPECT_EQ(formatLogMessage("%{public"), "%{public");
    EXPECT_EQ(formatLogMessage("%ll"), "%ll");
    EXPECT_EQ(formatLogMessage("%*d|%.*f|%{public}.3s", 4, 7, 1, 2.25, "abcdef"), "   7|2.2|abc");
    EXPECT_EQ(formatLogMessage("%99999d", 1).size(), 1024U);
    EXPECT_EQ(formatLogMessage("%{public}s", static_cast<const char*>(nullptr)), "(null)");
}

TEST(Log, LoggerWritesThroughTheInstalledBackend) {
    ScopedLogCapture capture;
    Logger logger("org.mirels.test", "unit");
    logger.error("opened %{public}@ in %d ms", "file", 12);
    logger.debug("secret %@", "value");
    Logger("org.mirels.test", "other").fault("boom");

    auto entries = capture->entries("org.mirels.test", "unit");
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0], (CapturingLogBackend::Entry{LogLevel::error, "org.mirels.test", "unit",
                                                      "opened file in 12 ms"}));
    EXPECT_EQ(entries[1].level, LogLevel::debug);
    EXPECT_EQ(entries[1].message, "secret <private>");
    EXPECT_EQ(capture->entries().size(), 3U);
}

TEST(Log, SetLogBackendReturnsThePreviousAndNullRestoresTheDefault) {
    auto first = std::make_shared<CapturingLogBackend>();
    auto original = setLogBackend(first);
    auto second = std::make_shared<CapturingLogBackend>();
    EXPECT_EQ(setLogBackend(second), first);
    EXPECT_EQ(setLogBackend(nullptr), second);
    auto restoredDefault = currentLogBackend();
    EXPECT_NE(restoredDefault, nullptr);
    EXPECT_NE(restoredDefault, second);
    setLogBackend(original);
}

// A backend that logs again while writing must not deadlock or clobber the outer message.
class ReentrantBackend final : public LogBackend {
  public:
    explicit ReentrantBackend(std::shared_ptr<CapturingLogBackend> inner)
        : inner_(std::move(inner)) {}
    void write(const LogRecord& record) override {
        if (record.category == "outer") {
            Logger("org.mirels.test", "inner").info("nested %{public}@", "call");
        }
        inner_->write(record);
    }

  private:
    std::shared_ptr<CapturingLogBackend> inner_;
};

TEST(Log, ConcurrentLoggingAndBackendSwapsLoseNothingAndReenterSafely) {
    auto capture = std::make_shared<CapturingLogBackend>();
    auto previous = setLogBackend(std::make_shared<ReentrantBackend>(capture));
    Logger("org.mirels.test", "outer").info("outer %{public}d", 1);
    auto entries = capture->entries();
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].message, "nested call");
    EXPECT_EQ(entries[1].message, "outer 1");

    auto a = std::make_shared<CapturingLogBackend>();
    auto b = std::make_shared<CapturingLogBackend>();
    setLogBackend(a);
    constexpr int threads = 4;
    constexpr int perThread = 500;
    std::atomic<bool> done{false};
    std::thread swapper([&] {
        bool useA = false;
        while (!done.load()) {
            setLogBackend(useA ? a : b);
            useA = !useA;
        }
    });
    std::vector<std::thread> loggers;
    for (int t = 0; t < threads; ++t) {
        loggers.emplace_back([t] {
            Logger logger("org.mirels.test", "load");
            for (int i = 0; i < perThread; ++i) logger.info("%d:%d", t, i);
        });
    }
    for (auto& thread : loggers) thread.join();
    done = true;
    swapper.join();
    setLogBackend(previous);
    EXPECT_EQ(a->entries().size() + b->entries().size(),
              static_cast<std::size_t>(threads * perThread));
}

}  // namespace
}  // namespace mirels
