#pragma once

// `CrashReportListener`: hands out the next crash report of a process as it appears in a folder of
// crash reports. Also `CrashReportListenerError`.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "mirels/Export.h"
#include "mirels/core/Callsite.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/crash/CrashReport.h"
#include "mirels/errors/HumanReadableError.h"
#include "mirels/execution/DispatchQueue.h"
#include "mirels/futures/Future.h"
#include "mirels/futures/FutureTermination.h"

namespace mirels {

/// Hands out the next crash report of a process as it appears in a folder of crash reports.
///
/// The folder holds one report per file in the JSON form of `CrashReport`. Reports count when
/// they are complete: a file closed after writing, or a file renamed into the folder (write a
/// temporary file elsewhere or under a hidden name, then rename it into place). Only regular files
/// whose names end in ".json" and do not begin with "." are read; symbolic links, other kinds of
/// files and files larger than `maximumReportSize` are skipped, as are files that cannot be
/// opened (logged, never fatal). A file that does not decode is logged "Unable to parse crash
/// report" at debug level and treated as absent. The same file (same inode, size and
/// modification time) is handed out at most once while the listener watches.
///
/// Watching starts with the first waiting request and stops (the inotify watch is removed) when
/// the last one has been answered or canceled: a request sees reports that complete after it was
/// made. Several requests for the same process are answered in the order they were made, one
/// report each. Files are read and decoded on the listener's own serial queue; one process-wide
/// thread ("mirels.crash-watch") waits for file events of every listener.
///
/// The default folder is `$XDG_STATE_HOME/mirels/crash-reports` (`$XDG_STATE_HOME` defaults to
/// `$HOME/.local/state`); it is created (mode 0700) when missing.
class MIRELS_EXPORT CrashReportListener {
  public:
    /// The largest report file that is read (4 MiB); larger files are skipped and logged.
    static constexpr std::size_t maximumReportSize = std::size_t{4} << 20;

    /// A listener on `folder`, or on `defaultFolder()`.
    [[nodiscard]] static std::shared_ptr<CrashReportListener> create(
        std::optional<std::filesystem::path> folder = std::nullopt);

    /// `$XDG_STATE_HOME/mirels/crash-reports`, or `$HOME/.local/state/mirels/crash-reports`.
    static std::filesystem::path defaultFolder();

    CrashReportListener(const CrashReportListener&) = delete;
    CrashReportListener& operator=(const CrashReportListener&) = delete;
    ~CrashReportListener();

    /// The next report whose `name` is `processName`. Cancel the future (or let `timeout` cancel
    /// it) to stop waiting. Fails with `CrashReportListenerError` when the folder cannot be
    /// watched.
    Future<CrashReport> nextReport(std::string processName,
                                   Callsite callsite = Callsite::current());
    /// The next report whose `pid` is `pid`.
    Future<CrashReport> nextReport(std::int32_t pid, Callsite callsite = Callsite::current());

    const std::filesystem::path& folder() const noexcept { return folder_; }
    /// Whether the folder is being watched now (some request is waiting).
    bool isWatching() const;
    /// The number of requests waiting now.
    std::size_t waitingCount() const;

    struct State;
    struct Watch;

  private:
    struct Request;
    explicit CrashReportListener(std::filesystem::path folder);
    Future<CrashReport> wait(Request request, Callsite callsite);

    std::filesystem::path folder_;
    std::shared_ptr<State> state_;
};

/// The crash-report folder could not be watched.
class MIRELS_EXPORT CrashReportListenerError final : public HumanReadableError {
  public:
    CrashReportListenerError(std::string folder, std::string reason)
        : folder_(std::move(folder)), reason_(std::move(reason)) {}

    const std::string& folder() const noexcept { return folder_; }
    const std::string& reason() const noexcept { return reason_; }

    /// "Unable to watch for crash reports".
    std::optional<std::string> highValueTitle() const override {
        return "Unable to watch for crash reports";
    }
    /// "<folder>: <reason>".
    std::optional<std::string> additionalInfo() const override { return folder_ + ": " + reason_; }
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }

  private:
    std::string folder_;
    std::string reason_;
};

}  // namespace mirels
