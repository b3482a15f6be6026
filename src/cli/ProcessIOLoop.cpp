#include "ProcessIOLoop.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <queue>
#include <thread>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "mirels/cli/ChildProcess.h"
#include "mirels/core/FatalError.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/core/TimePeriod.h"
#include "mirels/errors/Error.h"
#include "mirels/platform/Log.h"

namespace mirels::detail {

namespace {
thread_local bool onLoopThread = false;
constexpr std::uint64_t wakeToken = 0;
}  // namespace

void reportHandlerFailure(std::string_view kind, const Error& error) {
    static const Logger log("org.mirels.foundation", "process");
    log.error("A %{public}@ handler threw and was dropped: %{public}@", kind, error.description());
}

namespace {
using LoopObject = std::variant<std::shared_ptr<ChildProcess>, std::shared_ptr<FileHandle>>;

struct LoopTimer {
    std::uint64_t deadline;
    std::uint64_t sequence;  // keeps equal deadlines in arming order
    // Shared so that the heap can copy entries; only the loop thread runs it.
    std::shared_ptr<UniqueFunction<void()>> action;
    bool operator>(const LoopTimer& other) const noexcept {
        return deadline != other.deadline ? deadline > other.deadline : sequence > other.sequence;
    }
};

struct LoopState {
    std::unordered_map<std::uint64_t, LoopObject> entries;
    std::uint64_t nextToken = 1;
    std::priority_queue<LoopTimer, std::vector<LoopTimer>, std::greater<>> timers;
    std::uint64_t timerSequence = 0;
};

}  // namespace

struct ProcessIOLoop::Impl {
    using Object = LoopObject;
    using State = LoopState;
    using Timer = LoopTimer;

    int epoll = -1;
    int wake = -1;
    ThreadSafe<State> state;

    std::uint64_t add(Object object, int descriptor) {
        const std::uint64_t token = state.syncWrite([&](State& s) {
            const std::uint64_t t = s.nextToken++;
            s.entries.emplace(t, std::move(object));
            return t;
        });
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = token;
        if (::epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event) != 0) {
            Object removed = take(token);
            (void)removed;  // released here, outside the lock
            return 0;
        }
        return token;
    }

    Object take(std::uint64_t token) {
        return state.syncWrite([&](State& s) -> Object {
            auto found = s.entries.find(token);
            if (found == s.entries.end()) return std::shared_ptr<FileHandle>();
            Object object = std::move(found->second);
            s.entries.erase(found);
            return object;
        });
    }

    void wakeUp() const {
        const std::uint64_t one = 1;
        while (::write(wake, &one, sizeof one) < 0 && errno == EINTR) {
        }
    }

    /// Milliseconds until the earliest timer (-1: none), after running the ones that are due.
    int runDueTimers() {
        for (;;) {
            const std::uint64_t now = MonotonicTimestamp::now().ticks;
            std::shared_ptr<UniqueFunction<void()>> due;
            int waitMilliseconds = -1;
            state.syncWrite([&](State& s) {
                if (s.timers.empty()) return;
                const Timer& first = s.timers.top();
                if (first.deadline <= now) {
                    due = first.action;
                    s.timers.pop();
                } else {
                    const std::uint64_t remaining = first.deadline - now;
                    waitMilliseconds = static_cast<int>((remaining + 999'999) / 1'000'000);
                }
            });
            if (!due) return waitMilliseconds;
            (*due)();
        }
    }

    void dispatch(std::uint64_t token) {
        if (token == wakeToken) {
            std::uint64_t count = 0;
            while (::read(wake, &count, sizeof count) < 0 && errno == EINTR) {
            }
            return;
        }
        Object object = state.syncRead([&](const State& s) -> Object {
            auto found = s.entries.find(token);
            if (found == s.entries.end()) return std::shared_ptr<FileHandle>();
            return found->second;
        });
        if (auto* child = std::get_if<std::shared_ptr<ChildProcess>>(&object)) {
            if (!*child) return;
            // A child ends once: its entry goes before the handler runs.
            Object released = take(token);
            (*child)->didExit();
        } else if (auto* handle = std::get_if<std::shared_ptr<FileHandle>>(&object)) {
            if (!*handle) return;
            try {
                (*handle)->dispatchReadable();
            } catch (...) {
                // A handler that throws is removed, so that it cannot spin on the same data.
                reportHandlerFailure("readability", Error::current());
                (*handle)->stopWatching();
            }
        }
    }

    void run() {
        onLoopThread = true;
        pthread_setname_np(pthread_self(), "mirels.process-io");
        constexpr int capacity = 64;
        epoll_event events[capacity];
        for (;;) {
            const int timeout = runDueTimers();
            const int count = ::epoll_wait(epoll, events, capacity, timeout);
            if (count < 0) {
                if (errno == EINTR) continue;
                fatalError("The process I/O thread could not wait for events.");
            }
            for (int i = 0; i < count; ++i) dispatch(events[i].data.u64);
        }
    }
};

ProcessIOLoop::ProcessIOLoop() : impl_(new Impl) {
    impl_->epoll = ::epoll_create1(EPOLL_CLOEXEC);
    impl_->wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (impl_->epoll < 0 || impl_->wake < 0) {
        fatalError("The process I/O thread could not create its epoll set.");
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = wakeToken;
    ::epoll_ctl(impl_->epoll, EPOLL_CTL_ADD, impl_->wake, &event);
    std::thread([impl = impl_] { impl->run(); }).detach();
}

ProcessIOLoop& ProcessIOLoop::shared() {
    // Made once and never destroyed: late children and handles may still use it at exit.
    static ProcessIOLoop* loop = new ProcessIOLoop();
    return *loop;
}

bool ProcessIOLoop::watchChild(std::shared_ptr<ChildProcess> child, int pidfd) {
    return impl_->add(std::move(child), pidfd) != 0;
}

std::uint64_t ProcessIOLoop::watchReadable(std::shared_ptr<FileHandle> handle, int descriptor) {
    return impl_->add(std::move(handle), descriptor);
}

void ProcessIOLoop::unwatch(std::uint64_t token, int descriptor) {
    if (token == 0) return;
    if (descriptor >= 0) ::epoll_ctl(impl_->epoll, EPOLL_CTL_DEL, descriptor, nullptr);
    Impl::Object released = impl_->take(token);
    (void)released;
}

void ProcessIOLoop::schedule(std::int64_t delayNanoseconds, UniqueFunction<void()> action) {
    const std::uint64_t deadline =
        MonotonicTimestamp::now().ticks +
        static_cast<std::uint64_t>(delayNanoseconds > 0 ? delayNanoseconds : 0);
    auto shared = std::make_shared<UniqueFunction<void()>>(std::move(action));
    const bool earliest = impl_->state.syncWrite([&](Impl::State& s) {
        const bool first = s.timers.empty() || deadline < s.timers.top().deadline;
        s.timers.push(Impl::Timer{deadline, s.timerSequence++, std::move(shared)});
        return first;
    });
    if (earliest && !isLoopThread()) impl_->wakeUp();
}

bool ProcessIOLoop::isLoopThread() noexcept {
    return onLoopThread;
}

}  // namespace mirels::detail
