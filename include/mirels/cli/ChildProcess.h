#pragma once

#include "mirels/Export.h"

// Child processes without a shell: `ChildProcess` starts a program with `posix_spawn` and watches
// it through a process file descriptor; `Pipe` and `FileHandle` connect to its standard streams.
//
// One library thread, "mirels.process-io", started on first use and never stopped, waits on
// every running child and every file handle that has a readability handler (one epoll set). It
// reaps each child as soon as it ends, whether or not anyone still holds the `ChildProcess`, so
// no child is left a zombie. Readability and termination handlers run on that thread, one at a
// time: they must not block for long, and must not wait for another handler to run. A handler
// that throws is logged and dropped.
//
// Every descriptor the library opens is close-on-exec, and the child closes every descriptor
// above its three standard streams before it runs the program, so it inherits exactly those
// three. It starts with every signal at its default disposition and an empty signal mask,
// whatever the parent ignores or blocks.

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mirels/core/ThreadSafe.h"
#include "mirels/core/TimePeriod.h"
#include "mirels/errors/Error.h"
#include "mirels/errors/HumanReadableError.h"
#include "mirels/execution/QualityOfService.h"

namespace mirels {

class ChildProcess;
namespace detail {
class ProcessIOLoop;
}

/// A failure to start a child process or to use one of its descriptors: which step failed, for
/// which path, and the system's error number.
class MIRELS_EXPORT ProcessError final : public HumanReadableError {
  public:
    enum class Step : std::uint8_t {
        /// The program could not be started ("Could not launch <path>: <reason>.").
        launch,
        /// The working directory is not usable ("Could not launch <path> in <directory>:
        /// <reason>.").
        workingDirectory,
        /// No executable was set ("Could not launch a process without an executable.").
        noExecutable,
        /// The process was launched before ("Could not launch <path>: it was launched
        /// already.").
        alreadyLaunched,
        /// A wrapper around no process was asked to launch ("Could not launch: there is no
        /// process.").
        noProcess,
        /// A pipe or descriptor could not be made or used ("Could not <operation>: <reason>.").
        descriptor,
    };

    ProcessError(Step step, std::string path, int systemErrorNumber,
                 const std::string& directory = std::string());

    Step step() const noexcept { return step_; }
    /// The program's path, or for `descriptor` the operation that failed.
    const std::string& path() const noexcept { return path_; }
    /// The `errno` value, 0 when none applies.
    int systemErrorNumber() const noexcept { return errno_; }

    std::optional<std::string> highValueTitle() const override { return title_; }
    std::optional<std::string> additionalInfo() const override { return std::nullopt; }
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }
    bool canTryAgain() const override { return false; }
    const char* what() const noexcept override { return title_.c_str(); }

  private:
    Step step_;
    std::string path_;
    int errno_;
    std::string title_;
};

class FileHandle;

namespace detail {
/// What a `FileHandle` guards with its lock.
struct FileHandleState {
    std::function<void(FileHandle&)> handler;
    std::uint64_t watchToken = 0;  // 0 when not watched
};
}  // namespace detail

/// An open file descriptor owned by the library (closed when the handle goes away), with a
/// readability handler watched by the process I/O thread.
///
/// Reads and writes block the caller; a handle is read by one thread at a time, and must not be
/// closed while another thread reads or writes it.
class MIRELS_EXPORT FileHandle final : public std::enable_shared_from_this<FileHandle> {
    struct Key {
        explicit Key() = default;
    };

  public:
    /// Called on the process I/O thread while data (or the end of the file) is there to read.
    /// It is expected to read with `availableData()`; when that read finds the end of the file,
    /// the handler is removed after it returns, so it sees the empty read exactly once.
    using ReadabilityHandler = std::function<void(FileHandle&)>;

    FileHandle(Key, int descriptor) noexcept;
    ~FileHandle();
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;

    /// Takes ownership of `descriptor` and marks it close-on-exec.
    [[nodiscard]] static std::shared_ptr<FileHandle> create(int descriptor);
    /// "/dev/null", open for reading and writing. Throws `ProcessError` when it cannot be opened.
    static std::shared_ptr<FileHandle> nullDevice();

    /// The descriptor, or -1 once closed.
    int fileDescriptor() const noexcept;

    /// Waits until data is there and returns what one read gives (at most 1 MiB); empty at the
    /// end of the file (or once closed). Throws `ProcessError` for a read error.
    std::string availableData();
    /// Reads until the end of the file.
    std::string readDataToEndOfFile();
    /// Writes all of `data`. A reader that went away makes it throw `ProcessError` (EPIPE); it
    /// never raises SIGPIPE in this process.
    void write(std::string_view data);
    /// Closes the descriptor (after removing the readability handler). Closing twice does
    /// nothing.
    void closeFile();

    /// Installs (or, with an empty function, removes) the readability handler. A handler
    /// removed from another thread while the I/O thread is calling it may be called once more.
    void setReadabilityHandler(ReadabilityHandler handler);
    ReadabilityHandler readabilityHandler() const;

    /// Whether a read has found the end of the file.
    bool isAtEndOfFile() const noexcept;
    /// Bytes read through this handle so far.
    std::uint64_t bytesRead() const noexcept;

  private:
    friend class detail::ProcessIOLoop;
    friend class ChildProcess;

    using State = detail::FileHandleState;

    /// Calls the handler once; removes it when the read found the end of the file.
    void dispatchReadable();
    /// Calls the handler until the bytes that are waiting now have been read, or the end of the
    /// file is reached. For a child's output, right after the child ended.
    void drainWaitingData();
    void stopWatching();

    std::atomic<int> descriptor_;
    std::atomic<bool> atEnd_{false};
    std::atomic<std::uint64_t> bytesRead_{0};
    ThreadSafe<State> state_;
};

/// A one-way channel: what is written to `fileHandleForWriting` is read from
/// `fileHandleForReading`. Both ends are close-on-exec and blocking. A pipe given to a child
/// as a standard stream has the child's end closed in this process once the child is launched,
/// so that the reading end sees the end of the file when the child (and whatever inherited the
/// stream from it) is done.
class MIRELS_EXPORT Pipe {
    struct Key {
        explicit Key() = default;
    };

  public:
    Pipe(Key, std::shared_ptr<FileHandle> reading, std::shared_ptr<FileHandle> writing) noexcept;

    /// A new pipe. Throws `ProcessError` when the system has no descriptors left.
    [[nodiscard]] static std::shared_ptr<Pipe> create();

    const std::shared_ptr<FileHandle>& fileHandleForReading() const noexcept { return reading_; }
    const std::shared_ptr<FileHandle>& fileHandleForWriting() const noexcept { return writing_; }

    /// Asks the kernel for a buffer of `bytes` (rounded up to pages, capped by the system's
    /// maximum); a larger buffer means fewer wake-ups for a child that writes a lot. Returns the
    /// size in effect.
    std::size_t setBufferSize(std::size_t bytes) noexcept;

  private:
    std::shared_ptr<FileHandle> reading_;
    std::shared_ptr<FileHandle> writing_;
};

/// What one standard stream of a child is connected to.
class MIRELS_EXPORT ProcessStandardStream {
  public:
    enum class Kind : std::uint8_t { inherit, nullDevice, pipe, fileHandle };

    /// The parent's own stream of the same number (the default).
    static ProcessStandardStream inherit() noexcept { return {}; }
    /// "/dev/null": reads see the end of the file, writes are discarded.
    static ProcessStandardStream nullDevice() noexcept;
    /// The child's end of `pipe`: the reading end for standard input, the writing end for
    /// standard output and error.
    static ProcessStandardStream pipe(std::shared_ptr<Pipe> pipe) noexcept;
    /// An open file handle, shared with the child.
    static ProcessStandardStream fileHandle(std::shared_ptr<FileHandle> handle) noexcept;

    Kind kind() const noexcept { return kind_; }
    const std::shared_ptr<Pipe>& pipe() const noexcept { return pipe_; }
    const std::shared_ptr<FileHandle>& fileHandle() const noexcept { return fileHandle_; }

    friend bool operator==(const ProcessStandardStream&, const ProcessStandardStream&) = default;

  private:
    Kind kind_ = Kind::inherit;
    std::shared_ptr<Pipe> pipe_;
    std::shared_ptr<FileHandle> fileHandle_;
};

/// How a child ended.
enum class ProcessTerminationReason : std::uint8_t {
    /// It called exit (or returned from main); the termination status is the exit status.
    exit = 1,
    /// A signal ended it; the termination status is the signal number.
    uncaughtSignal = 2,
};

/// Where a child started with a launch-gate handler waits, everything set up, before it runs the
/// program, until another thread lets it go: the moment to attach a tracer (PTRACE_SEIZE) that
/// must see the program from its first instruction, without stopping the child. Move-only; owns
/// one end of a socket pair. Dropping the gate, opened or not, lets the child go.
class MIRELS_EXPORT LaunchGate {
  public:
    LaunchGate() noexcept = default;
    /// Takes `descriptor` (this process's end of the gate).
    explicit LaunchGate(int descriptor) noexcept : descriptor_(descriptor) {}
    LaunchGate(LaunchGate&& other) noexcept;
    LaunchGate& operator=(LaunchGate&& other) noexcept;
    LaunchGate(const LaunchGate&) = delete;
    LaunchGate& operator=(const LaunchGate&) = delete;
    ~LaunchGate();

    /// Blocks until the child waits at the gate and returns its pid; 0 when no child will come
    /// (it could not be created, or the launch failed before).
    [[nodiscard]] pid_t waitForChild();
    /// Lets the child go on to run the program (it is not waited for).
    void open();

  private:
    int descriptor_ = -1;
};

namespace detail {
enum class ChildProcessPhase : std::uint8_t { configuring, launching, running, terminated };

/// What a `ChildProcess` guards with its lock: the configuration, then the state of the child.
struct MIRELS_EXPORT ChildProcessState {
    std::optional<std::string> executable;
    std::vector<std::string> arguments;
    std::optional<std::map<std::string, std::string>> environment;
    std::optional<std::string> directory;
    ProcessStandardStream input;
    ProcessStandardStream output;
    ProcessStandardStream error;
    QualityOfService qos = QualityOfService::standard;
    std::function<void(ChildProcess&)> handler;
    std::function<void(pid_t)> stoppedLaunchHandler;
    std::function<void(LaunchGate)> launchGateHandler;
    ChildProcessPhase phase = ChildProcessPhase::configuring;
    int pidfd = -1;
    int suspendCount = 0;
    int status = 0;
    ProcessTerminationReason reason = ProcessTerminationReason::exit;
};
}  // namespace detail

/// One child process: configured, launched once, then observed until it ends.
///
/// Configuration (executable, arguments, environment, working directory, standard streams,
/// quality of service) is read at launch; changing it afterwards has no effect on the child. No
/// shell is involved: the executable is started directly, with the arguments and environment
/// exactly as given (argument 0 is the executable's path). A relative executable path is taken
/// relative to this process's working directory, also when the child gets a different one.
///
/// Thread-safe: every operation may be called from any thread. The process I/O thread keeps the
/// object alive while the child runs, reaps the child when it ends, and then calls the
/// termination handler once.
class MIRELS_EXPORT ChildProcess final : public std::enable_shared_from_this<ChildProcess> {
    struct Key {
        explicit Key() = default;
    };

  public:
    /// Called once, on the process I/O thread, after the child has been reaped: status and
    /// reason are final, `isRunning()` is false, and the output pipes that have readability
    /// handlers have been drained of everything the child wrote. Released right after the call.
    using TerminationHandler = std::function<void(ChildProcess&)>;
    using Environment = std::map<std::string, std::string>;

    explicit ChildProcess(Key) noexcept;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    [[nodiscard]] static std::shared_ptr<ChildProcess> create();

    // --- configuration ---

    std::optional<std::string> executableURL() const;
    void setExecutableURL(std::optional<std::string> path);
    std::vector<std::string> arguments() const;
    void setArguments(std::vector<std::string> arguments);
    /// The child's whole environment; absent (the default) passes this process's environment.
    std::optional<Environment> environment() const;
    void setEnvironment(std::optional<Environment> environment);
    /// The child's working directory; absent (the default) keeps this process's.
    std::optional<std::string> currentDirectoryURL() const;
    void setCurrentDirectoryURL(std::optional<std::string> path);
    ProcessStandardStream standardInput() const;
    void setStandardInput(ProcessStandardStream stream);
    ProcessStandardStream standardOutput() const;
    void setStandardOutput(ProcessStandardStream stream);
    ProcessStandardStream standardError() const;
    void setStandardError(ProcessStandardStream stream);
    /// `utility` runs the child under SCHED_BATCH and `background` under SCHED_IDLE; the other
    /// classes keep this process's scheduling. `standard` by default.
    QualityOfService qualityOfService() const;
    void setQualityOfService(QualityOfService qos);

    TerminationHandler terminationHandler() const;
    /// Replaces the handler. One set after the child has ended is never called.
    void setTerminationHandler(TerminationHandler handler);

    /// Called with the child's pid on the launching thread, during the launch, while the child
    /// is stopped (SIGSTOP) with everything set up, just before it runs the program: the moment
    /// to attach a tracer that must see the program from its first instruction. When the
    /// handler returns, the child must be on its way to the program: the handler continues it
    /// (SIGCONT) and, if it traces the child, lets it through every stop up to the program's
    /// start. The launch then waits for the program to start and reports a failure to run it as
    /// usual. With a handler, the child is started by vfork on a short-lived thread of the
    /// library's instead of posix_spawn (a thread more per launch; the parent's size costs
    /// nothing either way); the streams, environment, directory, signals and scheduling it gets
    /// are the same.
    using StoppedLaunchHandler = std::function<void(pid_t)>;
    void setStoppedLaunchHandler(StoppedLaunchHandler handler);

    /// Called once on the launching thread, during the launch and before the child exists, with
    /// the child's `LaunchGate`: the handler hands it to another thread, which waits for the
    /// child there (`waitForChild()`, with its streams, environment, directory, signals and
    /// scheduling set up), attaches, and opens the gate. The child then runs the program without
    /// any stop; the launch waits for the program to start and reports a failure to run it as
    /// usual (after the gate opened). The launching thread is suspended until the child runs
    /// the program (the child is started by vfork on it and shares its memory until then), so
    /// the handler must not wait for the gate itself. No thread is started and no signal is
    /// used; the parent's size costs nothing. Takes precedence over a stopped-launch handler.
    using LaunchGateHandler = std::function<void(LaunchGate)>;
    void setLaunchGateHandler(LaunchGateHandler handler);

    // --- launching ---

    /// Starts the child. On failure returns false and stores a `ProcessError` in `*error` (when
    /// given); nothing was started and the termination handler is released uncalled.
    bool launchAndReturnError(std::optional<Error>* error = nullptr);
    /// `launchAndReturnError`, throwing the `ProcessError`.
    void launch();

    // --- state ---

    /// The child's process id once launched; 0 before.
    pid_t processIdentifier() const noexcept;
    /// The process file descriptor while the child runs, -1 otherwise. Owned by this object.
    int processFileDescriptor() const noexcept;
    /// Launched and not yet ended.
    bool isRunning() const noexcept;
    /// Whether the child has ended (and been reaped).
    bool hasTerminated() const noexcept;
    /// The exit status, or the signal number for `uncaughtSignal`; -1 when something else in
    /// this process reaped the child first. Reading it before the child has ended stops the
    /// process with a message.
    int terminationStatus() const;
    /// Reading it before the child has ended stops the process with a message.
    ProcessTerminationReason terminationReason() const;

    // --- signals (ignored unless the child runs) ---

    /// SIGINT.
    void interrupt();
    /// SIGTERM.
    void terminate();
    /// SIGTERM (and SIGCONT, so that a suspended child can act on it), then SIGKILL if the child
    /// still runs after `gracePeriod`.
    void terminate(TimePeriod gracePeriod);
    /// Stops the child (SIGSTOP). Suspensions nest: each needs a `resume`. False when not
    /// running.
    bool suspend();
    /// Undoes one `suspend`; the child continues (SIGCONT) when none is left. False when not
    /// running or not suspended.
    bool resume();
    /// Sends `signal` through the process file descriptor. False when the child does not run.
    bool sendSignal(int signal);

    /// Blocks until the child has ended and its handler has run. Not on the process I/O thread.
    void waitUntilExit() const;

  private:
    friend class detail::ProcessIOLoop;

    using Phase = detail::ChildProcessPhase;
    using State = detail::ChildProcessState;

    /// On the I/O thread: the process file descriptor became readable.
    void didExit();

    std::atomic<pid_t> pid_{0};
    std::atomic<bool> running_{false};
    std::atomic<bool> terminated_{false};
    std::atomic<bool> finished_{false};  // terminated and the handler has run
    ThreadSafe<State> state_;
};

}  // namespace mirels
