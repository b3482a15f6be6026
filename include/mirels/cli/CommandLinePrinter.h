#pragma once

// `CommandLinePrinter`: the terminal printer. Also `CommandLinePrintingAttribute`,
// `commandLinePrintingAttribute()`, `PaddingPosition`, `characterCount()`, `padded()`,
// `AnyCommandLinePrinter`.

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mirels/Export.h"
#include "mirels/core/RawValueCases.h"

namespace mirels {

/// A terminal select-graphic-rendition code. The enumerator values are the codes.
enum class CommandLinePrintingAttribute : std::uint8_t {
    bold = 1,
    black = 30,
    blue = 34,
    green = 32,
    cyan = 36,
    red = 31,
    purple = 35,
    yellow = 33,
    white = 37,
};

template <>
struct RawValueCases<CommandLinePrintingAttribute> {
    using A = CommandLinePrintingAttribute;
    static constexpr std::array cases = {
        std::pair{A::bold, 1},    std::pair{A::black, 30},  std::pair{A::blue, 34},
        std::pair{A::green, 32},  std::pair{A::cyan, 36},   std::pair{A::red, 31},
        std::pair{A::purple, 35}, std::pair{A::yellow, 33}, std::pair{A::white, 37}};
};

/// The attribute with this code, or nothing for any other number.
MIRELS_EXPORT std::optional<CommandLinePrintingAttribute> commandLinePrintingAttribute(
    int rawValue) noexcept;

/// Where `padded` puts the padding.
enum class PaddingPosition { leading, trailing };

/// The number of characters of `text` as a terminal shows them: a UTF-8 sequence counts once,
/// combining marks, variation selectors and zero-width joiners count nothing (except at the start,
/// where they have nothing to attach to), and a byte that is not valid UTF-8 counts as one
/// character. Only the empty text has no characters.
MIRELS_EXPORT std::size_t characterCount(std::string_view text) noexcept;

/// `text` padded with whole copies of `pad` to at least `length` characters: text that is long
/// enough comes back unchanged; otherwise the pad is repeated ceil(missing / pad length) times
/// and not trimmed, so a pad of several characters may overshoot ("ab" to 5 with "xy" trailing is
/// "abxyxy"). An empty pad when padding is needed stops the process.
MIRELS_EXPORT std::string padded(std::string_view text, std::size_t length, std::string_view pad,
                                 PaddingPosition position);

/// Where the command-line tools' output goes: one text per call, with terminal attributes.
///
/// Implementations supply `write`; `decorate` says how one piece of text looks with attributes
/// inside a line (used by `printInColumns`, which colours each column on its own), and defaults to
/// the plain text.
class MIRELS_EXPORT AnyCommandLinePrinter {
  public:
    virtual ~AnyCommandLinePrinter();

    /// Prints `text` with `attributes` as one line.
    void print(std::string_view text, std::span<const CommandLinePrintingAttribute> attributes) {
        write(text, attributes);
    }
    void print(std::string_view text,
               std::initializer_list<CommandLinePrintingAttribute> attributes) {
        write(text, std::span(attributes.begin(), attributes.size()));
    }
    template <std::same_as<CommandLinePrintingAttribute>... A>
    void print(std::string_view text, A... attributes) {
        const std::array<CommandLinePrintingAttribute, sizeof...(A)> list{attributes...};
        write(text, list);
    }

    /// Prints "*** " and `message` in red.
    void printError(std::string_view message);

    /// Prints a table: each column as wide as its widest cell (in characters, as `characterCount`
    /// counts them), cells padded with blanks after their text (except in the last column, which
    /// is not padded, so lines carry no trailing blanks), joined with `separator`. The header row,
    /// when present, is printed first, in bold; the cells of column i are decorated with
    /// `attributes[i]` when there is such an entry. Rows may be ragged: missing cells are empty.
    void printInColumns(const std::optional<std::vector<std::string>>& headers,
                        const std::vector<std::vector<std::string>>& rows,
                        const std::vector<std::vector<CommandLinePrintingAttribute>>& attributes,
                        std::string_view separator);

  protected:
    AnyCommandLinePrinter() = default;
    AnyCommandLinePrinter(const AnyCommandLinePrinter&) = default;
    AnyCommandLinePrinter& operator=(const AnyCommandLinePrinter&) = default;

    virtual void write(std::string_view text,
                       std::span<const CommandLinePrintingAttribute> attributes) = 0;
    virtual std::string decorate(std::string_view text,
                                 std::span<const CommandLinePrintingAttribute> attributes) const;
};

/// The terminal printer: writes lines to standard output, coloured when `allowsColor`.
///
/// It has no state; every operation exists as a static function (which can also be called on an
/// instance), and an instance is the `AnyCommandLinePrinter` that tools hold.
class MIRELS_EXPORT CommandLinePrinter : public AnyCommandLinePrinter {
  public:
    CommandLinePrinter() = default;

    /// True exactly when standard output is a terminal and "LSCOLORS" is set and not empty, so
    /// colour follows the user's own terminal colour setting. Computed on first use and kept for
    /// the life of the process.
    static bool allowsColor();

    /// Without colour, `text` unchanged. With colour, ESC "[0;" the codes joined with ";" "m",
    /// the text, and the reset ESC "[0;m"; no attributes give the prefix ESC "[0;m".
    static std::string format(std::string_view text,
                              std::span<const CommandLinePrintingAttribute> attributes);
    static std::string format(std::string_view text,
                              std::initializer_list<CommandLinePrintingAttribute> attributes) {
        return format(text, std::span(attributes.begin(), attributes.size()));
    }
    template <std::same_as<CommandLinePrintingAttribute>... A>
    static std::string format(std::string_view text, A... attributes) {
        const std::array<CommandLinePrintingAttribute, sizeof...(A)> list{attributes...};
        return format(text, std::span<const CommandLinePrintingAttribute>(list));
    }

    /// Writes the formatted text and a line feed to standard output.
    static void print(std::string_view text,
                      std::span<const CommandLinePrintingAttribute> attributes);
    static void print(std::string_view text,
                      std::initializer_list<CommandLinePrintingAttribute> attributes) {
        print(text, std::span(attributes.begin(), attributes.size()));
    }
    template <std::same_as<CommandLinePrintingAttribute>... A>
    static void print(std::string_view text, A... attributes) {
        const std::array<CommandLinePrintingAttribute, sizeof...(A)> list{attributes...};
        print(text, std::span<const CommandLinePrintingAttribute>(list));
    }

    /// Prints "*** " and `message` in red, to standard output like everything else.
    static void printError(std::string_view message);
    /// As `printError`, then ends the process with `exitCode`.
    [[noreturn]] static void printError(std::string_view message, std::int32_t exitCode);

  protected:
    void write(std::string_view text,
               std::span<const CommandLinePrintingAttribute> attributes) override;
    std::string decorate(std::string_view text,
                         std::span<const CommandLinePrintingAttribute> attributes) const override;
};

}  // namespace mirels
