#pragma once

// `Utf8StreamDecoder`: turns a byte stream that arrives in pieces (reads from a pipe) into UTF-8
// text.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "mirels/Export.h"

namespace mirels {

/// Turns a byte stream that arrives in pieces (reads from a pipe) into UTF-8 text.
///
/// A character split across two pieces is held back until its last byte arrives, so it is never
/// corrupted. Bytes that are not UTF-8 become U+FFFD REPLACEMENT CHARACTER, one for each maximal
/// ill-formed subpart (the usual practice: an overlong form, a surrogate, a code point above
/// U+10FFFF or a stray continuation byte is replaced, never dropped and never passed on).
/// `finish()` replaces a character that the stream cut short.
///
/// Costs: valid input is copied once; ASCII runs are scanned eight bytes at a time. At most three
/// bytes are held between pieces. Not thread-safe: one decoder serves one stream.
class MIRELS_EXPORT Utf8StreamDecoder {
  public:
    /// The UTF-8 form of U+FFFD.
    static constexpr std::string_view replacementCharacter = "\xEF\xBF\xBD";

    /// Decodes `bytes` and appends the text to `out`. A character that `bytes` leaves
    /// incomplete is held for the next call.
    void decode(std::string_view bytes, std::string& out);

    /// Ends the stream: appends U+FFFD to `out` for a character left incomplete, and resets the
    /// decoder for a new stream.
    void finish(std::string& out);

    /// Decodes a complete byte string at once.
    static std::string decodeAll(std::string_view bytes);

    /// Bytes of an incomplete character held for the next piece (0 to 3).
    std::size_t pendingByteCount() const noexcept { return pendingCount_; }

  private:
    unsigned char pending_[4] = {};
    std::size_t pendingCount_ = 0;
};

}  // namespace mirels
