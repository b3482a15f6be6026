#include "mirels/plist/Json.h"

#include <simdjson.h>

#include <charconv>
#include <cmath>
#include <cstring>

namespace mirels {

// The parsed form is simdjson's DOM: parsing validates the whole text (structure, UTF-8,
// numbers) in one fast pass, and the tape it builds keeps object fields in the order of the text.
// Its element, object, array and iterator views are all a document pointer and a tape index, so
// they fit the opaque handles of the header without exposing simdjson to callers.

namespace {

namespace dom = simdjson::dom;

template <class T>
detail::JsonHandle wrap(const T& view) noexcept {
    static_assert(sizeof(T) <= sizeof(detail::JsonHandle::bytes));
    static_assert(std::is_trivially_copyable_v<T>);
    detail::JsonHandle handle{};
    std::memcpy(handle.bytes, &view, sizeof(T));
    return handle;
}

template <class T>
T unwrap(const detail::JsonHandle& handle) noexcept {
    // The views have no default constructors; they are plain bytes (pointer and index) that were
    // copied in by `wrap` from a value of the same type.
    alignas(T) unsigned char storage[sizeof(T)];
    std::memcpy(storage, handle.bytes, sizeof(T));
    return *std::launder(reinterpret_cast<T*>(storage));  // NOLINT(*-reinterpret-cast)
}

dom::element elementOf(const detail::JsonHandle& handle) noexcept {
    return unwrap<dom::element>(handle);
}

std::string numberText(std::int64_t value) {
    char buffer[24];
    auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
    return std::string(buffer, end);
}

std::string numberText(std::uint64_t value) {
    char buffer[24];
    auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
    return std::string(buffer, end);
}

std::string numberText(double value) {
    char buffer[32];
    auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value);
    return error == std::errc() ? std::string(buffer, end) : std::string("?");
}

std::string integerTypeName(bool isSigned, std::size_t bytes) {
    return std::string("a ") + numberText(static_cast<std::int64_t>(bytes * 8)) + "-bit " +
           (isSigned ? "signed" : "unsigned") + " integer";
}

}  // namespace

// --- JsonDecodingError ---

JsonDecodingError::JsonDecodingError(Kind kind, std::string path, std::string message)
    : kind_(kind), path_(std::move(path)), message_(std::move(message)) {}

std::optional<std::string> JsonDecodingError::highValueTitle() const {
    return "Unable to decode JSON";
}

std::optional<std::string> JsonDecodingError::additionalInfo() const {
    if (path_.empty()) return message_;
    return path_ + ": " + message_;
}

// --- JsonValue ---

JsonValue::Kind JsonValue::kind() const noexcept {
    switch (elementOf(element_).type()) {
        case dom::element_type::ARRAY:
            return Kind::array;
        case dom::element_type::OBJECT:
            return Kind::object;
        case dom::element_type::INT64:
        case dom::element_type::UINT64:
            return Kind::integer;
        case dom::element_type::DOUBLE:
            return Kind::number;
        case dom::element_type::STRING:
            return Kind::string;
        case dom::element_type::BOOL:
            return Kind::boolean;
        case dom::element_type::NULL_VALUE:
            break;
    }
    return Kind::null;
}

std::string_view JsonValue::kindName(Kind kind) noexcept {
    switch (kind) {
        case Kind::null:
            return "null";
        case Kind::boolean:
            return "a boolean";
        case Kind::integer:
            return "an integer";
        case Kind::number:
            return "a number";
        case Kind::string:
            return "a string";
        case Kind::array:
            return "an array";
        case Kind::object:
            return "an object";
    }
    return "null";
}

void JsonValue::appendPath(std::string& out) const {
    if (parent_ == nullptr) return;
    parent_->appendPath(out);
    if (isIndex_) {
        out += '[';
        out += numberText(static_cast<std::uint64_t>(index_));
        out += ']';
    } else {
        if (!out.empty()) out += '.';
        out += key_;
    }
}

std::string JsonValue::path() const {
    std::string out;
    appendPath(out);
    return out;
}

void JsonValue::fail(JsonDecodingError::Kind kind, std::string message) const {
    throw JsonDecodingError(kind, path(), std::move(message));
}

void JsonValue::failType(std::string_view expected) const {
    const Kind found = kind();
    std::string message = "expected ";
    message += expected;
    message += ", found ";
    message += kindName(found);
    fail(found == Kind::null ? JsonDecodingError::Kind::valueNotFound
                             : JsonDecodingError::Kind::typeMismatch,
         std::move(message));
}

std::string_view JsonValue::string() const {
    std::string_view text;
    if (elementOf(element_).get_string().get(text) != simdjson::SUCCESS) failType("a string");
    return text;
}

bool JsonValue::boolean() const {
    bool value = false;
    if (elementOf(element_).get_bool().get(value) != simdjson::SUCCESS) failType("a boolean");
    return value;
}

double JsonValue::number() const {
    const dom::element element = elementOf(element_);
    switch (element.type()) {
        case dom::element_type::DOUBLE:
            return element.get_double().value_unsafe();
        case dom::element_type::INT64:
            return static_cast<double>(element.get_int64().value_unsafe());
        case dom::element_type::UINT64:
            return static_cast<double>(element.get_uint64().value_unsafe());
        default:
            failType("a number");
    }
}

std::int64_t JsonValue::signedInteger(std::int64_t min, std::int64_t max, std::size_t bytes) const {
    const dom::element element = elementOf(element_);
    switch (element.type()) {
        case dom::element_type::INT64: {
            const std::int64_t value = element.get_int64().value_unsafe();
            if (value < min || value > max) {
                fail(JsonDecodingError::Kind::numberOutOfRange, "the number " + numberText(value) +
                                                                    " does not fit " +
                                                                    integerTypeName(true, bytes));
            }
            return value;
        }
        case dom::element_type::UINT64:
            fail(JsonDecodingError::Kind::numberOutOfRange,
                 "the number " + numberText(element.get_uint64().value_unsafe()) +
                     " does not fit " + integerTypeName(true, bytes));
        case dom::element_type::DOUBLE: {
            const double value = element.get_double().value_unsafe();
            if (std::trunc(value) != value) {
                fail(JsonDecodingError::Kind::typeMismatch,
                     "expected an integer, found the number " + numberText(value));
            }
            // The bounds as doubles: min is exact (a power of two), max + 1 is too.
            if (value < static_cast<double>(min) || value >= static_cast<double>(max) + 1.0) {
                fail(JsonDecodingError::Kind::numberOutOfRange, "the number " + numberText(value) +
                                                                    " does not fit " +
                                                                    integerTypeName(true, bytes));
            }
            return static_cast<std::int64_t>(value);
        }
        default:
            failType("an integer");
    }
}

std::uint64_t JsonValue::unsignedInteger(std::uint64_t max, std::size_t bytes) const {
    const dom::element element = elementOf(element_);
    auto outOfRange = [&](const std::string& text) {
        fail(JsonDecodingError::Kind::numberOutOfRange,
             "the number " + text + " does not fit " + integerTypeName(false, bytes));
    };
    switch (element.type()) {
        case dom::element_type::INT64: {
            const std::int64_t value = element.get_int64().value_unsafe();
            if (value < 0 || static_cast<std::uint64_t>(value) > max) outOfRange(numberText(value));
            return static_cast<std::uint64_t>(value);
        }
        case dom::element_type::UINT64: {
            const std::uint64_t value = element.get_uint64().value_unsafe();
            if (value > max) outOfRange(numberText(value));
            return value;
        }
        case dom::element_type::DOUBLE: {
            const double value = element.get_double().value_unsafe();
            if (std::trunc(value) != value) {
                fail(JsonDecodingError::Kind::typeMismatch,
                     "expected an integer, found the number " + numberText(value));
            }
            if (value < 0 || value >= static_cast<double>(max) + 1.0) {
                outOfRange(numberText(value));
            }
            return static_cast<std::uint64_t>(value);
        }
        default:
            failType("an integer");
    }
}

JsonObject JsonValue::object() const {
    dom::object object;
    if (elementOf(element_).get_object().get(object) != simdjson::SUCCESS) failType("an object");
    return JsonObject(this, wrap(object));
}

JsonArray JsonValue::array() const {
    dom::array array;
    if (elementOf(element_).get_array().get(array) != simdjson::SUCCESS) failType("an array");
    return JsonArray(this, wrap(array));
}

// --- JsonObject ---

JsonObject::Field JsonObject::Iterator::operator*() const {
    const auto iterator = unwrap<dom::object::iterator>(position_);
    const std::string_view key = iterator.key();
    return Field{key, JsonValue(wrap(iterator.value()), owner_, key, 0, false)};
}

JsonObject::Iterator& JsonObject::Iterator::operator++() {
    auto iterator = unwrap<dom::object::iterator>(position_);
    ++iterator;
    position_ = wrap(iterator);
    return *this;
}

bool JsonObject::Iterator::operator==(const Iterator& other) const noexcept {
    return unwrap<dom::object::iterator>(position_) ==
           unwrap<dom::object::iterator>(other.position_);
}

JsonObject::Iterator JsonObject::begin() const {
    return Iterator(owner_, wrap(unwrap<dom::object>(object_).begin()));
}

JsonObject::Iterator JsonObject::end() const {
    return Iterator(owner_, wrap(unwrap<dom::object>(object_).end()));
}

std::size_t JsonObject::size() const {
    return unwrap<dom::object>(object_).size();
}

std::optional<JsonValue> JsonObject::find(std::string_view key) const {
    const dom::object object = unwrap<dom::object>(object_);
    for (auto iterator = object.begin(); iterator != object.end(); ++iterator) {
        const std::string_view fieldKey = iterator.key();
        if (fieldKey == key) return JsonValue(wrap(iterator.value()), owner_, fieldKey, 0, false);
    }
    return std::nullopt;
}

JsonValue JsonObject::required(std::string_view key) const {
    if (std::optional<JsonValue> found = find(key)) return *found;
    std::string path = owner_->path();
    if (!path.empty()) path += '.';
    path += key;
    throw JsonDecodingError(JsonDecodingError::Kind::keyNotFound, std::move(path),
                            "required key is missing");
}

// --- JsonArray ---

JsonValue JsonArray::Iterator::operator*() const {
    const auto iterator = unwrap<dom::array::iterator>(position_);
    return JsonValue(wrap(*iterator), owner_, {}, index_, true);
}

JsonArray::Iterator& JsonArray::Iterator::operator++() {
    auto iterator = unwrap<dom::array::iterator>(position_);
    ++iterator;
    position_ = wrap(iterator);
    ++index_;
    return *this;
}

bool JsonArray::Iterator::operator==(const Iterator& other) const noexcept {
    return unwrap<dom::array::iterator>(position_) == unwrap<dom::array::iterator>(other.position_);
}

JsonArray::Iterator JsonArray::begin() const {
    return Iterator(owner_, wrap(unwrap<dom::array>(array_).begin()), 0);
}

JsonArray::Iterator JsonArray::end() const {
    const auto array = unwrap<dom::array>(array_);
    return Iterator(owner_, wrap(array.end()), 0);
}

std::size_t JsonArray::size() const {
    return unwrap<dom::array>(array_).size();
}

// --- JsonDocument ---

struct JsonDocument::Storage {
    dom::document document;
    JsonValue root;

    // The root is read from the document at its final address: views hold that address.
    explicit Storage(dom::document&& parsed)
        : document(std::move(parsed)), root(wrap(document.root()), nullptr, {}, 0, false) {}
};

JsonDocument::JsonDocument(std::unique_ptr<Storage> storage)
    : storage_(std::move(storage)), root_(&storage_->root) {}
JsonDocument::JsonDocument(JsonDocument&&) noexcept = default;
JsonDocument& JsonDocument::operator=(JsonDocument&&) noexcept = default;
JsonDocument::~JsonDocument() = default;

JsonDocument JsonDocument::parse(std::string_view text) {
    // One parser per thread keeps its scratch buffers between documents; the tape and strings
    // go into the document's own storage, so documents outlive later parses. The text is copied
    // into a padded buffer that is also kept per thread (the parser reads past the end).
    thread_local dom::parser parser;
    thread_local std::vector<char> padded;
    if (padded.size() < text.size() + simdjson::SIMDJSON_PADDING) {
        padded.resize(text.size() + simdjson::SIMDJSON_PADDING);
    }
    if (!text.empty()) std::memcpy(padded.data(), text.data(), text.size());
    std::memset(padded.data() + text.size(), 0, simdjson::SIMDJSON_PADDING);

    dom::document document;
    dom::element root;
    const simdjson::error_code error =
        parser
            .parse_into_document(document,
                                 reinterpret_cast<const std::uint8_t*>(padded.data()),  // NOLINT
                                 text.size(), false)
            .get(root);
    if (error != simdjson::SUCCESS) {
        std::string message = "malformed JSON: ";
        message += simdjson::error_message(error);
        throw JsonDecodingError(JsonDecodingError::Kind::dataCorrupted, {}, std::move(message));
    }
    auto storage = std::make_unique<Storage>(std::move(document));
    return JsonDocument(std::move(storage));
}

// --- JsonWriter ---

void JsonWriter::separate() {
    if (needsComma_) text_ += ',';
    needsComma_ = true;
}

JsonWriter& JsonWriter::beginObject() {
    separate();
    text_ += '{';
    needsComma_ = false;
    return *this;
}

JsonWriter& JsonWriter::endObject() {
    text_ += '}';
    needsComma_ = true;
    return *this;
}

JsonWriter& JsonWriter::beginArray() {
    separate();
    text_ += '[';
    needsComma_ = false;
    return *this;
}

JsonWriter& JsonWriter::endArray() {
    text_ += ']';
    needsComma_ = true;
    return *this;
}

JsonWriter& JsonWriter::key(std::string_view key) {
    separate();
    appendEscaped(key);
    text_ += ':';
    needsComma_ = false;
    return *this;
}

JsonWriter& JsonWriter::string(std::string_view text) {
    separate();
    appendEscaped(text);
    return *this;
}

JsonWriter& JsonWriter::integer(std::int64_t value) {
    separate();
    text_ += numberText(value);
    return *this;
}

JsonWriter& JsonWriter::number(double value) {
    separate();
    // JSON has no infinities or NaN; they are written as null.
    text_ += std::isfinite(value) ? numberText(value) : std::string("null");
    return *this;
}

JsonWriter& JsonWriter::boolean(bool value) {
    separate();
    text_ += value ? "true" : "false";
    return *this;
}

JsonWriter& JsonWriter::null() {
    separate();
    text_ += "null";
    return *this;
}

namespace {

/// The length of the valid UTF-8 sequence at the start of `text`, or 0.
std::size_t validUtf8Length(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    std::size_t length = 0;
    std::uint32_t minimum = 0;
    std::uint32_t codePoint = 0;
    if (lead < 0x80) return 1;
    if ((lead & 0xE0) == 0xC0) {
        length = 2, minimum = 0x80, codePoint = lead & 0x1Fu;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, minimum = 0x800, codePoint = lead & 0x0Fu;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, minimum = 0x10000, codePoint = lead & 0x07u;
    } else {
        return 0;
    }
    if (text.size() < length) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
        codePoint = (codePoint << 6) | (byte(i) & 0x3Fu);
    }
    if (codePoint < minimum || codePoint > 0x10FFFF ||
        (codePoint >= 0xD800 && codePoint < 0xE000)) {
        return 0;
    }
    return length;
}

}  // namespace

void JsonWriter::appendEscaped(std::string_view text) {
    static constexpr char hex[] = "0123456789abcdef";
    text_ += '"';
    std::size_t i = 0;
    while (i < text.size()) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c >= 0x80) {
            const std::size_t length = validUtf8Length(text.substr(i));
            if (length == 0) {
                text_ += "\xEF\xBF\xBD";  // U+FFFD for a byte that is not UTF-8
                ++i;
            } else {
                text_.append(text.substr(i, length));
                i += length;
            }
            continue;
        }
        switch (c) {
            case '"':
                text_ += "\\\"";
                break;
            case '\\':
                text_ += "\\\\";
                break;
            case '\n':
                text_ += "\\n";
                break;
            case '\r':
                text_ += "\\r";
                break;
            case '\t':
                text_ += "\\t";
                break;
            default:
                if (c < 0x20) {
                    text_ += "\\u00";
                    text_ += hex[c >> 4];
                    text_ += hex[c & 0xF];
                } else {
                    text_ += static_cast<char>(c);
                }
        }
        ++i;
    }
    text_ += '"';
}

}  // namespace mirels
