#include "mirels/text/Punycode.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "../core/Utf8Encoding.h"

namespace mirels {

namespace {

constexpr std::uint32_t base = 36;
constexpr std::uint32_t tmin = 1;
constexpr std::uint32_t tmax = 26;
constexpr std::uint32_t skew = 38;
constexpr std::uint32_t damp = 700;
constexpr std::uint32_t initialBias = 72;
constexpr std::uint32_t initialN = 128;
constexpr std::uint32_t maxInt = std::numeric_limits<std::uint32_t>::max();
constexpr char delimiter = '-';
constexpr std::size_t maximumLabelBytes = 63;

using Kind = PunycodeError::Kind;

[[noreturn]] void fail(Kind kind, std::string message, std::size_t offset) {
    throw PunycodeError(kind, std::move(message), offset);
}

std::string hexCodePoint(std::uint32_t value) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text = "U+";
    int shift = value > 0xFFFF ? (value > 0xFFFFF ? 20 : 16) : 12;
    for (; shift >= 0; shift -= 4) text.push_back(digits[(value >> shift) & 0xF]);
    return text;
}

bool isScalarValue(std::uint32_t value) noexcept {
    return value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
}

char encodeDigit(std::uint32_t digit) noexcept {
    // 0..25 are "a".."z", 26..35 are "0".."9".
    return static_cast<char>(digit < 26 ? 'a' + digit : '0' + (digit - 26));
}

/// The value of a Punycode digit, or `base` when `c` is none.
std::uint32_t decodeDigit(char c) noexcept {
    if (c >= '0' && c <= '9') return static_cast<std::uint32_t>(c - '0') + 26;
    if (c >= 'a' && c <= 'z') return static_cast<std::uint32_t>(c - 'a');
    if (c >= 'A' && c <= 'Z') return static_cast<std::uint32_t>(c - 'A');
    return base;
}

std::uint32_t threshold(std::uint32_t k, std::uint32_t bias) noexcept {
    if (k <= bias) return tmin;
    if (k >= bias + tmax) return tmax;
    return k - bias;
}

std::uint32_t adapt(std::uint32_t delta, std::uint32_t points, bool first) noexcept {
    delta = first ? delta / damp : delta / 2;
    delta += delta / points;
    std::uint32_t k = 0;
    while (delta > ((base - tmin) * tmax) / 2) {
        delta /= base - tmin;
        k += base;
    }
    return k + (base - tmin + 1) * delta / (delta + skew);
}

/// Decodes one UTF-8 sequence at `text[i]`, advancing `i`; malformed input throws.
char32_t nextCodePoint(std::string_view text, std::size_t& i) {
    const std::size_t start = i;
    const auto lead = static_cast<unsigned char>(text[i]);
    if (lead < 0x80) {
        ++i;
        return lead;
    }
    std::size_t length = 0;
    std::uint32_t value = 0;
    std::uint32_t minimum = 0;
    if ((lead & 0xE0) == 0xC0) {
        length = 2, value = lead & 0x1F, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, value = lead & 0x0F, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, value = lead & 0x07, minimum = 0x10000;
    } else {
        fail(Kind::invalidUtf8, "malformed UTF-8 (unexpected byte)", start);
    }
    if (text.size() - start < length) {
        fail(Kind::invalidUtf8, "malformed UTF-8 (truncated sequence)", start);
    }
    for (std::size_t k = 1; k < length; ++k) {
        const auto next = static_cast<unsigned char>(text[start + k]);
        if ((next & 0xC0) != 0x80) {
            fail(Kind::invalidUtf8, "malformed UTF-8 (unexpected byte)", start + k);
        }
        value = (value << 6) | (next & 0x3F);
    }
    if (value < minimum || !isScalarValue(value)) {
        fail(Kind::invalidUtf8, "malformed UTF-8 (overlong form or no scalar value)", start);
    }
    i = start + length;
    return static_cast<char32_t>(value);
}

/// Appends the encoding of `input`; error offsets count code points.
void encodeInto(std::string& out, std::u32string_view input) {
    std::size_t basicCount = 0;
    for (std::size_t j = 0; j < input.size(); ++j) {
        const auto c = static_cast<std::uint32_t>(input[j]);
        if (!isScalarValue(c)) {
            fail(Kind::invalidCodePoint, hexCodePoint(c) + " is no Unicode scalar value", j);
        }
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
            ++basicCount;
        }
    }
    if (basicCount > 0) out.push_back(delimiter);
    if (input.size() > maxInt) fail(Kind::overflow, "the label is too long to encode", 0);

    std::uint32_t n = initialN;
    std::uint32_t delta = 0;
    std::uint32_t bias = initialBias;
    auto handled = static_cast<std::uint32_t>(basicCount);
    const auto total = static_cast<std::uint32_t>(input.size());
    while (handled < total) {
        std::uint32_t m = maxInt;
        for (const char32_t c : input) {
            const auto v = static_cast<std::uint32_t>(c);
            if (v >= n && v < m) m = v;
        }
        if (m - n > (maxInt - delta) / (handled + 1)) {
            fail(Kind::overflow, "overflow while encoding", 0);
        }
        delta += (m - n) * (handled + 1);
        n = m;
        for (std::size_t j = 0; j < input.size(); ++j) {
            const auto v = static_cast<std::uint32_t>(input[j]);
            if (v < n) {
                if (delta == maxInt) fail(Kind::overflow, "overflow while encoding", j);
                ++delta;
            } else if (v == n) {
                std::uint32_t q = delta;
                for (std::uint32_t k = base;; k += base) {
                    const std::uint32_t t = threshold(k, bias);
                    if (q < t) break;
                    out.push_back(encodeDigit(t + (q - t) % (base - t)));
                    q = (q - t) / (base - t);
                }
                out.push_back(encodeDigit(q));
                bias = adapt(delta, handled + 1, handled == basicCount);
                delta = 0;
                ++handled;
            }
        }
        ++delta;
        ++n;
    }
}

void decodeInto(std::u32string& out, std::string_view input) {
    const std::size_t lastDelimiter = input.rfind(delimiter);
    const std::size_t basicEnd = lastDelimiter == std::string_view::npos ? 0 : lastDelimiter;
    out.reserve(input.size());
    for (std::size_t j = 0; j < basicEnd; ++j) {
        const auto c = static_cast<unsigned char>(input[j]);
        if (c >= 0x80) fail(Kind::invalidInput, "a character that is not ASCII", j);
        out.push_back(static_cast<char32_t>(c));
    }

    std::uint32_t n = initialN;
    std::uint32_t i = 0;
    std::uint32_t bias = initialBias;
    std::size_t in = basicEnd > 0 ? basicEnd + 1 : 0;
    while (in < input.size()) {
        const std::uint32_t oldI = i;
        std::uint32_t w = 1;
        for (std::uint32_t k = base;; k += base) {
            if (in >= input.size()) {
                fail(Kind::truncatedInput, "the text ends inside an encoded number", in);
            }
            const std::uint32_t digit = decodeDigit(input[in]);
            if (digit >= base) {
                const auto c = static_cast<unsigned char>(input[in]);
                fail(Kind::invalidInput,
                     c >= 0x80 ? std::string("a character that is not ASCII")
                               : "\"" + std::string(1, static_cast<char>(c)) +
                                     "\" is not a Punycode digit",
                     in);
            }
            if (digit > (maxInt - i) / w) fail(Kind::overflow, "overflow while decoding", in);
            ++in;
            i += digit * w;
            const std::uint32_t t = threshold(k, bias);
            if (digit < t) break;
            if (w > maxInt / (base - t)) fail(Kind::overflow, "overflow while decoding", in - 1);
            w *= base - t;
        }
        const auto points = static_cast<std::uint32_t>(out.size() + 1);
        bias = adapt(i - oldI, points, oldI == 0);
        if (i / points > maxInt - n) fail(Kind::overflow, "overflow while decoding", in - 1);
        n += i / points;
        i %= points;
        if (!isScalarValue(n) || n < 0x80) {
            fail(Kind::invalidCodePoint,
                 "decodes to " + hexCodePoint(n) +
                     (n < 0x80 ? ", a basic code point that must not be encoded"
                               : ", which is no Unicode scalar value"),
                 in - 1);
        }
        out.insert(out.begin() + static_cast<std::ptrdiff_t>(i), static_cast<char32_t>(n));
        ++i;
    }
}

/// The code points of the UTF-8 `text`, in `small` when they fit (the usual case), else in
/// `large`.
std::u32string_view codePoints(std::string_view text, std::array<char32_t, 64>& small,
                               std::u32string& large) {
    std::size_t count = 0;
    std::size_t i = 0;
    while (i < text.size()) {
        const char32_t c = nextCodePoint(text, i);
        if (count < small.size()) {
            small[count] = c;
        } else {
            if (large.empty()) large.assign(small.begin(), small.end());
            large.push_back(c);
        }
        ++count;
    }
    return count <= small.size() ? std::u32string_view(small.data(), count)
                                 : std::u32string_view(large);
}

bool isAscii(std::string_view text) noexcept {
    for (const char c : text) {
        if (static_cast<unsigned char>(c) >= 0x80) return false;
    }
    return true;
}

bool hasAcePrefix(std::string_view label) noexcept {
    if (label.size() < 4) return false;
    return (label[0] | 0x20) == 'x' && (label[1] | 0x20) == 'n' && label[2] == '-' &&
           label[3] == '-';
}

/// The length of a label separator at `text[i]`: "." or, when `unicodeDots`, the UTF-8 of
/// U+3002, U+FF0E or U+FF61; 0 for anything else.
std::size_t separatorLength(std::string_view text, std::size_t i, bool unicodeDots) noexcept {
    if (text[i] == '.') return 1;
    if (!unicodeDots || static_cast<unsigned char>(text[i]) < 0xE3 || text.size() - i < 3) return 0;
    const std::string_view three = text.substr(i, 3);
    if (three == "\xE3\x80\x82" || three == "\xEF\xBC\x8E" || three == "\xEF\xBD\xA1") return 3;
    return 0;
}

/// Calls `convert(label, offset)` for each label of `hostName` and joins the results with ".".
template <class Convert>
std::string convertLabels(std::string_view hostName, bool unicodeDots, Convert&& convert) {
    if (hostName.empty()) fail(Kind::invalidLabel, "the host name is empty", 0);
    std::string out;
    out.reserve(hostName.size() + 8);
    std::size_t start = 0;
    std::size_t i = 0;
    while (true) {
        const std::size_t separator =
            i < hostName.size() ? separatorLength(hostName, i, unicodeDots) : 0;
        if (i < hostName.size() && separator == 0) {
            ++i;
            continue;
        }
        const std::string_view label = hostName.substr(start, i - start);
        const bool atEnd = i >= hostName.size();
        if (label.empty()) {
            // Only the root after a final dot may be empty.
            if (!(atEnd && start > 0)) fail(Kind::invalidLabel, "an empty label", start);
        } else {
            convert(out, label, start);
        }
        if (atEnd) break;
        out.push_back('.');
        i += separator;
        start = i;
    }
    return out;
}

}  // namespace

PunycodeError::PunycodeError(Kind kind, std::string message, std::size_t offset, OffsetUnit unit)
    : kind_(kind), message_(std::move(message)), offset_(offset), unit_(unit) {}

std::optional<std::string> PunycodeError::lowValueTitle() const {
    return "Invalid Punycode";
}

std::optional<std::string> PunycodeError::additionalInfo() const {
    return message_ + (unit_ == OffsetUnit::byte ? " (at byte " : " (at code point ") +
           std::to_string(offset_) + ")";
}

std::string Punycode::encode(std::u32string_view label) {
    std::string out;
    out.reserve(label.size() + label.size() / 2 + 2);
    try {
        encodeInto(out, label);
    } catch (const PunycodeError& error) {
        throw PunycodeError(error.kind(), error.message(), error.offset(),
                            PunycodeError::OffsetUnit::codePoint);
    }
    return out;
}

std::string Punycode::encode(std::string_view label) {
    std::array<char32_t, 64> small{};
    std::u32string large;
    const std::u32string_view points = codePoints(label, small, large);
    std::string out;
    out.reserve(points.size() + points.size() / 2 + 2);
    try {
        encodeInto(out, points);
    } catch (const PunycodeError& error) {
        // The encoder counts code points; the caller gave bytes.
        std::size_t byte = 0;
        for (std::size_t point = 0; byte < label.size(); ++byte) {
            if ((static_cast<unsigned char>(label[byte]) & 0xC0) != 0x80 &&
                point++ == error.offset()) {
                break;
            }
        }
        throw PunycodeError(error.kind(), error.message(), byte);
    }
    return out;
}

std::u32string Punycode::decodeToCodePoints(std::string_view encoded) {
    std::u32string out;
    decodeInto(out, encoded);
    return out;
}

std::string Punycode::decode(std::string_view encoded) {
    std::u32string points;
    decodeInto(points, encoded);
    std::string out;
    out.reserve(points.size() * 3);
    for (const char32_t c : points) detail::appendUtf8(out, c);
    return out;
}

std::string Punycode::toAsciiHostName(std::string_view hostName) {
    return convertLabels(hostName, true,
                         [](std::string& out, std::string_view label, std::size_t offset) {
                             const std::size_t before = out.size();
                             if (isAscii(label)) {
                                 out.append(label);
                             } else {
                                 out.append(acePrefix);
                                 try {
                                     std::array<char32_t, 64> small{};
                                     std::u32string large;
                                     encodeInto(out, codePoints(label, small, large));
                                 } catch (const PunycodeError& error) {
                                     fail(error.kind(), error.message(), offset + error.offset());
                                 }
                             }
                             if (out.size() - before > maximumLabelBytes) {
                                 fail(Kind::invalidLabel,
                                      "the label \"" + std::string(label) +
                                          "\" is longer than 63 bytes in ASCII form",
                                      offset);
                             }
                         });
}

std::string Punycode::toUnicodeHostName(std::string_view hostName) {
    return convertLabels(
        hostName, false, [](std::string& out, std::string_view label, std::size_t offset) {
            if (label.size() > maximumLabelBytes) {
                fail(Kind::invalidLabel,
                     "the label \"" + std::string(label) + "\" is longer than 63 bytes", offset);
            }
            if (!hasAcePrefix(label)) {
                out.append(label);
                return;
            }
            std::u32string points;
            try {
                decodeInto(points, label.substr(acePrefix.size()));
            } catch (const PunycodeError& error) {
                fail(error.kind(), error.message(), offset + acePrefix.size() + error.offset());
            }
            for (const char32_t c : points) detail::appendUtf8(out, c);
        });
}

}  // namespace mirels
