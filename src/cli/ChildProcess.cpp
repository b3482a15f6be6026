#include "mirels/cli/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <thread>
#include <utility>

#include "../core/SystemErrorText.h"
#include "../platform/ProcessDescriptor.h"
#include "ProcessIOLoop.h"
#include "mirels/core/FatalError.h"

extern char** environ;

#ifndef P_PIDFD
#define P_PIDFD 3
#endif

namespace mirels {

namespace {

std::string errorTitle(ProcessError::Step step, const std::string& path, int number,
                       const std::string& directory) {
    switch (step) {
        case ProcessError::Step::launch:
            return "Could not launch " + path + ": " + detail::systemErrorText(number) + ".";
        case ProcessError::Step::workingDirectory:
            return "Could not launch " + path + " in " + directory + ": " +
                   detail::systemErrorText(number) + ".";
        case ProcessError::Step::noExecutable:
            return "Could not launch a process without an executable.";
        case ProcessError::Step::alreadyLaunched:
            return "Could not launch " + path + ": it was launched already.";
        case ProcessError::Step::noProcess:
            return "Could not launch: there is no process.";
        case ProcessError::Step::descriptor:
            return "Could not " + path + ": " + detail::systemErrorText(number) + ".";
    }
    return "Could not launch " + path + ".";
}

/// Blocks SIGPIPE on the calling thread for a scope, and swallows one that the scope raised, so
/// that writing to a pipe whose reader went away fails with EPIPE instead of ending the process.
class SigpipeSuppressor {
  public:
    SigpipeSuppressor() noexcept {
        sigset_t pipeOnly;
        sigemptyset(&pipeOnly);
        sigaddset(&pipeOnly, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        wasPending_ = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &pipeOnly, &previous_);
    }
    ~SigpipeSuppressor() {
        if (raised_ && !wasPending_) {
            sigset_t pipeOnly;
            sigemptyset(&pipeOnly);
            sigaddset(&pipeOnly, SIGPIPE);
            const timespec zero{0, 0};
            while (sigtimedwait(&pipeOnly, nullptr, &zero) < 0 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
    }
    SigpipeSuppressor(const SigpipeSuppressor&) = delete;
    SigpipeSuppressor& operator=(const SigpipeSuppressor&) = delete;

    void noteBrokenPipe() noexcept { raised_ = true; }

  private:
    sigset_t previous_{};
    bool wasPending_ = false;
    bool raised_ = false;
};

constexpr std::size_t maximumRead = std::size_t{1} << 20;
constexpr std::size_t smallRead = std::size_t{64} * 1024;

}  // namespace

// --- ProcessError ---

ProcessError::ProcessError(Step step, std::string path, int systemErrorNumber,
                           const std::string& directory)
    : step_(step),
      path_(std::move(path)),
      errno_(systemErrorNumber),
      title_(errorTitle(step_, path_, errno_, directory)) {}

// --- FileHandle ---

FileHandle::FileHandle(Key /*key*/, int descriptor) noexcept : descriptor_(descriptor) {}

FileHandle::~FileHandle() {
    const int descriptor = descriptor_.exchange(-1);
    if (descriptor >= 0) ::close(descriptor);
}

std::shared_ptr<FileHandle> FileHandle::create(int descriptor) {
    if (descriptor >= 0) {
        const int flags = ::fcntl(descriptor, F_GETFD);
        if (flags >= 0 && (flags & FD_CLOEXEC) == 0) {
            ::fcntl(descriptor, F_SETFD, flags | FD_CLOEXEC);
        }
    }
    return std::make_shared<FileHandle>(Key{}, descriptor);
}

std::shared_ptr<FileHandle> FileHandle::nullDevice() {
    const int descriptor = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (descriptor < 0) {
        throw ProcessError(ProcessError::Step::descriptor, "open /dev/null", errno);
    }
    return std::make_shared<FileHandle>(Key{}, descriptor);
}

int FileHandle::fileDescriptor() const noexcept {
    return descriptor_.load();
}

std::string FileHandle::availableData() {
    const int descriptor = descriptor_.load();
    if (descriptor < 0) return {};
    int waiting = 0;
    std::size_t size = smallRead;
    if (::ioctl(descriptor, FIONREAD, &waiting) == 0 && waiting > 0) {
        size = static_cast<std::size_t>(waiting) < maximumRead ? static_cast<std::size_t>(waiting)
                                                               : maximumRead;
    }
    std::string data(size, '\0');
    for (;;) {
        const ssize_t count = ::read(descriptor, data.data(), size);
        if (count > 0) {
            data.resize(static_cast<std::size_t>(count));
            bytesRead_.fetch_add(static_cast<std::uint64_t>(count), std::memory_order_relaxed);
            return data;
        }
        if (count == 0) {
            atEnd_.store(true);
            return {};
        }
        if (errno == EINTR) continue;
        if (errno == EAGAIN) {
            pollfd wait{descriptor, POLLIN, 0};
            ::poll(&wait, 1, -1);
            continue;
        }
        if (errno == EBADF) {  // closed meanwhile
            atEnd_.store(true);
            return {};
        }
        throw ProcessError(ProcessError::Step::descriptor, "read from a file handle", errno);
    }
}

std::string FileHandle::readDataToEndOfFile() {
    std::string all;
    for (;;) {
        std::string piece = availableData();
        if (piece.empty()) return all;
        if (all.empty()) {
            all = std::move(piece);
        } else {
            all += piece;
        }
    }
}

void FileHandle::write(std::string_view data) {
    const int descriptor = descriptor_.load();
    if (descriptor < 0) {
        throw ProcessError(ProcessError::Step::descriptor, "write to a file handle", EBADF);
    }
    SigpipeSuppressor suppressor;
    while (!data.empty()) {
        const ssize_t count = ::write(descriptor, data.data(), data.size());
        if (count >= 0) {
            data.remove_prefix(static_cast<std::size_t>(count));
            continue;
        }
        if (errno == EINTR) continue;
        const int number = errno;
        if (number == EPIPE) suppressor.noteBrokenPipe();
        throw ProcessError(ProcessError::Step::descriptor, "write to a file handle", number);
    }
}

void FileHandle::closeFile() {
    stopWatching();
    const int descriptor = descriptor_.exchange(-1);
    if (descriptor >= 0) ::close(descriptor);
}

void FileHandle::setReadabilityHandler(ReadabilityHandler handler) {
    if (!handler) {
        stopWatching();
        return;
    }
    const bool startWatching = state_.syncWrite([&](State& s) {
        s.handler = std::move(handler);
        if (s.watchToken != 0) return false;
        s.watchToken = ~std::uint64_t{0};  // claimed; the real token follows
        return true;
    });
    if (!startWatching) return;
    const int descriptor = descriptor_.load();
    const std::uint64_t token =
        descriptor < 0 || atEnd_.load()
            ? 0
            : detail::ProcessIOLoop::shared().watchReadable(shared_from_this(), descriptor);
    const bool removedMeanwhile = state_.syncWrite([&](State& s) {
        if (s.watchToken != ~std::uint64_t{0}) return true;
        s.watchToken = token;
        if (token == 0) s.handler = nullptr;
        return false;
    });
    if (removedMeanwhile) detail::ProcessIOLoop::shared().unwatch(token, descriptor);
}

FileHandle::ReadabilityHandler FileHandle::readabilityHandler() const {
    return state_.syncRead([](const State& s) { return s.handler; });
}

bool FileHandle::isAtEndOfFile() const noexcept {
    return atEnd_.load();
}

std::uint64_t FileHandle::bytesRead() const noexcept {
    return bytesRead_.load(std::memory_order_relaxed);
}

void FileHandle::stopWatching() {
    ReadabilityHandler released;
    const std::uint64_t token = state_.syncWrite([&](State& s) {
        released = std::move(s.handler);
        s.handler = nullptr;
        return std::exchange(s.watchToken, 0);
    });
    if (token != 0 && token != ~std::uint64_t{0}) {
        detail::ProcessIOLoop::shared().unwatch(token, descriptor_.load());
    }
}

void FileHandle::dispatchReadable() {
    ReadabilityHandler handler = state_.syncRead([](const State& s) { return s.handler; });
    if (!handler) return;
    handler(*this);
    if (atEnd_.load()) stopWatching();
}

void FileHandle::drainWaitingData() {
    const int descriptor = descriptor_.load();
    if (descriptor < 0) return;
    int waiting = 0;
    if (::ioctl(descriptor, FIONREAD, &waiting) != 0) return;
    const std::uint64_t target = bytesRead() + static_cast<std::uint64_t>(waiting);
    while (!atEnd_.load() && bytesRead() < target) {
        const std::uint64_t before = bytesRead();
        dispatchReadable();
        if (bytesRead() == before) break;  // no handler left, or it did not read
    }
    if (waiting == 0 && !atEnd_.load()) {
        // Nothing waits; if every writer has gone, let the handler see the end of the file now.
        pollfd check{descriptor, POLLIN, 0};
        if (::poll(&check, 1, 0) == 1 && (check.revents & POLLHUP) != 0) dispatchReadable();
    }
}

// --- Pipe ---

Pipe::Pipe(Key /*key*/, std::shared_ptr<FileHandle> reading,
           std::shared_ptr<FileHandle> writing) noexcept
    : reading_(std::move(reading)), writing_(std::move(writing)) {}

std::shared_ptr<Pipe> Pipe::create() {
    int descriptors[2];
    if (::pipe2(descriptors, O_CLOEXEC) != 0) {
        throw ProcessError(ProcessError::Step::descriptor, "create a pipe", errno);
    }
    return std::make_shared<Pipe>(Key{}, FileHandle::create(descriptors[0]),
                                  FileHandle::create(descriptors[1]));
}

std::size_t Pipe::setBufferSize(std::size_t bytes) noexcept {
    const int descriptor = reading_->fileDescriptor();
    if (descriptor < 0) return 0;
    const int result = ::fcntl(descriptor, F_SETPIPE_SZ, static_cast<int>(bytes));
    const int size = result >= 0 ? result : ::fcntl(descriptor, F_GETPIPE_SZ);
    return size >= 0 ? static_cast<std::size_t>(size) : 0;
}

// --- ProcessStandardStream ---

ProcessStandardStream ProcessStandardStream::nullDevice() noexcept {
    ProcessStandardStream stream;
    stream.kind_ = Kind::nullDevice;
    return stream;
}

ProcessStandardStream ProcessStandardStream::pipe(std::shared_ptr<Pipe> pipe) noexcept {
    ProcessStandardStream stream;
    stream.kind_ = pipe ? Kind::pipe : Kind::inherit;
    stream.pipe_ = std::move(pipe);
    return stream;
}

ProcessStandardStream ProcessStandardStream::fileHandle(
    std::shared_ptr<FileHandle> handle) noexcept {
    ProcessStandardStream stream;
    stream.kind_ = handle ? Kind::fileHandle : Kind::inherit;
    stream.fileHandle_ = std::move(handle);
    return stream;
}

// --- ChildProcess ---

ChildProcess::ChildProcess(Key /*key*/) noexcept {}

ChildProcess::~ChildProcess() {
    // Only reached once the I/O thread let go, that is after the child was reaped, or when it
    // never ran.
    state_.syncWrite([](State& s) {
        if (s.pidfd >= 0) ::close(s.pidfd);
        s.pidfd = -1;
    });
}

std::shared_ptr<ChildProcess> ChildProcess::create() {
    return std::make_shared<ChildProcess>(Key{});
}

std::optional<std::string> ChildProcess::executableURL() const {
    return state_.syncRead([](const State& s) { return s.executable; });
}
void ChildProcess::setExecutableURL(std::optional<std::string> path) {
    state_.syncWrite([&](State& s) { s.executable = std::move(path); });
}
std::vector<std::string> ChildProcess::arguments() const {
    return state_.syncRead([](const State& s) { return s.arguments; });
}
void ChildProcess::setArguments(std::vector<std::string> arguments) {
    state_.syncWrite([&](State& s) { s.arguments = std::move(arguments); });
}
std::optional<ChildProcess::Environment> ChildProcess::environment() const {
    return state_.syncRead([](const State& s) { return s.environment; });
}
void ChildProcess::setEnvironment(std::optional<Environment> environment) {
    state_.syncWrite([&](State& s) { s.environment = std::move(environment); });
}
std::optional<std::string> ChildProcess::currentDirectoryURL() const {
    return state_.syncRead([](const State& s) { return s.directory; });
}
void ChildProcess::setCurrentDirectoryURL(std::optional<std::string> path) {
    state_.syncWrite([&](State& s) { s.directory = std::move(path); });
}
ProcessStandardStream ChildProcess::standardInput() const {
    return state_.syncRead([](const State& s) { return s.input; });
}
void ChildProcess::setStandardInput(ProcessStandardStream stream) {
    state_.syncWrite([&](State& s) { s.input = std::move(stream); });
}
ProcessStandardStream ChildProcess::standardOutput() const {
    return state_.syncRead([](const State& s) { return s.output; });
}
void ChildProcess::setStandardOutput(ProcessStandardStream stream) {
    state_.syncWrite([&](State& s) { s.output = std::move(stream); });
}
ProcessStandardStream ChildProcess::standardError() const {
    return state_.syncRead([](const State& s) { return s.error; });
}
void ChildProcess::setStandardError(ProcessStandardStream stream) {
    state_.syncWrite([&](State& s) { s.error = std::move(stream); });
}
QualityOfService ChildProcess::qualityOfService() const {
    return state_.syncRead([](const State& s) { return s.qos; });
}
void ChildProcess::setQualityOfService(QualityOfService qos) {
    state_.syncWrite([&](State& s) { s.qos = qos; });
}

ChildProcess::TerminationHandler ChildProcess::terminationHandler() const {
    return state_.syncRead([](const State& s) { return s.handler; });
}

void ChildProcess::setTerminationHandler(TerminationHandler handler) {
    TerminationHandler previous = state_.syncWrite([&](State& s) {
        if (s.phase == Phase::terminated) return std::move(handler);  // never called: drop it
        return std::exchange(s.handler, std::move(handler));
    });
    // `previous` (and what it captured) is released here, outside the lock.
}

void ChildProcess::setStoppedLaunchHandler(StoppedLaunchHandler handler) {
    state_.syncWrite([&](State& s) { s.stoppedLaunchHandler = std::move(handler); });
}

void ChildProcess::setLaunchGateHandler(LaunchGateHandler handler) {
    state_.syncWrite([&](State& s) { s.launchGateHandler = std::move(handler); });
}

// --- LaunchGate ---

LaunchGate::LaunchGate(LaunchGate&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)) {}

LaunchGate& LaunchGate::operator=(LaunchGate&& other) noexcept {
    if (this != &other) {
        if (descriptor_ >= 0) ::close(descriptor_);
        descriptor_ = std::exchange(other.descriptor_, -1);
    }
    return *this;
}

LaunchGate::~LaunchGate() {
    if (descriptor_ >= 0) ::close(descriptor_);
}

pid_t LaunchGate::waitForChild() {
    if (descriptor_ < 0) return 0;
    pid_t pid = 0;
    std::size_t received = 0;
    while (received < sizeof pid) {
        const ssize_t count =
            ::read(descriptor_, reinterpret_cast<char*>(&pid) + received,  // NOLINT
                   sizeof pid - received);
        if (count > 0) {
            received += static_cast<std::size_t>(count);
        } else if (count == 0 || errno != EINTR) {
            return 0;
        }
    }
    return pid;
}

void LaunchGate::open() {
    if (descriptor_ < 0) return;
    const char go = 1;
    (void)!::send(descriptor_, &go, 1, MSG_NOSIGNAL);
    ::close(std::exchange(descriptor_, -1));
}

namespace {

/// Everything `posix_spawn` needs, built before the call so that the child does no work of ours.
struct SpawnPlan {
    std::string path;
    std::vector<std::string> argumentStorage;
    std::vector<char*> argv;
    std::vector<std::string> environmentStorage;
    std::vector<char*> envp;
    bool ownEnvironment = false;
};

std::string absolutePath(const std::string& path) {
    if (path.empty() || path.front() == '/') return path;
    char buffer[4096];
    if (::getcwd(buffer, sizeof buffer) == nullptr) return path;
    std::string result(buffer);
    if (result.back() != '/') result += '/';
    return result + path;
}

/// Adds the file action that connects standard stream `number` to `stream`. Returns the
/// descriptor that this process must close after the launch (the child's end of a pipe), or -1.
std::shared_ptr<FileHandle> connectStream(posix_spawn_file_actions_t& actions, int number,
                                          const ProcessStandardStream& stream, int& result) {
    switch (stream.kind()) {
        case ProcessStandardStream::Kind::inherit:
            return nullptr;
        case ProcessStandardStream::Kind::nullDevice:
            if (result == 0) {
                result = posix_spawn_file_actions_addopen(&actions, number, "/dev/null",
                                                          number == 0 ? O_RDONLY : O_WRONLY, 0);
            }
            return nullptr;
        case ProcessStandardStream::Kind::pipe: {
            const auto& end = number == 0 ? stream.pipe()->fileHandleForReading()
                                          : stream.pipe()->fileHandleForWriting();
            const int descriptor = end->fileDescriptor();
            if (result == 0) {
                result = descriptor < 0
                             ? EBADF
                             : posix_spawn_file_actions_adddup2(&actions, descriptor, number);
            }
            return end;
        }
        case ProcessStandardStream::Kind::fileHandle: {
            const int descriptor = stream.fileHandle()->fileDescriptor();
            if (result == 0) {
                result = descriptor < 0
                             ? EBADF
                             : posix_spawn_file_actions_adddup2(&actions, descriptor, number);
            }
            return nullptr;
        }
    }
    return nullptr;
}

/// How one standard stream of a forked child is set up: -1 keeps the parent's, -2 opens the null
/// device, anything else is the descriptor to put in its place.
int forkedStreamSource(const ProcessStandardStream& stream, int number) {
    switch (stream.kind()) {
        case ProcessStandardStream::Kind::inherit:
            return -1;
        case ProcessStandardStream::Kind::nullDevice:
            return -2;
        case ProcessStandardStream::Kind::pipe:
            return number == 0 ? stream.pipe()->fileHandleForReading()->fileDescriptor()
                               : stream.pipe()->fileHandleForWriting()->fileDescriptor();
        case ProcessStandardStream::Kind::fileHandle:
            return stream.fileHandle()->fileDescriptor();
    }
    return -1;
}

/// What a child started by `spawnStopped` needs, prepared before it exists: the child shares
/// this process's memory until it runs the program, so it reads this and allocates nothing.
struct StoppedChildSetup {
    const char* path;
    char* const* argv;
    char* const* envp;
    int sources[3];
    const char* directory;
    QualityOfService qos;
    int reportDescriptor;
    /// With a launch gate: the child's end (it waits there instead of stopping) and its copy of
    /// this process's end (closed first, so that a dropped gate reads as the end of the file).
    int gateDescriptor = -1;
    int gateParentDescriptor = -1;
};

/// Fills in what the child of `spawnStopped` or `spawnGated` needs; 0, or EBADF when a standard
/// stream has no descriptor to give the child.
int prepareChildSetup(const std::string& path, char* const* argv, char* const* envp,
                      const ProcessStandardStream (&streams)[3],
                      const std::optional<std::string>& directory, QualityOfService qos,
                      StoppedChildSetup& setup) {
    setup = StoppedChildSetup{
        path.c_str(), argv, envp, {}, directory ? directory->c_str() : nullptr, qos, -1};
    for (int i = 0; i < 3; ++i) {
        setup.sources[i] = forkedStreamSource(streams[i], i);
        if (setup.sources[i] == -1 && streams[i].kind() != ProcessStandardStream::Kind::inherit) {
            return EBADF;
        }
    }
    return 0;
}

/// The child's side of `spawnStopped` and `spawnGated`. It runs in a vfork child on the spawning
/// thread's stack, with every signal blocked: only system calls, no allocation, no return.
/// Signal dispositions change through the raw system call so that no library wrapper (a
/// sanitizer's included) records the change in the memory it shares with the parent.
[[noreturn]] void runStoppedChild(const StoppedChildSetup& setup) {
    const int report = setup.reportDescriptor;
    const int gate = setup.gateDescriptor;
    auto fail = [&](int number) {
        (void)!::write(report, &number, sizeof number);
        ::_exit(127);
    };
    const auto self = static_cast<pid_t>(::syscall(SYS_getpid));
    if (gate >= 0) {
        ::close(setup.gateParentDescriptor);
    } else if (::write(report, &self, sizeof self) != sizeof self) {
        // First the pid, so that the launching thread can wait for the stop below.
        ::_exit(127);
    }
    // The kernel's sigaction: handler, flags, restorer, mask.
    struct KernelSignalAction {
        void (*handler)(int);
        unsigned long flags;
        void (*restorer)();
        std::uint64_t mask;
    } defaultAction{SIG_DFL, 0, nullptr, 0};
    for (int signal = 1; signal < NSIG; ++signal) {
        if (signal == SIGKILL || signal == SIGSTOP) continue;
        ::syscall(SYS_rt_sigaction, signal, &defaultAction, nullptr, sizeof(std::uint64_t));
    }
    for (int i = 0; i < 3; ++i) {
        int source = setup.sources[i];
        if (source == -2) source = ::open("/dev/null", i == 0 ? O_RDONLY : O_WRONLY);
        if (source == -1) continue;
        if (source < 0) fail(errno);
        if (source == i) {
            ::fcntl(i, F_SETFD, 0);
        } else if (::dup2(source, i) < 0) {
            fail(errno);
        }
    }
    if (setup.directory != nullptr && ::chdir(setup.directory) != 0) fail(errno);
    if (setup.qos == QualityOfService::utility || setup.qos == QualityOfService::background) {
        sched_param parameters{};
        ::sched_setscheduler(0, setup.qos == QualityOfService::utility ? SCHED_BATCH : SCHED_IDLE,
                             &parameters);
    }
    if (gate >= 0) {
        // Wait at the gate until the other side lets go (a byte, or its end closed). No SIGPIPE
        // if that side is gone already: blocked, it would wait for the program and kill it.
        (void)!::send(gate, &self, sizeof self, MSG_NOSIGNAL);
        char go = 0;
        while (::read(gate, &go, 1) < 0 && errno == EINTR) {
        }
    }
    // Only the three standard streams and the report pipe (closed by exec) stay open.
    if (report > 3) ::syscall(SYS_close_range, 3U, static_cast<unsigned>(report - 1), 0U);
    ::syscall(SYS_close_range, static_cast<unsigned>(report + 1), ~0U, 0U);
    const std::uint64_t noSignal = 0;
    ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &noSignal, nullptr, sizeof noSignal);
    if (gate < 0) ::syscall(SYS_kill, self, SIGSTOP);
    ::execve(setup.path, setup.argv, setup.envp);
    fail(errno);
    ::_exit(127);  // not reached: `fail` exits
}

/// vfork, the child going straight to `runStoppedChild`: the child borrows this frame's stack
/// and never returns into it.
[[gnu::noinline]] pid_t vforkStoppedChild(const StoppedChildSetup& setup) {
    const pid_t child = ::vfork();
    if (child == 0) runStoppedChild(setup);
    return child;
}

/// Reads exactly one int from `descriptor`: false at the end of the file.
bool readNumber(int descriptor, int& number) {
    ssize_t length = 0;
    while ((length = ::read(descriptor, &number, sizeof number)) < 0 && errno == EINTR) {
    }
    return length == static_cast<ssize_t>(sizeof number);
}

/// Starts the child stopped (SIGSTOP) right before it runs the program, calls `handler` with its
/// pid on this thread, then waits until the program runs (or failed to). Returns 0 or the error
/// number of the failure.
///
/// The child is a vfork child of a short-lived spawning thread: it shares this process's memory
/// until it runs the program, so the launch costs the same whatever the size of this process (a
/// fork would copy its page tables and fault on every page either side writes afterwards). vfork
/// suspends only the spawning thread, so this thread is free to attach to the stopped child.
int spawnStopped(const std::string& path, char* const* argv, char* const* envp,
                 const ProcessStandardStream (&streams)[3],
                 const std::optional<std::string>& directory, QualityOfService qos,
                 const std::function<void(pid_t)>& handler, pid_t& pid) {
    StoppedChildSetup setup{};
    if (const int error = prepareChildSetup(path, argv, envp, streams, directory, qos, setup)) {
        return error;
    }
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) return errno;
    setup.reportDescriptor = report[1];

    int spawnError = 0;
    std::thread spawner;
    try {
        spawner = std::thread([&setup, &spawnError, writeEnd = report[1]] {
            // No handler of this process may run in the child before its dispositions are reset.
            sigset_t everySignal;
            sigfillset(&everySignal);
            ::pthread_sigmask(SIG_SETMASK, &everySignal, nullptr);
            const pid_t child = ::vfork();
            if (child == 0) runStoppedChild(setup);
            if (child < 0) spawnError = errno;
            // Back here once the child runs the program or has ended. Closing our copy of the
            // write end lets the launching thread see the end of the report.
            ::close(writeEnd);
        });
    } catch (...) {
        ::close(report[0]);
        ::close(report[1]);
        return EAGAIN;
    }

    int number = 0;
    if (!readNumber(report[0], number)) {
        // No child: vfork failed.
        spawner.join();
        ::close(report[0]);
        return spawnError != 0 ? spawnError : EAGAIN;
    }
    pid = number;
    int status = 0;
    pid_t waited = 0;
    while ((waited = ::waitpid(pid, &status, WUNTRACED | __WALL)) < 0 && errno == EINTR) {
    }
    // A child that is not stopped ended while setting up (and was just reaped): its report says
    // why.
    const bool reaped = waited == pid && !WIFSTOPPED(status);
    if (waited == pid && WIFSTOPPED(status)) handler(pid);
    number = 0;
    const bool failed = readNumber(report[0], number);
    spawner.join();
    ::close(report[0]);
    if (!failed && !reaped) return 0;  // the program runs: exec closed the report pipe
    while (!reaped && ::waitpid(pid, nullptr, __WALL) < 0 && errno == EINTR) {
    }
    return number != 0 ? number : EIO;
}

/// Starts the child by vfork on this thread; it sets itself up and waits at a `LaunchGate`, which
/// `handler` hands to another thread, before it runs the program. Returns 0 once the program
/// runs, or the error number of the failure (the child, if any, was reaped).
int spawnGated(const std::string& path, char* const* argv, char* const* envp,
               const ProcessStandardStream (&streams)[3],
               const std::optional<std::string>& directory, QualityOfService qos,
               const std::function<void(LaunchGate)>& handler, pid_t& pid) {
    StoppedChildSetup setup{};
    if (const int error = prepareChildSetup(path, argv, envp, streams, directory, qos, setup)) {
        return error;
    }
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) return errno;
    int gate[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, gate) != 0) {
        const int number = errno;
        ::close(report[0]);
        ::close(report[1]);
        return number;
    }
    setup.reportDescriptor = report[1];
    setup.gateDescriptor = gate[1];
    setup.gateParentDescriptor = gate[0];
    try {
        handler(LaunchGate(gate[0]));
    } catch (...) {
        ::close(gate[1]);
        ::close(report[0]);
        ::close(report[1]);
        return ENOMEM;
    }

    // No handler of this process may run in the child before its dispositions are reset.
    sigset_t everySignal;
    sigset_t previous;
    sigfillset(&everySignal);
    ::pthread_sigmask(SIG_SETMASK, &everySignal, &previous);
    const pid_t child = vforkStoppedChild(setup);
    const int vforkError = errno;
    ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    // Back here once the child runs the program or has ended. Without our copy of its end, the
    // gate's side sees the end of the file if no child reached the gate.
    ::close(gate[1]);
    ::close(report[1]);
    if (child < 0) {
        ::close(report[0]);
        return vforkError;
    }
    pid = child;
    int number = 0;
    const bool failed = readNumber(report[0], number);
    ::close(report[0]);
    if (!failed) return 0;  // the program runs: exec closed the report pipe
    while (::waitpid(pid, nullptr, __WALL) < 0 && errno == EINTR) {
    }
    return number != 0 ? number : EIO;
}

}  // namespace

bool ChildProcess::launchAndReturnError(std::optional<Error>* error) {
    auto fail = [&](ProcessError failure) {
        if (error != nullptr) error->emplace(std::move(failure));
        return false;
    };

    // Claim the launch and take the configuration in one step.
    std::optional<State> configuration;
    std::string previousPath;
    state_.syncWrite([&](State& s) {
        if (s.phase != Phase::configuring) {
            previousPath = s.executable.value_or(std::string());
            return;
        }
        s.phase = Phase::launching;
        configuration.emplace();
        configuration->executable = s.executable;
        configuration->arguments = s.arguments;
        configuration->environment = s.environment;
        configuration->directory = s.directory;
        configuration->input = s.input;
        configuration->output = s.output;
        configuration->error = s.error;
        configuration->qos = s.qos;
        configuration->stoppedLaunchHandler = s.stoppedLaunchHandler;
        configuration->launchGateHandler = s.launchGateHandler;
    });
    if (!configuration) {
        return fail(ProcessError(ProcessError::Step::alreadyLaunched, previousPath, 0));
    }
    // A launch that fails leaves the object as it was and drops the handler, uncalled.
    auto abandon = [&](ProcessError failure) {
        TerminationHandler released;
        state_.syncWrite([&](State& s) {
            s.phase = Phase::configuring;
            released = std::move(s.handler);
            s.handler = nullptr;
        });
        return fail(std::move(failure));
    };
    if (!configuration->executable) {
        return abandon(ProcessError(ProcessError::Step::noExecutable, std::string(), 0));
    }

    SpawnPlan plan;
    plan.path = absolutePath(*configuration->executable);
    if (configuration->directory) {
        struct stat info {};
        int number = 0;
        if (::stat(configuration->directory->c_str(), &info) != 0) {
            number = errno;
        } else if (!S_ISDIR(info.st_mode)) {
            number = ENOTDIR;
        }
        if (number != 0) {
            return abandon(ProcessError(ProcessError::Step::workingDirectory, plan.path, number,
                                        *configuration->directory));
        }
    }
    plan.argumentStorage.reserve(configuration->arguments.size() + 1);
    plan.argumentStorage.push_back(plan.path);
    for (auto& argument : configuration->arguments) plan.argumentStorage.push_back(argument);
    plan.argv.reserve(plan.argumentStorage.size() + 1);
    for (auto& argument : plan.argumentStorage) plan.argv.push_back(argument.data());
    plan.argv.push_back(nullptr);
    if (configuration->environment) {
        plan.environmentStorage.reserve(configuration->environment->size());
        for (const auto& [name, value] : *configuration->environment) {
            std::string entry;
            entry.reserve(name.size() + value.size() + 1);
            entry.append(name).append(1, '=').append(value);
            plan.environmentStorage.push_back(std::move(entry));
        }
        plan.envp.reserve(plan.environmentStorage.size() + 1);
        for (auto& entry : plan.environmentStorage) plan.envp.push_back(entry.data());
        plan.envp.push_back(nullptr);
        plan.ownEnvironment = true;
    }

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    int result = 0;
    std::shared_ptr<FileHandle> childEnds[3] = {
        connectStream(actions, 0, configuration->input, result),
        connectStream(actions, 1, configuration->output, result),
        connectStream(actions, 2, configuration->error, result),
    };
    // Whatever else is open here, even without close-on-exec, stays out of the child (one
    // close_range in the child, whatever the descriptor limit).
    if (result == 0) result = posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    if (result == 0 && configuration->directory) {
        result = posix_spawn_file_actions_addchdir_np(&actions, configuration->directory->c_str());
    }
    // Default dispositions for every signal and an empty mask, whatever this process ignores or
    // blocks (a parent that ignores SIGPIPE must not hand that on).
    sigset_t everySignal;
    sigset_t noSignal;
    // Every bit, not `sigfillset`: that leaves out the two real-time signals glibc keeps for
    // itself, which its spawn would then hand to the program as ignored.
    std::memset(&everySignal, 0xFF, sizeof everySignal);
    sigemptyset(&noSignal);
    short flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
    posix_spawnattr_setsigdefault(&attributes, &everySignal);
    posix_spawnattr_setsigmask(&attributes, &noSignal);
    if (configuration->qos == QualityOfService::utility ||
        configuration->qos == QualityOfService::background) {
        sched_param parameters{};
        parameters.sched_priority = 0;
        posix_spawnattr_setschedpolicy(&attributes, configuration->qos == QualityOfService::utility
                                                        ? SCHED_BATCH
                                                        : SCHED_IDLE);
        posix_spawnattr_setschedparam(&attributes, &parameters);
        flags |= POSIX_SPAWN_SETSCHEDULER;
    }
    posix_spawnattr_setflags(&attributes, flags);

    pid_t pid = 0;
    if (result == 0 && configuration->launchGateHandler) {
        const ProcessStandardStream streams[3] = {configuration->input, configuration->output,
                                                  configuration->error};
        result = spawnGated(
            plan.path, plan.argv.data(), plan.ownEnvironment ? plan.envp.data() : environ, streams,
            configuration->directory, configuration->qos, configuration->launchGateHandler, pid);
    } else if (result == 0 && configuration->stoppedLaunchHandler) {
        const ProcessStandardStream streams[3] = {configuration->input, configuration->output,
                                                  configuration->error};
        result = spawnStopped(
            plan.path, plan.argv.data(), plan.ownEnvironment ? plan.envp.data() : environ, streams,
            configuration->directory, configuration->qos, configuration->stoppedLaunchHandler, pid);
    } else if (result == 0) {
        result = ::posix_spawn(&pid, plan.path.c_str(), &actions, &attributes, plan.argv.data(),
                               plan.ownEnvironment ? plan.envp.data() : environ);
    }
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (result != 0) return abandon(ProcessError(ProcessError::Step::launch, plan.path, result));

    const int pidfd = detail::openProcessDescriptor(pid);
    if (pidfd < 0) {
        // Without a process descriptor the child cannot be watched: end it and reap it here.
        const int number = errno;
        ::kill(pid, SIGKILL);
        while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        return abandon(ProcessError(ProcessError::Step::launch, plan.path, number));
    }
    // The child has its own copies now; ours of its pipe ends would keep readers from ever
    // seeing the end of the file.
    if (childEnds[0]) childEnds[0]->closeFile();
    if (childEnds[1]) childEnds[1]->closeFile();
    if (childEnds[2]) childEnds[2]->closeFile();

    pid_.store(pid);
    running_.store(true);
    state_.syncWrite([&](State& s) {
        s.phase = Phase::running;
        s.pidfd = pidfd;
    });
    if (!detail::ProcessIOLoop::shared().watchChild(shared_from_this(), pidfd)) {
        fatalError("The process I/O thread could not watch a child process.");
    }
    return true;
}

void ChildProcess::launch() {
    std::optional<Error> error;
    if (launchAndReturnError(&error)) return;
    if (error) error->rethrow();
}

pid_t ChildProcess::processIdentifier() const noexcept {
    return pid_.load();
}

int ChildProcess::processFileDescriptor() const noexcept {
    return state_.syncRead([](const State& s) { return s.phase == Phase::running ? s.pidfd : -1; });
}

bool ChildProcess::isRunning() const noexcept {
    return running_.load();
}

bool ChildProcess::hasTerminated() const noexcept {
    return terminated_.load();
}

int ChildProcess::terminationStatus() const {
    if (!terminated_.load()) {
        fatalError("The termination status of a child process was read before it ended.");
    }
    return state_.syncRead([](const State& s) { return s.status; });
}

ProcessTerminationReason ChildProcess::terminationReason() const {
    if (!terminated_.load()) {
        fatalError("The termination reason of a child process was read before it ended.");
    }
    return state_.syncRead([](const State& s) { return s.reason; });
}

bool ChildProcess::sendSignal(int signal) {
    // Under the lock, so that the descriptor cannot be closed (and reused) meanwhile.
    return state_.syncWrite([&](State& s) {
        if (s.phase != Phase::running || s.pidfd < 0) return false;
        return detail::sendSignalThroughDescriptor(s.pidfd, signal) == 0;
    });
}

void ChildProcess::interrupt() {
    sendSignal(SIGINT);
}

void ChildProcess::terminate() {
    sendSignal(SIGTERM);
}

void ChildProcess::terminate(TimePeriod gracePeriod) {
    if (!sendSignal(SIGTERM)) return;
    sendSignal(SIGCONT);
    std::weak_ptr<ChildProcess> weak = weak_from_this();
    detail::ProcessIOLoop::shared().schedule(gracePeriod.nanosecondCount, [weak] {
        if (auto child = weak.lock()) child->sendSignal(SIGKILL);
    });
}

bool ChildProcess::suspend() {
    return state_.syncWrite([&](State& s) {
        if (s.phase != Phase::running || s.pidfd < 0) return false;
        if (s.suspendCount == 0 && detail::sendSignalThroughDescriptor(s.pidfd, SIGSTOP) != 0)
            return false;
        ++s.suspendCount;
        return true;
    });
}

bool ChildProcess::resume() {
    return state_.syncWrite([&](State& s) {
        if (s.phase != Phase::running || s.pidfd < 0 || s.suspendCount == 0) return false;
        if (s.suspendCount == 1 && detail::sendSignalThroughDescriptor(s.pidfd, SIGCONT) != 0)
            return false;
        --s.suspendCount;
        return true;
    });
}

void ChildProcess::waitUntilExit() const {
    if (detail::ProcessIOLoop::isLoopThread()) {
        fatalError("waitUntilExit() was called on the process I/O thread, which it would block.");
    }
    while (!finished_.load()) finished_.wait(false);
}

void ChildProcess::didExit() {
    const int pidfd = state_.syncRead([](const State& s) { return s.pidfd; });
    siginfo_t info{};
    int waited = 0;
    while ((waited = ::waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(pidfd), &info,
                              WEXITED)) < 0 &&
           errno == EINTR) {
    }
    int status = info.si_status;
    ProcessTerminationReason reason = info.si_code == CLD_EXITED
                                          ? ProcessTerminationReason::exit
                                          : ProcessTerminationReason::uncaughtSignal;
    if (waited < 0) {
        // Someone else reaped it (a SIGCHLD handler of the host that waits for any child): the
        // child is gone, its status unknown.
        status = -1;
        reason = ProcessTerminationReason::exit;
    }

    // Everything the child wrote is in its pipes by now: hand it to the readability handlers
    // before anyone learns that the child ended.
    const auto [output, error] =
        state_.syncRead([](const State& s) { return std::make_pair(s.output, s.error); });
    for (const ProcessStandardStream* stream : {&output, &error}) {
        if (stream->kind() == ProcessStandardStream::Kind::pipe) {
            stream->pipe()->fileHandleForReading()->drainWaitingData();
        }
    }

    TerminationHandler handler = state_.syncWrite([&](State& s) {
        s.status = status;
        s.reason = reason;
        s.phase = Phase::terminated;
        ::close(s.pidfd);
        s.pidfd = -1;
        s.suspendCount = 0;
        return std::exchange(s.handler, nullptr);
    });
    terminated_.store(true);
    running_.store(false);
    if (handler) {
        try {
            handler(*this);
        } catch (...) {
            detail::reportHandlerFailure("termination", Error::current());
        }
    }
    handler = nullptr;  // released before waiters go on
    finished_.store(true);
    finished_.notify_all();
}

}  // namespace mirels
