#pragma once

#include "mirels/Export.h"

// Structured descriptions: a value describes itself as a list of build actions (lines, key-value
// entries, sections and titled groups with nested actions), and one renderer turns that list into
// text. Producers say what to show; how it is laid out is decided in one place.
//
// Rendering, one text line per line:
//   line                  the text
//   key-value entry       key, ": ", value
//   section / group       the heading (or title), then the nested actions one level deeper
// A level is two spaces. A text that itself holds line feeds is split into lines, each indented
// at its level, so nesting always shows.

#include <string>
#include <string_view>
#include <vector>

namespace mirels {

/// One step of a structured description.
class MIRELS_EXPORT StructuredDescriptionBuildAction {
  public:
    enum class Kind : unsigned char { line, keyValue, section, group };

    /// A plain line.
    static StructuredDescriptionBuildAction line(std::string text);
    /// A key and its value, rendered "key: value".
    static StructuredDescriptionBuildAction keyValue(std::string key, std::string value);
    /// A heading with nested actions one level under it.
    static StructuredDescriptionBuildAction section(
        std::string heading, std::vector<StructuredDescriptionBuildAction> actions);
    /// A titled group of nested actions, one level under the title.
    static StructuredDescriptionBuildAction group(
        std::string title, std::vector<StructuredDescriptionBuildAction> actions);

    Kind kind() const noexcept { return kind_; }
    /// The line's text, the key, the section's heading or the group's title.
    const std::string& text() const noexcept { return text_; }
    /// The value of a key-value entry (empty for the other kinds).
    const std::string& value() const noexcept { return value_; }
    /// The nested actions of a section or group (empty for the other kinds).
    const std::vector<StructuredDescriptionBuildAction>& actions() const noexcept {
        return actions_;
    }

    friend bool operator==(const StructuredDescriptionBuildAction&,
                           const StructuredDescriptionBuildAction&) = default;

  private:
    StructuredDescriptionBuildAction(Kind kind, std::string text, std::string value,
                                     std::vector<StructuredDescriptionBuildAction> actions)
        : kind_(kind),
          text_(std::move(text)),
          value_(std::move(value)),
          actions_(std::move(actions)) {}

    Kind kind_;
    std::string text_;
    std::string value_;
    std::vector<StructuredDescriptionBuildAction> actions_;
};

/// A type that describes itself as structured build actions.
class MIRELS_EXPORT StructuredStringConvertible {
  public:
    /// Appends this value's description to `actions`, in order.
    virtual void describe(std::vector<StructuredDescriptionBuildAction>& actions) const = 0;

    /// The rendered description, lines joined with "\n" (no line feed at the end).
    std::string structuredDescription() const;

  protected:
    StructuredStringConvertible() = default;
    StructuredStringConvertible(const StructuredStringConvertible&) = default;
    StructuredStringConvertible(StructuredStringConvertible&&) = default;
    StructuredStringConvertible& operator=(const StructuredStringConvertible&) = default;
    StructuredStringConvertible& operator=(StructuredStringConvertible&&) = default;
    ~StructuredStringConvertible() = default;
};

/// The rendered lines of `actions` (see the top of this header).
MIRELS_EXPORT std::vector<std::string> renderStructuredDescriptionLines(
    const std::vector<StructuredDescriptionBuildAction>& actions);

/// The rendered lines of `actions` joined with "\n".
MIRELS_EXPORT std::string renderStructuredDescription(
    const std::vector<StructuredDescriptionBuildAction>& actions);

}  // namespace mirels
