#include "mirels/plist/PlistValue.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <type_traits>
#include <utility>

namespace mirels {

PlistValue::PlistValue() : storage_(std::string()) {}
PlistValue::PlistValue(std::string value) : storage_(std::move(value)) {}
PlistValue::PlistValue(std::string_view value) : storage_(std::string(value)) {}
PlistValue::PlistValue(const char* value) : storage_(std::string(value)) {}
PlistValue::PlistValue(bool value) : storage_(value) {}
PlistValue::PlistValue(std::int64_t value) : storage_(value) {}
PlistValue::PlistValue(int value) : storage_(std::int64_t{value}) {}
PlistValue::PlistValue(double value) : storage_(value) {}
PlistValue::PlistValue(Data value) : storage_(std::move(value)) {}
PlistValue::PlistValue(PlistDate value) : storage_(value) {}
PlistValue::PlistValue(Array value) : storage_(std::move(value)) {}
PlistValue::PlistValue(Dictionary value) : storage_(std::move(value)) {}

// Every alternative moves without throwing, so the moves declared noexcept in the header are
// what the compiler would have made them.
static_assert(std::is_nothrow_move_constructible_v<PlistValue::Storage> &&
              std::is_nothrow_move_assignable_v<PlistValue::Storage>);

PlistValue::PlistValue(const PlistValue& other) = default;
PlistValue::PlistValue(PlistValue&& other) noexcept = default;
PlistValue& PlistValue::operator=(const PlistValue& other) = default;
PlistValue& PlistValue::operator=(PlistValue&& other) noexcept = default;
PlistValue::~PlistValue() = default;

std::string_view plistKindName(PlistValue::Kind kind) noexcept {
    switch (kind) {
        case PlistValue::Kind::string:
            return "String";
        case PlistValue::Kind::boolean:
            return "Bool";
        case PlistValue::Kind::integer:
            return "Int";
        case PlistValue::Kind::real:
            return "Double";
        case PlistValue::Kind::data:
            return "Data";
        case PlistValue::Kind::date:
            return "Date";
        case PlistValue::Kind::array:
            return "Array";
        case PlistValue::Kind::dictionary:
            return "Dictionary";
    }
    return "Unknown";
}

namespace {

// Data longer than this is shown by its first bytes and its length, so that a message quoting
// a property list stays readable.
constexpr std::size_t maximumDescribedBytes = 64;

// Seconds between 1970-01-01 and 2001-01-01.
constexpr double referenceDateUnixSeconds = 978307200.0;

void appendQuoted(std::string& out, std::string_view text) {
    out += '"';
    for (char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x",
                                  static_cast<unsigned>(static_cast<unsigned char>(c)));
                    out += escaped;
                } else {
                    out += c;
                }
        }
    }
    out += '"';
}

void appendReal(std::string& out, double value) {
    char buffer[64];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    std::string_view text(buffer, static_cast<std::size_t>(result.ptr - buffer));
    out += text;
    // Keep reals recognisable next to integers: 2.0, not 2.
    if (std::isfinite(value) && text.find_first_of(".e") == std::string_view::npos) out += ".0";
}

void appendData(std::string& out, const PlistData& data) {
    static constexpr char hex[] = "0123456789abcdef";
    out += '<';
    std::size_t shown = std::min(data.size(), maximumDescribedBytes);
    for (std::size_t i = 0; i < shown; ++i) {
        if (i > 0 && i % 4 == 0) out += ' ';
        out += hex[data[i] >> 4];
        out += hex[data[i] & 0xF];
    }
    if (shown < data.size()) {
        out += " ... ";
        out += std::to_string(data.size());
        out += " bytes";
    }
    out += '>';
}

// Civil date from days since 1970-01-01 (proleptic Gregorian calendar).
void civilFromDays(long long days, long long& year, unsigned& month, unsigned& day) {
    days += 719468;
    long long era = (days >= 0 ? days : days - 146096) / 146097;
    auto dayOfEra = static_cast<unsigned>(days - era * 146097);
    unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    year = static_cast<long long>(yearOfEra) + era * 400;
    unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    unsigned monthIndex = (5 * dayOfYear + 2) / 153;
    day = dayOfYear - (153 * monthIndex + 2) / 5 + 1;
    month = monthIndex < 10 ? monthIndex + 3 : monthIndex - 9;
    if (month <= 2) ++year;
}

void appendDate(std::string& out, PlistDate date) {
    double unix = date.secondsSinceReferenceDate + referenceDateUnixSeconds;
    // Beyond a few hundred million years the calendar is meaningless; show the raw number.
    if (!std::isfinite(unix) || std::fabs(unix) > 1e16) {
        out += "date(";
        appendReal(out, date.secondsSinceReferenceDate);
        out += ')';
        return;
    }
    double wholeSeconds = std::floor(unix);
    auto microseconds = static_cast<long long>(std::llround((unix - wholeSeconds) * 1e6));
    auto seconds = static_cast<long long>(wholeSeconds);
    if (microseconds == 1000000) {
        ++seconds;
        microseconds = 0;
    }
    long long days = seconds >= 0 ? seconds / 86400 : -((-seconds + 86399) / 86400);
    long long secondOfDay = seconds - days * 86400;
    long long year = 0;
    unsigned month = 0;
    unsigned day = 0;
    civilFromDays(days, year, month, day);
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%04lld-%02u-%02uT%02lld:%02lld:%02lld", year, month, day,
                  secondOfDay / 3600, secondOfDay / 60 % 60, secondOfDay % 60);
    out += buffer;
    if (microseconds != 0) {
        std::snprintf(buffer, sizeof buffer, ".%06lld", microseconds);
        std::string_view fraction(buffer);
        while (fraction.back() == '0') fraction.remove_suffix(1);
        out += fraction;
    }
    out += 'Z';
}

void appendDescription(std::string& out, const PlistValue& value) {
    switch (value.kind()) {
        case PlistValue::Kind::string:
            appendQuoted(out, *value.getIf<std::string>());
            break;
        case PlistValue::Kind::boolean:
            out += *value.getIf<bool>() ? "true" : "false";
            break;
        case PlistValue::Kind::integer:
            out += std::to_string(*value.getIf<std::int64_t>());
            break;
        case PlistValue::Kind::real:
            appendReal(out, *value.getIf<double>());
            break;
        case PlistValue::Kind::data:
            appendData(out, *value.getIf<PlistData>());
            break;
        case PlistValue::Kind::date:
            appendDate(out, *value.getIf<PlistDate>());
            break;
        case PlistValue::Kind::array: {
            out += '[';
            bool first = true;
            for (const PlistValue& element : *value.getIf<PlistArray>()) {
                if (!first) out += ", ";
                first = false;
                appendDescription(out, element);
            }
            out += ']';
            break;
        }
        case PlistValue::Kind::dictionary: {
            out += '{';
            bool first = true;
            for (const auto& [key, element] : *value.getIf<PlistDictionary>()) {
                if (!first) out += ", ";
                first = false;
                appendQuoted(out, key);
                out += ": ";
                appendDescription(out, element);
            }
            out += '}';
            break;
        }
    }
}

}  // namespace

std::string describe(const PlistValue& value) {
    std::string out;
    appendDescription(out, value);
    return out;
}

}  // namespace mirels
