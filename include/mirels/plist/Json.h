#pragma once

#include "mirels/Export.h"

// Decoding typed values out of JSON text, with errors that name where the document went wrong.
//
// `JsonDocument::parse` validates the whole text once (malformed JSON fails there); typed reads
// then walk the parsed document. Every value knows the key path that led to it (for example
// `frames[3].imageIndex`), so a missing key, a value of the wrong kind, a `null` where a value is
// required, or an integer out of the target's range throws a `JsonDecodingError` naming that
// path. The path is a chain of pointers to the parent values and is only turned into text when
// an error is thrown, so the success path pays nothing for it.
//
// Lifetimes, as with `std::string_view`: a `JsonValue` views its `JsonDocument`, and its path
// refers to the `JsonValue` (or `JsonObject`/`JsonArray`) it was read from. Keep the document and
// the parents alive while a value is used; decoding into owned C++ values (`decode<T>()`) is the
// normal way to keep anything longer.
//
// Types decode through `JsonTraits<T>`: strings, booleans, every integer type (range-checked),
// `double`, `PlistDate` (a number of seconds since 2001-01-01 00:00:00 UTC, fraction kept),
// `std::optional<T>` (absent or `null` reads as nothing), `std::vector<T>` and
// `OrderedDictionary<std::string, T>` (entries in the order of the text). A type of the caller's
// conforms by a static member `static T fromJson(const JsonValue&)` or by specialising
// `JsonTraits<T>`.

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "mirels/collections/OrderedDictionary.h"
#include "mirels/errors/HumanReadableError.h"
#include "mirels/plist/PlistValue.h"

namespace mirels {

/// Decoding JSON failed. `path()` is where (empty for the whole document), `message()` says what
/// was wrong; `additionalInfo` is "path: message" ("frames[3].imageIndex: expected an integer,
/// found a string").
class MIRELS_EXPORT JsonDecodingError final : public HumanReadableError {
  public:
    enum class Kind : std::uint8_t {
        /// The text is not well-formed JSON, or a value breaks a rule of its own type.
        dataCorrupted,
        /// A required key is missing.
        keyNotFound,
        /// A value has the wrong kind.
        typeMismatch,
        /// A required value is `null`.
        valueNotFound,
        /// A number does not fit the integer type it is read into.
        numberOutOfRange,
    };

    JsonDecodingError(Kind kind, std::string path, std::string message);

    Kind kind() const noexcept { return kind_; }
    /// The key path, such as "frames[3].imageIndex"; empty for the document itself.
    const std::string& path() const noexcept { return path_; }
    const std::string& message() const noexcept { return message_; }

    /// "Unable to decode JSON".
    std::optional<std::string> highValueTitle() const override;
    /// "path: message", or the message alone for the document itself.
    std::optional<std::string> additionalInfo() const override;
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }
    bool canTryAgain() const override { return false; }

  private:
    Kind kind_;
    std::string path_;
    std::string message_;
};

class JsonValue;
class JsonObject;
class JsonArray;

template <class T, class Enable = void>
struct JsonTraits;

/// A type that can be decoded from a `JsonValue`.
template <class T>
concept JsonDecodable = requires(const JsonValue& value) {
    { JsonTraits<T>::decode(value) } -> std::convertible_to<T>;
};

namespace detail {
/// Room for one simdjson element or object/array view (a document pointer and a tape index).
struct JsonHandle {
    alignas(void*) unsigned char bytes[2 * sizeof(void*)];
};
}  // namespace detail

/// One value inside a `JsonDocument`, with the path that led to it. Cheap to copy.
class MIRELS_EXPORT JsonValue {
  public:
    enum class Kind : std::uint8_t { null, boolean, integer, number, string, array, object };

    Kind kind() const noexcept;
    bool isNull() const noexcept { return kind() == Kind::null; }

    /// The string's bytes (valid while the document lives); throws for any other kind.
    std::string_view string() const;
    bool boolean() const;
    /// Any JSON number as a double (integers convert; very large ones round).
    double number() const;
    /// The number as `I`: an integer in range, or a number with no fraction that fits. Anything
    /// else throws (`numberOutOfRange` for an integer too large or small for `I`).
    template <std::integral I>
        requires(!std::is_same_v<I, bool>)
    I integer() const {
        if constexpr (std::is_signed_v<I>) {
            return static_cast<I>(signedInteger(std::numeric_limits<I>::min(),
                                                std::numeric_limits<I>::max(), sizeof(I)));
        } else {
            return static_cast<I>(unsignedInteger(std::numeric_limits<I>::max(), sizeof(I)));
        }
    }
    JsonObject object() const;
    JsonArray array() const;

    /// This value as `T` (see `JsonTraits`).
    template <JsonDecodable T>
    T decode() const {
        return JsonTraits<T>::decode(*this);
    }

    /// The key path of this value, as errors print it.
    std::string path() const;

    /// Throws a `JsonDecodingError` of `kind` at this value's path.
    [[noreturn]] void fail(JsonDecodingError::Kind kind, std::string message) const;
    /// Throws the type-mismatch error for this value, saying it should have been `expected` ("an
    /// integer", "a string").
    [[noreturn]] void failType(std::string_view expected) const;

    /// "null", "a boolean", "an integer", "a number", "a string", "an array" or "an object".
    static std::string_view kindName(Kind kind) noexcept;

  private:
    friend class JsonDocument;
    friend class JsonObject;
    friend class JsonArray;

    JsonValue(const detail::JsonHandle& element, const JsonValue* parent, std::string_view key,
              std::size_t index, bool isIndex) noexcept
        : element_(element), parent_(parent), key_(key), index_(index), isIndex_(isIndex) {}

    std::int64_t signedInteger(std::int64_t min, std::int64_t max, std::size_t bytes) const;
    std::uint64_t unsignedInteger(std::uint64_t max, std::size_t bytes) const;
    void appendPath(std::string& out) const;

    detail::JsonHandle element_;
    const JsonValue* parent_;
    std::string_view key_;
    std::size_t index_;
    bool isIndex_;
};

/// A JSON object's fields, in the order of the text. Lookups scan the fields; for a repeated
/// key the first one counts.
class MIRELS_EXPORT JsonObject {
  public:
    struct Field {
        std::string_view key;
        JsonValue value;
    };

    class Iterator {
      public:
        using value_type = Field;
        using difference_type = std::ptrdiff_t;

        Field operator*() const;
        Iterator& operator++();
        bool operator==(const Iterator& other) const noexcept;

      private:
        friend class JsonObject;
        Iterator(const JsonValue* owner, const detail::JsonHandle& position) noexcept
            : owner_(owner), position_(position) {}
        const JsonValue* owner_;
        detail::JsonHandle position_;
    };

    Iterator begin() const;
    Iterator end() const;
    std::size_t size() const;

    /// The value of `key`, `null` included; nothing when the key is absent.
    std::optional<JsonValue> find(std::string_view key) const;
    /// The value of `key`; throws `keyNotFound` naming the path when it is absent.
    JsonValue required(std::string_view key) const;

    /// The value of `key` as `T`. A missing key throws, unless `T` is a `std::optional`, for
    /// which a missing key or `null` reads as nothing.
    template <JsonDecodable T>
    T decode(std::string_view key) const;

    /// The object's own value (for its path).
    const JsonValue& value() const noexcept { return *owner_; }

  private:
    friend class JsonValue;
    JsonObject(const JsonValue* owner, const detail::JsonHandle& object) noexcept
        : owner_(owner), object_(object) {}

    const JsonValue* owner_;
    detail::JsonHandle object_;
};

/// A JSON array's elements, in order.
class MIRELS_EXPORT JsonArray {
  public:
    class Iterator {
      public:
        using value_type = JsonValue;
        using difference_type = std::ptrdiff_t;

        JsonValue operator*() const;
        Iterator& operator++();
        bool operator==(const Iterator& other) const noexcept;

      private:
        friend class JsonArray;
        Iterator(const JsonValue* owner, const detail::JsonHandle& position,
                 std::size_t index) noexcept
            : owner_(owner), position_(position), index_(index) {}
        const JsonValue* owner_;
        detail::JsonHandle position_;
        std::size_t index_;
    };

    Iterator begin() const;
    Iterator end() const;
    std::size_t size() const;

    const JsonValue& value() const noexcept { return *owner_; }

  private:
    friend class JsonValue;
    JsonArray(const JsonValue* owner, const detail::JsonHandle& array) noexcept
        : owner_(owner), array_(array) {}

    const JsonValue* owner_;
    detail::JsonHandle array_;
};

/// A parsed JSON text. Parsing validates all of it (structure, strings as UTF-8, numbers,
/// nothing after the value); the document owns its parsed form and does not keep the text.
/// Movable, not copyable; values read from it are valid while it lives and is not moved from.
class MIRELS_EXPORT JsonDocument {
  public:
    /// Parses `text`; malformed JSON throws `JsonDecodingError` (`dataCorrupted`) saying what
    /// the parser found wrong. Nesting deeper than 1024 levels is refused the same way.
    static JsonDocument parse(std::string_view text);

    JsonDocument(JsonDocument&&) noexcept;
    JsonDocument& operator=(JsonDocument&&) noexcept;
    ~JsonDocument();

    /// The top-level value; its path is empty.
    const JsonValue& root() const noexcept { return *root_; }

  private:
    struct Storage;
    explicit JsonDocument(std::unique_ptr<Storage> storage);
    std::unique_ptr<Storage> storage_;
    const JsonValue* root_ = nullptr;
};

/// Parses `text` and decodes its top-level value as `T`.
template <JsonDecodable T>
T decodeJson(std::string_view text) {
    const JsonDocument document = JsonDocument::parse(text);
    return document.root().decode<T>();
}

// --- the standard conformances ---

template <class T>
struct JsonTraits<
    T,
    std::enable_if_t<std::is_same_v<decltype(T::fromJson(std::declval<const JsonValue&>())), T>>> {
    static T decode(const JsonValue& value) { return T::fromJson(value); }
};

template <>
struct JsonTraits<std::string> {
    static std::string decode(const JsonValue& value) { return std::string(value.string()); }
};

template <>
struct JsonTraits<bool> {
    static bool decode(const JsonValue& value) { return value.boolean(); }
};

template <class I>
struct JsonTraits<I, std::enable_if_t<std::is_integral_v<I> && !std::is_same_v<I, bool>>> {
    static I decode(const JsonValue& value) { return value.integer<I>(); }
};

template <>
struct JsonTraits<double> {
    static double decode(const JsonValue& value) { return value.number(); }
};

/// A date is a number of seconds since 2001-01-01 00:00:00 UTC; an integer is accepted, a string
/// is not.
template <>
struct JsonTraits<PlistDate> {
    static PlistDate decode(const JsonValue& value) { return PlistDate{value.number()}; }
};

template <JsonDecodable T>
struct JsonTraits<std::optional<T>> {
    static std::optional<T> decode(const JsonValue& value) {
        if (value.isNull()) return std::nullopt;
        return JsonTraits<T>::decode(value);
    }
};

template <JsonDecodable T>
struct JsonTraits<std::vector<T>> {
    static std::vector<T> decode(const JsonValue& value) {
        const JsonArray array = value.array();
        std::vector<T> result;
        result.reserve(array.size());
        for (const JsonValue element : array) result.push_back(JsonTraits<T>::decode(element));
        return result;
    }
};

template <JsonDecodable T>
struct JsonTraits<OrderedDictionary<std::string, T>> {
    static OrderedDictionary<std::string, T> decode(const JsonValue& value) {
        const JsonObject object = value.object();
        OrderedDictionary<std::string, T> result;
        for (const auto& field : object) {
            T decoded = JsonTraits<T>::decode(field.value);
            // A repeated key keeps its first position and its last value.
            bool inserted = false;
            T& slot = result.guaranteedValue(std::string(field.key), [&] {
                inserted = true;
                return std::move(decoded);
            });
            if (!inserted) slot = std::move(decoded);
        }
        return result;
    }
};

namespace detail {
template <class T>
struct IsStdOptional : std::false_type {};
template <class T>
struct IsStdOptional<std::optional<T>> : std::true_type {};
}  // namespace detail

template <JsonDecodable T>
T JsonObject::decode(std::string_view key) const {
    if constexpr (detail::IsStdOptional<T>::value) {
        std::optional<JsonValue> found = find(key);
        if (!found) return std::nullopt;
        return JsonTraits<T>::decode(*found);
    } else {
        const JsonValue found = required(key);
        return JsonTraits<T>::decode(found);
    }
}

// --- writing ---

/// Writes compact JSON text, for producers of documents that the decoders above read. Keys and
/// strings are escaped as JSON requires (control characters as \u00XX); bytes that are not valid
/// UTF-8 are written as U+FFFD so that the output always parses. Doubles are written in the
/// shortest form that reads back as the same number.
class MIRELS_EXPORT JsonWriter {
  public:
    JsonWriter& beginObject();
    JsonWriter& endObject();
    JsonWriter& beginArray();
    JsonWriter& endArray();
    /// The key of the next member of the current object.
    JsonWriter& key(std::string_view key);
    JsonWriter& string(std::string_view text);
    JsonWriter& integer(std::int64_t value);
    JsonWriter& number(double value);
    JsonWriter& boolean(bool value);
    JsonWriter& null();

    const std::string& text() const noexcept { return text_; }
    std::string take() noexcept { return std::move(text_); }

  private:
    void separate();
    void appendEscaped(std::string_view text);

    std::string text_;
    bool needsComma_ = false;
};

}  // namespace mirels
