// Event streams beside the signal libraries a user would otherwise pick: sending one event to 1,
// 10 and 100 subscribers against boost::signals2 (thread-safe, like a sink) and libsigc++ 3 (no
// lock at all) emitting to as many slots, and subscribing plus cancelling against connecting plus
// disconnecting. Allocations per operation are reported as a counter.

#include <benchmark/benchmark.h>
#include <sigc++/sigc++.h>

#include <atomic>
#include <boost/signals2/signal.hpp>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <new>
#include <thread>
#include <vector>

#include "mirels/events/EventStream.h"
#include "support/BenchSupport.h"

namespace {

using mirels::bench::AllocationCounter;

/// What every handler and slot does with an event: the same for the three libraries.
struct Accumulator {
    std::int64_t* total;
    void operator()(int value) const { *total += value; }
};

// --- sending one event to N subscribers ------------------------------------------------------

void Sink_send(benchmark::State& state) {
    auto sink = mirels::EventStream<int>::Sink::create();
    std::int64_t total = 0;
    std::vector<std::shared_ptr<mirels::CancellationToken>> tokens;
    for (int i = 0; i < state.range(0); ++i) tokens.push_back(sink->observe(Accumulator{&total}));
    {
        AllocationCounter counter(state);
        for (auto _ : state) sink->send(1);
    }
    benchmark::DoNotOptimize(total);
    for (auto& token : tokens) token->cancel();
}
BENCHMARK(Sink_send)->Arg(1)->Arg(10)->Arg(100);

void Signals2_emit(benchmark::State& state) {
    boost::signals2::signal<void(int)> signal;
    std::int64_t total = 0;
    for (int i = 0; i < state.range(0); ++i) signal.connect(Accumulator{&total});
    {
        AllocationCounter counter(state);
        for (auto _ : state) signal(1);
    }
    benchmark::DoNotOptimize(total);
}
BENCHMARK(Signals2_emit)->Arg(1)->Arg(10)->Arg(100);

void Sigc_emit(benchmark::State& state) {
    sigc::signal<void(int)> signal;
    std::int64_t total = 0;
    for (int i = 0; i < state.range(0); ++i) signal.connect(Accumulator{&total});
    {
        AllocationCounter counter(state);
        for (auto _ : state) signal.emit(1);
    }
    benchmark::DoNotOptimize(total);
}
BENCHMARK(Sigc_emit)->Arg(1)->Arg(10)->Arg(100);

// --- subscribing and cancelling one handler beside N others ----------------------------------

void Sink_subscribeCancel(benchmark::State& state) {
    auto sink = mirels::EventStream<int>::Sink::create();
    std::int64_t total = 0;
    std::vector<std::shared_ptr<mirels::CancellationToken>> others;
    for (int i = 0; i < state.range(0); ++i) others.push_back(sink->observe(Accumulator{&total}));
    {
        AllocationCounter counter(state);
        for (auto _ : state) sink->observe(Accumulator{&total})->cancel();
    }
    for (auto& token : others) token->cancel();
}
BENCHMARK(Sink_subscribeCancel)->Arg(0)->Arg(10);

void Signals2_connectDisconnect(benchmark::State& state) {
    boost::signals2::signal<void(int)> signal;
    std::int64_t total = 0;
    for (int i = 0; i < state.range(0); ++i) signal.connect(Accumulator{&total});
    {
        AllocationCounter counter(state);
        for (auto _ : state) signal.connect(Accumulator{&total}).disconnect();
    }
}
BENCHMARK(Signals2_connectDisconnect)->Arg(0)->Arg(10);

void Sigc_connectDisconnect(benchmark::State& state) {
    sigc::signal<void(int)> signal;
    std::int64_t total = 0;
    for (int i = 0; i < state.range(0); ++i) signal.connect(Accumulator{&total});
    {
        AllocationCounter counter(state);
        for (auto _ : state) signal.connect(Accumulator{&total}).disconnect();
    }
}
BENCHMARK(Sigc_connectDisconnect)->Arg(0)->Arg(10);

}  // namespace

int main(int argc, char** argv) {
    return mirels::bench::runBenchmarks(argc, argv);
}
