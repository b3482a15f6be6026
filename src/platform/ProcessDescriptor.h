#pragma once

// Process file descriptors: a handle on one process that cannot be confused with a later process
// given the same pid, and that polls readable once the process has ended.

#include <sys/types.h>

namespace mirels::detail {

/// A new process descriptor for `pid` (close-on-exec), or -1 with `errno` set (ENOSYS on
/// kernels older than 5.3, ESRCH when there is no such process).
int openProcessDescriptor(pid_t pid) noexcept;

/// Sends `signal` to the process behind `pidfd`. 0, or -1 with `errno` set (ESRCH once the
/// process has been reaped: a signal never reaches a process that reused the pid).
int sendSignalThroughDescriptor(int pidfd, int signal) noexcept;

}  // namespace mirels::detail
