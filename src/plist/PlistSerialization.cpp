#include "mirels/plist/PlistSerialization.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>

#include "LibplistBridge.h"
#include "PlistFormats.h"

// The library writes both forms itself and reads binary property lists itself (PlistFormats),
// so that it reads exactly what it writes: libplist 2.2 writes -0.0 as 0.0, writes years outside
// 1000-9999 in a form other readers refuse, and cuts binary strings at a NUL. libplist reads XML
// and backs the node API bridge (LibplistBridge), with these of its traits handled here:
// - it frees and converts trees recursively; XML nesting is bounded before it parses, and binary
//   input is checked for depth, cycles and reference sharing before the reader walks it.
// - it reads an XML integer as an unsigned 64-bit value, so integers outside the signed range are
//   refused before it parses rather than wrapped.
// - its date accessors take whole 32-bit seconds and split fractions lossily, while a binary
//   date object is the exact double; bridged dates go through that binary form.
// - it stores integers as unsigned 64-bit values; signed values travel as two's complement.

namespace mirels {

namespace {

using SerializationError = PropertyListSerializationError;

[[noreturn]] void throwTooDeep() {
    throw SerializationError("nesting deeper than " + std::to_string(maximumPropertyListDepth) +
                             " levels");
}

// MARK: - Big-endian helpers

std::uint64_t readBigEndian(const std::uint8_t* bytes, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i) value = (value << 8) | bytes[i];
    return value;
}

void writeBigEndian(std::uint8_t* bytes, std::uint64_t value, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        bytes[size - 1 - i] = static_cast<std::uint8_t>(value & 0xFF);
        value >>= 8;
    }
}

// MARK: - Dates

constexpr std::uint8_t binaryDateMarker = 0x33;

LibplistNode makeDateNode(double seconds) {
    if (!std::isfinite(seconds)) throw SerializationError("date is not a finite number");
    // A one-object binary property list: header, the date object, a one-entry offset table
    // and the 32-byte trailer.
    std::uint8_t blob[8 + 9 + 1 + 32] = {'b', 'p', 'l', 'i', 's', 't', '0', '0', binaryDateMarker};
    std::uint64_t bits = 0;
    std::memcpy(&bits, &seconds, sizeof bits);
    writeBigEndian(blob + 9, bits, 8);
    blob[17] = 8;  // the date object's offset
    std::uint8_t* trailer = blob + 18;
    trailer[6] = 1;                       // offset size
    trailer[7] = 1;                       // reference size
    writeBigEndian(trailer + 8, 1, 8);    // object count
    writeBigEndian(trailer + 16, 0, 8);   // top object
    writeBigEndian(trailer + 24, 17, 8);  // offset table offset
    plist_t node = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(blob), sizeof blob, &node);
    if (node == nullptr) throw std::bad_alloc();
    return LibplistNode(node);
}

double dateSeconds(plist_t node) {
    char* binary = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(node, &binary, &length);
    std::unique_ptr<char, void (*)(char*)> owner(binary, plist_to_bin_free);
    if (binary != nullptr && length >= 17 &&
        static_cast<std::uint8_t>(binary[8]) == binaryDateMarker) {
        std::uint64_t bits = readBigEndian(reinterpret_cast<const std::uint8_t*>(binary) + 9, 8);
        double seconds = 0;
        std::memcpy(&seconds, &bits, sizeof seconds);
        return seconds;
    }
    // Not expected; the accessor is exact for whole seconds within about 68 years of 2001.
    std::int32_t sec = 0;
    std::int32_t usec = 0;
    plist_get_date_val(node, &sec, &usec);
    return sec < 0 ? sec - usec / 1e6 : sec + usec / 1e6;
}

// MARK: - PlistValue -> libplist

void checkNoNul(std::string_view text, const char* what) {
    if (text.find('\0') != std::string_view::npos) {
        throw SerializationError(std::string(what) + " contains a NUL character");
    }
}

LibplistNode checked(plist_t node) {
    if (node == nullptr) throw std::bad_alloc();
    return LibplistNode(node);
}

LibplistNode makeDictionaryNode(const PlistDictionary& entries, std::size_t depth);

LibplistNode makeNode(const PlistValue& value, std::size_t depth) {
    switch (value.kind()) {
        case PlistValue::Kind::string: {
            const auto& text = *value.getIf<std::string>();
            checkNoNul(text, "a string");
            return checked(plist_new_string(text.c_str()));
        }
        case PlistValue::Kind::boolean:
            return checked(plist_new_bool(*value.getIf<bool>() ? 1 : 0));
        case PlistValue::Kind::integer:
            return checked(
                plist_new_uint(static_cast<std::uint64_t>(*value.getIf<std::int64_t>())));
        case PlistValue::Kind::real:
            return checked(plist_new_real(*value.getIf<double>()));
        case PlistValue::Kind::data: {
            const auto& data = *value.getIf<PlistData>();
            return checked(plist_new_data(reinterpret_cast<const char*>(data.data()), data.size()));
        }
        case PlistValue::Kind::date:
            return makeDateNode(value.getIf<PlistDate>()->secondsSinceReferenceDate);
        case PlistValue::Kind::array: {
            if (depth >= maximumPropertyListDepth) throwTooDeep();
            LibplistNode array = checked(plist_new_array());
            for (const PlistValue& element : *value.getIf<PlistArray>()) {
                plist_array_append_item(array.get(), makeNode(element, depth + 1).release());
            }
            return array;
        }
        case PlistValue::Kind::dictionary:
            return makeDictionaryNode(*value.getIf<PlistDictionary>(), depth);
    }
    throw SerializationError("unknown value kind");
}

LibplistNode makeDictionaryNode(const PlistDictionary& entries, std::size_t depth) {
    if (depth >= maximumPropertyListDepth) throwTooDeep();
    LibplistNode dictionary = checked(plist_new_dict());
    for (const auto& [key, element] : entries) {
        checkNoNul(key, "a dictionary key");
        plist_dict_set_item(dictionary.get(), key.c_str(), makeNode(element, depth + 1).release());
    }
    return dictionary;
}

// MARK: - libplist -> PlistValue

PlistValue convertNode(plist_t node, std::size_t depth) {
    if (node == nullptr) throw SerializationError("missing value");
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            std::uint8_t flag = 0;
            plist_get_bool_val(node, &flag);
            return PlistValue(flag != 0);
        }
        case PLIST_UINT: {
            std::uint64_t bits = 0;
            plist_get_uint_val(node, &bits);
            return PlistValue(static_cast<std::int64_t>(bits));
        }
        case PLIST_REAL: {
            double real = 0;
            plist_get_real_val(node, &real);
            return PlistValue(real);
        }
        case PLIST_STRING:
        case PLIST_KEY: {
            std::uint64_t length = 0;
            const char* text = plist_get_string_ptr(node, &length);
            return PlistValue(text == nullptr ? std::string() : std::string(text, length));
        }
        case PLIST_DATA: {
            std::uint64_t length = 0;
            const char* bytes = plist_get_data_ptr(node, &length);
            PlistData data;
            if (bytes != nullptr) {
                const auto* begin = reinterpret_cast<const std::uint8_t*>(bytes);
                data.assign(begin, begin + length);
            }
            return PlistValue(std::move(data));
        }
        case PLIST_DATE:
            return PlistValue(PlistDate{dateSeconds(node)});
        case PLIST_ARRAY: {
            if (depth >= maximumPropertyListDepth) throwTooDeep();
            PlistArray array;
            array.reserve(plist_array_get_size(node));
            plist_array_iter iterator = nullptr;
            plist_array_new_iter(node, &iterator);
            if (iterator == nullptr) throw std::bad_alloc();
            std::unique_ptr<void, void (*)(void*)> owner(iterator, std::free);
            while (true) {
                plist_t element = nullptr;
                plist_array_next_item(node, iterator, &element);
                if (element == nullptr) break;
                array.push_back(convertNode(element, depth + 1));
            }
            return PlistValue(std::move(array));
        }
        case PLIST_DICT: {
            if (depth >= maximumPropertyListDepth) throwTooDeep();
            PlistDictionary dictionary;
            plist_dict_iter iterator = nullptr;
            plist_dict_new_iter(node, &iterator);
            if (iterator == nullptr) throw std::bad_alloc();
            std::unique_ptr<void, void (*)(void*)> owner(iterator, std::free);
            while (true) {
                char* key = nullptr;
                plist_t element = nullptr;
                plist_dict_next_item(node, iterator, &key, &element);
                std::unique_ptr<char, void (*)(void*)> keyOwner(key, std::free);
                if (element == nullptr) break;
                dictionary.insert_or_assign(key == nullptr ? std::string() : std::string(key),
                                            convertNode(element, depth + 1));
            }
            return PlistValue(std::move(dictionary));
        }
        case PLIST_UID:
            throw SerializationError("unsupported value: a keyed-archive UID");
        default:
            throw SerializationError("unsupported value kind");
    }
}

// MARK: - Structure checks before libplist parses

// Binary property lists: walks the object graph without recursion and refuses cycles, nesting
// deeper than the limit, and reference sharing that would expand into more objects than the
// file could hold as a tree.
void checkBinaryStructure(std::span<const std::uint8_t> bytes) {
    constexpr std::size_t headerSize = 8;
    constexpr std::size_t trailerSize = 32;
    auto damaged = [](const char* what) -> SerializationError {
        return SerializationError(std::string("damaged binary property list: ") + what);
    };
    if (bytes.size() < headerSize + trailerSize + 1) throw damaged("truncated");
    if (std::memcmp(bytes.data(), "bplist00", headerSize) != 0) {
        throw SerializationError("unsupported binary property list version");
    }
    const std::uint8_t* data = bytes.data();
    const std::uint8_t* trailer = data + bytes.size() - trailerSize;
    const std::size_t offsetSize = trailer[6];
    const std::size_t referenceSize = trailer[7];
    const std::uint64_t objectCount = readBigEndian(trailer + 8, 8);
    const std::uint64_t topObject = readBigEndian(trailer + 16, 8);
    const std::uint64_t tableOffset = readBigEndian(trailer + 24, 8);
    // Any width from one to eight bytes: libplist itself writes three-byte offsets and
    // references once a file outgrows 64 KiB.
    auto isIntegerSize = [](std::size_t size) { return size >= 1 && size <= 8; };
    if (!isIntegerSize(offsetSize) || !isIntegerSize(referenceSize)) {
        throw damaged("unsupported offset or reference size");
    }
    const std::uint64_t objectsEnd = bytes.size() - trailerSize;
    if (tableOffset < headerSize || tableOffset >= objectsEnd) {
        throw damaged("offset table out of range");
    }
    if (objectCount == 0 || objectCount > (objectsEnd - tableOffset) / offsetSize) {
        throw damaged("object count does not match the offset table");
    }
    if (topObject >= objectCount) throw damaged("top object out of range");

    // A dictionary's keys must be strings without NUL characters: libplist takes any object
    // there, and aborts when such a key is read back.
    auto checkKey = [&](std::uint64_t index) {
        std::uint64_t offset = readBigEndian(data + tableOffset + index * offsetSize, offsetSize);
        if (offset < headerSize || offset >= tableOffset)
            throw damaged("object offset out of range");
        const std::uint8_t* cursor = data + offset;
        const std::uint8_t* limit = data + tableOffset;
        std::uint8_t type = *cursor & 0xF0;
        if (type != 0x50 && type != 0x60) throw damaged("a dictionary key is not a string");
        std::uint64_t length = *cursor++ & 0x0F;
        if (length == 0x0F) {
            if (cursor >= limit || (*cursor & 0xF0) != 0x10) throw damaged("bad string length");
            std::size_t sizeBytes = std::size_t{1} << (*cursor & 0x0F);
            ++cursor;
            if (sizeBytes > 8 || static_cast<std::size_t>(limit - cursor) < sizeBytes) {
                throw damaged("bad string length");
            }
            length = readBigEndian(cursor, sizeBytes);
            cursor += sizeBytes;
        }
        std::size_t unit = type == 0x60 ? 2 : 1;
        if (length > static_cast<std::uint64_t>(limit - cursor) / unit) {
            throw damaged("a string runs past the object data");
        }
        for (std::uint64_t i = 0; i < length; ++i) {
            bool nul = unit == 1 ? cursor[i] == 0 : (cursor[2 * i] == 0 && cursor[2 * i + 1] == 0);
            if (nul) throw damaged("a dictionary key contains a NUL character");
        }
    };

    // Appends the object references of a container to `references`; false for a leaf.
    auto references = [&](std::uint64_t index, std::vector<std::uint64_t>& out) -> bool {
        std::uint64_t offset = readBigEndian(data + tableOffset + index * offsetSize, offsetSize);
        if (offset < headerSize || offset >= tableOffset)
            throw damaged("object offset out of range");
        const std::uint8_t* cursor = data + offset;
        const std::uint8_t* limit = data + tableOffset;
        std::uint8_t marker = *cursor++;
        std::uint8_t type = marker & 0xF0;
        bool isArray = type == 0xA0 || type == 0xC0;  // arrays and sets
        bool isDictionary = type == 0xD0;
        if (!isArray && !isDictionary) return false;
        std::uint64_t count = marker & 0x0F;
        if (count == 0x0F) {
            if (cursor >= limit || (*cursor & 0xF0) != 0x10) throw damaged("bad container size");
            std::size_t sizeBytes = std::size_t{1} << (*cursor & 0x0F);
            ++cursor;
            if (sizeBytes > 8 || static_cast<std::size_t>(limit - cursor) < sizeBytes) {
                throw damaged("bad container size");
            }
            count = readBigEndian(cursor, sizeBytes);
            cursor += sizeBytes;
        }
        std::uint64_t available = static_cast<std::uint64_t>(limit - cursor) / referenceSize;
        std::uint64_t needed = isDictionary ? count * 2 : count;
        if (count > available || needed > available) {
            throw damaged("container runs past the object data");
        }
        for (std::uint64_t i = 0; i < needed; ++i) {
            std::uint64_t child = readBigEndian(cursor + i * referenceSize, referenceSize);
            if (child >= objectCount) throw damaged("object reference out of range");
            if (isDictionary && i < count) checkKey(child);
            out.push_back(child);
        }
        return true;
    };

    enum class State : std::uint8_t { unvisited, inProgress, done };
    struct Summary {
        std::uint32_t depth = 0;     // container levels at and below the object
        std::uint64_t expanded = 0;  // objects after copying every shared reference
    };
    struct Frame {
        std::uint64_t index;
        std::size_t begin;
        std::size_t end;
        std::size_t next;
        Summary children;
    };
    // libplist copies every shared object; a tree built from this file's references holds at
    // most one object per reference byte, so more than that is refused.
    const std::uint64_t expansionLimit = 2 * static_cast<std::uint64_t>(bytes.size()) + 64;
    std::vector<State> state(objectCount, State::unvisited);
    std::vector<Summary> summary(objectCount);
    std::vector<std::uint64_t> pending;
    std::vector<Frame> frames;

    auto absorb = [&](Summary& into, const Summary& child) {
        into.depth = std::max(into.depth, child.depth);
        into.expanded += child.expanded;
        if (into.expanded > expansionLimit) {
            throw damaged("shared references expand into too many objects");
        }
    };
    // Visits `index`: a leaf is summarised at once, a container gets a frame.
    auto enter = [&](std::uint64_t index) -> std::optional<Summary> {
        if (state[index] == State::done) return summary[index];
        if (state[index] == State::inProgress) throw damaged("cyclic object references");
        std::size_t begin = pending.size();
        if (!references(index, pending)) {
            state[index] = State::done;
            summary[index] = Summary{0, 1};
            return summary[index];
        }
        if (frames.size() >= maximumPropertyListDepth) throwTooDeep();
        state[index] = State::inProgress;
        frames.push_back(Frame{index, begin, pending.size(), begin, Summary{}});
        return std::nullopt;
    };

    enter(topObject);
    while (!frames.empty()) {
        Frame& frame = frames.back();
        if (frame.next < frame.end) {
            std::uint64_t child = pending[frame.next++];
            if (auto done = enter(child)) absorb(frames.back().children, *done);
            continue;
        }
        Summary finished{frame.children.depth + 1, frame.children.expanded + 1};
        summary[frame.index] = finished;
        state[frame.index] = State::done;
        pending.resize(frame.begin);
        frames.pop_back();
        if (!frames.empty()) absorb(frames.back().children, finished);
    }
}

// libplist reads an XML integer as an unsigned 64-bit value, so one above the signed range would
// read as a negative number; those are refused with their text.
void checkXMLInteger(std::string_view content) {
    auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!content.empty() && isSpace(content.front())) content.remove_prefix(1);
    while (!content.empty() && isSpace(content.back())) content.remove_suffix(1);
    std::string_view digits = content;
    if (!digits.empty() && (digits.front() == '-' || digits.front() == '+'))
        digits.remove_prefix(1);
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string_view::npos) {
        return;  // not decimal: libplist's own reading decides
    }
    std::int64_t value = 0;
    const char* first = content.front() == '+' ? digits.data() : content.data();
    auto [next, error] = std::from_chars(first, content.data() + content.size(), value);
    if (error != std::errc() || next != content.data() + content.size()) {
        throw SerializationError("the integer " + std::string(content) +
                                 " is outside the signed 64-bit range this library holds");
    }
}

// XML property lists: libplist 2.2 frees a partly parsed document recursively when it meets an
// error, so element nesting is bounded before parsing. The scan follows libplist's reading of
// markup: comments end at "-->", CDATA at "]]>", processing instructions at "?>" outside
// double-quoted strings, tags at ">" outside double-quoted attribute values. Anything it does
// not understand is refused, never skipped.
void checkXMLStructure(std::string_view text) {
    auto malformed = [](const std::string& what) -> SerializationError {
        return SerializationError("malformed XML property list: " + what);
    };
    auto findOutsideQuotes = [&](std::string_view needle, std::size_t from) {
        std::size_t i = from;
        while (i < text.size()) {
            if (text[i] == '"') {
                std::size_t close = text.find('"', i + 1);
                if (close == std::string_view::npos) return std::string_view::npos;
                i = close + 1;
                continue;
            }
            if (text.substr(i, needle.size()) == needle) return i;
            ++i;
        }
        return std::string_view::npos;
    };
    auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };

    std::vector<std::string_view> open;
    std::size_t i = 0;
    while ((i = text.find('<', i)) != std::string_view::npos) {
        std::string_view rest = text.substr(i);
        if (rest.starts_with("<!--")) {
            std::size_t end = text.find("-->", i + 4);
            if (end == std::string_view::npos) throw malformed("unterminated comment");
            i = end + 3;
        } else if (rest.starts_with("<![CDATA[")) {
            std::size_t end = text.find("]]>", i + 9);
            if (end == std::string_view::npos) throw malformed("unterminated CDATA section");
            i = end + 3;
        } else if (rest.starts_with("<?")) {
            std::size_t end = findOutsideQuotes("?>", i + 2);
            if (end == std::string_view::npos) {
                throw malformed("unterminated processing instruction");
            }
            i = end + 2;
        } else if (rest.starts_with("<!DOCTYPE")) {
            std::size_t end = findOutsideQuotes(">", i + 9);
            if (end == std::string_view::npos) throw malformed("unterminated DOCTYPE");
            if (text.substr(i, end - i).find('[') != std::string_view::npos) {
                throw malformed("a DOCTYPE with an internal subset");
            }
            i = end + 1;
        } else if (rest.starts_with("<!")) {
            throw malformed("unknown markup");
        } else {
            bool closing = rest.size() > 1 && rest[1] == '/';
            std::size_t nameStart = i + (closing ? 2 : 1);
            std::size_t nameEnd = nameStart;
            while (nameEnd < text.size() && !isSpace(text[nameEnd]) && text[nameEnd] != '>' &&
                   text[nameEnd] != '/' && text[nameEnd] != '<') {
                ++nameEnd;
            }
            std::string_view name = text.substr(nameStart, nameEnd - nameStart);
            if (name.empty()) throw malformed("a tag without a name");
            std::size_t end = findOutsideQuotes(">", nameEnd);
            if (end == std::string_view::npos)
                throw malformed("unterminated tag <" + std::string(name));
            if (closing) {
                if (open.empty() || open.back() != name) {
                    throw malformed("unexpected closing tag </" + std::string(name) + ">");
                }
                open.pop_back();
            } else if (text[end - 1] != '/') {
                if (name == "integer")
                    checkXMLInteger(text.substr(end + 1, text.find('<', end) - end - 1));
                open.push_back(name);
                // The <plist> wrapper and a leaf element sit around the nested containers.
                if (open.size() > maximumPropertyListDepth + 2) throwTooDeep();
            }
            i = end + 1;
        }
    }
    if (!open.empty()) throw malformed("unclosed <" + std::string(open.back()) + ">");
}

// MARK: - Parsing

struct LibplistTree {
    plist_t root = nullptr;
    ~LibplistTree() {
        if (root != nullptr) plist_free(root);
    }
};

PlistValue parseBytes(std::span<const std::uint8_t> bytes) {
    if (bytes.empty()) throw SerializationError("empty input");
    if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
        throw SerializationError("input too large (4 GiB or more)");
    }
    const auto* chars = reinterpret_cast<const char*>(bytes.data());
    LibplistTree tree;
    if (bytes.size() >= 6 && std::memcmp(chars, "bplist", 6) == 0) {
        checkBinaryStructure(bytes);
        return detail::readBinaryPropertyList(bytes);
    } else {
        std::string_view text(chars, bytes.size());
        if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);  // a UTF-8 byte-order mark
        std::size_t first = text.find_first_not_of(" \t\r\n");
        if (first == std::string_view::npos) throw SerializationError("empty input");
        if (text[first] != '<') throw SerializationError("not a property list");
        checkXMLStructure(text);
        plist_from_xml(text.data(), static_cast<std::uint32_t>(text.size()), &tree.root);
        if (tree.root == nullptr) throw SerializationError("not a property list");
    }
    return convertNode(tree.root, 0);
}

}  // namespace

LibplistNode toLibplist(const PlistValue& value) {
    return makeNode(value, 0);
}

PlistValue fromLibplist(plist_t node) {
    return convertNode(node, 0);
}

std::string toXML(const PlistValue& value) {
    return detail::writeXMLPropertyList(value, maximumPropertyListDepth);
}

std::vector<std::uint8_t> toBinary(const PlistValue& value) {
    return detail::writeBinaryPropertyList(value, maximumPropertyListDepth);
}

std::string toXML(const PropertyList& list) {
    return detail::writeXMLPropertyList(list.serializableDictionary(), maximumPropertyListDepth);
}

std::vector<std::uint8_t> toBinary(const PropertyList& list) {
    return detail::writeBinaryPropertyList(list.serializableDictionary(), maximumPropertyListDepth);
}

PropertyList parsePropertyListDictionary(std::span<const std::uint8_t> bytes) {
    PlistValue value = parseBytes(bytes);
    auto* dictionary = value.getIf<PlistDictionary>();
    if (dictionary == nullptr) {
        throw SerializationError("the top-level value is " +
                                 std::string(plistKindName(value.kind())) + ", not a Dictionary");
    }
    return PropertyList(std::move(*dictionary));
}

PropertyList parsePropertyListDictionary(std::string_view text) {
    return parsePropertyListDictionary(
        std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

PlistValue parsePropertyList(std::span<const std::uint8_t> bytes) {
    return parseBytes(bytes);
}

PlistValue parsePropertyList(std::string_view text) {
    return parseBytes(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

}  // namespace mirels
