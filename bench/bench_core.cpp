// Core primitives beside the peers a user would otherwise pick: the lock-protected box against
// std::mutex and absl::Mutex (alone and with two threads contending), the cost of a holding soft
// assertion and of capturing a call site, and a cancellation token's make-and-cancel.

#include <absl/synchronization/mutex.h>
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <mutex>
#include <new>
#include <thread>

#include "mirels/core/Assertions.h"
#include "mirels/core/CancellationToken.h"
#include "mirels/core/ThreadSafe.h"
#include "support/BenchSupport.h"

namespace {

using mirels::bench::AllocationCounter;

// --- uncontended increment under each lock -------------------------------------------------

void ThreadSafe_syncWrite(benchmark::State& state) {
    mirels::ThreadSafe<long> box(0);
    for (auto _ : state) box.syncWrite([](long& v) { ++v; });
    benchmark::DoNotOptimize(box.peek());
}
BENCHMARK(ThreadSafe_syncWrite);

void StdMutex_increment(benchmark::State& state) {
    std::mutex mutex;
    long value = 0;
    for (auto _ : state) {
        std::lock_guard guard(mutex);
        ++value;
        benchmark::ClobberMemory();
    }
    benchmark::DoNotOptimize(value);
}
BENCHMARK(StdMutex_increment);

void AbslMutex_increment(benchmark::State& state) {
    absl::Mutex mutex;
    long value = 0;
    for (auto _ : state) {
        absl::MutexLock guard(&mutex);
        ++value;
        benchmark::ClobberMemory();
    }
    benchmark::DoNotOptimize(value);
}
BENCHMARK(AbslMutex_increment);

// --- 2, 4, 8 and 16 threads contending on one lock (items/s: the throughput of all together) --
// On this 2-core machine 4 and more threads are oversubscribed. Count system calls per operation
// with `strace -f -c -e trace=futex` on a run of one case. The Debian build of absl checks for
// deadlocks on every lock (a debug-mode feature), so its figures here are not its release ones.

mirels::ThreadSafe<long> sharedBox(0);
void ThreadSafe_contended(benchmark::State& state) {
    for (auto _ : state) sharedBox.syncWrite([](long& v) { ++v; });
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ThreadSafe_contended)->ThreadRange(2, 16)->UseRealTime();

std::mutex sharedMutex;
long sharedMutexValue = 0;
void StdMutex_contended(benchmark::State& state) {
    for (auto _ : state) {
        std::lock_guard guard(sharedMutex);
        ++sharedMutexValue;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(StdMutex_contended)->ThreadRange(2, 16)->UseRealTime();

absl::Mutex sharedAbslMutex;
long sharedAbslValue = 0;
void AbslMutex_contended(benchmark::State& state) {
    for (auto _ : state) {
        absl::MutexLock guard(&sharedAbslMutex);
        ++sharedAbslValue;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(AbslMutex_contended)->ThreadRange(2, 16)->UseRealTime();

// --- call sites and soft assertions ---------------------------------------------------------

void Callsite_current(benchmark::State& state) {
    AllocationCounter counter(state);
    for (auto _ : state) {
        mirels::Callsite site = mirels::Callsite::current();
        benchmark::DoNotOptimize(site);
    }
}
BENCHMARK(Callsite_current);

void SoftAssertion_holding(benchmark::State& state) {
    AllocationCounter counter(state);
    long a = 1;
    long b = 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(mirels::assertEqual(a, b));
    }
}
BENCHMARK(SoftAssertion_holding);

// --- cancellation tokens --------------------------------------------------------------------

void CancellationToken_makeAndCancel(benchmark::State& state) {
    AllocationCounter counter(state);
    long cancelled = 0;
    for (auto _ : state) {
        auto token = mirels::CancellationToken::create([&cancelled] { ++cancelled; });
        token->cancel();
    }
    benchmark::DoNotOptimize(cancelled);
}
BENCHMARK(CancellationToken_makeAndCancel);

}  // namespace

int main(int argc, char** argv) {
    return mirels::bench::runBenchmarks(argc, argv);
}
