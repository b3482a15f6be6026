// The sequence views and lenses beside what a user would otherwise write or pick: concatenating
// three vectors against walking them one after another by hand, against std::views::join over
// the three and against range-v3's views::concat; adjacent pairs against an index loop and
// against range-v3's zip of the range with its own tail; and a get through two composed
// member lenses against direct member access and against a std::function getter chain.

#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <functional>
#include <numeric>
#include <range/v3/view/concat.hpp>
#include <range/v3/view/drop.hpp>
#include <range/v3/view/zip.hpp>
#include <ranges>
#include <string>
#include <vector>

#include "mirels/collections/AdjacentPairsView.h"
#include "mirels/collections/ConcatView.h"
#include "mirels/core/AnyLens.h"
#include "support/BenchSupport.h"

namespace {

constexpr std::size_t partSize = 1'000'000;

struct Parts {
    std::vector<int> a, b, c;
    Parts() : a(partSize), b(partSize), c(partSize) {
        std::iota(a.begin(), a.end(), 0);
        std::iota(b.begin(), b.end(), 7);
        std::iota(c.begin(), c.end(), 13);
    }
};

const Parts& parts() {
    static const Parts shared;
    return shared;
}

// --- iterating three vectors of a million ints -----------------------------------------------

void Concat_iterate(benchmark::State& state) {
    const Parts& p = parts();
    for (auto _ : state) {
        std::int64_t sum = 0;
        for (int x : mirels::views::concat(p.a, p.b, p.c)) sum += x;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * 3 * static_cast<std::int64_t>(partSize));
}
BENCHMARK(Concat_iterate);

void ByHand_iterate(benchmark::State& state) {
    const Parts& p = parts();
    for (auto _ : state) {
        std::int64_t sum = 0;
        for (int x : p.a) sum += x;
        for (int x : p.b) sum += x;
        for (int x : p.c) sum += x;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * 3 * static_cast<std::int64_t>(partSize));
}
BENCHMARK(ByHand_iterate);

void StdJoin_iterate(benchmark::State& state) {
    const Parts& p = parts();
    for (auto _ : state) {
        std::int64_t sum = 0;
        std::array<std::ranges::ref_view<const std::vector<int>>, 3> all{
            std::views::all(p.a), std::views::all(p.b), std::views::all(p.c)};
        for (int x : all | std::views::join) sum += x;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * 3 * static_cast<std::int64_t>(partSize));
}
BENCHMARK(StdJoin_iterate);

void RangeV3Concat_iterate(benchmark::State& state) {
    const Parts& p = parts();
    for (auto _ : state) {
        std::int64_t sum = 0;
        for (int x : ranges::views::concat(p.a, p.b, p.c)) sum += x;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * 3 * static_cast<std::int64_t>(partSize));
}
BENCHMARK(RangeV3Concat_iterate);

// --- adjacent pairs over a vector of a million ints ------------------------------------------

void AdjacentPairs_iterate(benchmark::State& state) {
    const std::vector<int>& v = parts().a;
    for (auto _ : state) {
        std::int64_t sum = 0;
        for (auto [x, y] : v | mirels::views::adjacentPairs) sum += y - x;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(partSize));
}
BENCHMARK(AdjacentPairs_iterate);

void IndexLoop_iterate(benchmark::State& state) {
    const std::vector<int>& v = parts().a;
    for (auto _ : state) {
        std::int64_t sum = 0;
        for (std::size_t i = 1; i < v.size(); ++i) sum += v[i] - v[i - 1];
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(partSize));
}
BENCHMARK(IndexLoop_iterate);

void RangeV3ZipTail_iterate(benchmark::State& state) {
    const std::vector<int>& v = parts().a;
    for (auto _ : state) {
        std::int64_t sum = 0;
        for (auto [x, y] : ranges::views::zip(v, v | ranges::views::drop(1))) sum += y - x;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(partSize));
}
BENCHMARK(RangeV3ZipTail_iterate);

// --- a get through two composed member lenses ------------------------------------------------

struct Address {
    std::string city;
    int number = 0;
};
struct Person {
    std::string name;
    Address address;
};

void AnyLens_getComposed(benchmark::State& state) {
    const mirels::AnyLens<Person, int> number =
        mirels::AnyLens(&Person::address) / &Address::number;
    Person person{"Ada", {"London", 12}};
    std::int64_t sum = 0;
    {
        mirels::bench::AllocationCounter allocations(state);
        for (auto _ : state) {
            benchmark::DoNotOptimize(person);
            sum += number.get(person);
        }
    }
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(AnyLens_getComposed);

void StdFunction_getComposed(benchmark::State& state) {
    const std::function<const Address&(const Person&)> address =
        [](const Person& p) -> const Address& { return p.address; };
    const std::function<int(const Address&)> numberOf = [](const Address& a) { return a.number; };
    const std::function<int(const Person&)> number = [address, numberOf](const Person& p) {
        return numberOf(address(p));
    };
    Person person{"Ada", {"London", 12}};
    std::int64_t sum = 0;
    {
        mirels::bench::AllocationCounter allocations(state);
        for (auto _ : state) {
            benchmark::DoNotOptimize(person);
            sum += number(person);
        }
    }
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(StdFunction_getComposed);

void Direct_getComposed(benchmark::State& state) {
    Person person{"Ada", {"London", 12}};
    std::int64_t sum = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(person);
        sum += person.address.number;
    }
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(Direct_getComposed);

}  // namespace

int main(int argc, char** argv) {
    return mirels::bench::runBenchmarks(argc, argv);
}
