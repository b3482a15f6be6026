#pragma once

// `Thread`: the object that stands for one thread of the process.

#include <sys/types.h>

#include <memory>

#include "mirels/Export.h"
#include "mirels/execution/ExecutionExclusivity.h"

namespace mirels {

/// The object that stands for one thread of the process. Each thread has exactly one, made on
/// its first call to `current()` and kept for the thread's life (and longer, while anyone holds
/// a reference to it).
///
/// As an exclusivity tracker, a thread grants `exclusive` access to itself and `none` to every
/// other thread, never `shared`: state confined to one thread is guarded by that thread's object.
class MIRELS_EXPORT Thread final : public ExecutionExclusivityTracking {
    struct Passkey {
        explicit Passkey() = default;
    };

  public:
    Thread(Passkey, pid_t systemIdentifier) noexcept;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    /// The object of the calling thread. Cheap after the first call on a thread (a thread-local
    /// read and a reference-count increment).
    static std::shared_ptr<const Thread> current();

    /// Whether the calling thread is the process's main thread: the one whose kernel thread id
    /// equals the process id. The answer is computed once per thread.
    static bool isMainThread() noexcept;

    /// The kernel's id of this thread (`gettid()`), unique among the live threads of the system.
    pid_t systemIdentifier() const noexcept { return systemIdentifier_; }

    /// Whether this is the process's main thread.
    bool isMain() const noexcept;

    /// `exclusive` when called on this very thread, `none` on any other.
    ExecutionExclusivity currentExecutionExclusivity() const override;

  private:
    pid_t systemIdentifier_;
};

}  // namespace mirels
