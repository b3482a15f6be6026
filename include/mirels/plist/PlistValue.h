#pragma once

// `PlistValue`: a dynamically typed plain property-list value. Also `PlistDate`, `plistKindName()`,
// `describe()`.

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "mirels/Export.h"

namespace mirels {

/// A point in time as property lists store it: seconds (with fraction) since
/// 2001-01-01T00:00:00Z.
struct PlistDate {
    double secondsSinceReferenceDate = 0;

    friend bool operator==(PlistDate, PlistDate) noexcept = default;
};

/// A dynamically typed plain property-list value: a text string, a boolean, a signed integer, a
/// double, a byte buffer, a date, an array of values or a string-keyed dictionary of values.
/// Boxed and sized number kinds of other platforms collapse into `integer` and `real`.
class MIRELS_EXPORT PlistValue {
  public:
    using Array = std::vector<PlistValue>;
    using Dictionary = std::map<std::string, PlistValue, std::less<>>;
    using Data = std::vector<std::uint8_t>;

    /// The kinds, in the order of the alternatives of `Storage`.
    enum class Kind { string, boolean, integer, real, data, date, array, dictionary };

    using Storage =
        std::variant<std::string, bool, std::int64_t, double, Data, PlistDate, Array, Dictionary>;

    // The constructors are defined in the library: each one instantiates the conversion of the
    // variant, which would otherwise be compiled again in every file that includes this header.
    PlistValue();
    PlistValue(std::string value);       // NOLINT(google-explicit-constructor)
    PlistValue(std::string_view value);  // NOLINT(google-explicit-constructor)
    PlistValue(const char* value);       // NOLINT(google-explicit-constructor)
    PlistValue(bool value);              // NOLINT(google-explicit-constructor)
    PlistValue(std::int64_t value);      // NOLINT(google-explicit-constructor)
    PlistValue(int value);               // NOLINT(google-explicit-constructor)
    PlistValue(double value);            // NOLINT(google-explicit-constructor)
    PlistValue(Data value);              // NOLINT(google-explicit-constructor)
    PlistValue(PlistDate value);         // NOLINT(google-explicit-constructor)
    PlistValue(Array value);             // NOLINT(google-explicit-constructor)
    PlistValue(Dictionary value);        // NOLINT(google-explicit-constructor)
    // Copying, moving and destroying are likewise defined in the library, as the compiler would
    // define them (moves that do not throw): inline, they instantiate the nested containers.
    PlistValue(const PlistValue& other);
    PlistValue(PlistValue&& other) noexcept;
    PlistValue& operator=(const PlistValue& other);
    PlistValue& operator=(PlistValue&& other) noexcept;
    ~PlistValue();

    Kind kind() const noexcept { return static_cast<Kind>(storage_.index()); }
    const Storage& storage() const noexcept { return storage_; }
    Storage& storage() noexcept { return storage_; }

    /// The stored alternative of type T, or null when the value holds another kind.
    template <class T>
    const T* getIf() const noexcept {
        return std::get_if<T>(&storage_);
    }
    template <class T>
    T* getIf() noexcept {
        return std::get_if<T>(&storage_);
    }

    friend bool operator==(const PlistValue&, const PlistValue&) = default;

  private:
    Storage storage_;
};

using PlistArray = PlistValue::Array;
using PlistDictionary = PlistValue::Dictionary;
using PlistData = PlistValue::Data;

/// The name of a kind as messages print it ("String", "Bool", "Int", "Double", "Data", "Date",
/// "Array", "Dictionary").
MIRELS_EXPORT std::string_view plistKindName(PlistValue::Kind kind) noexcept;

/// A stable, readable dump of a value, dictionaries with their keys in sorted order.
MIRELS_EXPORT std::string describe(const PlistValue& value);

}  // namespace mirels
