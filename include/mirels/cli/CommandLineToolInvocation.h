#pragma once

// `CommandLineToolInvocation`: one run of an external program, described completely up front. Also
// `CommandLineToolInvocationError`.

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "mirels/Export.h"
#include "mirels/core/TimePeriod.h"
#include "mirels/errors/Error.h"
#include "mirels/errors/HumanReadableError.h"
#include "mirels/futures/PromiseFuture.h"
#include "mirels/platform/Log.h"

namespace mirels {

/// One run of an external program, described completely up front: `run()` starts it as a child
/// process (through `QKCommandLineProcess`, without a shell) and returns a future of the text it
/// writes to its standard output.
///
/// - Launch failures are thrown by `run()` itself, as the error that `failedToLaunchError` makes;
///   everything after a successful launch arrives through the future.
/// - Exit status 0 succeeds with the whole captured output; any other status (a signal included)
///   fails with the error that `failedWhenRunningHandler` makes from the captured output.
/// - Output is decoded as UTF-8 as it arrives (`Utf8StreamDecoder`): a character split across two
///   reads stays whole, invalid bytes become U+FFFD.
/// - Standard input is the null device. Standard error is not captured by default: it goes to
///   this process's standard error, so that a tool's warnings never end up in the value. Pass
///   `StandardError::captureWithOutput` to have it in the same captured text, in the order the
///   child wrote it (useful when `failedWhenRunningHandler` should quote it), or `discard`.
/// - Canceling the future (directly, or through a `timeout(...)` that expires) ends the child:
///   SIGTERM at once, then SIGKILL if it still runs after `cancellationGracePeriod`. The future
///   finishes canceled (a time-out's future fails with `TimeoutError`). Every child is reaped
///   when it ends, also when nobody holds the future any more.
/// - When `log` is set, the run writes three lines to it: at info level the label
///   "[id <n>] <toolName> invocation", at debug level "[id %{public}@] launched pid %d", and at
///   info level "[id %{public}@] (pid %d) %@ completed with status: %d" with the
///   `commandLineDescription`.
///
/// The future's observers on the `any` lane run on the library's process I/O thread: they must
/// not block there (hop to a lane of your own for long work).
struct MIRELS_EXPORT CommandLineToolInvocation {
    /// What becomes of the child's standard error.
    enum class StandardError : std::uint8_t {
        /// This process's own standard error (the default).
        passThrough,
        /// Into the captured output, interleaved as the child wrote it.
        captureWithOutput,
        /// The null device.
        discard,
    };

    using Environment = std::map<std::string, std::string>;
    /// Makes the error for a child that ended with a non-zero status, from the invocation and
    /// the whole captured output.
    using FailedWhenRunningHandler =
        std::function<Error(const CommandLineToolInvocation&, const std::string& output)>;
    /// Makes the error for a child that could not be started, from the invocation and the
    /// launch error (a `ProcessError`, or a `QKExceptionError` for an exception raised while
    /// launching).
    using FailedToLaunchError =
        std::function<Error(const CommandLineToolInvocation&, const Error& launchError)>;

    /// How long a canceled child gets between SIGTERM and SIGKILL: one second.
    static constexpr TimePeriod cancellationGracePeriod =
        TimePeriod::fromNanoseconds(1'000'000'000);

    std::string launchPath;
    std::vector<std::string> arguments;
    /// The child's whole environment: nothing of this process's environment is added.
    Environment environment;
    std::optional<std::string> workingPath;
    /// A label for logs.
    std::string name;
    /// No logging when absent.
    std::optional<Logger> log;
    /// Also writes the child's output to this process's standard output as it arrives.
    bool streamToStandardOutput = false;
    FailedWhenRunningHandler failedWhenRunningHandler;
    FailedToLaunchError failedToLaunchError;
    StandardError standardError = StandardError::passThrough;

    CommandLineToolInvocation(std::string launchPath, std::vector<std::string> arguments,
                              Environment environment, std::optional<std::string> workingPath,
                              std::string name, std::optional<Logger> log,
                              bool streamToStandardOutput,
                              FailedWhenRunningHandler failedWhenRunningHandler,
                              FailedToLaunchError failedToLaunchError,
                              StandardError standardError = StandardError::passThrough);

    /// The last path component of `launchPath` ("echo" for "/bin/echo"; trailing slashes are
    /// ignored).
    std::string toolName() const;

    /// `launchPath`, a blank, then the arguments joined with one blank; an argument that contains
    /// a blank is wrapped in double quotes, with nothing inside escaped. With no arguments the
    /// text ends in that one blank.
    std::string commandLineDescription() const;

    /// Starts the child and returns a future of its captured output (see the type's comment).
    /// Throws the error of `failedToLaunchError` when it cannot be started.
    Future<std::string> run() const;
};

/// A ready-made error for the two handlers of an invocation, for callers without errors of their
/// own: "<toolName> failed." with the captured output as its information, or "<toolName> could
/// not be launched." with the launch error's text.
class MIRELS_EXPORT CommandLineToolInvocationError final : public HumanReadableError {
  public:
    enum class Kind : std::uint8_t { failedWhenRunning, failedToLaunch };

    static CommandLineToolInvocationError failedWhenRunning(
        const CommandLineToolInvocation& invocation, const std::string& output);
    static CommandLineToolInvocationError failedToLaunch(
        const CommandLineToolInvocation& invocation, const Error& launchError);

    Kind kind() const noexcept { return kind_; }
    const std::string& commandLineDescription() const noexcept { return commandLine_; }
    /// The captured output, or the launch error's text.
    const std::string& detail() const noexcept { return detail_; }

    std::optional<std::string> highValueTitle() const override { return title_; }
    std::optional<std::string> additionalInfo() const override;
    std::optional<std::string> additionalDiagnostics() const override { return commandLine_; }

  private:
    CommandLineToolInvocationError(Kind kind, std::string title, std::string commandLine,
                                   std::string detail);

    Kind kind_;
    std::string title_;
    std::string commandLine_;
    std::string detail_;
};

}  // namespace mirels
