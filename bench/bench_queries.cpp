// Queries beside what a user would otherwise write by hand, in one binary:
//
// - CachedHit/*: asking for a query whose shared future is pending (the hit path of
//   QueryManager::cachedValue) against a std::mutex + std::unordered_map<Key,
//   std::shared_future<int>> lookup that copies the shared future out.
// - FirstValue/* and AllValues/*: one query over three resolvers (for FirstValue the first one
//   answers), against a std::mutex-guarded vector of three std::function answerers.
// - SixteenAskers/*: sixteen threads, released together, ask one new hashable query each round;
//   the merge strategy must run once per round. The peer is the mutex + map cache with a
//   std::promise made by whichever thread inserts first. Wall time per round.
//
// Every benchmark reports allocs/op: the allocations its thread made, per iteration.

#include "mirels/queries/QueryManager.h"
#include "mirels/queries/ValueCombiner.h"
#include "support/BenchSupport.h"
// clang-format off
#include <benchmark/benchmark.h>
// clang-format on

#include <atomic>
#include <barrier>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <vector>

namespace {

using namespace mirels;
using mirels::bench::AllocationCounter;

/// A merge strategy over futures that counts its computations.
struct CountedSum {
    using Input = Future<int>;
    using Output = Future<int>;
    static inline std::atomic<long> performs{0};
    static Output perform(const std::vector<Future<int>>& values) {
        performs.fetch_add(1, std::memory_order_relaxed);
        return FutureMerge<SumMerge<int>>::perform(values);
    }
};

struct ScoreQuery {
    using Primitive = Future<int>;
    using MergeStrategy = CountedSum;
    long key = 0;
    friend bool operator==(const ScoreQuery&, const ScoreQuery&) = default;
};

struct LevelQuery {
    using Primitive = int;
    using MergeStrategy = FirstValueMerge<int>;
    int key = 0;
};

}  // namespace

template <>
struct std::hash<ScoreQuery> {
    std::size_t operator()(const ScoreQuery& q) const noexcept { return std::hash<long>{}(q.key); }
};

namespace {

class FixedResolver final : public QueryResolver {
  public:
    explicit FixedResolver(QueryResolutions table) : table_(std::move(table)) {}
    QueryResolutions resolutions() const override { return table_; }

  private:
    QueryResolutions table_;
};

/// A resolver whose futures stay pending until the benchmark finishes them.
std::shared_ptr<QueryResolver> pendingScores(std::vector<Promise<int>>& promises,
                                             std::mutex& mutex) {
    return std::make_shared<FixedResolver>(resolve<ScoreQuery>([&promises, &mutex] {
        auto [future, promise] = Future<int>::create();
        std::lock_guard guard(mutex);
        promises.push_back(promise);
        return std::optional(future);
    }));
}

// --- cached hit ---------------------------------------------------------------------------------

void CachedHit_Mirels(benchmark::State& state) {
    std::vector<Promise<int>> promises;
    std::mutex mutex;
    auto manager = QueryManager::create(nullptr, {pendingScores(promises, mutex)});
    for (long key = 0; key < 64; ++key) (void)manager->cachedValue(ScoreQuery{key});
    long key = 0;
    {
        AllocationCounter counter(state);
        for (auto _ : state) {
            Future<int> future = manager->cachedValue(ScoreQuery{key});
            benchmark::DoNotOptimize(future);
            key = (key + 1) & 63;
        }
    }
    for (const auto& promise : promises) promise.succeed(1);
}
BENCHMARK(CachedHit_Mirels);

void CachedHit_MutexUnorderedMapSharedFuture(benchmark::State& state) {
    std::mutex mutex;
    std::unordered_map<ScoreQuery, std::shared_future<int>> table;
    std::vector<std::promise<int>> promises(64);
    for (long key = 0; key < 64; ++key) {
        table.emplace(ScoreQuery{key},
                      promises[static_cast<std::size_t>(key)].get_future().share());
    }
    long key = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        std::shared_future<int> future;
        {
            std::lock_guard guard(mutex);
            auto found = table.find(ScoreQuery{key});
            if (found != table.end()) future = found->second;
        }
        benchmark::DoNotOptimize(future);
        key = (key + 1) & 63;
    }
}
BENCHMARK(CachedHit_MutexUnorderedMapSharedFuture);

// --- first and all values over three resolvers --------------------------------------------------

std::shared_ptr<QueryManager> threeLevelResolvers() {
    QueryResolverList resolvers;
    for (int i = 0; i < 3; ++i) {
        resolvers.push_back(std::make_shared<FixedResolver>(resolve<LevelQuery>(
            [i](const LevelQuery& query) { return std::optional(query.key + i); })));
    }
    return QueryManager::create(nullptr, std::move(resolvers));
}

struct HandWrittenAnswerers {
    std::mutex mutex;
    std::vector<std::function<std::optional<int>(int)>> answerers;
    HandWrittenAnswerers() {
        for (int i = 0; i < 3; ++i) {
            answerers.emplace_back([i](int key) { return std::optional(key + i); });
        }
    }
};

void FirstValue_Mirels(benchmark::State& state) {
    auto manager = threeLevelResolvers();
    int key = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        benchmark::DoNotOptimize(manager->firstValue(LevelQuery{++key}));
    }
}
BENCHMARK(FirstValue_Mirels);

void FirstValue_MutexVectorOfFunctions(benchmark::State& state) {
    HandWrittenAnswerers peer;
    int key = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        std::optional<int> answer;
        std::lock_guard guard(peer.mutex);
        ++key;
        for (const auto& answerer : peer.answerers) {
            if ((answer = answerer(key))) break;
        }
        benchmark::DoNotOptimize(answer);
    }
}
BENCHMARK(FirstValue_MutexVectorOfFunctions);

void AllValues_Mirels(benchmark::State& state) {
    auto manager = threeLevelResolvers();
    int key = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        benchmark::DoNotOptimize(manager->allValues(LevelQuery{++key}));
    }
}
BENCHMARK(AllValues_Mirels);

void AllValues_MutexVectorOfFunctions(benchmark::State& state) {
    HandWrittenAnswerers peer;
    int key = 0;
    AllocationCounter counter(state);
    for (auto _ : state) {
        std::vector<int> answers;
        std::lock_guard guard(peer.mutex);
        ++key;
        for (const auto& answerer : peer.answerers) {
            if (std::optional<int> answer = answerer(key)) answers.push_back(*answer);
        }
        benchmark::DoNotOptimize(answers);
    }
}
BENCHMARK(AllValues_MutexVectorOfFunctions);

// --- sixteen askers -----------------------------------------------------------------------------

constexpr int askerCount = 16;

/// Runs `ask(round)` on sixteen threads released together, once per iteration.
template <class Ask, class AfterRound>
void runRounds(benchmark::State& state, Ask ask, AfterRound afterRound) {
    long round = 0;
    std::atomic<bool> done{false};
    std::barrier start(askerCount + 1);
    std::barrier finish(askerCount + 1);
    std::vector<std::thread> askers;
    for (int i = 0; i < askerCount; ++i) {
        askers.emplace_back([&] {
            while (true) {
                start.arrive_and_wait();
                if (done.load()) return;
                ask(round);
                finish.arrive_and_wait();
            }
        });
    }
    for (auto _ : state) {
        start.arrive_and_wait();
        finish.arrive_and_wait();
        afterRound(round);
        ++round;
    }
    done = true;
    start.arrive_and_wait();
    for (auto& asker : askers) asker.join();
}

void SixteenAskers_Mirels(benchmark::State& state) {
    std::vector<Promise<int>> promises;
    std::mutex mutex;
    auto manager = QueryManager::create(nullptr, {pendingScores(promises, mutex)});
    CountedSum::performs = 0;
    runRounds(
        state,
        [&](long round) { benchmark::DoNotOptimize(manager->cachedValue(ScoreQuery{round})); },
        [&](long) {
            std::lock_guard guard(mutex);
            for (const auto& promise : promises) promise.succeed(1);
            promises.clear();
        });
    if (CountedSum::performs.load() != static_cast<long>(state.iterations())) {
        state.SkipWithError("the merge strategy did not run exactly once per round");
    }
    state.counters["merges/round"] = benchmark::Counter(
        static_cast<double>(CountedSum::performs.load()) / static_cast<double>(state.iterations()));
}
BENCHMARK(SixteenAskers_Mirels)->UseRealTime();

void SixteenAskers_MutexUnorderedMapSharedFuture(benchmark::State& state) {
    std::mutex mutex;
    std::unordered_map<ScoreQuery, std::shared_future<int>> table;
    std::vector<std::promise<int>> promises;
    runRounds(
        state,
        [&](long round) {
            std::shared_future<int> future;
            {
                std::lock_guard guard(mutex);
                auto [found, inserted] = table.try_emplace(ScoreQuery{round});
                if (inserted) {
                    promises.emplace_back();
                    found->second = promises.back().get_future().share();
                }
                future = found->second;
            }
            benchmark::DoNotOptimize(future);
        },
        [&](long) {
            std::lock_guard guard(mutex);
            for (auto& promise : promises) promise.set_value(1);
            promises.clear();
            table.clear();
        });
}
BENCHMARK(SixteenAskers_MutexUnorderedMapSharedFuture)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    return mirels::bench::runBenchmarks(argc, argv);
}
