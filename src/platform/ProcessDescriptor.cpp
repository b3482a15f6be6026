#include "ProcessDescriptor.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace mirels::detail {

// The C library has no wrappers for these on every distribution we build on, so they go
// through syscall(2) directly.

int openProcessDescriptor(pid_t pid) noexcept {
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

int sendSignalThroughDescriptor(int pidfd, int signal) noexcept {
    return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0));
}

}  // namespace mirels::detail
