#include "mirels/platform/Log.h"

#include <errno.h>
#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "mirels/platform/ProcessInfo.h"

namespace mirels {

std::string_view logLevelName(LogLevel level) noexcept {
    switch (level) {
        case LogLevel::debug:
            return "debug";
        case LogLevel::info:
            return "info";
        case LogLevel::notice:
            return "notice";
        case LogLevel::error:
            return "error";
        case LogLevel::fault:
            return "fault";
    }
    return "unknown";
}

// MARK: - Backends

namespace {

int syslogPriority(LogLevel level) noexcept {
    switch (level) {
        case LogLevel::debug:
            return LOG_DEBUG;
        case LogLevel::info:
            return LOG_INFO;
        case LogLevel::notice:
            return LOG_NOTICE;
        case LogLevel::error:
            return LOG_ERR;
        case LogLevel::fault:
            return LOG_CRIT;
    }
    return LOG_INFO;
}

iovec field(const std::string& text) {
    return iovec{const_cast<char*>(text.data()), text.size()};
}

}  // namespace

void JournalLogBackend::write(const LogRecord& record) {
    std::string message = "MESSAGE=";
    message.append(record.message);
    std::string priority = "PRIORITY=" + std::to_string(syslogPriority(record.level));
    std::string identifier = "SYSLOG_IDENTIFIER=" + processName();
    std::string subsystem = "MIRELS_SUBSYSTEM=";
    subsystem.append(record.subsystem);
    std::string category = "MIRELS_CATEGORY=";
    category.append(record.category);
    iovec fields[] = {field(message), field(priority), field(identifier), field(subsystem),
                      field(category)};
    sd_journal_sendv(fields, static_cast<int>(std::size(fields)));
}

void StandardErrorLogBackend::write(const LogRecord& record) {
    std::string line;
    line.reserve(processName().size() + record.subsystem.size() + record.category.size() +
                 record.message.size() + 32);
    line += processName();
    line += '[';
    line += std::to_string(::getpid());
    line += "] <";
    line += logLevelName(record.level);
    line += "> ";
    line += record.subsystem;
    line += ':';
    line += record.category;
    line += ": ";
    line += record.message;
    line += '\n';
    const char* data = line.data();
    std::size_t left = line.size();
    while (left > 0) {
        ssize_t written = ::write(STDERR_FILENO, data, left);
        if (written < 0) {
            if (errno == EINTR) continue;
            return;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
}

void CapturingLogBackend::write(const LogRecord& record) {
    Entry entry{record.level, std::string(record.subsystem), std::string(record.category),
                std::string(record.message)};
    entries_.syncWrite([&](std::vector<Entry>& entries) { entries.push_back(std::move(entry)); });
}

std::vector<CapturingLogBackend::Entry> CapturingLogBackend::entries() const {
    return entries_.peek();
}

std::vector<CapturingLogBackend::Entry> CapturingLogBackend::entries(
    std::string_view subsystem, std::string_view category) const {
    return entries_.syncRead([&](const std::vector<Entry>& entries) {
        std::vector<Entry> matching;
        for (const Entry& entry : entries) {
            if (entry.subsystem == subsystem && entry.category == category) {
                matching.push_back(entry);
            }
        }
        return matching;
    });
}

void CapturingLogBackend::clear() {
    entries_.syncWrite([](std::vector<Entry>& entries) { entries.clear(); });
}

std::shared_ptr<LogBackend> makeDefaultLogBackend() {
    if (::access(JournalLogBackend::socketPath, F_OK) == 0) {
        return std::make_shared<JournalLogBackend>();
    }
    return std::make_shared<StandardErrorLogBackend>();
}

namespace {

// The default backend and the box holding the current one are made on first use and never
// destroyed, so that logging from static destructors and late threads stays safe.
const std::shared_ptr<LogBackend>& defaultBackend() {
    static const auto* backend = new std::shared_ptr<LogBackend>(makeDefaultLogBackend());
    return *backend;
}

ThreadSafe<std::shared_ptr<LogBackend>>& backendBox() {
    static auto* box = new ThreadSafe<std::shared_ptr<LogBackend>>(defaultBackend());
    return *box;
}

}  // namespace

std::shared_ptr<LogBackend> currentLogBackend() {
    return backendBox().peek();
}

std::shared_ptr<LogBackend> setLogBackend(std::shared_ptr<LogBackend> backend) {
    if (!backend) backend = defaultBackend();
    return backendBox().syncUpdate(std::move(backend));
}

ScopedLogCapture::ScopedLogCapture()
    : capture_(std::make_shared<CapturingLogBackend>()), previous_(setLogBackend(capture_)) {}

ScopedLogCapture::~ScopedLogCapture() {
    setLogBackend(std::move(previous_));
}

// MARK: - Rendering

namespace detail {

void appendText(std::string& out, std::string_view text) {
    out.append(text);
}

namespace {

// Widths and precisions beyond this are clamped: a format is program text, but a typo must not
// make a message megabytes long.
constexpr int maxFieldWidth = 1024;

struct Conversion {
    bool markedPublic = false;
    bool markedPrivate = false;
    bool leftAlign = false;
    bool plusSign = false;
    bool spaceSign = false;
    bool alternate = false;
    bool zeroPad = false;
    int width = -1;
    int precision = -1;
    char type = 0;
};

bool isStringConversion(char c) {
    return c == 's' || c == 'S' || c == '@';
}
bool isIntegerConversion(char c) {
    return c == 'd' || c == 'i' || c == 'u' || c == 'o' || c == 'x' || c == 'X';
}
bool isFloatConversion(char c) {
    return c == 'f' || c == 'F' || c == 'e' || c == 'E' || c == 'g' || c == 'G' || c == 'a' ||
           c == 'A';
}
bool isKnownConversion(char c) {
    return isStringConversion(c) || isIntegerConversion(c) || isFloatConversion(c) || c == 'c' ||
           c == 'C' || c == 'p';
}

void parseAnnotations(std::string_view annotations, Conversion& conversion) {
    while (!annotations.empty()) {
        std::size_t comma = annotations.find(',');
        std::string_view word = annotations.substr(0, comma);
        while (!word.empty() && word.front() == ' ') word.remove_prefix(1);
        while (!word.empty() && word.back() == ' ') word.remove_suffix(1);
        if (word == "public") {
            conversion.markedPublic = true;
        } else if (word == "private" || word == "sensitive") {
            conversion.markedPrivate = true;
        }
        if (comma == std::string_view::npos) break;
        annotations.remove_prefix(comma + 1);
    }
}

int clampField(long long value) {
    return static_cast<int>(std::clamp<long long>(value, 0, maxFieldWidth));
}

// An integer taken from the argument list for a "*" width or precision.
std::optional<long long> integerArgument(const LogArgument* argument) {
    if (argument == nullptr) return std::nullopt;
    switch (argument->kind) {
        case LogArgument::Kind::signedInteger:
            return argument->signedValue;
        case LogArgument::Kind::unsignedInteger:
            return static_cast<long long>(
                std::min<unsigned long long>(argument->unsignedValue, maxFieldWidth));
        default:
            return std::nullopt;
    }
}

// Whether the argument is shown as "<private>".
bool isRedacted(const Conversion& conversion, const LogArgument& argument) {
    if (conversion.markedPrivate) return true;
    if (conversion.markedPublic) return false;
    if (isStringConversion(conversion.type)) return true;
    return argument.kind == LogArgument::Kind::string || argument.kind == LogArgument::Kind::object;
}

// Appends one printf-rendered value; `length` is the length modifier for `value`'s type.
template <class T>
void appendPrintf(std::string& out, const Conversion& conversion, const char* length, char type,
                  T value) {
    char spec[32];
    char* p = spec;
    *p++ = '%';
    if (conversion.leftAlign) *p++ = '-';
    if (conversion.plusSign) *p++ = '+';
    if (conversion.spaceSign) *p++ = ' ';
    if (conversion.alternate) *p++ = '#';
    if (conversion.zeroPad) *p++ = '0';
    *p++ = '*';
    *p++ = '.';
    *p++ = '*';
    for (const char* l = length; *l != '\0'; ++l) *p++ = *l;
    *p++ = type;
    *p = '\0';
    // printf treats a negative precision as absent; a negative width would mean left-aligned.
    int width = std::max(conversion.width, 0);
    int precision = conversion.precision;
    char small[128];
    int needed = std::snprintf(small, sizeof small, spec, width, precision, value);
    if (needed < 0) return;
    if (static_cast<std::size_t>(needed) < sizeof small) {
        out.append(small, static_cast<std::size_t>(needed));
        return;
    }
    std::size_t start = out.size();
    out.resize(start + static_cast<std::size_t>(needed));
    std::snprintf(out.data() + start, static_cast<std::size_t>(needed) + 1, spec, width, precision,
                  value);
}

void appendShortest(std::string& out, double value) {
    char buffer[64];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

void appendUnsignedDecimal(std::string& out, unsigned long long value) {
    char buffer[24];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

void appendSignedDecimal(std::string& out, long long value) {
    char buffer[24];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

// Pads the text appended since `start` to the conversion's width with spaces.
void pad(std::string& out, std::size_t start, const Conversion& conversion) {
    std::size_t length = out.size() - start;
    if (conversion.width <= 0 || length >= static_cast<std::size_t>(conversion.width)) return;
    std::size_t fill = static_cast<std::size_t>(conversion.width) - length;
    if (conversion.leftAlign) {
        out.append(fill, ' ');
    } else {
        out.insert(start, fill, ' ');
    }
}

unsigned long long twosComplement(long long value, std::uint8_t size) {
    auto bits = static_cast<unsigned long long>(value);
    if (size >= sizeof(unsigned long long) || size == 0) return bits;
    return bits & ((1ULL << (size * 8U)) - 1);
}

void renderInteger(std::string& out, const Conversion& conversion, const LogArgument& argument) {
    bool isSigned = argument.kind == LogArgument::Kind::signedInteger;
    char type = conversion.type;
    if (type == 'd' || type == 'i' || type == 'u') {
        // The value's own signedness wins over the conversion's: -1 under "%u" reads -1.
        if (isSigned) {
            appendPrintf(out, conversion, "ll", 'd', argument.signedValue);
        } else {
            appendPrintf(out, conversion, "ll", 'u', argument.unsignedValue);
        }
    } else if (type == 'o' || type == 'x' || type == 'X') {
        unsigned long long bits =
            isSigned ? twosComplement(argument.signedValue, argument.size) : argument.unsignedValue;
        appendPrintf(out, conversion, "ll", type, bits);
    } else if (isFloatConversion(type)) {
        double value = isSigned ? static_cast<double>(argument.signedValue)
                                : static_cast<double>(argument.unsignedValue);
        appendPrintf(out, conversion, "", type, value);
    } else if (type == 'c' || type == 'C') {
        std::size_t start = out.size();
        out += static_cast<char>(isSigned ? argument.signedValue
                                          : static_cast<long long>(argument.unsignedValue));
        pad(out, start, conversion);
    } else {
        std::size_t start = out.size();
        if (isSigned) {
            appendSignedDecimal(out, argument.signedValue);
        } else {
            appendUnsignedDecimal(out, argument.unsignedValue);
        }
        pad(out, start, conversion);
    }
}

void renderArgument(std::string& out, const Conversion& conversion, const LogArgument& argument) {
    std::size_t start = out.size();
    char type = conversion.type;
    switch (argument.kind) {
        case LogArgument::Kind::signedInteger:
        case LogArgument::Kind::unsignedInteger:
            renderInteger(out, conversion, argument);
            return;
        case LogArgument::Kind::floating:
            if (isFloatConversion(type)) {
                appendPrintf(out, conversion, "", type, argument.floatingValue);
                return;
            }
            appendShortest(out, argument.floatingValue);
            break;
        case LogArgument::Kind::boolean:
            if (isIntegerConversion(type)) {
                appendPrintf(out, conversion, "", 'd', argument.booleanValue ? 1 : 0);
                return;
            }
            out += argument.booleanValue ? "true" : "false";
            break;
        case LogArgument::Kind::character:
            if (isIntegerConversion(type)) {
                appendPrintf(out, conversion, "", 'd', static_cast<int>(argument.characterValue));
                return;
            }
            out += argument.characterValue;
            break;
        case LogArgument::Kind::pointer:
            out += "0x";
            {
                char buffer[24];
                auto result =
                    std::to_chars(buffer, buffer + sizeof buffer,
                                  reinterpret_cast<std::uintptr_t>(argument.pointerValue), 16);
                out.append(buffer, result.ptr);
            }
            break;
        case LogArgument::Kind::string: {
            std::string_view text = argument.text;
            if (isStringConversion(type) && conversion.precision >= 0) {
                text = text.substr(0, static_cast<std::size_t>(conversion.precision));
            }
            out.append(text);
            break;
        }
        case LogArgument::Kind::object:
            argument.render(argument.object, out);
            break;
    }
    pad(out, start, conversion);
}

}  // namespace

void renderArgumentPlainly(const LogArgument& argument, std::string& out) {
    Conversion conversion;
    conversion.type = '@';
    renderArgument(out, conversion, argument);
}

void renderLogMessage(std::string& out, std::string_view format, const LogArgument* arguments,
                      std::size_t count) {
    out.reserve(out.size() + format.size() + 16 * count);
    std::size_t nextArgument = 0;
    auto takeArgument = [&]() -> const LogArgument* {
        return nextArgument < count ? &arguments[nextArgument++] : nullptr;
    };

    std::size_t i = 0;
    const std::size_t size = format.size();
    while (i < size) {
        std::size_t percent = format.find('%', i);
        if (percent == std::string_view::npos) {
            out.append(format.substr(i));
            return;
        }
        out.append(format.substr(i, percent - i));
        std::size_t j = percent + 1;
        if (j >= size) {
            out += '%';
            return;
        }
        if (format[j] == '%') {
            out += '%';
            i = j + 1;
            continue;
        }

        Conversion conversion;
        if (format[j] == '{') {
            std::size_t close = format.find('}', j);
            if (close == std::string_view::npos) {
                out.append(format.substr(percent));
                return;
            }
            parseAnnotations(format.substr(j + 1, close - j - 1), conversion);
            j = close + 1;
        }
        for (; j < size; ++j) {
            char c = format[j];
            if (c == '-') {
                conversion.leftAlign = true;
            } else if (c == '+') {
                conversion.plusSign = true;
            } else if (c == ' ') {
                conversion.spaceSign = true;
            } else if (c == '#') {
                conversion.alternate = true;
            } else if (c == '0') {
                conversion.zeroPad = true;
            } else if (c != '\'') {
                break;
            }
        }
        if (j < size && format[j] == '*') {
            if (auto width = integerArgument(takeArgument())) {
                if (*width < 0) conversion.leftAlign = true;
                conversion.width = clampField(*width < 0 ? -*width : *width);
            }
            ++j;
        } else {
            long long width = -1;
            for (; j < size && format[j] >= '0' && format[j] <= '9'; ++j) {
                width = std::min<long long>(std::max<long long>(width, 0) * 10 + (format[j] - '0'),
                                            maxFieldWidth);
            }
            if (width >= 0) conversion.width = clampField(width);
        }
        if (j < size && format[j] == '.') {
            ++j;
            if (j < size && format[j] == '*') {
                if (auto precision = integerArgument(takeArgument());
                    precision && *precision >= 0) {
                    conversion.precision = clampField(*precision);
                }
                ++j;
            } else {
                long long precision = 0;
                for (; j < size && format[j] >= '0' && format[j] <= '9'; ++j) {
                    precision =
                        std::min<long long>(precision * 10 + (format[j] - '0'), maxFieldWidth);
                }
                conversion.precision = clampField(precision);
            }
        }
        while (j < size && std::string_view("hlqLjzt").find(format[j]) != std::string_view::npos) {
            ++j;
        }
        if (j >= size) {
            out.append(format.substr(percent));
            return;
        }
        conversion.type = format[j];
        ++j;
        if (!isKnownConversion(conversion.type)) {
            // Copied as written and consumes nothing; "%n" in particular never writes.
            out.append(format.substr(percent, j - percent));
            i = j;
            continue;
        }

        const LogArgument* argument = takeArgument();
        if (argument == nullptr) {
            out += "<missing>";
        } else if (isRedacted(conversion, *argument)) {
            out += "<private>";
        } else {
            renderArgument(out, conversion, *argument);
        }
        i = j;
    }
}

void emitLog(LogLevel level, std::string_view subsystem, std::string_view category,
             std::string_view format, const LogArgument* arguments, std::size_t count) {
    std::shared_ptr<LogBackend> backend = currentLogBackend();
    if (!backend->isEnabled(level)) return;

    // Each thread renders into a buffer it keeps, so that a steady stream of messages does not
    // allocate. An argument's description() that logs again renders into a buffer of its own.
    thread_local std::string buffer;
    thread_local bool bufferInUse = false;
    std::string nested;
    bool useShared = !bufferInUse;
    std::string& out = useShared ? buffer : nested;
    if (useShared) bufferInUse = true;
    out.clear();
    try {
        renderLogMessage(out, format, arguments, count);
        backend->write(LogRecord{level, subsystem, category, out});
    } catch (...) {
        // Logging never fails its caller.
    }
    if (useShared) {
        if (buffer.capacity() > std::size_t{16} * 1024) buffer = std::string();
        bufferInUse = false;
    }
}

}  // namespace detail

}  // namespace mirels
