#pragma once

// The property-list forms the library writes itself, and the binary reader. libplist reads XML;
// everything else is here, so that what is written is exactly what the readers accept.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mirels/plist/PlistValue.h"

namespace mirels::detail {

/// Whether `text` is well-formed UTF-8 (no overlong forms, surrogates or values past U+10FFFF).
bool isValidUTF8(std::string_view text) noexcept;

/// Where a value sits inside the value being written, for error messages: "the top level", or
/// the dictionary keys and array positions that lead to it, such as "settings.names[2]".
class KeyPath {
  public:
    void pushKey(std::string_view key) { segments_.push_back({std::string(key), false}); }
    void pushIndex(std::size_t index) { segments_.push_back({std::to_string(index), true}); }
    void pop() noexcept { segments_.pop_back(); }
    std::string description() const;

  private:
    struct Segment {
        std::string text;
        bool isIndex;
    };
    std::vector<Segment> segments_;
};

/// An XML property list of `value`, nested at most `maximumDepth` containers deep. Throws
/// `PropertyListSerializationError` for what XML cannot hold: a string or key that is not valid
/// UTF-8 or holds a control character other than tab, line feed and carriage return; a date
/// outside the years 1 to 9999; nesting deeper than the limit.
std::string writeXMLPropertyList(const PlistValue& value, std::size_t maximumDepth);

/// A binary property list of `value`; throws for a string or key that is not valid UTF-8 and
/// for nesting deeper than the limit.
std::vector<std::uint8_t> writeBinaryPropertyList(const PlistValue& value,
                                                  std::size_t maximumDepth);

/// The same, for a dictionary at the top level (a property list's own dictionary).
std::string writeXMLPropertyList(const PlistDictionary& dictionary, std::size_t maximumDepth);
std::vector<std::uint8_t> writeBinaryPropertyList(const PlistDictionary& dictionary,
                                                  std::size_t maximumDepth);

/// Reads a binary property list whose structure (offsets, references, depth, cycles, sharing)
/// has been checked already. Throws `PropertyListSerializationError` for what the library does
/// not hold: an integer outside the signed 64-bit range, a string that is not valid text, a
/// keyed-archive UID, a null object.
PlistValue readBinaryPropertyList(std::span<const std::uint8_t> bytes);

}  // namespace mirels::detail
