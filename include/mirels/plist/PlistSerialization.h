#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "mirels/plist/PlistValue.h"
#include "mirels/plist/PropertyList.h"

namespace mirels {

/// Reading or writing a property list failed; the message says what was wrong ("empty input",
/// "not a property list", "nesting deeper than 512 levels", ...).
class PropertyListSerializationError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The deepest nesting of arrays and dictionaries that is read or written. Deeper documents are
/// refused with a `PropertyListSerializationError` rather than risking the stack.
inline constexpr std::size_t maximumPropertyListDepth = 512;

/// The value as an XML property list (UTF-8).
///
/// Integers are stored as 64-bit two's complement and read back the same way, so every
/// `std::int64_t` round-trips. XML dates carry whole seconds; binary dates keep the exact value.
/// Throws `PropertyListSerializationError` for a value that cannot be written: nesting deeper
/// than `maximumPropertyListDepth`, a string or key containing a NUL character, a date that is
/// not a finite number.
std::string toXML(const PlistValue& value);

/// The value as a binary property list ("bplist00"); throws like `toXML`.
std::vector<std::uint8_t> toBinary(const PlistValue& value);

/// Reads an XML or binary property list, whichever `bytes` holds. Any input is safe to pass:
/// anything that is not a well-formed property list of at most `maximumPropertyListDepth`
/// levels throws `PropertyListSerializationError`.
PlistValue parsePropertyList(std::span<const std::uint8_t> bytes);
PlistValue parsePropertyList(std::string_view text);

/// A property list's dictionary as an XML or a binary property list; throws like `toXML`.
std::string toXML(const PropertyList& list);
std::vector<std::uint8_t> toBinary(const PropertyList& list);

/// Reads an XML or binary property list whose top-level value is a dictionary; throws
/// `PropertyListSerializationError` like `parsePropertyList`, and for any other top-level value.
PropertyList parsePropertyListDictionary(std::span<const std::uint8_t> bytes);
PropertyList parsePropertyListDictionary(std::string_view text);

}  // namespace mirels
