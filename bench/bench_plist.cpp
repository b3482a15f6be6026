// Property lists and errors beside libplist: archiving and unarchiving a record of 20 typed
// fields through PropertyList against building and reading the same dictionary with libplist's
// plist_t API; the binary round trip of a packed wrapper error at several depths (it must grow
// linearly); and humanReadable of an error that already is human-readable (no allocation).

#include <benchmark/benchmark.h>
#include <plist/plist.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <new>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include "mirels/errors/HumanReadableConversion.h"
#include "mirels/plist/PlistSerialization.h"
#include "mirels/plist/PropertyList.h"
#include "support/BenchSupport.h"

namespace {

using mirels::bench::AllocationCounter;

// --- a record of 20 typed fields ------------------------------------------------------------

struct Record {
    std::string name, path, kind, owner, comment, identifier;
    std::int64_t size, created, modified;
    std::int32_t version, flags;
    std::uint8_t priority;
    double width, height, scale, progress;
    bool hidden, locked, shared, archived;
};

template <class T>
struct Field {
    const char* key;
    T Record::*member;
};

// The same field table drives both sides.
const auto fields = std::make_tuple(
    Field<std::string>{"name", &Record::name}, Field<std::string>{"path", &Record::path},
    Field<std::string>{"kind", &Record::kind}, Field<std::string>{"owner", &Record::owner},
    Field<std::string>{"comment", &Record::comment},
    Field<std::string>{"identifier", &Record::identifier},
    Field<std::int64_t>{"size", &Record::size}, Field<std::int64_t>{"created", &Record::created},
    Field<std::int64_t>{"modified", &Record::modified},
    Field<std::int32_t>{"version", &Record::version}, Field<std::int32_t>{"flags", &Record::flags},
    Field<std::uint8_t>{"priority", &Record::priority}, Field<double>{"width", &Record::width},
    Field<double>{"height", &Record::height}, Field<double>{"scale", &Record::scale},
    Field<double>{"progress", &Record::progress}, Field<bool>{"hidden", &Record::hidden},
    Field<bool>{"locked", &Record::locked}, Field<bool>{"shared", &Record::shared},
    Field<bool>{"archived", &Record::archived});

const Record sample{"Quarterly report",
                    "/srv/documents/finance/2024/quarterly-report.pdf",
                    "pdf",
                    "finance",
                    "Reviewed by the audit committee",
                    "7f9c2ba4-e88f-4a4c-9ad2-1f5b0c3e7d21",
                    4812733,
                    1700000000,
                    1700003600,
                    7,
                    0x15,
                    3,
                    595.0,
                    842.0,
                    2.0,
                    0.75,
                    false,
                    true,
                    true,
                    false};

void PropertyList_archiveUnarchive20(benchmark::State& state) {
    AllocationCounter counter(state);
    for (auto _ : state) {
        mirels::PropertyList list;
        std::apply(
            [&](const auto&... field) {
                (list.archiveValue(sample.*field.member, field.key), ...);
            },
            fields);
        Record out;
        std::apply(
            [&](const auto&... field) {
                ((out.*field.member =
                      list.unarchiveValue<std::remove_cvref_t<decltype(out.*field.member)>>(
                          field.key)),
                 ...);
            },
            fields);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(PropertyList_archiveUnarchive20);

// libplist with the checks a careful caller makes: the node's kind, the integer's range.
void put(plist_t dict, const char* key, const std::string& value) {
    plist_dict_set_item(dict, key, plist_new_string(value.c_str()));
}
template <class I>
    requires std::is_integral_v<I> && (!std::is_same_v<I, bool>)
void put(plist_t dict, const char* key, I value) {
    plist_dict_set_item(dict, key, plist_new_uint(static_cast<std::uint64_t>(value)));
}
void put(plist_t dict, const char* key, double value) {
    plist_dict_set_item(dict, key, plist_new_real(value));
}
void put(plist_t dict, const char* key, bool value) {
    plist_dict_set_item(dict, key, plist_new_bool(value ? 1 : 0));
}

plist_t item(plist_t dict, const char* key, plist_type type) {
    plist_t node = plist_dict_get_item(dict, key);
    if (node == nullptr || plist_get_node_type(node) != type) throw std::runtime_error(key);
    return node;
}
void get(plist_t dict, const char* key, std::string& out) {
    std::uint64_t length = 0;
    const char* text = plist_get_string_ptr(item(dict, key, PLIST_STRING), &length);
    out.assign(text, length);
}
template <class I>
    requires std::is_integral_v<I> && (!std::is_same_v<I, bool>)
void get(plist_t dict, const char* key, I& out) {
    std::uint64_t bits = 0;
    plist_get_uint_val(item(dict, key, PLIST_UINT), &bits);
    auto value = static_cast<std::int64_t>(bits);
    if (!std::in_range<I>(value)) throw std::runtime_error(key);
    out = static_cast<I>(value);
}
void get(plist_t dict, const char* key, double& out) {
    plist_get_real_val(item(dict, key, PLIST_REAL), &out);
}
void get(plist_t dict, const char* key, bool& out) {
    std::uint8_t flag = 0;
    plist_get_bool_val(item(dict, key, PLIST_BOOLEAN), &flag);
    out = flag != 0;
}

void Libplist_buildRead20(benchmark::State& state) {
    AllocationCounter counter(state);
    for (auto _ : state) {
        plist_t dict = plist_new_dict();
        std::apply([&](const auto&... field) { (put(dict, field.key, sample.*field.member), ...); },
                   fields);
        Record out;
        std::apply([&](const auto&... field) { (get(dict, field.key, out.*field.member), ...); },
                   fields);
        plist_free(dict);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(Libplist_buildRead20);

// --- packed wrapper errors ------------------------------------------------------------------

class SampleError final : public mirels::HumanReadableError {
  public:
    explicit SampleError(int level) : level_(level) {}
    std::optional<std::string> lowValueTitle() const override {
        return "Step " + std::to_string(level_) + " failed";
    }
    std::optional<std::string> additionalInfo() const override {
        return "The operation could not finish; see the diagnostics.";
    }
    std::optional<std::string> additionalDiagnostics() const override {
        return "step=" + std::to_string(level_) + " attempts=3";
    }

  private:
    int level_;
};

/// `depth` wrappers, each a leaf over the next level.
mirels::HumanReadableErrorRef wrapperChain(int depth) {
    mirels::HumanReadableErrorRef chain = std::make_shared<SampleError>(depth);
    for (int level = depth - 1; level >= 0; --level) {
        chain = std::make_shared<mirels::UnderlyingErrorWrapper>(
            std::make_shared<SampleError>(level), std::move(chain));
    }
    return chain;
}

// Pack, write as a binary property list, read, rebuild the platform error and convert.
void PackedError_binaryRoundTrip(benchmark::State& state) {
    const auto depth = static_cast<int>(state.range(0));
    mirels::HumanReadableErrorRef error = wrapperChain(depth);
    std::size_t bytes = 0;
    for (auto _ : state) {
        mirels::PlatformError packed = error->serializableNSError();
        std::vector<std::uint8_t> binary = mirels::toBinary(packed.propertyListValue());
        bytes = binary.size();
        mirels::PlatformError received = mirels::PlatformError::fromPropertyListValue(
            mirels::parsePropertyListDictionary(binary));
        mirels::HumanReadableErrorRef rebuilt = mirels::humanReadable(mirels::Error(received));
        benchmark::DoNotOptimize(rebuilt);
    }
    state.counters["bytes"] = static_cast<double>(bytes);
    state.counters["ns/level"] = benchmark::Counter(
        static_cast<double>(depth + 1),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.SetComplexityN(depth + 1);
}
BENCHMARK(PackedError_binaryRoundTrip)->Arg(1)->Arg(3)->Arg(10)->Arg(100)->Complexity();

// --- humanReadable --------------------------------------------------------------------------

void HumanReadable_alreadyHumanReadable(benchmark::State& state) {
    mirels::Error error(SampleError(1));
    AllocationCounter counter(state);
    for (auto _ : state) {
        mirels::HumanReadableErrorRef human = mirels::humanReadable(error);
        benchmark::DoNotOptimize(human.get());
    }
}
BENCHMARK(HumanReadable_alreadyHumanReadable);

void HumanReadable_foreignError(benchmark::State& state) {
    mirels::Error error(std::runtime_error("disk"));
    AllocationCounter counter(state);
    for (auto _ : state) {
        mirels::HumanReadableErrorRef human = mirels::humanReadable(error);
        benchmark::DoNotOptimize(human.get());
    }
}
BENCHMARK(HumanReadable_foreignError);

}  // namespace

// The library lives in multi-threaded processes, where glibc's allocator and locks take their
// atomic paths; one idle thread keeps this process multi-threaded for both sides.
int main(int argc, char** argv) {
    return mirels::bench::runBenchmarks(argc, argv);
}
