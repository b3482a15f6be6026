#include "mirels/crash/CrashReporter.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <fstream>
#include <set>
#include <thread>

#include "../core/SystemErrorText.h"
#include "../platform/ProcessDescriptor.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/crash/CrashReportListener.h"

namespace mirels {

namespace {

using Clock = std::chrono::steady_clock;

std::int64_t nanosecondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(to - from).count();
}

PlistDate now() {
    // Seconds between 1970-01-01 and 2001-01-01, the reference date of report times.
    constexpr double referenceDateOffset = 978307200.0;
    timespec time{};
    ::clock_gettime(CLOCK_REALTIME, &time);
    return PlistDate{static_cast<double>(time.tv_sec) - referenceDateOffset +
                     static_cast<double>(time.tv_nsec) / 1e9};
}

/// The last lines a child wrote to its standard error, bounded in count and length.
class StandardErrorTail {
  public:
    explicit StandardErrorTail(std::size_t lineCount) : lineCount_(lineCount) {}

    void append(std::string_view data) {
        for (char c : data) {
            if (c == '\n') {
                push(std::move(partial_));
                partial_.clear();
            } else if (partial_.size() < maximumLineLength) {
                partial_.push_back(c);
            }
        }
    }

    std::vector<std::string> lines() const {
        std::vector<std::string> result(lines_.begin(), lines_.end());
        if (!partial_.empty()) {
            result.push_back(partial_);
            if (result.size() > lineCount_) result.erase(result.begin());
        }
        return result;
    }

  private:
    static constexpr std::size_t maximumLineLength = 4096;

    void push(std::string line) {
        if (lineCount_ == 0) return;
        lines_.push_back(std::move(line));
        while (lines_.size() > lineCount_) lines_.pop_front();
    }

    std::size_t lineCount_;
    std::deque<std::string> lines_;
    std::string partial_;
};

void writeAll(int descriptor, std::string_view data) {
    while (!data.empty()) {
        const ssize_t written = ::write(descriptor, data.data(), data.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return;
        }
        data.remove_prefix(static_cast<std::size_t>(written));
    }
}

/// Whether `signal` would take its default action in `pid`: neither ignored nor caught, as
/// /proc/<pid>/status says.
bool hasDefaultAction(pid_t pid, int signal) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    const std::uint64_t bit = std::uint64_t{1} << (signal - 1);
    bool defaultAction = true;
    while (std::getline(status, line)) {
        if (line.starts_with("SigIgn:") || line.starts_with("SigCgt:")) {
            const std::uint64_t mask = std::strtoull(line.c_str() + 7, nullptr, 16);
            if ((mask & bit) != 0) defaultAction = false;
        }
    }
    return defaultAction;
}

std::string signalCodeName(int signal, int code) {
    switch (code) {
        case SI_USER:
            return "SI_USER";
        case SI_TKILL:
            return "SI_TKILL";
        case SI_QUEUE:
            return "SI_QUEUE";
        default:
            break;
    }
    switch (signal) {
        case SIGSEGV:
            if (code == SEGV_MAPERR) return "SEGV_MAPERR";
            if (code == SEGV_ACCERR) return "SEGV_ACCERR";
            break;
        case SIGBUS:
            if (code == BUS_ADRALN) return "BUS_ADRALN";
            if (code == BUS_ADRERR) return "BUS_ADRERR";
            if (code == BUS_OBJERR) return "BUS_OBJERR";
            break;
        case SIGILL:
            if (code == ILL_ILLOPC) return "ILL_ILLOPC";
            if (code == ILL_ILLOPN) return "ILL_ILLOPN";
            if (code == ILL_PRVOPC) return "ILL_PRVOPC";
            break;
        case SIGFPE:
            if (code == FPE_INTDIV) return "FPE_INTDIV";
            if (code == FPE_INTOVF) return "FPE_INTOVF";
            if (code == FPE_FLTDIV) return "FPE_FLTDIV";
            break;
        case SIGTRAP:
            if (code == TRAP_BRKPT) return "TRAP_BRKPT";
            break;
        default:
            break;
    }
    return std::to_string(code);
}

/// "SIGSEGV (Segmentation fault)", then ", code SEGV_MAPERR, address 0x0" when the signal's
/// details are known.
std::string signalLine(int signal, const siginfo_t* info) {
    std::string line = CrashReporter::signalName(signal);
    if (const char* description = ::sigdescr_np(signal)) {
        line.append(" (").append(description).append(")");
    }
    if (info != nullptr) {
        line.append(", code ").append(signalCodeName(signal, info->si_code));
        const bool faulted = info->si_code > 0 && (signal == SIGSEGV || signal == SIGBUS ||
                                                   signal == SIGILL || signal == SIGFPE);
        if (faulted) {
            char address[32];
            std::snprintf(address, sizeof address, "%#lx",
                          reinterpret_cast<unsigned long>(info->si_addr));  // NOLINT
            line.append(", address ").append(info->si_addr == nullptr ? "0x0" : address);
        }
    }
    return line;
}

std::string fileNameOf(const std::string& path) {
    const auto slash = path.find_last_not_of('/');
    if (slash == std::string::npos) return path;
    const auto start = path.rfind('/', slash);
    return path.substr(start == std::string::npos ? 0 : start + 1,
                       slash - (start == std::string::npos ? 0 : start + 1) + 1);
}

/// `name` made safe as the start of a file name: no slashes, no leading dot, not empty.
std::string reportNameStem(const std::string& name) {
    std::string stem;
    for (char c : name) stem.push_back(c == '/' || c == '\0' ? '_' : c);
    if (stem.empty() || stem.front() == '.') stem.insert(stem.begin(), '_');
    if (stem.size() > 100) stem.resize(100);
    return stem;
}

void makeFolder(const std::filesystem::path& folder) {
    std::error_code ignored;
    if (std::filesystem::is_directory(folder, ignored)) return;
    if (folder.has_parent_path() && folder.parent_path() != folder) {
        makeFolder(folder.parent_path());
    }
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        throw CrashReportWriteError("create the folder", folder.string(), errno);
    }
}

}  // namespace

// --- errors ---

CrashReportWriteError::CrashReportWriteError(std::string operation, std::string path,
                                             int systemErrorNumber)
    : operation_(std::move(operation)), path_(std::move(path)), errno_(systemErrorNumber) {
    info_ = "Could not " + operation_ + " " + path_ + ": " + detail::systemErrorText(errno_) + ".";
}

std::optional<std::string> CrashReportWriteError::highValueTitle() const {
    return "Unable to write a crash report";
}

std::optional<std::string> CrashReportWriteError::additionalInfo() const {
    return info_;
}

// --- CrashReporter ---

CrashReporter::CrashReporter(Configuration configuration)
    : configuration_(std::move(configuration)) {}

std::shared_ptr<CrashReporter> CrashReporter::create(std::optional<std::filesystem::path> folder) {
    Configuration configuration;
    configuration.folder = folder ? std::move(*folder) : CrashReportListener::defaultFolder();
    return create(std::move(configuration));
}

std::shared_ptr<CrashReporter> CrashReporter::create(Configuration configuration) {
    if (configuration.folder.empty()) configuration.folder = CrashReportListener::defaultFolder();
    return std::make_shared<CrashReporter>(std::move(configuration));
}

std::string CrashReporter::signalName(int signal) {
    if (const char* abbreviation = ::sigabbrev_np(signal)) {
        return std::string("SIG") + abbreviation;
    }
    return "signal " + std::to_string(signal);
}

bool CrashReporter::isCrashSignal(int signal) noexcept {
    switch (signal) {
        case SIGSEGV:
        case SIGBUS:
        case SIGILL:
        case SIGFPE:
        case SIGABRT:
        case SIGTRAP:
            return true;
        default:
            return false;
    }
}

std::filesystem::path CrashReporter::write(const CrashReport& report) const {
    const std::filesystem::path& folder = configuration_.folder;
    makeFolder(folder);
    const std::string stem = reportNameStem(report.name());
    const std::string text = report.jsonText();

    // The temporary file: hidden (the listener skips it), only ours, never an existing file.
    std::string temporary;
    int descriptor = -1;
    for (int attempt = 0; descriptor < 0; ++attempt) {
        temporary = (folder / ("." + stem + "." + std::to_string(report.pid()) + "." +
                               std::to_string(::getpid()) + "." + std::to_string(attempt) + ".tmp"))
                        .string();
        descriptor = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (descriptor < 0 && (errno != EEXIST || attempt > 1000)) {
            throw CrashReportWriteError("create", temporary, errno);
        }
    }
    auto failWith = [&](const char* operation, const std::string& path) {
        const int number = errno;
        if (descriptor >= 0) ::close(descriptor);
        ::unlink(temporary.c_str());
        throw CrashReportWriteError(operation, path, number);
    };
    std::string_view rest = text;
    while (!rest.empty()) {
        const ssize_t written = ::write(descriptor, rest.data(), rest.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            failWith("write", temporary);
        }
        rest.remove_prefix(static_cast<std::size_t>(written));
    }
    if (::fsync(descriptor) != 0) failWith("sync", temporary);
    if (::close(descriptor) != 0) {
        descriptor = -1;
        failWith("close", temporary);
    }
    descriptor = -1;

    // The final name: the time of the crash (UTC) and the pid; a number when that is taken.
    const auto unixSeconds =
        static_cast<std::time_t>(report.time().secondsSinceReferenceDate + 978307200.0);
    std::tm parts{};
    ::gmtime_r(&unixSeconds, &parts);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%d-%H%M%S", &parts);
    const std::string base = stem + "-" + date + "-" + std::to_string(report.pid());
    std::filesystem::path final;
    for (int number = 1;; ++number) {
        final =
            folder / (number == 1 ? base + ".json" : base + "-" + std::to_string(number) + ".json");
        if (::renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, final.c_str(), RENAME_NOREPLACE) ==
            0) {
            break;
        }
        if (errno != EEXIST || number > 1000) failWith("rename into place", final.string());
    }
    const int folderDescriptor = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folderDescriptor < 0 || ::fsync(folderDescriptor) != 0) {
        const int number = errno;
        if (folderDescriptor >= 0) ::close(folderDescriptor);
        throw CrashReportWriteError("sync the folder", folder.string(), number);
    }
    ::close(folderDescriptor);
    return final;
}

// --- supervision ---

struct SupervisedProcess::Shared {
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    /// Set by the launching thread once the launch is over, `launchFailed` when it failed.
    bool launched = false;
    bool launchFailed = false;
    bool done = false;
    CrashOutcome outcome;
    ThreadSafe<StandardErrorTail> tail{StandardErrorTail(0)};
};

const CrashOutcome& SupervisedProcess::waitUntilDone() const {
    std::unique_lock lock(shared_->mutex);
    shared_->changed.wait(lock, [&] { return shared_->done; });
    return shared_->outcome;
}

std::optional<CrashOutcome> SupervisedProcess::waitUntilDone(
    std::chrono::milliseconds timeout) const {
    std::unique_lock lock(shared_->mutex);
    if (!shared_->changed.wait_for(lock, timeout, [&] { return shared_->done; })) {
        return std::nullopt;
    }
    return shared_->outcome;
}

bool SupervisedProcess::isDone() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->done;
}

namespace {

/// What the tracing thread learned at the fatal signal.
struct Capture {
    Clock::time_point stoppedAt;
    int signal = 0;
    std::optional<siginfo_t> info;
    detail::CrashSnapshot snapshot;
    std::int64_t unwindNanoseconds = 0;
};

bool isGroupStopSignal(int signal) {
    return signal == SIGSTOP || signal == SIGTSTP || signal == SIGTTIN || signal == SIGTTOU;
}

/// Follows one traced child until it has died (its last thread's exit is waiting to be reaped,
/// which the process I/O thread does). Runs on the thread that seized it.
///
/// Only this thread's own tracees are waited for (`__WNOTHREAD`): the child and its threads.
class Tracer {
  public:
    explicit Tracer(pid_t pid) : pid_(pid) {}

    std::optional<Capture> run(int pidfd) {
        for (;;) {
            siginfo_t info{};
            // Peek only: an exit of the whole process is left for the process I/O thread to reap.
            if (::waitid(P_ALL, 0, &info, WEXITED | WSTOPPED | WNOWAIT | __WALL | __WNOTHREAD) <
                0) {
                if (errno == EINTR) continue;
                break;  // ECHILD: nothing of ours is left
            }
            const pid_t tid = info.si_pid;
            if (info.si_code == CLD_TRAPPED || info.si_code == CLD_STOPPED) {
                handleStop(tid);
                continue;
            }
            if (tid != pid_) {
                // Another thread ended: release it.
                siginfo_t ignored{};
                ::waitid(P_PID, static_cast<id_t>(tid), &ignored, WEXITED | __WALL | WNOHANG);
                threads_.erase(tid);
                continue;
            }
            // The first thread is gone. The process has died once its descriptor is readable;
            // until then (it ended early, others run on) follow the other threads one by one.
            if (processHasEnded(pidfd)) break;
            followRemainingThreads(pidfd);
            break;
        }
        return std::move(capture_);
    }

  private:
    static bool processHasEnded(int pidfd) {
        pollfd entry{.fd = pidfd, .events = POLLIN, .revents = 0};
        return ::poll(&entry, 1, 0) > 0;
    }

    void followRemainingThreads(int pidfd) {
        while (!processHasEnded(pidfd)) {
            bool progressed = false;
            for (auto it = threads_.begin(); it != threads_.end();) {
                siginfo_t info{};
                const pid_t tid = *it;
                ++it;
                if (::waitid(P_PID, static_cast<id_t>(tid), &info,
                             WSTOPPED | WNOWAIT | WNOHANG | __WALL) == 0 &&
                    info.si_pid == tid) {
                    handleStop(tid);
                    progressed = true;
                } else if (errno == ECHILD) {
                    threads_.erase(tid);
                }
            }
            if (!progressed) {
                pollfd entry{.fd = pidfd, .events = POLLIN, .revents = 0};
                ::poll(&entry, 1, 1);
            }
        }
    }

    void handleStop(pid_t tid) {
        siginfo_t stop{};
        // Consume the stop without touching exits; a stop that vanished (SIGKILL) is skipped.
        if (::waitid(P_PID, static_cast<id_t>(tid), &stop, WSTOPPED | WNOHANG | __WALL) != 0 ||
            stop.si_pid != tid) {
            return;
        }
        threads_.insert(tid);
        const int code = stop.si_status;
        const int signal = code & 0xFF;
        const int event = (code >> 8) & 0xFF;
        if (event == PTRACE_EVENT_STOP) {
            // A group stop is kept (until SIGCONT) as it would be without tracing; a new
            // thread's first stop or an interrupt just goes on.
            if (isGroupStopSignal(signal)) {
                ::ptrace(PTRACE_LISTEN, tid, nullptr, nullptr);
            } else {
                ::ptrace(PTRACE_CONT, tid, nullptr, nullptr);
            }
            return;
        }
        if (event != 0) {
            if (event == PTRACE_EVENT_CLONE) {
                unsigned long newThread = 0;
                if (::ptrace(PTRACE_GETEVENTMSG, tid, nullptr, &newThread) == 0) {
                    threads_.insert(static_cast<pid_t>(newThread));
                }
            }
            ::ptrace(PTRACE_CONT, tid, nullptr, nullptr);
            return;
        }
        // A signal is about to be delivered: a crash when it is fatal and not handled.
        if (!capture_ && CrashReporter::isCrashSignal(signal) && hasDefaultAction(pid_, signal)) {
            Capture capture;
            capture.stoppedAt = Clock::now();
            capture.signal = signal;
            siginfo_t details{};
            if (::ptrace(PTRACE_GETSIGINFO, tid, nullptr, &details) == 0) capture.info = details;
            capture.snapshot = detail::unwindStoppedThread(pid_, tid);
            capture.unwindNanoseconds = nanosecondsBetween(capture.stoppedAt, Clock::now());
            capture_ = std::move(capture);
        }
        ::ptrace(PTRACE_CONT, tid, nullptr,
                 reinterpret_cast<void*>(static_cast<std::intptr_t>(signal)));  // NOLINT
    }

    pid_t pid_;
    std::set<pid_t> threads_;
    std::optional<Capture> capture_;
};

bool mentionsLoaderRefusal(const std::vector<std::string>& lines) {
    for (const auto& line : lines) {
        if (line.find("error while loading shared libraries") != std::string::npos) return true;
    }
    return false;
}

}  // namespace

namespace {

/// One supervised child, from its launch to its outcome.
struct Supervision {
    std::shared_ptr<SupervisedProcess::Shared> shared;
    std::shared_ptr<ChildProcess> child;
    CrashReporter::Configuration configuration;
    ProcessStandardStream destination;
    std::shared_ptr<Pipe> pipe;
    /// Where the child waits before it runs the program (traced launches only).
    LaunchGate gate;
};

/// Seizes the child at its launch gate and lets it go on to the program. The pid and a process
/// descriptor of our own (the child's closes when it is reaped), or nothing when there is no
/// child or ptrace is refused: then the child runs untraced.
std::optional<std::pair<pid_t, int>> seizeAtGate(LaunchGate& gate) {
    const pid_t pid = gate.waitForChild();
    if (pid == 0) return std::nullopt;
    std::optional<std::pair<pid_t, int>> seized;
    const int pidfd = detail::openProcessDescriptor(pid);
    if (pidfd >= 0) {
        // No stop for the exec: the child runs the program as soon as the gate opens.
        const auto options = PTRACE_O_EXITKILL | PTRACE_O_TRACECLONE;
        if (::ptrace(PTRACE_SEIZE, pid, nullptr,
                     reinterpret_cast<void*>(static_cast<std::intptr_t>(options))) ==  // NOLINT
            0) {
            seized.emplace(pid, pidfd);
        } else {
            ::close(pidfd);
        }
    }
    gate.open();
    return seized;
}

/// Follows the child to its end and writes its report, if it crashed. On a supervising thread.
void supervise(Supervision& job) {
    std::optional<std::pair<pid_t, int>> seized;
    if (job.configuration.trace) {
        seized = seizeAtGate(job.gate);
        job.gate = LaunchGate();
    }
    std::optional<Capture> capture;
    if (seized) {
        // Following the child needs nothing from the launching thread; a child whose program
        // could not run ends here, and the launching thread reaps it.
        capture = Tracer(seized->first).run(seized->second);
        ::close(seized->second);
    }
    SupervisedProcess::Shared& shared = *job.shared;
    {
        std::unique_lock lock(shared.mutex);
        shared.changed.wait(lock, [&] { return shared.launched; });
        if (shared.launchFailed) return;
    }

    ChildProcess& child = *job.child;
    child.waitUntilExit();
    CrashOutcome outcome;
    outcome.traced = seized.has_value();
    outcome.reason = child.terminationReason();
    outcome.status = child.terminationStatus();

    // A clean run costs nothing more: names, lines and reports are made for crashes only.
    const bool crashed = outcome.reason == ProcessTerminationReason::uncaughtSignal &&
                         CrashReporter::isCrashSignal(outcome.status);
    const bool mayBeLoaderRefusal =
        outcome.reason == ProcessTerminationReason::exit && outcome.status == 127;
    std::optional<CrashReport> report;
    if (crashed || mayBeLoaderRefusal) {
        const auto lines =
            shared.tail.syncRead([](const StandardErrorTail& t) { return t.lines(); });
        const std::string name = fileNameOf(child.executableURL().value_or(std::string()));
        const pid_t pid = child.processIdentifier();
        CrashReport::ApplicationSpecificInformation asi;
        asi.updateValue(lines, std::string(CrashReporter::standardErrorKey));
        if (crashed) {
            const int signal = outcome.status;
            const siginfo_t* info = capture && capture->info ? &*capture->info : nullptr;
            asi.updateValue({signalLine(signal, info)}, std::string(CrashReporter::signalKey));
            report.emplace(
                name, std::string(CrashReporter::fatalSignalBugType), pid, now(), std::move(asi),
                capture ? std::move(capture->snapshot.images) : std::vector<CrashReport::Image>(),
                capture ? std::move(capture->snapshot.frames) : std::vector<CrashReport::Frame>(),
                std::nullopt);
        } else if (mentionsLoaderRefusal(lines)) {
            report.emplace(name, std::string(CrashReporter::libraryLoadBugType), pid, now(),
                           std::move(asi), std::vector<CrashReport::Image>(),
                           std::vector<CrashReport::Frame>(), std::nullopt);
        }
    }
    if (report) {
        try {
            outcome.reportPath = CrashReporter(job.configuration).write(*report);
        } catch (...) {
            outcome.writeError = Error::current();
        }
        outcome.report = std::move(report);
        if (capture) {
            outcome.timings.unwindNanoseconds = capture->unwindNanoseconds;
            outcome.timings.signalToReportNanoseconds =
                nanosecondsBetween(capture->stoppedAt, Clock::now());
        }
    }
    // A pipe the caller gave for standard error ends with the child.
    if (job.destination.kind() == ProcessStandardStream::Kind::pipe) {
        job.destination.pipe()->fileHandleForWriting()->closeFile();
    }
    std::lock_guard lock(shared.mutex);
    shared.outcome = std::move(outcome);
    shared.done = true;
    shared.changed.notify_all();
}

/// The supervising threads ("mirels.crash-tr"): each follows one child at a time, from before it
/// runs the program to its report, then waits for the next. A thread is started only when none
/// is free; a few stay for later launches, the rest end. Made once and never destroyed, like
/// the process I/O thread: supervision may outlast everything else at exit.
class SupervisorPool {
  public:
    static SupervisorPool& shared() {
        static auto* pool = new SupervisorPool();
        return *pool;
    }

    void start(std::shared_ptr<Supervision> job) {
        bool startThread = false;
        {
            std::lock_guard lock(mutex_);
            jobs_.push_back(std::move(job));
            startThread = jobs_.size() > waiting_;
        }
        if (startThread) {
            std::thread([this] { work(); }).detach();
        } else {
            wake_.notify_one();
        }
    }

  private:
    /// How many free threads stay for later launches.
    static constexpr std::size_t keptThreads = 2;

    void work() {
        ::pthread_setname_np(::pthread_self(), "mirels.crash-tr");
        std::unique_lock lock(mutex_);
        for (;;) {
            while (!jobs_.empty()) {
                std::shared_ptr<Supervision> job = std::move(jobs_.front());
                jobs_.pop_front();
                lock.unlock();
                supervise(*job);
                job.reset();
                lock.lock();
            }
            if (waiting_ >= keptThreads) return;
            ++waiting_;
            wake_.wait(lock, [&] { return !jobs_.empty(); });
            --waiting_;
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::shared_ptr<Supervision>> jobs_;
    std::size_t waiting_ = 0;
};

}  // namespace

SupervisedProcess CrashReporter::launch(std::shared_ptr<ChildProcess> child) const {
    auto shared = std::make_shared<SupervisedProcess::Shared>();
    shared->tail.syncWrite([&](StandardErrorTail& tail) {
        tail = StandardErrorTail(configuration_.standardErrorLineCount);
    });

    // Standard error through our pipe; what arrives goes on to where it was meant to go.
    const ProcessStandardStream destination = child->standardError();
    auto pipe = Pipe::create();
    pipe->fileHandleForReading()->setReadabilityHandler([shared, destination](FileHandle& handle) {
        const std::string data = handle.availableData();
        if (data.empty()) return;
        shared->tail.syncWrite([&](StandardErrorTail& tail) { tail.append(data); });
        try {
            switch (destination.kind()) {
                case ProcessStandardStream::Kind::inherit:
                    writeAll(STDERR_FILENO, data);
                    break;
                case ProcessStandardStream::Kind::nullDevice:
                    break;
                case ProcessStandardStream::Kind::pipe:
                    destination.pipe()->fileHandleForWriting()->write(data);
                    break;
                case ProcessStandardStream::Kind::fileHandle:
                    destination.fileHandle()->write(data);
                    break;
            }
        } catch (...) {
            // A reader that went away loses the rest; the report still gets the lines.
        }
    });
    child->setStandardError(ProcessStandardStream::pipe(pipe));

    auto job = std::make_shared<Supervision>();
    job->shared = shared;
    job->child = child;
    job->configuration = configuration_;
    job->destination = destination;
    job->pipe = pipe;
    // A traced child waits, set up, just before it runs the program, until a supervising thread
    // has seized it: even a crash in its first instructions is seen, and no stop is needed.
    bool started = false;
    if (configuration_.trace) {
        child->setLaunchGateHandler([&job, &started](LaunchGate gate) {
            job->gate = std::move(gate);
            started = true;
            SupervisorPool::shared().start(job);
        });
    }
    std::optional<Error> launchError;
    const bool launched = child->launchAndReturnError(&launchError);
    if (configuration_.trace) child->setLaunchGateHandler(nullptr);
    if (!launched) pipe->fileHandleForReading()->closeFile();
    {
        std::lock_guard lock(shared->mutex);
        shared->launched = true;
        shared->launchFailed = !launched;
    }
    shared->changed.notify_all();
    if (!launched) {
        if (launchError) launchError->rethrow();
        throw ProcessError(ProcessError::Step::launch, child->executableURL().value_or(""), EIO);
    }
    if (!started) SupervisorPool::shared().start(std::move(job));
    return SupervisedProcess(std::move(child), std::move(shared));
}

}  // namespace mirels
