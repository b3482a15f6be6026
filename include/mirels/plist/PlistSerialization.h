#pragma once

// `PropertyListSerializationError`: reading or writing a property list failed. Also `toXML()`,
// `toBinary()`, `parsePropertyList()`, `parsePropertyListDictionary()`.

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "mirels/Export.h"
#include "mirels/plist/PlistValue.h"
#include "mirels/plist/PropertyList.h"

namespace mirels {

/// Reading or writing a property list failed; the message says what was wrong ("empty input",
/// "not a property list", "nesting deeper than 512 levels", ...).
class MIRELS_EXPORT PropertyListSerializationError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The deepest nesting of arrays and dictionaries that is read or written. Deeper documents are
/// refused with a `PropertyListSerializationError` rather than risking the stack.
inline constexpr std::size_t maximumPropertyListDepth = 512;

/// The value as an XML property list (UTF-8).
///
/// What each form keeps: integers are signed 64-bit in both. Reals keep their exact value and
/// the sign of zero in both (XML writes the shortest text that reads back the same). Binary keeps
/// a date's exact double; XML keeps whole seconds (a fraction is dropped to the second at or
/// before the date) and only the years 1 to 9999. Strings are UTF-8 text; binary also keeps NUL
/// characters, XML cannot hold them (nor other control characters than tab, line feed and
/// carriage return).
///
/// Throws `PropertyListSerializationError` for a value the form cannot hold, naming where it is
/// ("a string at key path \"settings.names[1]\" is not valid UTF-8"): nesting deeper than
/// `maximumPropertyListDepth`, a string or key that is not valid UTF-8, a NUL or other control
/// character (XML), a key containing NUL (both forms), a date outside the years 1 to 9999 (XML)
/// or not a finite number (binary). Whatever is written reads back equal.
MIRELS_EXPORT std::string toXML(const PlistValue& value);

/// The value as a binary property list ("bplist00"); throws like `toXML`.
MIRELS_EXPORT std::vector<std::uint8_t> toBinary(const PlistValue& value);

/// Reads an XML or binary property list, whichever `bytes` holds. Any input is safe to pass:
/// anything that is not a well-formed property list of at most `maximumPropertyListDepth`
/// levels throws `PropertyListSerializationError`, and so does a value this library cannot hold
/// without loss: an integer outside the signed 64-bit range (binary lists may hold unsigned
/// values up to 2^64-1; they are refused with their value, never wrapped), text that is not
/// valid UTF-8 or UTF-16, a keyed-archive UID.
MIRELS_EXPORT PlistValue parsePropertyList(std::span<const std::uint8_t> bytes);
MIRELS_EXPORT PlistValue parsePropertyList(std::string_view text);

/// A property list's dictionary as an XML or a binary property list; throws like `toXML`.
MIRELS_EXPORT std::string toXML(const PropertyList& list);
MIRELS_EXPORT std::vector<std::uint8_t> toBinary(const PropertyList& list);

/// Reads an XML or binary property list whose top-level value is a dictionary; throws
/// `PropertyListSerializationError` like `parsePropertyList`, and for any other top-level value.
MIRELS_EXPORT PropertyList parsePropertyListDictionary(std::span<const std::uint8_t> bytes);
MIRELS_EXPORT PropertyList parsePropertyListDictionary(std::string_view text);

}  // namespace mirels
