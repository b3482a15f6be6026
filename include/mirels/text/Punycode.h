#pragma once

// Punycode (RFC 3492): the reversible mapping of a Unicode label onto the letters, digits and
// hyphen that host names allow, and the host-name form built on it ("xn--" labels).
//
// `Punycode::encode` and `Punycode::decode` convert one label with the RFC's parameters (base 36,
// tmin 1, tmax 26, skew 38, damp 700, initial bias 72, initial code point 128, delimiter "-").
// Basic code points (ASCII) are copied in their own case; the encoder writes digits in lower
// case, the decoder accepts either case. Every arithmetic step is checked: an input whose deltas
// would not fit 32 bits is refused as `overflow`, never wrapped.
//
// `Punycode::toAsciiHostName` converts a whole domain name label by label: a label with a
// character outside ASCII becomes "xn--" and its encoding; an ASCII label passes unchanged.
// `toUnicodeHostName` is the inverse (the prefix is matched in any case). Labels are separated by
// "." and, on the Unicode side, by the ideographic and full-width full stops U+3002, U+FF0E and
// U+FF61 as well; the ASCII form always uses ".". A final "." (the root) is kept. The conversion
// does no case mapping or normalisation of non-ASCII text: callers that take names from people
// normalise them first.
//
// Costs: linear in the label for the basic part, O(n * m) for n characters of which m are
// distinct non-basic code points (as in the RFC's reference algorithm); one allocation for the
// result (plus one scratch buffer of code points for UTF-8 input longer than 64 characters).
//
// Every failure is a `PunycodeError` naming what was wrong and where.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "mirels/Export.h"
#include "mirels/errors/HumanReadableError.h"

namespace mirels {

/// A label or host name could not be converted.
class MIRELS_EXPORT PunycodeError final : public HumanReadableError {
  public:
    enum class Kind : std::uint8_t {
        /// A character that Punycode text cannot hold (not ASCII), or a digit that is not one.
        invalidInput,
        /// The text ends in the middle of an encoded number.
        truncatedInput,
        /// A number or code point does not fit 32 bits.
        overflow,
        /// A decoded value is no Unicode scalar value (a surrogate or above U+10FFFF).
        invalidCodePoint,
        /// The UTF-8 given to encode is malformed.
        invalidUtf8,
        /// A host name has an empty label, or a label longer than 63 bytes in its ASCII form.
        invalidLabel,
    };

    PunycodeError(Kind kind, std::string message, std::size_t offset);

    Kind kind() const noexcept { return kind_; }
    /// The byte offset in the input where the problem was found.
    std::size_t offset() const noexcept { return offset_; }
    const std::string& message() const noexcept { return message_; }

    /// "Invalid Punycode".
    std::optional<std::string> lowValueTitle() const override;
    /// The message and the offset: "overflow while decoding (at byte 3)".
    std::optional<std::string> additionalInfo() const override;
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }
    bool canTryAgain() const override { return false; }

  private:
    Kind kind_;
    std::string message_;
    std::size_t offset_;
};

/// Punycode conversions of single labels and of whole host names.
struct MIRELS_EXPORT Punycode {
    /// The Punycode form of `label` (UTF-8), without any prefix: "bücher" gives "bcher-kva".
    [[nodiscard]] static std::string encode(std::string_view label);
    /// The same from code points.
    [[nodiscard]] static std::string encode(std::u32string_view label);

    /// The label (UTF-8) whose Punycode form is `encoded` (no prefix): "bcher-kva" gives "bücher".
    [[nodiscard]] static std::string decode(std::string_view encoded);
    /// The same as code points.
    [[nodiscard]] static std::u32string decodeToCodePoints(std::string_view encoded);

    /// `hostName` (UTF-8) with every non-ASCII label as "xn--" and its encoding:
    /// "bücher.example" gives "xn--bcher-kva.example".
    [[nodiscard]] static std::string toAsciiHostName(std::string_view hostName);
    /// `hostName` with every "xn--" label decoded: "xn--bcher-kva.example" gives "bücher.example".
    [[nodiscard]] static std::string toUnicodeHostName(std::string_view hostName);

    /// The prefix of encoded host-name labels, "xn--".
    static constexpr std::string_view acePrefix = "xn--";
};

}  // namespace mirels
