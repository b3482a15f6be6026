#include "mirels/execution/Thread.h"

#include <unistd.h>

#include <utility>

namespace mirels {

namespace {
// The calling thread's object, for the identity test of `currentExecutionExclusivity`. Set when
// the object is made; an object outlives the slot only while other holders keep it, and no other
// object can be made at its address meanwhile.
constinit thread_local const Thread* currentThreadObject
    __attribute__((tls_model("initial-exec"))) = nullptr;
}  // namespace

Thread::Thread(Passkey, pid_t systemIdentifier) noexcept : systemIdentifier_(systemIdentifier) {}

namespace {
// Owns the calling thread's object for the thread's life. Clears the identity slot when the
// thread ends, so that a later object made at the same address is never mistaken for this one.
struct CurrentThreadHolder {
    std::shared_ptr<const Thread> object;

    ~CurrentThreadHolder() { currentThreadObject = nullptr; }
};
}  // namespace

std::shared_ptr<const Thread> Thread::current() {
    thread_local const CurrentThreadHolder holder = [] {
        auto made = std::make_shared<const Thread>(Passkey(), gettid());
        currentThreadObject = made.get();
        return CurrentThreadHolder{std::move(made)};
    }();
    return holder.object;
}

bool Thread::isMainThread() noexcept {
    // getpid() and gettid() are system calls; remember the answer per thread.
    constinit thread_local signed char cached __attribute__((tls_model("initial-exec"))) = -1;
    if (cached < 0) cached = gettid() == getpid() ? 1 : 0;
    return cached == 1;
}

bool Thread::isMain() const noexcept {
    return systemIdentifier_ == getpid();
}

ExecutionExclusivity Thread::currentExecutionExclusivity() const {
    return currentThreadObject == this ? ExecutionExclusivity::exclusive
                                       : ExecutionExclusivity::none;
}

}  // namespace mirels
