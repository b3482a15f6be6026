#pragma once

// The diagnostics collector: issues and the text attachments that errors add through
// `HumanReadableError::collectDiagnostics`, gathered from any thread, and written on request as a
// summary file for people who look at a misbehaving process afterwards.
//
// The summary. `writeSummary(location)` makes the folder "mirels-diagnostics" inside `location`
// (and `location` itself when missing) and writes "mirels_diagnostics_summary.txt" there. The
// file is written to a temporary file in the same folder and renamed over the old one, so a
// reader sees the old summary or the new one, never a part; writing again replaces it. A folder
// that cannot be made or written throws `DiagnosticsSummaryError`
// (errors/DiagnosticsSummaryError.h) naming the path and the system's reason; nothing is left
// behind.
//
// The format (UTF-8, lines end with "\n"; «...» marks a value):
//
//   Mirels diagnostics summary
//   Process: «process name» [«process identifier»]
//   Date/Time: «YYYY-MM-DD hh:mm:ss.mmm» UTC
//   Issues: «n» («e» errors, «w» warnings, «t» notes)
//
//   Errors («e»):                  one section per severity that has issues, errors first,
//                                  then "Warnings («w»):" and "Notes («t»):"
//     [«k»] «time as above» UTC «callsite description»
//       «message, each line indented by 6 spaces»
//       «the error's full diagnostics, each line indented by 6 spaces, when there is an error»
//
//   Attachments («a»):             when any were attached
//     «name»:
//       «text, each line indented by 6 spaces»
//
// Sections are separated by one empty line, as are issues and attachments within a section;
// empty lines inside a text are written without indentation.
// Within a severity, issues keep the order in which they were recorded, numbered from 1 (k).
//
// Thread safety: every member may be called from any thread at the same time. The collector
// owns one lock; no error's `collectDiagnostics` runs while it is held, so an error may attach
// to the collector that records it.

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "mirels/Export.h"
#include "mirels/core/Callsite.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/errors/Issue.h"

namespace mirels {

/// Gathers issues and named text attachments for a diagnostics summary (see above).
class MIRELS_EXPORT DiagnosticsCollector {
  public:
    struct Attachment {
        std::string name;
        std::string text;

        friend bool operator==(const Attachment&, const Attachment&) = default;
    };

    /// The folder that `writeSummary` makes, "mirels-diagnostics".
    static constexpr std::string_view summaryFolderName = "mirels-diagnostics";
    /// The summary file inside it, "mirels_diagnostics_summary.txt".
    static constexpr std::string_view summaryFileName = "mirels_diagnostics_summary.txt";

    DiagnosticsCollector() = default;
    DiagnosticsCollector(const DiagnosticsCollector&) = delete;
    DiagnosticsCollector& operator=(const DiagnosticsCollector&) = delete;

    /// Adds a named text, in order after the earlier ones.
    void attach(std::string name, std::string text);
    /// A copy of the attachments so far, in the order they were added.
    [[nodiscard]] std::vector<Attachment> attachments() const;

    /// Records `issue`, then lets its error (if any) add its attachments.
    void record(Issue issue);
    /// Records an issue made here: `report(Issue::Severity::warning, "cache is stale")`.
    void report(Issue::Severity severity, std::string message,
                Callsite callsite = Callsite::current());
    /// Records an issue explained by `error`.
    void report(Issue::Severity severity, std::string message, const Error& error,
                Callsite callsite = Callsite::current());

    /// A copy of the issues so far, in the order they were recorded.
    [[nodiscard]] std::vector<Issue> issues() const;
    [[nodiscard]] std::size_t issueCount() const;
    /// Forgets every issue and attachment.
    void removeAll();

    /// The summary text for this process at the current time (the format above).
    [[nodiscard]] std::string summaryText() const;
    /// The summary text with the given header values (for replaying and for tests).
    [[nodiscard]] std::string summaryText(std::string_view processName, long processIdentifier,
                                          Issue::Clock::time_point time) const;

    /// Writes the summary into `location`/"mirels-diagnostics"/"mirels_diagnostics_summary.txt",
    /// replacing any earlier one atomically, and returns the file's path. Throws
    /// `DiagnosticsSummaryError` when the folder cannot be made or the file cannot be written.
    std::filesystem::path writeSummary(const std::filesystem::path& location) const;

  private:
    struct State {
        std::vector<Issue> issues;
        std::vector<Attachment> attachments;
    };
    ThreadSafe<State> state_;
};

}  // namespace mirels
