#pragma once

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

#include "mirels/core/ThreadSafe.h"

namespace mirels {

/// How important a log message is, from chatter to a broken invariant.
enum class LogLevel : std::uint8_t { debug, info, notice, error, fault };

/// "debug", "info", "notice", "error" or "fault".
std::string_view logLevelName(LogLevel level) noexcept;

/// One rendered message as a backend receives it. The views live only for the call.
struct LogRecord {
    LogLevel level;
    std::string_view subsystem;
    std::string_view category;
    std::string_view message;
};

/// Where rendered messages go. A backend may be called from many threads at once.
class LogBackend {
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
class JournalLogBackend final : public LogBackend {
  public:
    void write(const LogRecord& record) override;

    /// The socket whose presence means a journal is listening.
    static constexpr const char* socketPath = "/run/systemd/journal/socket";
};

/// Writes one line per message to standard error, as a single write so that lines from
/// concurrent threads and processes do not interleave:
/// "name[pid] <level> subsystem:category: message".
class StandardErrorLogBackend final : public LogBackend {
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
class CapturingLogBackend final : public LogBackend {
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
std::shared_ptr<LogBackend> makeDefaultLogBackend();

/// The process-wide backend every `Logger` writes to.
std::shared_ptr<LogBackend> currentLogBackend();

/// Installs `backend` process-wide and returns the one it replaces; null restores the default.
/// Messages being written on other threads finish on the backend they started with.
std::shared_ptr<LogBackend> setLogBackend(std::shared_ptr<LogBackend> backend);

/// Captures every message for its lifetime and restores the previous backend afterwards.
class ScopedLogCapture {
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

/// A type-erased view of one log argument. Scalars are copied; strings and objects are
/// referenced, which is safe because an argument lives until the end of the logging call.
struct LogArgument {
    enum class Kind : std::uint8_t {
        string,
        signedInteger,
        unsignedInteger,
        floating,
        boolean,
        character,
        pointer,
        object,
    };

    Kind kind = Kind::string;
    std::uint8_t size = 0;  // bytes of an integer argument, for two's-complement hex output
    std::string_view text;
    union {
        long long signedValue;
        unsigned long long unsignedValue;
        double floatingValue;
        bool booleanValue;
        char characterValue;
        const void* pointerValue;
        const void* object;
    };
    void (*render)(const void* object, std::string& out) = nullptr;

    LogArgument() : signedValue(0) {}
};

template <class T>
concept HasDescription = requires(const T& value) {
    { value.description() };
};

template <class T>
concept Streamable = requires(std::ostream& stream, const T& value) {
    { stream << value };
};

void appendText(std::string& out, std::string_view text);
inline void appendText(std::string& out, const std::string& text) {
    appendText(out, std::string_view(text));
}
inline void appendText(std::string& out, const char* text) {
    appendText(out, text == nullptr ? std::string_view("(null)") : std::string_view(text));
}

template <class T>
void renderDescription(const void* object, std::string& out) {
    appendText(out, static_cast<const T*>(object)->description());
}

template <class T>
void renderStreamed(const void* object, std::string& out) {
    std::ostringstream stream;
    stream << *static_cast<const T*>(object);
    out += std::move(stream).str();
}

template <class T>
void renderOptional(const void* object, std::string& out);

template <class T>
LogArgument makeLogArgument(const T& value) {
    using V = std::remove_cvref_t<T>;
    LogArgument argument;
    if constexpr (std::is_same_v<V, bool>) {
        argument.kind = LogArgument::Kind::boolean;
        argument.booleanValue = value;
    } else if constexpr (std::is_same_v<V, char>) {
        argument.kind = LogArgument::Kind::character;
        argument.characterValue = value;
    } else if constexpr (std::is_same_v<V, const char*> || std::is_same_v<V, char*>) {
        argument.kind = LogArgument::Kind::string;
        argument.text = value == nullptr ? std::string_view("(null)") : std::string_view(value);
    } else if constexpr (std::is_convertible_v<const V&, std::string_view>) {
        argument.kind = LogArgument::Kind::string;
        argument.text = std::string_view(value);
    } else if constexpr (std::is_enum_v<V> && !Streamable<V> && !HasDescription<V>) {
        return makeLogArgument(static_cast<std::underlying_type_t<V>>(value));
    } else if constexpr (std::signed_integral<V>) {
        argument.kind = LogArgument::Kind::signedInteger;
        argument.size = sizeof(V);
        argument.signedValue = value;
    } else if constexpr (std::unsigned_integral<V>) {
        argument.kind = LogArgument::Kind::unsignedInteger;
        argument.size = sizeof(V);
        argument.unsignedValue = value;
    } else if constexpr (std::floating_point<V>) {
        argument.kind = LogArgument::Kind::floating;
        argument.floatingValue = static_cast<double>(value);
    } else if constexpr (std::is_pointer_v<V> || std::is_null_pointer_v<V>) {
        argument.kind = LogArgument::Kind::pointer;
        argument.pointerValue = static_cast<const void*>(value);
    } else if constexpr (HasDescription<V>) {
        argument.kind = LogArgument::Kind::object;
        argument.object = &value;
        argument.render = &renderDescription<V>;
    } else if constexpr (Streamable<V>) {
        argument.kind = LogArgument::Kind::object;
        argument.object = &value;
        argument.render = &renderStreamed<V>;
    } else if constexpr (requires { typename V::value_type; } &&
                         std::is_same_v<V, std::optional<typename V::value_type>>) {
        argument.kind = LogArgument::Kind::object;
        argument.object = &value;
        argument.render = &renderOptional<typename V::value_type>;
    } else {
        static_assert(sizeof(V) == 0,
                      "a log argument must be a string, a number, a bool, a pointer, an optional, "
                      "or have a description() member or an operator<<");
    }
    return argument;
}

/// Renders an optional's value with its plain form ("(null)" when absent).
void renderArgumentPlainly(const LogArgument& argument, std::string& out);

template <class T>
void renderOptional(const void* object, std::string& out) {
    const auto& optional = *static_cast<const std::optional<T>*>(object);
    if (!optional) {
        out += "(null)";
        return;
    }
    renderArgumentPlainly(makeLogArgument(*optional), out);
}

/// Renders `format` with `arguments` (see `formatLogMessage`), appending to `out`.
void renderLogMessage(std::string& out, std::string_view format, const LogArgument* arguments,
                      std::size_t count);

/// Renders and sends one message to the current backend.
void emitLog(LogLevel level, std::string_view subsystem, std::string_view category,
             std::string_view format, const LogArgument* arguments, std::size_t count);

}  // namespace detail

/// Renders a message the way the system log does, type-safely from C++ arguments.
///
/// Conversions: "%@", "%s" (strings, and any value with a `description()` member or an
/// `operator<<`), "%d", "%i", "%u", "%ld", "%lld", "%x", "%X", "%o", "%c", "%p", "%f", "%e",
/// "%g" (and the other printf forms, with flags, width and precision) and "%%". The value's own
/// type decides how it is printed; the conversion only picks the number base or float style.
///
/// Privacy: an argument marked "%{public}..." appears verbatim; one marked "%{private}..." reads
/// "<private>". Unmarked numbers, booleans, characters and pointers are public; unmarked strings
/// and objects (and anything under "%s" or "%@") are private, as on the system log.
///
/// A mismatch never fails: a conversion without an argument reads "<missing>", surplus
/// arguments are ignored, and an unknown conversion is copied as written.
template <class... Args>
std::string formatLogMessage(std::string_view format, const Args&... args) {
    const detail::LogArgument arguments[sizeof...(Args) + 1] = {detail::makeLogArgument(args)...};
    std::string out;
    detail::renderLogMessage(out, format, arguments, sizeof...(Args));
    return out;
}

/// A log handle for one subsystem (reverse-DNS, such as "org.mirels.foundation") and category
/// (a part of it, such as "defaults"). Cheap to copy; writes to the process-wide backend.
class Logger {
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
