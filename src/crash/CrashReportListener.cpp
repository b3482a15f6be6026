#include "mirels/crash/CrashReportListener.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "../core/SystemErrorText.h"
#include "mirels/core/UniqueFunction.h"
#include "mirels/platform/Log.h"

namespace mirels {

namespace {

const Logger& crashLog() {
    static const Logger logger("org.mirels.foundation", "crash");
    return logger;
}

/// One process-wide thread that waits for file events of every listener with epoll and hands
/// each readable descriptor's callback the event. Descriptors are registered one-shot: after an
/// event the owner drains the descriptor (on its own queue) and re-arms it, so a slow consumer
/// never makes this thread spin. Made on first use and never destroyed, like the worker pools.
class FileEventThread {
  public:
    static FileEventThread& shared() {
        static FileEventThread* const instance = new FileEventThread();  // never destroyed
        return *instance;
    }

    /// A fresh registration number for `add`.
    std::uint64_t nextId() {
        std::lock_guard guard(lock_);
        return ++lastId_;
    }

    /// Registers `fd` under `id` (from `nextId`, stored by the caller before this call so that
    /// the callback sees it); `onReadable` runs on this thread, must be short and must not
    /// throw. Returns false when epoll refuses the descriptor.
    bool add(std::uint64_t id, int fd, UniqueFunction<void()> onReadable) {
        std::shared_ptr<UniqueFunction<void()>> callback =
            std::make_shared<UniqueFunction<void()>>(std::move(onReadable));
        {
            std::lock_guard guard(lock_);
            callbacks_.emplace(id, std::move(callback));
        }
        epoll_event event{};
        event.events = EPOLLIN | EPOLLONESHOT;
        event.data.u64 = id;
        if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event) != 0) {
            std::lock_guard guard(lock_);
            callbacks_.erase(id);
            return false;
        }
        return true;
    }

    /// Waits for the next event of `fd` again.
    void rearm(std::uint64_t id, int fd) const {
        epoll_event event{};
        event.events = EPOLLIN | EPOLLONESHOT;
        event.data.u64 = id;
        // Fails harmlessly (ENOENT) when the descriptor was removed meanwhile.
        (void)epoll_ctl(epollFd_, EPOLL_CTL_MOD, fd, &event);
    }

    /// Stops watching `fd`; its callback is not called for events that arrive later. The caller
    /// closes the descriptor afterwards.
    void remove(std::uint64_t id, int fd) {
        (void)epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
        std::shared_ptr<UniqueFunction<void()>> callback;
        {
            std::lock_guard guard(lock_);
            auto found = callbacks_.find(id);
            if (found == callbacks_.end()) return;
            callback = std::move(found->second);
            callbacks_.erase(found);
        }
        // `callback` is released here, outside the lock.
    }

  private:
    FileEventThread() : epollFd_(epoll_create1(EPOLL_CLOEXEC)) {
        std::thread([this] { run(); }).detach();
    }

    void run() {
        pthread_setname_np(pthread_self(), "mirels.crash-watch");
        epoll_event events[32];
        while (true) {
            const int count = epoll_wait(epollFd_, events, 32, -1);
            if (count < 0) {
                if (errno == EINTR) continue;
                crashLog().fault("The crash-report watcher stopped: %{public}@",
                                 detail::systemErrorText(errno));
                return;
            }
            for (int i = 0; i < count; ++i) {
                // epoll_event is packed: copy the field out before taking references to it.
                const std::uint64_t id = events[i].data.u64;
                std::shared_ptr<UniqueFunction<void()>> callback;
                {
                    std::lock_guard guard(lock_);
                    auto found = callbacks_.find(id);
                    if (found != callbacks_.end()) callback = found->second;
                }
                if (callback) (*callback)();
            }
        }
    }

    int epollFd_;
    std::mutex lock_;
    std::uint64_t lastId_ = 0;
    std::unordered_map<std::uint64_t, std::shared_ptr<UniqueFunction<void()>>> callbacks_;
};

/// What makes a file the same file again: a report renamed into place after it was seen under
/// another name, or closed twice without a change, is handed out once.
struct FileIdentity {
    dev_t device;
    ino_t inode;
    off_t size;
    std::int64_t modifiedSeconds;
    std::int64_t modifiedNanoseconds;
    friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

struct FileIdentityHash {
    std::size_t operator()(const FileIdentity& identity) const noexcept {
        std::size_t hash = std::hash<std::uint64_t>()(identity.inode);
        hash = hash * 31 + std::hash<std::uint64_t>()(identity.device);
        hash = hash * 31 + std::hash<std::int64_t>()(identity.size);
        hash = hash * 31 + std::hash<std::int64_t>()(identity.modifiedNanoseconds);
        return hash;
    }
};

bool isReportName(std::string_view name) {
    constexpr std::string_view suffix = ".json";
    return name.size() > suffix.size() && name.front() != '.' &&
           name.substr(name.size() - suffix.size()) == suffix;
}

}  // namespace

/// The future of one request: a kind of its own, so that a cancel (by the caller or a
/// time-out) takes the request out of the listener before the future finishes canceled.
class ListenerFuture final : public AbstractFuture<CrashReport> {
  public:
    using Termination = FutureTermination<CrashReport>;

    ListenerFuture(Callsite callsite, std::weak_ptr<CrashReportListener::State> state)
        : AbstractFuture<CrashReport>(callsite), state_(std::move(state)) {}

    void setIdentifier(std::uint64_t identifier) noexcept {
        identifier_.store(identifier, std::memory_order_release);
    }

    /// Finishes the future unless it has finished (been canceled) already.
    void finish(Termination termination) {
        this->finishIfRunning(termination, [](const Termination&) {});
    }

    void cancel(Callsite callsite) override;

  private:
    std::weak_ptr<CrashReportListener::State> state_;
    std::atomic<std::uint64_t> identifier_{0};
};

struct CrashReportListener::Request {
    std::uint64_t id = 0;
    std::optional<std::string> name;
    std::optional<std::int32_t> pid;
    std::shared_ptr<ListenerFuture> future;

    bool matches(const CrashReport& report) const {
        if (name) return report.name() == *name;
        return pid && report.pid() == *pid;
    }
};

/// One inotify watch of the folder, alive from the first waiting request to the last. Owns its
/// descriptors; they close when the last user (the state, or a drain running on the queue) lets
/// go. `seen` is touched only on the listener's queue.
struct CrashReportListener::Watch {
    int inotifyFd = -1;
    int directoryFd = -1;
    std::uint64_t eventId = 0;
    timespec started{};
    std::unordered_set<FileIdentity, FileIdentityHash> seen;

    Watch() = default;
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch() {
        if (inotifyFd >= 0) close(inotifyFd);
        if (directoryFd >= 0) close(directoryFd);
    }
};

struct CrashReportListener::State : std::enable_shared_from_this<State> {
    struct Inner {
        std::vector<Request> requests;
        std::shared_ptr<Watch> watch;
        std::uint64_t lastRequestId = 0;
    };

    std::filesystem::path folder;
    std::shared_ptr<DispatchQueue> queue;
    ThreadSafe<Inner> inner{Inner{}};

    /// A new watch of the folder, registered with the event thread, or the reason it failed.
    /// Made outside the lock; events that arrive before it is installed are for files completed
    /// before the request that needs it, and are dropped by `drain`.
    std::shared_ptr<Watch> makeWatch(std::string& failure) {
        auto watch = std::make_shared<Watch>();
        clock_gettime(CLOCK_REALTIME_COARSE, &watch->started);
        watch->directoryFd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (watch->directoryFd < 0) {
            failure = "cannot open the folder: " + detail::systemErrorText(errno);
            return nullptr;
        }
        watch->inotifyFd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (watch->inotifyFd < 0) {
            failure = "cannot make an inotify instance: " + detail::systemErrorText(errno);
            return nullptr;
        }
        if (inotify_add_watch(watch->inotifyFd, folder.c_str(),
                              IN_CLOSE_WRITE | IN_MOVED_TO | IN_ONLYDIR | IN_EXCL_UNLINK) < 0) {
            failure = "cannot watch the folder: " + detail::systemErrorText(errno);
            return nullptr;
        }
        std::weak_ptr<State> weakState = weak_from_this();
        std::weak_ptr<Watch> weakWatch = watch;
        watch->eventId = FileEventThread::shared().nextId();
        const bool added =
            FileEventThread::shared().add(watch->eventId, watch->inotifyFd, [weakState, weakWatch] {
                std::shared_ptr<State> self = weakState.lock();
                std::shared_ptr<Watch> current = weakWatch.lock();
                if (!self || !current) return;
                self->queue->async([self, current] { self->drain(current); });
            });
        if (!added) {
            failure = "cannot wait for file events: " + detail::systemErrorText(errno);
            watch->eventId = 0;
            return nullptr;
        }
        return watch;
    }

    /// Unregisters and drops a watch taken out of the state (called after the lock).
    static void retire(const std::shared_ptr<Watch>& watch) {
        if (watch && watch->eventId != 0) {
            FileEventThread::shared().remove(watch->eventId, watch->inotifyFd);
        }
    }

    /// Takes the watch out of `state` when nobody waits any more; the caller retires it after
    /// the lock.
    static std::shared_ptr<Watch> takeWatchIfIdle(Inner& state) {
        if (!state.requests.empty()) return nullptr;
        return std::move(state.watch);
    }

    void removeRequest(std::uint64_t id) {
        std::shared_ptr<ListenerFuture> removed;
        std::shared_ptr<Watch> stopped = inner.syncWrite([&](Inner& state) {
            for (auto it = state.requests.begin(); it != state.requests.end(); ++it) {
                if (it->id == id) {
                    removed = std::move(it->future);
                    state.requests.erase(it);
                    break;
                }
            }
            return takeWatchIfIdle(state);
        });
        retire(stopped);
        // The future and the watch are released here, outside the lock.
    }

    /// Runs on the queue: reads the pending events, re-arms, and looks at each new file.
    void drain(const std::shared_ptr<Watch>& watch) {
        std::vector<std::string> names;
        bool overflowed = false;
        alignas(inotify_event) char buffer[16384];
        while (true) {
            const ssize_t length = read(watch->inotifyFd, buffer, sizeof buffer);
            if (length <= 0) {
                if (length < 0 && errno == EINTR) continue;
                break;
            }
            for (ssize_t offset = 0; offset < length;) {
                const auto* event = reinterpret_cast<const inotify_event*>(  // NOLINT
                    buffer + offset);
                if ((event->mask & IN_Q_OVERFLOW) != 0) overflowed = true;
                if ((event->mask & IN_IGNORED) != 0) {
                    crashLog().error("The crash-report folder %{public}@ went away",
                                     folder.string());
                }
                if (event->len > 0 && (event->mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) != 0) {
                    names.emplace_back(event->name);
                }
                offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
        }
        FileEventThread::shared().rearm(watch->eventId, watch->inotifyFd);
        if (overflowed) {
            crashLog().notice("Too many file events in %{public}@; looking at the whole folder",
                              folder.string());
            names = listFolder(*watch);
        }
        for (const std::string& name : names) {
            if (!isCurrent(watch)) return;
            if (std::optional<CrashReport> report = readReport(*watch, name, overflowed)) {
                deliver(*report);
            }
        }
    }

    bool isCurrent(const std::shared_ptr<Watch>& watch) const {
        return inner.syncRead([&](const Inner& state) { return state.watch == watch; });
    }

    std::vector<std::string> listFolder(const Watch& watch) const {
        std::vector<std::string> names;
        const int fd = openat(watch.directoryFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0) return names;
        DIR* directory = fdopendir(fd);
        if (directory == nullptr) {
            close(fd);
            return names;
        }
        while (const dirent* entry = readdir(directory)) {  // NOLINT(concurrency-mt-unsafe)
            names.emplace_back(entry->d_name);
        }
        closedir(directory);
        return names;
    }

    /// The report in the file `name`, or nothing (with the reason logged).
    std::optional<CrashReport> readReport(Watch& watch, const std::string& name,
                                          bool onlyChangedWhileWatching) const {
        if (!isReportName(name)) return std::nullopt;
        const int fd = openat(watch.directoryFd, name.c_str(),
                              O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
        if (fd < 0) {
            const int error = errno;
            if (error == ENOENT) return std::nullopt;  // renamed or removed since
            if (error == ELOOP) {
                crashLog().debug("Skipping %{public}@: a symbolic link", name);
            } else {
                crashLog().info("Skipping crash report %{public}@: %{public}@", name,
                                detail::systemErrorText(error));
            }
            return std::nullopt;
        }
        struct Closer {
            int fd;
            ~Closer() { close(fd); }
        } closer{fd};
        struct stat status {};
        if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
            crashLog().debug("Skipping %{public}@: not a regular file", name);
            return std::nullopt;
        }
        if (status.st_size < 0 || static_cast<std::size_t>(status.st_size) > maximumReportSize) {
            crashLog().info("Skipping crash report %{public}@: %lld bytes is over the limit", name,
                            static_cast<long long>(status.st_size));
            return std::nullopt;
        }
        const FileIdentity identity{status.st_dev, status.st_ino, status.st_size,
                                    status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
        // After an overflow the whole folder is listed: only files changed while watching count.
        if (onlyChangedWhileWatching && (status.st_mtim.tv_sec < watch.started.tv_sec ||
                                         (status.st_mtim.tv_sec == watch.started.tv_sec &&
                                          status.st_mtim.tv_nsec < watch.started.tv_nsec))) {
            return std::nullopt;
        }
        if (!watch.seen.insert(identity).second) return std::nullopt;

        std::string text(static_cast<std::size_t>(status.st_size), '\0');
        std::size_t filled = 0;
        while (filled < text.size()) {
            const ssize_t got = read(fd, text.data() + filled, text.size() - filled);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) break;
            filled += static_cast<std::size_t>(got);
        }
        text.resize(filled);
        try {
            return CrashReport::decode(text);
        } catch (const JsonDecodingError& error) {
            crashLog().debug("Unable to parse crash report");
            crashLog().debug("%{public}@: %{public}@", name,
                             error.additionalInfo().value_or(std::string()));
        } catch (const std::exception& error) {
            crashLog().debug("Unable to parse crash report");
            crashLog().debug("%{public}@: %{public}@", name, std::string_view(error.what()));
        }
        return std::nullopt;
    }

    /// Answers the oldest request the report matches, if any.
    void deliver(const CrashReport& report) {
        std::shared_ptr<ListenerFuture> future;
        std::shared_ptr<Watch> stopped = inner.syncWrite([&](Inner& state) {
            for (auto it = state.requests.begin(); it != state.requests.end(); ++it) {
                if (it->matches(report)) {
                    future = std::move(it->future);
                    state.requests.erase(it);
                    break;
                }
            }
            return takeWatchIfIdle(state);
        });
        retire(stopped);
        if (future) future->finish(ListenerFuture::Termination::succeeded(report));
    }
};

CrashReportListener::CrashReportListener(std::filesystem::path folder)
    : folder_(std::move(folder)), state_(std::make_shared<State>()) {
    state_->folder = folder_;
    state_->queue =
        DispatchQueue::create("org.mirels.foundation.crash-reports", QualityOfService::utility);
}

CrashReportListener::~CrashReportListener() {
    // Waiting requests end canceled; the watch goes with them.
    std::vector<Request> requests;
    std::shared_ptr<Watch> stopped = state_->inner.syncWrite([&](State::Inner& state) {
        requests = std::move(state.requests);
        state.requests.clear();
        return State::takeWatchIfIdle(state);
    });
    State::retire(stopped);
    for (Request& request : requests) {
        if (request.future) request.future->cancel(Callsite::library("~CrashReportListener()"));
    }
}

std::filesystem::path CrashReportListener::defaultFolder() {
    // Read when asked; the library never changes the environment.
    const char* state = getenv("XDG_STATE_HOME");  // NOLINT(concurrency-mt-unsafe)
    std::filesystem::path base;
    if (state != nullptr && state[0] == '/') {
        base = state;
    } else {
        const char* home = getenv("HOME");  // NOLINT(concurrency-mt-unsafe)
        base = std::filesystem::path(home != nullptr ? home : "/tmp") / ".local" / "state";
    }
    return base / "mirels" / "crash-reports";
}

std::shared_ptr<CrashReportListener> CrashReportListener::create(
    std::optional<std::filesystem::path> folder) {
    std::filesystem::path path = folder ? std::move(*folder) : defaultFolder();
    std::error_code error;
    if (!std::filesystem::exists(path, error)) {
        if (std::filesystem::create_directories(path, error)) {
            std::filesystem::permissions(path, std::filesystem::perms::owner_all,
                                         std::filesystem::perm_options::replace, error);
        }
    }
    return std::shared_ptr<CrashReportListener>(new CrashReportListener(std::move(path)));
}

Future<CrashReport> CrashReportListener::nextReport(std::string processName, Callsite callsite) {
    Request request;
    request.name = std::move(processName);
    return wait(std::move(request), callsite);
}

Future<CrashReport> CrashReportListener::nextReport(std::int32_t pid, Callsite callsite) {
    Request request;
    request.pid = pid;
    return wait(std::move(request), callsite);
}

void ListenerFuture::cancel(Callsite callsite) {
    const std::uint64_t identifier = identifier_.load(std::memory_order_acquire);
    if (auto state = state_.lock(); state && identifier != 0) state->removeRequest(identifier);
    finish(Termination::canceled(callsite));
}

Future<CrashReport> CrashReportListener::wait(Request request, Callsite callsite) {
    auto future = std::make_shared<ListenerFuture>(callsite, std::weak_ptr<State>(state_));
    request.future = future;
    std::string failure;
    std::uint64_t id = 0;
    std::shared_ptr<Watch> fresh;
    // The watch is made outside the lock; when another request installed one meanwhile, ours is
    // not needed, and when the watch went away meanwhile, another is made.
    while (id == 0 && failure.empty()) {
        const bool needsWatch =
            state_->inner.syncRead([](const State::Inner& state) { return !state.watch; });
        if (needsWatch && !fresh) {
            fresh = state_->makeWatch(failure);
            if (!fresh) break;
        }
        id = state_->inner.syncWrite([&](State::Inner& state) -> std::uint64_t {
            if (!state.watch) {
                if (!fresh) return 0;
                state.watch = std::move(fresh);
            }
            request.id = ++state.lastRequestId;
            future->setIdentifier(request.id);
            state.requests.push_back(std::move(request));
            return state.lastRequestId;
        });
    }
    State::retire(fresh);
    fresh.reset();
    if (id == 0) {
        future->finish(ListenerFuture::Termination::failed(
            Error(CrashReportListenerError(folder_.string(), failure))));
    }
    return Future<CrashReport>(std::move(future));
}

bool CrashReportListener::isWatching() const {
    return state_->inner.syncRead([](const State::Inner& state) { return state.watch != nullptr; });
}

std::size_t CrashReportListener::waitingCount() const {
    return state_->inner.syncRead([](const State::Inner& state) { return state.requests.size(); });
}

}  // namespace mirels
