// A child for the crash reporter's tests: dies (or not) the way its first argument says.
//
//   deep N          SIGSEGV N frames below main, in crashAtTheBottom
//   abort           writes two lines to standard error, then abort()
//   handled         handles SIGSEGV itself and exits 3 from the handler
//   thread          SIGSEGV in a second thread, in crashOnWorkerThread
//   stop            stops itself (SIGSTOP), then exits 0 once continued
//   exit N          prints its arguments and exits N
//   echo-stderr     writes each further argument as a line to standard error, exits 0

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

// Sanitized builds: let the fatal signals through so that the child dies of them, as it would
// in a normal build.
extern "C" const char* __asan_default_options() {  // NOLINT
    return "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_abort=0:"
           "detect_leaks=0";
}
extern "C" const char* __tsan_default_options() {  // NOLINT
    return "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_abort=0";
}

// A function that stays a function of its own (one frame per call), whatever the optimiser would
// like to do.
#if defined(__clang__)
#define KEEP_FRAME __attribute__((noinline, optnone))
#else
#define KEEP_FRAME __attribute__((noipa))
#endif

namespace {

volatile int* volatile nowhere = nullptr;

KEEP_FRAME void crashAtTheBottom() {
    *nowhere = 1;
}

// Kept as real recursion (one frame per level) whatever the optimiser would like to do.
KEEP_FRAME int descend(int depth) {
    if (depth <= 1) {
        crashAtTheBottom();
        return 0;
    }
    const int below = descend(depth - 1);
    asm volatile("" ::: "memory");
    return below + 1;
}

KEEP_FRAME void crashOnWorkerThread() {
    *nowhere = 2;
}

void exitFromHandler(int /*signal*/) {
    _exit(3);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "deep") {
        return descend(argc > 2 ? std::atoi(argv[2]) : 1);
    }
    if (mode == "abort") {
        std::fputs("first line\nabout to abort\n", stderr);
        std::abort();
    }
    if (mode == "handled") {
        std::signal(SIGSEGV, exitFromHandler);
        crashAtTheBottom();
        return 0;
    }
    if (mode == "thread") {
        std::thread worker(crashOnWorkerThread);
        worker.join();
        return 0;
    }
    if (mode == "stop") {
        std::raise(SIGSTOP);
        return 0;
    }
    if (mode == "exit") {
        for (int i = 3; i < argc; ++i) std::printf("%s\n", argv[i]);
        return argc > 2 ? std::atoi(argv[2]) : 0;
    }
    if (mode == "echo-stderr") {
        for (int i = 2; i < argc; ++i) std::fprintf(stderr, "%s\n", argv[i]);
        return 0;
    }
    return 64;
}
