#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "mirels/core/UniqueFunction.h"

namespace mirels {
class ChildProcess;
class FileHandle;
}  // namespace mirels

namespace mirels {
class Error;
}

namespace mirels::detail {

/// Logs that a handler run by the process I/O thread threw `error`.
void reportHandlerFailure(std::string_view kind, const Error& error);

/// The one thread ("mirels.process-io") that waits on running children (their process file
/// descriptors) and on file handles with readability handlers, with one epoll set, and runs
/// short timed actions (the forced kill after a polite terminate). Started on first use and
/// never stopped, so that process exit never races it.
///
/// Entries are named by tokens, never by descriptor numbers, so a descriptor that is closed and
/// reused while an event for it is in flight is never confused with its successor.
class ProcessIOLoop {
  public:
    static ProcessIOLoop& shared();

    /// Holds `child` until its process file descriptor `pidfd` becomes readable, then calls its
    /// `didExit()` once on the loop thread. Returns false when epoll refuses the descriptor.
    bool watchChild(std::shared_ptr<ChildProcess> child, int pidfd);

    /// Holds `handle` and calls its `dispatchReadable()` while `descriptor` is readable, until
    /// `unwatch(token)`. Returns the token, 0 when epoll refuses the descriptor.
    std::uint64_t watchReadable(std::shared_ptr<FileHandle> handle, int descriptor);

    /// Stops watching; the entry's object is released outside the loop's lock.
    void unwatch(std::uint64_t token, int descriptor);

    /// Runs `action` on the loop thread after `delay`.
    void schedule(std::int64_t delayNanoseconds, UniqueFunction<void()> action);

    /// Whether the calling thread is the loop thread.
    static bool isLoopThread() noexcept;

    ProcessIOLoop(const ProcessIOLoop&) = delete;
    ProcessIOLoop& operator=(const ProcessIOLoop&) = delete;

  private:
    struct Impl;
    ProcessIOLoop();
    ~ProcessIOLoop() = delete;  // never destroyed

    Impl* impl_;
};

}  // namespace mirels::detail
