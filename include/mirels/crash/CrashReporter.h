#pragma once

// Crash capture for our own child processes: `CrashReporter` starts a `ChildProcess`, traces it
// with ptrace and, when the child is about to die of a fatal signal, reads its stack and mapped
// images, lets the signal kill it, and writes a `CrashReport` into a folder of crash reports (the
// folder that `CrashReportListener` watches). No core dump and no system setting is involved.

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mirels/Export.h"
#include "mirels/cli/ChildProcess.h"
#include "mirels/crash/CrashReport.h"
#include "mirels/errors/Error.h"
#include "mirels/errors/HumanReadableError.h"

namespace mirels {

/// How long the steps of one capture took, in nanoseconds; zero for a step that did not happen.
struct CrashCaptureTimings {
    /// From the fatal signal's stop to the end of unwinding and symbolising the stack and listing
    /// the images.
    std::int64_t unwindNanoseconds = 0;
    /// From the fatal signal's stop to the report on disk (file and folder synced). Includes the
    /// child's death and the draining of its standard error.
    std::int64_t signalToReportNanoseconds = 0;
};

/// How a supervised child ended, and the report written for it, if any.
struct CrashOutcome {
    ProcessTerminationReason reason = ProcessTerminationReason::exit;
    /// The exit status, or the signal number for `uncaughtSignal` (as `ChildProcess` reports it).
    int status = 0;
    /// Whether the child was traced (ptrace was allowed and attached before it ended). An
    /// untraced child that dies of a fatal signal still gets a report, without frames or images.
    bool traced = false;
    /// The report that was written, when the child crashed.
    std::optional<CrashReport> report;
    /// Where the report was written.
    std::optional<std::filesystem::path> reportPath;
    /// Why the report could not be written (the report itself is still in `report`).
    std::optional<Error> writeError;
    CrashCaptureTimings timings;

    /// The shell's convention: the exit status, or 128 plus the signal number.
    int exitStatus() const noexcept {
        return reason == ProcessTerminationReason::uncaughtSignal ? 128 + status : status;
    }
};

/// A child started by a `CrashReporter`. Waiting is thread-safe; the supervision goes on (on a
/// supervising thread) also when nobody holds this object.
class MIRELS_EXPORT SupervisedProcess {
  public:
    /// The child (launched).
    const std::shared_ptr<ChildProcess>& child() const noexcept { return child_; }
    /// Blocks until the child has ended and its report, if any, is on disk.
    const CrashOutcome& waitUntilDone() const;
    /// As `waitUntilDone`, giving up after `timeout`: absent when the child still runs.
    std::optional<CrashOutcome> waitUntilDone(std::chrono::milliseconds timeout) const;
    bool isDone() const;

    struct Shared;
    SupervisedProcess(std::shared_ptr<ChildProcess> child, std::shared_ptr<Shared> shared)
        : child_(std::move(child)), shared_(std::move(shared)) {}

  private:
    std::shared_ptr<ChildProcess> child_;
    std::shared_ptr<Shared> shared_;
};

/// Starts child processes under supervision and writes a crash report for each one that crashes.
///
/// What counts as a crash:
/// - death by SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT or SIGTRAP (`fatalSignalBugType`). While
///   the child is traced, it is stopped when such a signal is about to be delivered with its
///   default action (a signal the program handles itself is passed on untouched); the crashing
///   thread's stack is unwound and symbolised (libdwfl, from the symbol tables and DWARF of the
///   mapped files) and every mapped object file is listed with its build ID; then the signal is
///   delivered and kills the child.
/// - exit status 127 after the dynamic loader's "error while loading shared libraries" message
///   (`libraryLoadBugType`): a report without frames or images.
///
/// The report's `name` is the executable's file name, `pid` the child's, `time` the moment of the
/// crash. Its application-specific information holds, under `standardErrorKey`, the last lines
/// (at most `Configuration::standardErrorLineCount`) that the child wrote to its standard error,
/// so that the crash-text parsers can read them; for a signal, `signalKey` holds one line naming
/// it ("SIGSEGV (Segmentation fault), code SEGV_MAPERR, address 0x0"). Frames point into the
/// images by index and offset from the image's load address; `symbol` is the demangled name and
/// `symbolLocation` the offset into it, when the address lies in a known symbol.
///
/// The child's standard error goes through a pipe that the reporter reads; what arrives is passed
/// on at once to the stream the child was configured with (this process's standard error by
/// default). Standard input and output are left as configured.
///
/// Tracing: the child waits at its `LaunchGate`, set up, just before it runs the program, and is
/// seized there (PTRACE_SEIZE, killed if this process dies) by a supervising thread of the
/// reporter's ("mirels.crash-tr") that stays with it until it ends; no stop is needed, not even
/// at exec. Supervising threads are reused: one follows one child at a time, a new one starts
/// only when every other is busy, and two stay for later launches. A child that ptrace cannot
/// trace still gets a report, without frames or images. Group stops (SIGSTOP, SIGTSTP)
/// and every other signal behave as without tracing. Threads the child starts are traced too.
/// A traced child cannot itself use ptrace: a debugger, or a sanitizer's leak checker (which
/// stops the process's threads with ptrace at exit and fails) will not work in it; run such a
/// program with `trace` off or with its leak checking off ("ASAN_OPTIONS=detect_leaks=0").
///
/// Reports are written atomically: a hidden temporary file (mode 0600) in the folder, synced,
/// renamed to "<name>-<UTC date and time>-<pid>.json" (a number is added when that name is taken;
/// an existing report is never replaced), and the folder synced. The folder and missing parent
/// folders are created with mode 0700. Writing happens on the supervising thread after the child
/// has died and its standard error has been drained.
class MIRELS_EXPORT CrashReporter {
  public:
    /// The bug type of a report for a death by a fatal signal.
    static constexpr std::string_view fatalSignalBugType = "fatal-signal";
    /// The bug type of a report for a program the dynamic loader refused to start.
    static constexpr std::string_view libraryLoadBugType = "library-load";
    /// The application-specific key of the child's last lines of standard error.
    static constexpr std::string_view standardErrorKey = "standardError";
    /// The application-specific key of the line naming the fatal signal.
    static constexpr std::string_view signalKey = "signal";

    struct Configuration {
        /// Where reports go; created when missing.
        std::filesystem::path folder;
        /// How many of the child's last lines of standard error a report keeps.
        std::size_t standardErrorLineCount = 32;
        /// Whether to trace the child (false: reports never have frames; for comparison).
        bool trace = true;
    };

    /// A reporter writing into `folder` (`CrashReportListener::defaultFolder()` when absent).
    [[nodiscard]] static std::shared_ptr<CrashReporter> create(
        std::optional<std::filesystem::path> folder = std::nullopt);
    [[nodiscard]] static std::shared_ptr<CrashReporter> create(Configuration configuration);

    const Configuration& configuration() const noexcept { return configuration_; }

    /// Launches `child` (configured and not yet launched) under supervision. Throws the
    /// `ProcessError` of a failed launch, like `ChildProcess::launch`; nothing is supervised then.
    [[nodiscard]] SupervisedProcess launch(std::shared_ptr<ChildProcess> child) const;

    /// Writes `report` into the folder as described above and returns its path. Throws
    /// `CrashReportWriteError`.
    std::filesystem::path write(const CrashReport& report) const;

    /// "SIGSEGV" for 11; "signal <n>" for a number without a name.
    static std::string signalName(int signal);
    /// Whether `signal` is one of the fatal signals that make a crash.
    static bool isCrashSignal(int signal) noexcept;

    explicit CrashReporter(Configuration configuration);

  private:
    Configuration configuration_;
};

/// A crash report could not be written: which step failed, for which path, and why.
class MIRELS_EXPORT CrashReportWriteError final : public HumanReadableError {
  public:
    CrashReportWriteError(std::string operation, std::string path, int systemErrorNumber);

    const std::string& operation() const noexcept { return operation_; }
    const std::string& path() const noexcept { return path_; }
    int systemErrorNumber() const noexcept { return errno_; }

    /// "Unable to write a crash report".
    std::optional<std::string> highValueTitle() const override;
    /// "Could not <operation> <path>: <reason>."
    std::optional<std::string> additionalInfo() const override;
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }
    const char* what() const noexcept override { return info_.c_str(); }

  private:
    std::string operation_;
    std::string path_;
    int errno_;
    std::string info_;
};

namespace detail {
/// What one unwind of a stopped, traced child found.
struct CrashSnapshot {
    std::vector<CrashReport::Image> images;
    std::vector<CrashReport::Frame> frames;
};
/// Lists the images of the traced, stopped process `pid` and unwinds thread `tid`. Must run on
/// the tracing thread. Best effort: what cannot be read is left out.
CrashSnapshot unwindStoppedThread(pid_t pid, pid_t tid);
}  // namespace detail

}  // namespace mirels
