// Parsing one command line of 20 arguments against 15 options and 2 positional consumers into a
// settings record, with our option set, CLI11, cxxopts and a hand-written getopt_long loop. Every
// contender builds its parser once and then parses the same argv into a fresh record per
// iteration, and every contender fills the same record (strings, switches, integers, an
// enumeration by name, one positional argument and a list of the rest).

#include <getopt.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cxxopts.hpp>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "mirels/cli/CommandLineOptions.h"
#include "support/BenchSupport.h"

namespace mirels {

enum class BenchMode { debug, release, profile };

template <>
struct RawValueCases<BenchMode> {
    static constexpr std::array cases = {std::pair{BenchMode::debug, "debug"},
                                         std::pair{BenchMode::release, "release"},
                                         std::pair{BenchMode::profile, "profile"}};
};

}  // namespace mirels

namespace {

using mirels::BenchMode;

struct Settings {
    std::optional<std::string> output, input, config, name, target;
    bool verbose = false, quiet = false, force = false, dryRun = false, color = false;
    std::int64_t jobs = 1, level = 0, retries = 0, timeout = 0;
    BenchMode mode = BenchMode::debug;
    std::optional<std::string> first;
    std::vector<std::string> rest;
};

// 20 arguments, program name not counted: long and short switches, values after "=" and as the
// next argument, an enumeration, and positional arguments between the options.
constexpr std::array<const char*, 21> kArgv = {
    "tool",   "--output",    "out.bin", "-v",     "--jobs=8",  "input.txt", "--config",
    "c.toml", "-f",          "--level", "3",      "--dry-run", "--mode",    "release",
    "extra1", "--retries=2", "-q",      "--name", "demo",      "extra2",    "--timeout=30"};

void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "bench_cli: %s parsed differently\n", what);
        std::abort();
    }
}

void checkSettings(const Settings& s, const char* who) {
    check(s.output == "out.bin" && s.config == "c.toml" && s.name == "demo" && s.verbose &&
              s.force && s.quiet && s.dryRun && !s.color && s.jobs == 8 && s.level == 3 &&
              s.retries == 2 && s.timeout == 30 && s.mode == BenchMode::release &&
              s.first == "input.txt" && s.rest == std::vector<std::string>{"extra1", "extra2"},
          who);
}

// MARK: - MirelsFoundation

mirels::CommandLineOptions<Settings> mirelsOptions() {
    using O = mirels::CommandLineOption<Settings>;
    using C = mirels::CommandLineArgumentConsumer<Settings>;
    return mirels::CommandLineOptions<Settings>(
        {O::string("output", {"o"}, "path", &Settings::output, "Output file."),
         O::string("input", {"i"}, "path", &Settings::input, "Input file."),
         O::string("config", {"c"}, "path", &Settings::config, "Configuration."),
         O::string("name", {"n"}, "name", &Settings::name, "Name."),
         O::string("target", {"t"}, "triple", &Settings::target, "Target."),
         O::boolean("verbose", {"v"}, &Settings::verbose, "Verbose."),
         O::boolean("quiet", {"q"}, &Settings::quiet, "Quiet."),
         O::boolean("force", {"f"}, &Settings::force, "Force."),
         O::boolean("dry-run", {}, &Settings::dryRun, "Dry run."),
         O::boolean("color", {}, &Settings::color, "Colour."),
         O::integer("jobs", {"j"}, "count", &Settings::jobs, "Jobs."),
         O::integer("level", {"l"}, "level", &Settings::level, "Level."),
         O::integer("retries", {}, "count", &Settings::retries, "Retries."),
         O::integer("timeout", {}, "seconds", &Settings::timeout, "Timeout."),
         O::enumeration("mode", {"m"}, std::nullopt, &Settings::mode, "Mode.")},
        {C::string("first", &Settings::first), C::strings("rest", &Settings::rest)});
}

void BM_Parse_Mirels(benchmark::State& state) {
    const auto options = mirelsOptions();
    const std::span<const char* const> arguments(kArgv.data() + 1, kArgv.size() - 1);
    checkSettings(options.parse(arguments, Settings()), "mirels");
    {
        mirels::bench::AllocationCounter allocations(state);
        for (auto _ : state) {
            Settings settings = options.parse(arguments, Settings());
            benchmark::DoNotOptimize(settings);
        }
    }
}
BENCHMARK(BM_Parse_Mirels);

// MARK: - CLI11

void BM_Parse_CLI11(benchmark::State& state) {
    CLI::App app("bench");
    Settings s;
    std::string output, input, config, name, target, first;
    app.add_option("-o,--output", output, "Output file.");
    app.add_option("-i,--input", input, "Input file.");
    app.add_option("-c,--config", config, "Configuration.");
    app.add_option("-n,--name", name, "Name.");
    app.add_option("-t,--target", target, "Target.");
    app.add_flag("-v,--verbose", s.verbose, "Verbose.");
    app.add_flag("-q,--quiet", s.quiet, "Quiet.");
    app.add_flag("-f,--force", s.force, "Force.");
    app.add_flag("--dry-run", s.dryRun, "Dry run.");
    app.add_flag("--color", s.color, "Colour.");
    app.add_option("-j,--jobs", s.jobs, "Jobs.");
    app.add_option("-l,--level", s.level, "Level.");
    app.add_option("--retries", s.retries, "Retries.");
    app.add_option("--timeout", s.timeout, "Timeout.");
    const std::map<std::string, BenchMode> modes = {{"debug", BenchMode::debug},
                                                    {"release", BenchMode::release},
                                                    {"profile", BenchMode::profile}};
    app.add_option("-m,--mode", s.mode, "Mode.")->transform(CLI::CheckedTransformer(modes));
    app.add_option("first", first, "First.");
    app.add_option("rest", s.rest, "Rest.");
    auto parse = [&] {
        app.clear();
        s = Settings();
        output.clear(), input.clear(), config.clear(), name.clear(), target.clear(), first.clear();
        app.parse(static_cast<int>(kArgv.size()), kArgv.data());
        Settings result = s;
        if (app.count("--output") != 0) result.output = output;
        if (app.count("--input") != 0) result.input = input;
        if (app.count("--config") != 0) result.config = config;
        if (app.count("--name") != 0) result.name = name;
        if (app.count("--target") != 0) result.target = target;
        if (app.count("first") != 0) result.first = first;
        return result;
    };
    checkSettings(parse(), "CLI11");
    {
        mirels::bench::AllocationCounter allocations(state);
        for (auto _ : state) {
            Settings settings = parse();
            benchmark::DoNotOptimize(settings);
        }
    }
}
BENCHMARK(BM_Parse_CLI11);

// MARK: - cxxopts

void BM_Parse_Cxxopts(benchmark::State& state) {
    cxxopts::Options options("bench", "bench");
    options.add_options()("o,output", "Output file.", cxxopts::value<std::string>())(
        "i,input", "Input file.", cxxopts::value<std::string>())(
        "c,config", "Configuration.", cxxopts::value<std::string>())("n,name", "Name.",
                                                                     cxxopts::value<std::string>())(
        "t,target", "Target.", cxxopts::value<std::string>())("v,verbose", "Verbose.")(
        "q,quiet", "Quiet.")("f,force", "Force.")("dry-run", "Dry run.")("color", "Colour.")(
        "j,jobs", "Jobs.", cxxopts::value<std::int64_t>())("l,level", "Level.",
                                                           cxxopts::value<std::int64_t>())(
        "retries", "Retries.", cxxopts::value<std::int64_t>())("timeout", "Timeout.",
                                                               cxxopts::value<std::int64_t>())(
        "m,mode", "Mode.", cxxopts::value<std::string>())("first", "First.",
                                                          cxxopts::value<std::string>())(
        "rest", "Rest.", cxxopts::value<std::vector<std::string>>());
    options.parse_positional({"first", "rest"});
    auto parse = [&] {
        const auto result = options.parse(static_cast<int>(kArgv.size()), kArgv.data());
        Settings s;
        auto text = [&](const char* key, std::optional<std::string>& field) {
            if (result.count(key) != 0) field = result[key].as<std::string>();
        };
        text("output", s.output), text("input", s.input), text("config", s.config);
        text("name", s.name), text("target", s.target), text("first", s.first);
        s.verbose = result.count("verbose") != 0, s.quiet = result.count("quiet") != 0;
        s.force = result.count("force") != 0, s.dryRun = result.count("dry-run") != 0;
        s.color = result.count("color") != 0;
        auto integer = [&](const char* key, std::int64_t& field) {
            if (result.count(key) != 0) field = result[key].as<std::int64_t>();
        };
        integer("jobs", s.jobs), integer("level", s.level), integer("retries", s.retries);
        integer("timeout", s.timeout);
        if (result.count("mode") != 0) {
            const auto& mode = result["mode"].as<std::string>();
            if (mode == "debug")
                s.mode = BenchMode::debug;
            else if (mode == "release")
                s.mode = BenchMode::release;
            else if (mode == "profile")
                s.mode = BenchMode::profile;
            else
                throw std::runtime_error("mode");
        }
        if (result.count("rest") != 0) s.rest = result["rest"].as<std::vector<std::string>>();
        return s;
    };
    checkSettings(parse(), "cxxopts");
    {
        mirels::bench::AllocationCounter allocations(state);
        for (auto _ : state) {
            Settings settings = parse();
            benchmark::DoNotOptimize(settings);
        }
    }
}
BENCHMARK(BM_Parse_Cxxopts);

// MARK: - getopt_long

std::int64_t integerOrDie(const char* text) {
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0') throw std::runtime_error("integer");
    return value;
}

Settings parseWithGetopt(std::array<char*, kArgv.size()>& argv) {
    enum : int { dryRun = 256, color, retries, timeout };
    static const option longOptions[] = {{"output", required_argument, nullptr, 'o'},
                                         {"input", required_argument, nullptr, 'i'},
                                         {"config", required_argument, nullptr, 'c'},
                                         {"name", required_argument, nullptr, 'n'},
                                         {"target", required_argument, nullptr, 't'},
                                         {"verbose", no_argument, nullptr, 'v'},
                                         {"quiet", no_argument, nullptr, 'q'},
                                         {"force", no_argument, nullptr, 'f'},
                                         {"dry-run", no_argument, nullptr, dryRun},
                                         {"color", no_argument, nullptr, color},
                                         {"jobs", required_argument, nullptr, 'j'},
                                         {"level", required_argument, nullptr, 'l'},
                                         {"retries", required_argument, nullptr, retries},
                                         {"timeout", required_argument, nullptr, timeout},
                                         {"mode", required_argument, nullptr, 'm'},
                                         {nullptr, 0, nullptr, 0}};
    Settings s;
    optind = 0;  // glibc: start over with a full reinitialisation
    opterr = 0;
    int c = 0;
    // A leading "-" returns positional arguments in place as option 1, without permuting argv.
    while ((c = getopt_long(static_cast<int>(argv.size()), argv.data(),
                            "-o:i:c:n:t:vqfj:l:m:", longOptions, nullptr)) != -1) {
        switch (c) {
            case 1:
                if (!s.first)
                    s.first = optarg;
                else
                    s.rest.emplace_back(optarg);
                break;
            case 'o':
                s.output = optarg;
                break;
            case 'i':
                s.input = optarg;
                break;
            case 'c':
                s.config = optarg;
                break;
            case 'n':
                s.name = optarg;
                break;
            case 't':
                s.target = optarg;
                break;
            case 'v':
                s.verbose = true;
                break;
            case 'q':
                s.quiet = true;
                break;
            case 'f':
                s.force = true;
                break;
            case dryRun:
                s.dryRun = true;
                break;
            case color:
                s.color = true;
                break;
            case 'j':
                s.jobs = integerOrDie(optarg);
                break;
            case 'l':
                s.level = integerOrDie(optarg);
                break;
            case retries:
                s.retries = integerOrDie(optarg);
                break;
            case timeout:
                s.timeout = integerOrDie(optarg);
                break;
            case 'm':
                if (std::strcmp(optarg, "debug") == 0)
                    s.mode = BenchMode::debug;
                else if (std::strcmp(optarg, "release") == 0)
                    s.mode = BenchMode::release;
                else if (std::strcmp(optarg, "profile") == 0)
                    s.mode = BenchMode::profile;
                else
                    throw std::runtime_error("mode");
                break;
            default:
                throw std::runtime_error("unknown option");
        }
    }
    return s;
}

void BM_Parse_GetoptLong(benchmark::State& state) {
    std::array<char*, kArgv.size()> argv{};
    auto reset = [&] {
        for (std::size_t i = 0; i < kArgv.size(); ++i) argv[i] = const_cast<char*>(kArgv[i]);
    };
    reset();
    checkSettings(parseWithGetopt(argv), "getopt_long");
    {
        mirels::bench::AllocationCounter allocations(state);
        for (auto _ : state) {
            reset();
            Settings settings = parseWithGetopt(argv);
            benchmark::DoNotOptimize(settings);
        }
    }
}
BENCHMARK(BM_Parse_GetoptLong);

}  // namespace

int main(int argc, char** argv) {
    return mirels::bench::runBenchmarks(argc, argv);
}
