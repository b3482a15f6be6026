#pragma once

// What every benchmark program shares: counting allocations, reporting them per iteration, and a
// main() that keeps the process multi-threaded. Include from exactly one source file per program
// (each benchmark program is one file): it defines the global allocation functions.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <future>
#include <new>
#include <thread>

// Counting replacements of the global allocation functions. GCC sees malloc behind new and free
// behind delete once they inline and warns of a mismatch that is not there.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

namespace mirels::bench {

/// Allocations made by this thread so far. Counted per thread, without atomic instructions, so
/// that counting costs every contender the same few cycles; every allocation that a benchmark
/// measures is made on its own thread.
inline thread_local std::uint64_t allocationCount = 0;

inline void* countedAllocate(std::size_t size) {
    ++allocationCount;
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}

inline void* countedAllocateAligned(std::size_t size, std::align_val_t alignment) {
    ++allocationCount;
    const auto align = static_cast<std::size_t>(alignment);
    const std::size_t rounded = (size + align - 1) / align * align;
    if (void* p = std::aligned_alloc(align, rounded == 0 ? align : rounded)) return p;
    throw std::bad_alloc();
}

/// Reports the allocations this thread made per iteration of the timed loop as "allocs/op".
/// Everything between its construction and its destruction counts, so close its scope right
/// after the loop: `SetItemsProcessed` and the counters themselves allocate.
class AllocationCounter {
  public:
    explicit AllocationCounter(benchmark::State& state) : state_(state), start_(allocationCount) {}
    ~AllocationCounter() {
        state_.counters["allocs/op"] =
            benchmark::Counter(static_cast<double>(allocationCount - start_) /
                               static_cast<double>(state_.iterations()));
    }
    AllocationCounter(const AllocationCounter&) = delete;
    AllocationCounter& operator=(const AllocationCounter&) = delete;

  private:
    benchmark::State& state_;
    std::uint64_t start_;
};

/// Runs the registered benchmarks. The library lives in multi-threaded processes, and glibc takes
/// its mutexes without atomic instructions while a process has only one thread, which would
/// flatter the peers' figures; so one idle thread lives for the whole run.
inline int runBenchmarks(int argc, char** argv) {
    std::promise<void> stop;
    std::thread idle([done = stop.get_future()] { done.wait(); });
    benchmark::Initialize(&argc, argv);
    int status = 0;
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        status = 1;
    } else {
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
    }
    stop.set_value();
    idle.join();
    return status;
}

}  // namespace mirels::bench

void* operator new(std::size_t size) {
    return mirels::bench::countedAllocate(size);
}
void* operator new[](std::size_t size) {
    return mirels::bench::countedAllocate(size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return mirels::bench::countedAllocateAligned(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return mirels::bench::countedAllocateAligned(size, alignment);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept {
    std::free(p);
}
