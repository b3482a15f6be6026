#pragma once

// `LogLevel`: how important a log message is, from chatter to a broken invariant. Also
// `logLevelName()`, `LogRecord`, `LogBackend`, `JournalLogBackend`, `StandardErrorLogBackend`,
// `CapturingLogBackend` and more.

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "mirels/Export.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/platform/Format.h"

namespace mirels {

/// How important a log message is, from chatter to a broken invariant.
enum class LogLevel : std::uint8_t { debug, info, notice, error, fault };

/// "debug", "info", "notice", "error" or "fault".
MIRELS_EXPORT std::string_view logLevelName(LogLevel level) noexcept;

/// One rendered message as a backend receives it. The views live only for the call.
struct LogRecord {
    LogLevel level;
    std::string_view subsystem;
    std::string_view category;
    std::string_view message;
};

/// Where rendered messages go. A backend may be called from many threads at once.
class MIRELS_EXPORT LogBackend {
  public:
    virtual ~LogBackend() = default;

    /// Whether messages of `level` are wanted at all; a `false` skips rendering entirely.
    virtual bool isEnabled(LogLevel level) const noexcept {
        (void)level;
        return true;
    }

    /// Writes one message. Exceptions thrown here are swallowed by the facade: logging never
    /// fails its caller.
    virtual void write(const LogRecord& record) = 0;
};

/// Sends messages to the systemd journal with the fields MESSAGE, PRIORITY, SYSLOG_IDENTIFIER
/// (the process name), MIRELS_SUBSYSTEM and MIRELS_CATEGORY.
class MIRELS_EXPORT JournalLogBackend final : public LogBackend {
  public:
    void write(const LogRecord& record) override;

    /// The socket whose presence means a journal is listening.
    static constexpr const char* socketPath = "/run/systemd/journal/socket";
};

/// Writes one line per message to standard error, as a single write so that lines from
/// concurrent threads and processes do not interleave:
/// "name[pid] <level> subsystem:category: message".
class MIRELS_EXPORT StandardErrorLogBackend final : public LogBackend {
  public:
    /// Debug chatter is left out unless asked for, as the system log does by default.
    explicit StandardErrorLogBackend(LogLevel minimumLevel = LogLevel::info) noexcept
        : minimumLevel_(minimumLevel) {}

    bool isEnabled(LogLevel level) const noexcept override { return level >= minimumLevel_; }
    void write(const LogRecord& record) override;

  private:
    LogLevel minimumLevel_;
};

/// Keeps every message, for tests. Thread-safe.
class MIRELS_EXPORT CapturingLogBackend final : public LogBackend {
  public:
    struct Entry {
        LogLevel level;
        std::string subsystem;
        std::string category;
        std::string message;

        friend bool operator==(const Entry&, const Entry&) = default;
    };

    void write(const LogRecord& record) override;

    std::vector<Entry> entries() const;
    /// The entries logged under `subsystem` and `category`.
    std::vector<Entry> entries(std::string_view subsystem, std::string_view category) const;
    void clear();

  private:
    ThreadSafe<std::vector<Entry>> entries_;
};

/// The backend chosen for this machine: the journal where its socket exists, standard error
/// otherwise.
MIRELS_EXPORT std::shared_ptr<LogBackend> makeDefaultLogBackend();

/// The process-wide backend every `Logger` writes to.
MIRELS_EXPORT std::shared_ptr<LogBackend> currentLogBackend();

/// Installs `backend` process-wide and returns the one it replaces; null restores the default.
/// Messages being written on other threads finish on the backend they started with.
MIRELS_EXPORT std::shared_ptr<LogBackend> setLogBackend(std::shared_ptr<LogBackend> backend);

/// Captures every message for its lifetime and restores the previous backend afterwards.
class MIRELS_EXPORT ScopedLogCapture {
  public:
    ScopedLogCapture();
    ~ScopedLogCapture();
    ScopedLogCapture(const ScopedLogCapture&) = delete;
    ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

    CapturingLogBackend& operator*() const noexcept { return *capture_; }
    CapturingLogBackend* operator->() const noexcept { return capture_.get(); }

  private:
    std::shared_ptr<CapturingLogBackend> capture_;
    std::shared_ptr<LogBackend> previous_;
};

namespace detail {

/// Renders and sends one message to the current backend.
MIRELS_EXPORT void emitLog(LogLevel level, std::string_view subsystem, std::string_view category,
                           std::string_view format, const LogArgument* arguments,
                           std::size_t count);

}  // namespace detail

/// A log handle for one subsystem (reverse-DNS, such as "org.mirels.foundation") and category
/// (a part of it, such as "defaults"). Cheap to copy; writes to the process-wide backend.
class MIRELS_EXPORT Logger {
  public:
    Logger(std::string subsystem, std::string category)
        : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

    const std::string& subsystem() const noexcept { return subsystem_; }
    const std::string& category() const noexcept { return category_; }

    /// Renders `format` with `args` (see `formatLogMessage`) and writes it at `level`. The
    /// message is not rendered when the backend does not want `level`.
    template <class... Args>
    void log(LogLevel level, std::string_view format, const Args&... args) const {
        const detail::LogArgument arguments[sizeof...(Args) + 1] = {
            detail::makeLogArgument(args)...};
        detail::emitLog(level, subsystem_, category_, format, arguments, sizeof...(Args));
    }

    template <class... Args>
    void debug(std::string_view format, const Args&... args) const {
        log(LogLevel::debug, format, args...);
    }
    template <class... Args>
    void info(std::string_view format, const Args&... args) const {
        log(LogLevel::info, format, args...);
    }
    template <class... Args>
    void notice(std::string_view format, const Args&... args) const {
        log(LogLevel::notice, format, args...);
    }
    template <class... Args>
    void error(std::string_view format, const Args&... args) const {
        log(LogLevel::error, format, args...);
    }
    template <class... Args>
    void fault(std::string_view format, const Args&... args) const {
        log(LogLevel::fault, format, args...);
    }

  private:
    std::string subsystem_;
    std::string category_;
};

}  // namespace mirels
