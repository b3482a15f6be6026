#include "mirels/cli/CommandLineToolInvocation.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <utility>

#include "mirels/cli/ChildProcess.h"
#include "mirels/cli/CommandLineProcess.h"
#include "mirels/cli/Utf8StreamDecoder.h"
#include "mirels/core/Identifier.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/errors/ExceptionHandling.h"

namespace mirels {

namespace {

struct CaptureState {
    Utf8StreamDecoder decoder;
    std::string text;
};

/// The captured output of one run: the decoder and the text, guarded because the readability
/// and termination handlers may in principle run on different threads.
class CapturedOutput {
  public:
    explicit CapturedOutput(bool passThrough) : passThrough_(passThrough) {}

    void append(std::string_view bytes) {
        std::string passed;
        state_.syncWrite([&](State& s) {
            const std::size_t before = s.text.size();
            s.decoder.decode(bytes, s.text);
            if (passThrough_) passed.assign(s.text, before, std::string::npos);
        });
        if (!passed.empty()) writeToStandardOutput(passed);
    }

    /// Ends the stream and takes the text.
    std::string finish() {
        std::string passed;
        std::string text = state_.syncWrite([&](State& s) {
            const std::size_t before = s.text.size();
            s.decoder.finish(s.text);
            if (passThrough_) passed.assign(s.text, before, std::string::npos);
            return std::move(s.text);
        });
        if (!passed.empty()) writeToStandardOutput(passed);
        return text;
    }

    /// True the first time only.
    bool claimPipeGrowth() noexcept { return !pipeGrown_.exchange(true); }

  private:
    using State = CaptureState;

    static void writeToStandardOutput(std::string_view text) {
        while (!text.empty()) {
            const ssize_t count = ::write(STDOUT_FILENO, text.data(), text.size());
            if (count < 0) {
                if (errno == EINTR) continue;
                return;  // our own standard output is gone: the capture goes on regardless
            }
            text.remove_prefix(static_cast<std::size_t>(count));
        }
    }

    bool passThrough_;
    std::atomic<bool> pipeGrown_{false};
    ThreadSafe<State> state_;
};

/// Once a child has written this much, its pipe grows to `largePipeBufferSize`, so that a chatty
/// child needs fewer wake-ups of the I/O thread. Only then: every pipe's buffer counts against
/// the user's pipe-user-pages limit, and most tools write a few lines.
constexpr std::uint64_t chattyOutputSize = std::uint64_t{256} << 10;
constexpr int largePipeBufferSize = 1 << 20;

}  // namespace

CommandLineToolInvocation::CommandLineToolInvocation(
    std::string launchPath, std::vector<std::string> arguments, Environment environment,
    std::optional<std::string> workingPath, std::string name, std::optional<Logger> log,
    bool streamToStandardOutput, FailedWhenRunningHandler failedWhenRunningHandler,
    FailedToLaunchError failedToLaunchError, StandardError standardError)
    : launchPath(std::move(launchPath)),
      arguments(std::move(arguments)),
      environment(std::move(environment)),
      workingPath(std::move(workingPath)),
      name(std::move(name)),
      log(std::move(log)),
      streamToStandardOutput(streamToStandardOutput),
      failedWhenRunningHandler(std::move(failedWhenRunningHandler)),
      failedToLaunchError(std::move(failedToLaunchError)),
      standardError(standardError) {}

std::string CommandLineToolInvocation::toolName() const {
    std::string_view path = launchPath;
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    if (path == "/") return std::string(path);
    const std::size_t slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string CommandLineToolInvocation::commandLineDescription() const {
    std::string text = launchPath;
    text += ' ';
    bool first = true;
    for (const std::string& argument : arguments) {
        if (!first) text += ' ';
        first = false;
        if (argument.find(' ') != std::string::npos) {
            text += '"';
            text += argument;
            text += '"';
        } else {
            text += argument;
        }
    }
    return text;
}

Future<std::string> CommandLineToolInvocation::run() const {
    // Step 1: the identifier and the activity label.
    const std::string identifier = std::to_string(nextProcessIdentifier());
    if (log) {
        const std::string label = "[id " + identifier + "] " + toolName() + " invocation";
        log->info("%{public}@", label);
    }
    // The handlers outlive this call: they share one copy of the invocation.
    auto self = std::make_shared<const CommandLineToolInvocation>(*this);

    // Steps 2 to 4 may fail (no descriptors left, a raised exception): every failure before the
    // child runs is a launch failure.
    std::shared_ptr<QKCommandLineProcess> process;
    std::shared_ptr<FileHandle> reading;
    FutureAndPromise<std::string> pair = Future<std::string>::create();
    std::optional<Error> launchError;
    bool launched = false;
    try {
        launched = withCaughtObjectiveCExceptions([&] {
            // Step 2: the process.
            process = QKCommandLineProcess::init();
            process->setExecutableURL(launchPath);
            process->setArguments(arguments);
            process->setEnvironment(environment);
            if (workingPath) process->setCurrentDirectoryURL(*workingPath);
            process->setStandardInput(ProcessStandardStream::nullDevice());

            // Step 3: the output pipe and its readability handler.
            std::shared_ptr<Pipe> pipe = Pipe::create();
            reading = pipe->fileHandleForReading();
            process->setStandardOutput(ProcessStandardStream::pipe(pipe));
            switch (standardError) {
                case StandardError::passThrough:
                    break;
                case StandardError::captureWithOutput:
                    process->setStandardError(
                        ProcessStandardStream::fileHandle(pipe->fileHandleForWriting()));
                    break;
                case StandardError::discard:
                    process->setStandardError(ProcessStandardStream::nullDevice());
                    break;
            }
            auto captured = std::make_shared<CapturedOutput>(streamToStandardOutput);
            reading->setReadabilityHandler([captured](FileHandle& handle) {
                captured->append(handle.availableData());
                if (handle.bytesRead() >= chattyOutputSize && captured->claimPipeGrowth()) {
                    // Best effort: the kernel may refuse or cap it.
                    ::fcntl(handle.fileDescriptor(), F_SETPIPE_SZ, largePipeBufferSize);
                }
            });

            // Step 6, installed before the launch.
            process->setTerminationHandler(
                [self, identifier, captured, reading,
                 promise = pair.promise](const std::shared_ptr<QKCommandLineProcess>& ended) {
                    // The child's own output has been drained; whatever a grandchild still
                    // writes to the inherited pipe is not part of this run.
                    reading->closeFile();
                    std::string output = captured->finish();
                    const int status = ended->terminationStatus();
                    if (self->log) {
                        self->log->info("[id %{public}@] (pid %d) %@ completed with status: %d",
                                        identifier, ended->processIdentifier(),
                                        self->commandLineDescription(), status);
                    }
                    if (status == 0) {
                        promise.succeed(std::move(output));
                        return;
                    }
                    try {
                        promise.fail(self->failedWhenRunningHandler(*self, output));
                    } catch (...) {
                        promise.fail(Error::current());  // the handler itself failed
                    }
                });

            // Step 4: the launch, inside the exception catcher.
            return process->launchAndReturnError(&launchError);
        });
    } catch (...) {
        launchError = Error::current();
    }
    if (!launched) {
        if (reading) reading->closeFile();
        if (process) process->setTerminationHandler(nullptr);
        if (!launchError) {
            launchError = Error(ProcessError(ProcessError::Step::launch, launchPath, 0));
        }
        failedToLaunchError(*this, *launchError).rethrow();
    }

    // Step 5.
    if (log)
        log->debug("[id %{public}@] launched pid %d", identifier, process->processIdentifier());

    // Canceling the future (a time-out does) ends the child: politely, then for sure.
    pair.promise.observeCancelation([process](Callsite /*callsite*/) {
        if (const std::shared_ptr<ChildProcess>& task = process->task()) {
            task->terminate(cancellationGracePeriod);
        } else {
            process->terminate();
        }
    });
    return std::move(pair.future);
}

// --- CommandLineToolInvocationError ---

CommandLineToolInvocationError::CommandLineToolInvocationError(Kind kind, std::string title,
                                                               std::string commandLine,
                                                               std::string detail)
    : kind_(kind),
      title_(std::move(title)),
      commandLine_(std::move(commandLine)),
      detail_(std::move(detail)) {}

CommandLineToolInvocationError CommandLineToolInvocationError::failedWhenRunning(
    const CommandLineToolInvocation& invocation, const std::string& output) {
    return {Kind::failedWhenRunning, invocation.toolName() + " failed.",
            invocation.commandLineDescription(), output};
}

CommandLineToolInvocationError CommandLineToolInvocationError::failedToLaunch(
    const CommandLineToolInvocation& invocation, const Error& launchError) {
    return {Kind::failedToLaunch, invocation.toolName() + " could not be launched.",
            invocation.commandLineDescription(), launchError.description()};
}

std::optional<std::string> CommandLineToolInvocationError::additionalInfo() const {
    if (detail_.empty()) return std::nullopt;
    return detail_;
}

}  // namespace mirels
