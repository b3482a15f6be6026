#pragma once

// Line diffs: the shortest edit script that turns one text into another, line by line, and its
// rendering as a unified diff that `patch` applies.
//
// Lines. A line is its bytes up to and including its line feed; the last line of a text may have
// none. Two lines are equal when their bytes are, the line feed included, so "b\n" and a final
// "b" differ: that is how a change of the trailing newline shows, exactly as `diff -u` shows it
// ("\ No newline at end of file" after the line that lacks one). An empty text has no lines.
//
// Algorithm. Lines are first numbered by content (one hash table over both texts), so the search
// compares integers. A common head and tail are set aside, then Myers' O(ND) search runs in its
// linear-space form: it looks for the middle of an optimal path from both ends at once and
// recurses on the two halves, so memory stays O(N + M) however far apart the texts are, and time
// is O((N + M) D) for D changed lines.
//
// Cost cap. Left alone, two unrelated long texts cost O((N + M)^2). Unless `DiffOptions::minimal`
// is set, a search that has taken more than `costLimit` steps (by default the larger of 4096 and
// about the square root of N + M) stops looking for the optimum in that part and cuts at the
// furthest-reaching point found so far. The script is then still correct (applying it gives the
// new text) but may be slightly longer than the shortest one. Inputs whose distance stays below
// the cap, which is every pair of texts with fewer than 4096 changed lines, always get the
// shortest script.
//
// Edit script. `EditScript` lists runs of kept, removed and inserted lines in text order (at a
// change, removals come before insertions) and owns a copy of the inserted lines, so that
// `apply(oldText)` rebuilds the new text from the old one alone.
//
// Unified diff. `unifiedDiff` renders "--- " and "+++ " header lines, then hunks "@@ -l,s +l,s @@"
// with `contextLines` lines of context (hunks closer than twice that merge), the line counts
// omitted when 1 and the line number before the hunk given when a side is empty, as `diff -u`
// writes them. Equal texts give the empty string.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mirels/Export.h"
#include "mirels/errors/HumanReadableError.h"

namespace mirels {

/// How hard the diff searches.
struct DiffOptions {
    /// Always find the shortest script, whatever it costs (no cost cap).
    bool minimal = false;
    /// Steps of the search before the cost cap cuts; 0 picks the default (see above).
    std::size_t costLimit = 0;
};

/// How a unified diff is written.
struct UnifiedDiffOptions {
    /// The name after "--- ".
    std::string oldLabel = "old";
    /// The name after "+++ ".
    std::string newLabel = "new";
    /// Unchanged lines shown around each change.
    std::size_t contextLines = 3;
};

/// `EditScript::apply` was given a text that the script was not made from.
class MIRELS_EXPORT EditScriptMismatchError final : public HumanReadableError {
  public:
    EditScriptMismatchError(std::size_t expectedLines, std::size_t actualLines);

    std::size_t expectedLineCount() const noexcept { return expected_; }
    std::size_t actualLineCount() const noexcept { return actual_; }

    /// "The edit script does not fit the text".
    std::optional<std::string> lowValueTitle() const override;
    /// "The edit script was made for a text of 3 lines; this one has 2."
    std::optional<std::string> additionalInfo() const override;
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }
    bool canTryAgain() const override { return false; }

  private:
    std::size_t expected_;
    std::size_t actual_;
};

/// The lines of `text` (see Lines above), as views into it.
[[nodiscard]] MIRELS_EXPORT std::vector<std::string_view> splitLines(std::string_view text);

/// A shortest (or, past the cost cap, a short) edit script between two texts. A value type.
class MIRELS_EXPORT EditScript {
  public:
    enum class Operation : std::uint8_t { keep, remove, insert };

    /// A run of `lineCount` lines: kept lines are at `oldLine` and `newLine` (0-based) in both
    /// texts, removed lines at `oldLine` in the old text, inserted lines at `newLine` in the new
    /// one. The other index says where the run stands in the other text.
    struct Edit {
        Operation operation;
        std::size_t oldLine;
        std::size_t newLine;
        std::size_t lineCount;

        friend bool operator==(const Edit&, const Edit&) = default;
    };

    /// The script that turns `oldText` into `newText`.
    [[nodiscard]] static EditScript between(std::string_view oldText, std::string_view newText,
                                            const DiffOptions& options = {});

    /// The runs, in text order; adjacent runs differ in operation.
    const std::vector<Edit>& edits() const noexcept { return edits_; }
    std::size_t oldLineCount() const noexcept { return oldLines_; }
    std::size_t newLineCount() const noexcept { return newLines_; }
    std::size_t removedLineCount() const noexcept { return removed_; }
    std::size_t insertedLineCount() const noexcept { return inserted_; }
    /// Removed plus inserted lines: the edit distance D.
    std::size_t distance() const noexcept { return removed_ + inserted_; }
    bool hasChanges() const noexcept { return distance() != 0; }

    /// The bytes of the lines that the insert run `edits()[editIndex]` adds (empty for other
    /// runs and for an index past the end).
    std::string_view insertedText(std::size_t editIndex) const noexcept;

    /// The new text, rebuilt from `oldText`, which must be the text the script was made from.
    /// A text with another number of lines throws `EditScriptMismatchError`.
    [[nodiscard]] std::string apply(std::string_view oldText) const;

    /// This script as a unified diff against `oldText` (the text it was made from; a text with
    /// another number of lines throws `EditScriptMismatchError`).
    [[nodiscard]] std::string unifiedDiff(std::string_view oldText,
                                          const UnifiedDiffOptions& options = {}) const;

  private:
    std::vector<Edit> edits_;
    std::vector<std::size_t> insertedOffsets_;  // per edit: where its lines start in insertedText_
    std::string insertedText_;
    std::size_t oldLines_ = 0;
    std::size_t newLines_ = 0;
    std::size_t removed_ = 0;
    std::size_t inserted_ = 0;
};

/// The unified diff from `oldText` to `newText`; the empty string when they are equal.
[[nodiscard]] MIRELS_EXPORT std::string unifiedDiff(std::string_view oldText,
                                                    std::string_view newText,
                                                    const UnifiedDiffOptions& options = {},
                                                    const DiffOptions& diffOptions = {});

}  // namespace mirels
