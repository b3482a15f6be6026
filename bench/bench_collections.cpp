// The ordered containers and the fixed stack beside the peers a user would otherwise pick:
// OrderedDictionary and OrderedSet against tsl::ordered_map and tsl::ordered_set (lookup,
// insertion, membership, iteration against a plain vector of pairs), and FixedStack push and pop
// against a std::vector with reserved capacity.

#include <benchmark/benchmark.h>
#include <tsl/ordered_map.h>
#include <tsl/ordered_set.h>

#include <cstdint>
#include <future>
#include <numeric>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "mirels/collections/FixedStack.h"
#include "mirels/collections/OrderedDictionary.h"
#include "mirels/collections/OrderedSet.h"

namespace {

/// Distinct pseudo-random keys, the same for every run.
std::vector<std::int64_t> keys(std::size_t count) {
    std::mt19937_64 random(42);
    std::vector<std::int64_t> result(count);
    for (auto& key : result) key = static_cast<std::int64_t>(random() >> 1);
    return result;
}

/// The keys in a shuffled order, for lookups that do not follow insertion order.
std::vector<std::int64_t> shuffled(std::vector<std::int64_t> values) {
    std::shuffle(values.begin(), values.end(), std::mt19937_64(7));
    return values;
}

// --- lookup of present keys ------------------------------------------------------------------

void OrderedDictionary_lookup(benchmark::State& state) {
    auto ks = keys(static_cast<std::size_t>(state.range(0)));
    mirels::OrderedDictionary<std::int64_t, std::int64_t> map;
    for (auto k : ks) map.updateValue(k, k);
    auto probes = shuffled(ks);
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(map.find(probes[i]));
        if (++i == probes.size()) i = 0;
    }
}
BENCHMARK(OrderedDictionary_lookup)->Arg(1000)->Arg(100000);

void TslOrderedMap_lookup(benchmark::State& state) {
    auto ks = keys(static_cast<std::size_t>(state.range(0)));
    tsl::ordered_map<std::int64_t, std::int64_t> map;
    for (auto k : ks) map.insert_or_assign(k, k);
    auto probes = shuffled(ks);
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(map.find(probes[i]));
        if (++i == probes.size()) i = 0;
    }
}
BENCHMARK(TslOrderedMap_lookup)->Arg(1000)->Arg(100000);

// --- building a map by inserting new keys (time per insert) ----------------------------------

void OrderedDictionary_insert(benchmark::State& state) {
    auto ks = keys(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        mirels::OrderedDictionary<std::int64_t, std::int64_t> map;
        for (auto k : ks) map.updateValue(k, k);
        benchmark::DoNotOptimize(map.count());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(OrderedDictionary_insert)->Arg(1000)->Arg(100000);

void TslOrderedMap_insert(benchmark::State& state) {
    auto ks = keys(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        tsl::ordered_map<std::int64_t, std::int64_t> map;
        for (auto k : ks) map.insert_or_assign(k, k);
        benchmark::DoNotOptimize(map.size());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(TslOrderedMap_insert)->Arg(1000)->Arg(100000);

// --- iteration in order ----------------------------------------------------------------------

void OrderedDictionary_iterate(benchmark::State& state) {
    auto ks = keys(static_cast<std::size_t>(state.range(0)));
    mirels::OrderedDictionary<std::int64_t, std::int64_t> map;
    for (auto k : ks) map.updateValue(k, k);
    for (auto _ : state) {
        std::int64_t sum = 0;
        for (const auto& [key, value] : map) sum += value;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(OrderedDictionary_iterate)->Arg(1000)->Arg(100000);

void VectorOfPairs_iterate(benchmark::State& state) {
    auto ks = keys(static_cast<std::size_t>(state.range(0)));
    std::vector<std::pair<std::int64_t, std::int64_t>> pairs;
    for (auto k : ks) pairs.emplace_back(k, k);
    for (auto _ : state) {
        std::int64_t sum = 0;
        for (const auto& [key, value] : pairs) sum += value;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(VectorOfPairs_iterate)->Arg(1000)->Arg(100000);

// --- ordered sets: appending new elements, and membership ------------------------------------

void OrderedSet_append(benchmark::State& state) {
    auto ks = keys(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        mirels::OrderedSet<std::int64_t> set;
        for (auto k : ks) set.append(k);
        benchmark::DoNotOptimize(set.count());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(OrderedSet_append)->Arg(1000)->Arg(100000);

void TslOrderedSet_append(benchmark::State& state) {
    auto ks = keys(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        tsl::ordered_set<std::int64_t> set;
        for (auto k : ks) set.insert(k);
        benchmark::DoNotOptimize(set.size());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(TslOrderedSet_append)->Arg(1000)->Arg(100000);

/// Half the probes are members, half are not.
std::vector<std::int64_t> membershipProbes(const std::vector<std::int64_t>& members) {
    auto probes = shuffled(members);
    std::mt19937_64 random(3);
    for (std::size_t i = 0; i < probes.size(); i += 2) {
        probes[i] = static_cast<std::int64_t>(random() >> 1) | 1;  // almost surely absent
    }
    return probes;
}

void OrderedSet_contains(benchmark::State& state) {
    auto ks = keys(static_cast<std::size_t>(state.range(0)));
    mirels::OrderedSet<std::int64_t> set(ks);
    auto probes = membershipProbes(ks);
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(set.contains(probes[i]));
        if (++i == probes.size()) i = 0;
    }
}
BENCHMARK(OrderedSet_contains)->Arg(1000)->Arg(100000);

void TslOrderedSet_contains(benchmark::State& state) {
    auto ks = keys(static_cast<std::size_t>(state.range(0)));
    tsl::ordered_set<std::int64_t> set(ks.begin(), ks.end());
    auto probes = membershipProbes(ks);
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(set.contains(probes[i]));
        if (++i == probes.size()) i = 0;
    }
}
BENCHMARK(TslOrderedSet_contains)->Arg(1000)->Arg(100000);

// --- fixed stack: fill to capacity and empty again (time per push-and-pop pair) --------------

void FixedStack_pushPop(benchmark::State& state) {
    const auto capacity = static_cast<std::ptrdiff_t>(state.range(0));
    mirels::FixedStack<std::int64_t> stack(capacity);
    for (auto _ : state) {
        for (std::int64_t i = 0; i < capacity; ++i) stack.push(i);
        std::int64_t sum = 0;
        while (auto top = stack.pop()) sum += *top;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(FixedStack_pushPop)->Arg(1024);

void ReservedVector_pushPop(benchmark::State& state) {
    const auto capacity = static_cast<std::size_t>(state.range(0));
    std::vector<std::int64_t> stack;
    stack.reserve(capacity);
    for (auto _ : state) {
        for (std::int64_t i = 0; i < static_cast<std::int64_t>(capacity); ++i) {
            if (stack.size() < capacity) stack.push_back(i);  // the same refusal test
        }
        std::int64_t sum = 0;
        while (!stack.empty()) {
            sum += stack.back();
            stack.pop_back();
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(ReservedVector_pushPop)->Arg(1024);

}  // namespace

BENCHMARK_MAIN();
