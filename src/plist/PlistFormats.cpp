#include "PlistFormats.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>
#include <type_traits>

#include "../core/Utf8Encoding.h"
#include "mirels/plist/PlistSerialization.h"

namespace mirels::detail {

namespace {

using SerializationError = PropertyListSerializationError;

[[noreturn]] void throwTooDeep(std::size_t maximumDepth) {
    throw SerializationError("nesting deeper than " + std::to_string(maximumDepth) + " levels");
}

// Decodes one code point of well-formed UTF-8 at `i`, advancing it.
char32_t decodeUTF8(std::string_view text, std::size_t& i) noexcept {
    const auto lead = static_cast<unsigned char>(text[i]);
    std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    char32_t value = length == 1   ? lead
                     : length == 2 ? lead & 0x1F
                     : length == 3 ? lead & 0x0F
                                   : lead & 0x07;
    for (std::size_t k = 1; k < length; ++k) {
        value = (value << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
    }
    i += length;
    return value;
}

// MARK: - Dates

constexpr double referenceDateUnixSeconds = 978307200.0;

// Days since 1970-01-01 of a proleptic Gregorian date, and back.
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) noexcept {
    y -= m <= 2 ? 1 : 0;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const auto yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

struct Civil {
    std::int64_t year;
    unsigned month;
    unsigned day;
};

Civil civilFromDays(std::int64_t z) noexcept {
    z += 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const auto doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const std::int64_t y = static_cast<std::int64_t>(yoe) + era * 400;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    const unsigned d = doy - (153 * mp + 2) / 5 + 1;
    const unsigned m = mp < 10 ? mp + 3 : mp - 9;
    return {y + (m <= 2 ? 1 : 0), m, d};
}

// "YYYY-MM-DDTHH:MM:SSZ" of the whole second at or before the date, for years 1 to 9999.
std::optional<std::string> xmlDateText(double secondsSinceReferenceDate) {
    static const double earliest =
        static_cast<double>(daysFromCivil(1, 1, 1)) * 86400.0 - referenceDateUnixSeconds;
    static const double pastLatest =
        static_cast<double>(daysFromCivil(10000, 1, 1)) * 86400.0 - referenceDateUnixSeconds;
    if (!(secondsSinceReferenceDate >= earliest && secondsSinceReferenceDate < pastLatest)) {
        return std::nullopt;
    }
    const auto unix =
        static_cast<std::int64_t>(std::floor(secondsSinceReferenceDate + referenceDateUnixSeconds));
    std::int64_t days = unix / 86400;
    std::int64_t second = unix % 86400;
    if (second < 0) {
        second += 86400;
        --days;
    }
    const Civil date = civilFromDays(days);
    std::array<char, 128> buffer{};  // room for any values, though years have four digits here
    std::snprintf(buffer.data(), buffer.size(), "%04lld-%02u-%02uT%02lld:%02lld:%02lldZ",
                  static_cast<long long>(date.year), date.month, date.day,
                  static_cast<long long>(second / 3600), static_cast<long long>(second / 60 % 60),
                  static_cast<long long>(second % 60));
    return std::string(buffer.data());
}

// MARK: - XML

class XMLWriter {
  public:
    explicit XMLWriter(std::size_t maximumDepth) : maximumDepth_(maximumDepth) {}

    template <class Top>
    std::string write(const Top& value) {
        out_ = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
        if constexpr (std::is_same_v<Top, PlistDictionary>) {
            writeDictionary(value, 0);
        } else {
            writeValue(value, 0);
        }
        out_ += "</plist>\n";
        return std::move(out_);
    }

  private:
    void indent(std::size_t depth) { out_.append(depth, '\t'); }

    void writeText(std::string_view text, const char* what) {
        if (!isValidUTF8(text)) {
            throw SerializationError(std::string(what) + " at " + path_.description() +
                                     " is not valid UTF-8");
        }
        for (char c : text) {
            switch (c) {
                case '&':
                    out_ += "&amp;";
                    break;
                case '<':
                    out_ += "&lt;";
                    break;
                case '>':
                    out_ += "&gt;";
                    break;
                case '\r':
                    out_ += "&#13;";  // a raw one would read back as a line feed
                    break;
                case '\t':
                case '\n':
                    out_ += c;
                    break;
                default:
                    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
                        throw SerializationError(
                            std::string(what) + " at " + path_.description() +
                            " holds a control character that XML cannot carry");
                    }
                    out_ += c;
            }
        }
    }

    void writeElement(std::string_view name, std::string_view content, std::size_t depth) {
        indent(depth);
        out_ += '<';
        out_ += name;
        out_ += '>';
        out_ += content;
        out_ += "</";
        out_ += name;
        out_ += ">\n";
    }

    void writeValue(const PlistValue& value, std::size_t depth) {
        switch (value.kind()) {
            case PlistValue::Kind::string:
                indent(depth);
                out_ += "<string>";
                writeText(*value.getIf<std::string>(), "a string");
                out_ += "</string>\n";
                return;
            case PlistValue::Kind::boolean:
                indent(depth);
                out_ += *value.getIf<bool>() ? "<true/>\n" : "<false/>\n";
                return;
            case PlistValue::Kind::integer:
                writeElement("integer", std::to_string(*value.getIf<std::int64_t>()), depth);
                return;
            case PlistValue::Kind::real:
                writeElement("real", realText(*value.getIf<double>()), depth);
                return;
            case PlistValue::Kind::data:
                writeData(*value.getIf<PlistData>(), depth);
                return;
            case PlistValue::Kind::date: {
                const double seconds = value.getIf<PlistDate>()->secondsSinceReferenceDate;
                std::optional<std::string> text = xmlDateText(seconds);
                if (!text) {
                    throw SerializationError(
                        "a date at " + path_.description() +
                        " is outside the years 1 to 9999, which XML dates cannot carry");
                }
                writeElement("date", *text, depth);
                return;
            }
            case PlistValue::Kind::array: {
                if (depth >= maximumDepth_) throwTooDeep(maximumDepth_);
                const auto& array = *value.getIf<PlistArray>();
                indent(depth);
                if (array.empty()) {
                    out_ += "<array/>\n";
                    return;
                }
                out_ += "<array>\n";
                for (std::size_t i = 0; i < array.size(); ++i) {
                    path_.pushIndex(i);
                    writeValue(array[i], depth + 1);
                    path_.pop();
                }
                indent(depth);
                out_ += "</array>\n";
                return;
            }
            case PlistValue::Kind::dictionary:
                writeDictionary(*value.getIf<PlistDictionary>(), depth);
                return;
        }
    }

    void writeDictionary(const PlistDictionary& dictionary, std::size_t depth) {
        if (depth >= maximumDepth_) throwTooDeep(maximumDepth_);
        indent(depth);
        if (dictionary.empty()) {
            out_ += "<dict/>\n";
            return;
        }
        out_ += "<dict>\n";
        for (const auto& [key, element] : dictionary) {
            path_.pushKey(key);
            indent(depth + 1);
            out_ += "<key>";
            writeText(key, "a dictionary key");
            out_ += "</key>\n";
            writeValue(element, depth + 1);
            path_.pop();
        }
        indent(depth);
        out_ += "</dict>\n";
    }

    // The shortest text that reads back as the same double; the sign of zero is kept.
    static std::string realText(double real) {
        if (std::isnan(real)) return "nan";
        if (std::isinf(real)) return real > 0 ? "+infinity" : "-infinity";
        std::array<char, 64> buffer{};
        auto [end, error] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), real);
        std::string text(buffer.data(), error == std::errc() ? end : buffer.data());
        if (text.find_first_of(".e") == std::string::npos) text += ".0";
        return text;
    }

    void writeData(const PlistData& data, std::size_t depth) {
        static constexpr std::string_view alphabet =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        std::string encoded;
        encoded.reserve((data.size() + 2) / 3 * 4);
        for (std::size_t i = 0; i < data.size(); i += 3) {
            const std::uint32_t chunk =
                (std::uint32_t{data[i]} << 16) |
                (i + 1 < data.size() ? std::uint32_t{data[i + 1]} << 8 : 0U) |
                (i + 2 < data.size() ? std::uint32_t{data[i + 2]} : 0U);
            encoded += alphabet[(chunk >> 18) & 0x3F];
            encoded += alphabet[(chunk >> 12) & 0x3F];
            encoded += i + 1 < data.size() ? alphabet[(chunk >> 6) & 0x3F] : '=';
            encoded += i + 2 < data.size() ? alphabet[chunk & 0x3F] : '=';
        }
        indent(depth);
        out_ += "<data>\n";
        constexpr std::size_t lineLength = 68;
        for (std::size_t i = 0; i < encoded.size(); i += lineLength) {
            indent(depth);
            out_.append(encoded, i, lineLength);
            out_ += '\n';
        }
        indent(depth);
        out_ += "</data>\n";
    }

    std::size_t maximumDepth_;
    std::string out_;
    KeyPath path_;
};

// MARK: - Binary writing

void appendBigEndian(std::vector<std::uint8_t>& out, std::uint64_t value, std::size_t size) {
    for (std::size_t i = size; i-- > 0;) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

// The fewest bytes that hold `value`: offsets and references take any width from one to eight.
std::size_t bytesFor(std::uint64_t value) noexcept {
    std::size_t size = 1;
    while (size < 8 && (value >> (8 * size)) != 0) ++size;
    return size;
}

// Integer objects take one, two, four or eight bytes.
std::size_t integerBytesFor(std::uint64_t value) noexcept {
    if (value <= 0xFF) return 1;
    if (value <= 0xFFFF) return 2;
    if (value <= 0xFFFFFFFF) return 4;
    return 8;
}

class BinaryWriter {
  public:
    explicit BinaryWriter(std::size_t maximumDepth) : maximumDepth_(maximumDepth) {}

    template <class Top>
    std::vector<std::uint8_t> write(const Top& value) {
        if constexpr (std::is_same_v<Top, PlistDictionary>) {
            objects_.push_back(Object{nullptr, nullptr, &value, {}});
            objects_[0].references = flattenDictionary(value, 0);
        } else {
            flatten(value, nullptr, 0);
        }
        referenceSize_ = bytesFor(objects_.size());
        out_ = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
        std::vector<std::uint64_t> offsets;
        offsets.reserve(objects_.size());
        for (const Object& object : objects_) {
            offsets.push_back(out_.size());
            writeObject(object);
        }
        const std::uint64_t tableOffset = out_.size();
        const std::size_t offsetSize = bytesFor(tableOffset);
        for (std::uint64_t offset : offsets) appendBigEndian(out_, offset, offsetSize);
        out_.insert(out_.end(), 6, 0);  // five unused bytes and the sort version
        out_.push_back(static_cast<std::uint8_t>(offsetSize));
        out_.push_back(static_cast<std::uint8_t>(referenceSize_));
        appendBigEndian(out_, objects_.size(), 8);
        appendBigEndian(out_, 0, 8);  // the top object
        appendBigEndian(out_, tableOffset, 8);
        return std::move(out_);
    }

  private:
    // One object of the file: a value, or a dictionary key (`key` set).
    struct Object {
        const PlistValue* value;
        const std::string* key;
        const PlistDictionary* dictionary;  // a dictionary at the top, outside any value
        std::vector<std::uint64_t> references;
    };

    std::uint64_t flatten(const PlistValue& value, const std::string* key, std::size_t depth) {
        const std::uint64_t index = objects_.size();
        objects_.push_back(Object{&value, key, nullptr, {}});
        if (key != nullptr) return index;
        std::vector<std::uint64_t> references;
        if (const auto* array = value.getIf<PlistArray>()) {
            if (depth >= maximumDepth_) throwTooDeep(maximumDepth_);
            references.reserve(array->size());
            for (std::size_t i = 0; i < array->size(); ++i) {
                path_.pushIndex(i);
                references.push_back(flatten((*array)[i], nullptr, depth + 1));
                path_.pop();
            }
        } else if (const auto* dictionary = value.getIf<PlistDictionary>()) {
            references = flattenDictionary(*dictionary, depth);
        } else if (const auto* text = value.getIf<std::string>()) {
            checkText(*text, "a string");
        } else if (const auto* date = value.getIf<PlistDate>()) {
            if (!std::isfinite(date->secondsSinceReferenceDate)) {
                throw SerializationError("a date at " + path_.description() +
                                         " is not a finite number");
            }
        }
        objects_[index].references = std::move(references);
        return index;
    }

    std::vector<std::uint64_t> flattenDictionary(const PlistDictionary& dictionary,
                                                 std::size_t depth) {
        if (depth >= maximumDepth_) throwTooDeep(maximumDepth_);
        std::vector<std::uint64_t> references;
        references.reserve(dictionary.size() * 2);
        for (const auto& [name, element] : dictionary) {
            path_.pushKey(name);
            checkText(name, "a dictionary key");
            if (name.find('\0') != std::string::npos) {
                throw SerializationError("a dictionary key at " + path_.description() +
                                         " contains a NUL character");
            }
            references.push_back(objects_.size());
            objects_.push_back(Object{nullptr, &name, nullptr, {}});
            path_.pop();
        }
        for (const auto& [name, element] : dictionary) {
            path_.pushKey(name);
            references.push_back(flatten(element, nullptr, depth + 1));
            path_.pop();
        }
        return references;
    }

    void checkText(std::string_view text, const char* what) const {
        if (!isValidUTF8(text)) {
            throw SerializationError(std::string(what) + " at " + path_.description() +
                                     " is not valid UTF-8");
        }
    }

    void writeMarker(std::uint8_t type, std::uint64_t count) {
        if (count < 15) {
            out_.push_back(static_cast<std::uint8_t>(type | count));
            return;
        }
        out_.push_back(static_cast<std::uint8_t>(type | 0x0F));
        writeInteger(count);
    }

    void writeInteger(std::uint64_t bits, bool negative = false) {
        const std::size_t size = negative ? 8 : integerBytesFor(bits);
        const std::uint8_t power = size == 1 ? 0 : size == 2 ? 1 : size == 4 ? 2 : 3;
        out_.push_back(static_cast<std::uint8_t>(0x10 | power));
        appendBigEndian(out_, bits, size);
    }

    void writeText(std::string_view text) {
        bool ascii = true;
        for (char c : text) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
        if (ascii) {
            writeMarker(0x50, text.size());
            out_.insert(out_.end(), text.begin(), text.end());
            return;
        }
        std::vector<std::uint16_t> units;
        for (std::size_t i = 0; i < text.size();) {
            const char32_t codePoint = decodeUTF8(text, i);
            if (codePoint >= 0x10000) {
                const char32_t v = codePoint - 0x10000;
                units.push_back(static_cast<std::uint16_t>(0xD800 | (v >> 10)));
                units.push_back(static_cast<std::uint16_t>(0xDC00 | (v & 0x3FF)));
            } else {
                units.push_back(static_cast<std::uint16_t>(codePoint));
            }
        }
        writeMarker(0x60, units.size());
        for (std::uint16_t unit : units) appendBigEndian(out_, unit, 2);
    }

    void writeDouble(std::uint8_t marker, double value) {
        std::uint64_t bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        out_.push_back(marker);
        appendBigEndian(out_, bits, 8);
    }

    void writeObject(const Object& object) {
        if (object.key != nullptr) {
            writeText(*object.key);
            return;
        }
        if (object.dictionary != nullptr) {
            writeMarker(0xD0, object.references.size() / 2);
            for (std::uint64_t reference : object.references) {
                appendBigEndian(out_, reference, referenceSize_);
            }
            return;
        }
        const PlistValue& value = *object.value;
        switch (value.kind()) {
            case PlistValue::Kind::string:
                writeText(*value.getIf<std::string>());
                return;
            case PlistValue::Kind::boolean:
                out_.push_back(*value.getIf<bool>() ? 0x09 : 0x08);
                return;
            case PlistValue::Kind::integer: {
                const std::int64_t integer = *value.getIf<std::int64_t>();
                writeInteger(static_cast<std::uint64_t>(integer), integer < 0);
                return;
            }
            case PlistValue::Kind::real:
                writeDouble(0x23, *value.getIf<double>());
                return;
            case PlistValue::Kind::date:
                writeDouble(0x33, value.getIf<PlistDate>()->secondsSinceReferenceDate);
                return;
            case PlistValue::Kind::data: {
                const auto& data = *value.getIf<PlistData>();
                writeMarker(0x40, data.size());
                out_.insert(out_.end(), data.begin(), data.end());
                return;
            }
            case PlistValue::Kind::array:
                writeMarker(0xA0, object.references.size());
                break;
            case PlistValue::Kind::dictionary:
                writeMarker(0xD0, object.references.size() / 2);
                break;
        }
        for (std::uint64_t reference : object.references) {
            appendBigEndian(out_, reference, referenceSize_);
        }
    }

    std::size_t maximumDepth_;
    std::vector<Object> objects_;
    std::vector<std::uint8_t> out_;
    std::size_t referenceSize_ = 1;
    KeyPath path_;
};

// MARK: - Binary reading

std::uint64_t readBigEndian(const std::uint8_t* bytes, std::size_t size) noexcept {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i) value = (value << 8) | bytes[i];
    return value;
}

class BinaryReader {
  public:
    explicit BinaryReader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {
        const std::uint8_t* trailer = bytes.data() + bytes.size() - 32;
        offsetSize_ = trailer[6];
        referenceSize_ = trailer[7];
        objectCount_ = readBigEndian(trailer + 8, 8);
        topObject_ = readBigEndian(trailer + 16, 8);
        tableOffset_ = readBigEndian(trailer + 24, 8);
    }

    PlistValue read() { return readObject(topObject_); }

  private:
    [[noreturn]] static void damaged(const char* what) {
        throw SerializationError(std::string("damaged binary property list: ") + what);
    }

    const std::uint8_t* objectStart(std::uint64_t index) const {
        if (index >= objectCount_) damaged("object reference out of range");
        const std::uint64_t offset =
            readBigEndian(bytes_.data() + tableOffset_ + index * offsetSize_, offsetSize_);
        if (offset < 8 || offset >= tableOffset_) damaged("object offset out of range");
        return bytes_.data() + offset;
    }

    const std::uint8_t* limit() const noexcept { return bytes_.data() + tableOffset_; }

    void need(const std::uint8_t* cursor, std::uint64_t size) const {
        if (size > static_cast<std::uint64_t>(limit() - cursor)) {
            damaged("an object runs past the object data");
        }
    }

    // The element count that follows a marker with 0x0F in its low half.
    std::uint64_t count(std::uint8_t marker, const std::uint8_t*& cursor) const {
        std::uint64_t value = marker & 0x0F;
        if (value != 0x0F) return value;
        need(cursor, 1);
        if ((*cursor & 0xF0) != 0x10) damaged("bad length");
        const std::size_t size = std::size_t{1} << (*cursor & 0x0F);
        ++cursor;
        if (size > 8) damaged("bad length");
        need(cursor, size);
        value = readBigEndian(cursor, size);
        cursor += size;
        return value;
    }

    std::string text(std::uint8_t marker, const std::uint8_t* cursor) const {
        const std::uint8_t type = marker & 0xF0;
        const std::uint64_t length = count(marker, cursor);
        if (type == 0x50) {
            need(cursor, length);
            std::string result(reinterpret_cast<const char*>(cursor), length);
            if (!isValidUTF8(result)) throw SerializationError("a string is not valid text");
            return result;
        }
        if (length > std::numeric_limits<std::uint64_t>::max() / 2) damaged("bad length");
        need(cursor, length * 2);
        std::string result;
        result.reserve(length);
        for (std::uint64_t i = 0; i < length; ++i) {
            char32_t unit = static_cast<char32_t>(readBigEndian(cursor + 2 * i, 2));
            if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < length) {
                const auto low = static_cast<char32_t>(readBigEndian(cursor + 2 * (i + 1), 2));
                if (low >= 0xDC00 && low <= 0xDFFF) {
                    appendUtf8(result, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
                    ++i;
                    continue;
                }
            }
            if (unit >= 0xD800 && unit <= 0xDFFF)
                throw SerializationError("a string is not valid UTF-16");
            appendUtf8(result, unit);
        }
        return result;
    }

    PlistValue readObject(std::uint64_t index) {
        const std::uint8_t* cursor = objectStart(index);
        const std::uint8_t marker = *cursor++;
        switch (marker & 0xF0) {
            case 0x00:
                if (marker == 0x08) return PlistValue(false);
                if (marker == 0x09) return PlistValue(true);
                throw SerializationError("unsupported value kind");
            case 0x10: {
                const std::size_t size = std::size_t{1} << (marker & 0x0F);
                need(cursor, size);
                if (size <= 4)
                    return PlistValue(static_cast<std::int64_t>(readBigEndian(cursor, size)));
                if (size == 8) {
                    return PlistValue(static_cast<std::int64_t>(readBigEndian(cursor, 8)));
                }
                if (size == 16) {
                    // A 128-bit integer is kept when it fits 64 signed bits.
                    const std::uint64_t high = readBigEndian(cursor, 8);
                    const std::uint64_t low = readBigEndian(cursor + 8, 8);
                    const bool negative = (low >> 63) != 0;
                    if (high == (negative ? ~std::uint64_t{0} : 0)) {
                        return PlistValue(static_cast<std::int64_t>(low));
                    }
                    throw SerializationError(integerOutOfRangeMessage(high, low));
                }
                damaged("bad integer size");
            }
            case 0x20: {
                if (marker == 0x22) {
                    need(cursor, 4);
                    const auto bits = static_cast<std::uint32_t>(readBigEndian(cursor, 4));
                    float value = 0;
                    std::memcpy(&value, &bits, sizeof value);
                    return PlistValue(static_cast<double>(value));
                }
                if (marker != 0x23) damaged("bad real size");
                return PlistValue(readDouble(cursor));
            }
            case 0x30:
                if (marker != 0x33) damaged("bad date");
                return PlistValue(PlistDate{readDouble(cursor)});
            case 0x40: {
                const std::uint64_t length = count(marker, cursor);
                need(cursor, length);
                return PlistValue(PlistData(cursor, cursor + length));
            }
            case 0x50:
            case 0x60:
                return PlistValue(text(marker, cursor));
            case 0x80:
                throw SerializationError("unsupported value: a keyed-archive UID");
            case 0xA0:
            case 0xC0: {
                const std::uint64_t length = count(marker, cursor);
                if (length > static_cast<std::uint64_t>(limit() - cursor) / referenceSize_) {
                    damaged("container runs past the object data");
                }
                PlistArray array;
                array.reserve(length);
                for (std::uint64_t i = 0; i < length; ++i) {
                    array.push_back(
                        readObject(readBigEndian(cursor + i * referenceSize_, referenceSize_)));
                }
                return PlistValue(std::move(array));
            }
            case 0xD0: {
                const std::uint64_t length = count(marker, cursor);
                if (length > static_cast<std::uint64_t>(limit() - cursor) / referenceSize_ / 2) {
                    damaged("container runs past the object data");
                }
                PlistDictionary dictionary;
                for (std::uint64_t i = 0; i < length; ++i) {
                    const std::uint8_t* keyStart =
                        objectStart(readBigEndian(cursor + i * referenceSize_, referenceSize_));
                    const std::uint8_t keyMarker = *keyStart;
                    if ((keyMarker & 0xF0) != 0x50 && (keyMarker & 0xF0) != 0x60) {
                        damaged("a dictionary key is not a string");
                    }
                    std::string key = text(keyMarker, keyStart + 1);
                    dictionary.insert_or_assign(
                        std::move(key),
                        readObject(
                            readBigEndian(cursor + (length + i) * referenceSize_, referenceSize_)));
                }
                return PlistValue(std::move(dictionary));
            }
            default:
                throw SerializationError("unsupported value kind");
        }
    }

    double readDouble(const std::uint8_t* cursor) const {
        need(cursor, 8);
        const std::uint64_t bits = readBigEndian(cursor, 8);
        double value = 0;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }

    static std::string integerOutOfRangeMessage(std::uint64_t high, std::uint64_t low) {
        if (high == 0) {
            return "the integer " + std::to_string(low) +
                   " is outside the signed 64-bit range this library holds";
        }
        return "an integer is outside the signed 64-bit range this library holds";
    }

    std::span<const std::uint8_t> bytes_;
    std::size_t offsetSize_ = 1;
    std::size_t referenceSize_ = 1;
    std::uint64_t objectCount_ = 0;
    std::uint64_t topObject_ = 0;
    std::uint64_t tableOffset_ = 0;
};

}  // namespace

bool isValidUTF8(std::string_view text) noexcept {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        if (lead < 0x80) {
            ++i;
            continue;
        }
        std::size_t length = 0;
        char32_t minimum = 0;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
            minimum = 0x80;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            minimum = 0x800;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            minimum = 0x10000;
        } else {
            return false;
        }
        if (text.size() - i < length) return false;
        char32_t value = lead & (0xFF >> (length + 1));
        for (std::size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) return false;
            value = (value << 6) | (next & 0x3F);
        }
        if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
            return false;
        }
        i += length;
    }
    return true;
}

std::string KeyPath::description() const {
    if (segments_.empty()) return "the top level";
    std::string out = "key path \"";
    bool first = true;
    for (const Segment& segment : segments_) {
        if (segment.isIndex) {
            out += '[' + segment.text + ']';
        } else {
            if (!first) out += '.';
            out += segment.text;
        }
        first = false;
    }
    out += '"';
    return out;
}

std::string writeXMLPropertyList(const PlistValue& value, std::size_t maximumDepth) {
    return XMLWriter(maximumDepth).write(value);
}

std::vector<std::uint8_t> writeBinaryPropertyList(const PlistValue& value,
                                                  std::size_t maximumDepth) {
    return BinaryWriter(maximumDepth).write(value);
}

std::string writeXMLPropertyList(const PlistDictionary& dictionary, std::size_t maximumDepth) {
    return XMLWriter(maximumDepth).write(dictionary);
}

std::vector<std::uint8_t> writeBinaryPropertyList(const PlistDictionary& dictionary,
                                                  std::size_t maximumDepth) {
    return BinaryWriter(maximumDepth).write(dictionary);
}

PlistValue readBinaryPropertyList(std::span<const std::uint8_t> bytes) {
    return BinaryReader(bytes).read();
}

}  // namespace mirels::detail
