// Feeds arbitrary argument vectors through a fixed option set: the input is split at NUL bytes
// into arguments (so empty arguments, lone dashes, runs of "=" and invalid UTF-8 all occur). The
// parse must either succeed, with every value it stored taken from the input, or throw one of the
// library's command-line errors; nothing else may escape, crash or hang.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mirels/cli/CommandLineErrors.h"
#include "mirels/cli/CommandLineOptions.h"
#include "mirels/cli/CommandLinePrinter.h"

namespace mirels {

enum class FuzzMode { debug, release };

template <>
struct RawValueCases<FuzzMode> {
    static constexpr std::array cases = {std::pair{FuzzMode::debug, "debug"},
                                         std::pair{FuzzMode::release, "release"}};
};

}  // namespace mirels

namespace {

using namespace mirels;

struct Settings {
    std::optional<std::string> output;
    bool verbose = false;
    std::int64_t jobs = 0;
    std::int8_t level = 0;
    FuzzMode mode = FuzzMode::debug;
    std::optional<FuzzMode> maybe;
    std::vector<std::string> defines;
    std::optional<std::string> first;
    std::vector<std::string> pair;
    std::vector<std::string> rest;
};

const CommandLineOptions<Settings>& fuzzOptions() {
    using O = CommandLineOption<Settings>;
    using C = CommandLineArgumentConsumer<Settings>;
    static const CommandLineOptions<Settings> options(
        {O::string("output", {"o", "out"}, "path", &Settings::output, "Output."),
         O::boolean("verbose", {"v"}, &Settings::verbose, "Verbose."),
         O::integer("jobs", {"j"}, "n", &Settings::jobs, "Jobs."),
         O::integer("level", {"l", "v"}, "n", &Settings::level, "Level; takes -v over."),
         O::enumeration("mode", {"m"}, std::nullopt, &Settings::mode, "Mode."),
         O::optionalEnumeration("maybe", {}, "kind", &Settings::maybe, "Maybe."),
         O("define", {"D", ""}, "pair", "Two values.",
           [](Settings& settings, CommandLineValueFetcher& fetch) {
               std::string key(fetch());
               settings.defines.push_back(key + "=" + std::string(fetch()));
           })},
        {C::string("first", &Settings::first),
         C("pair", 2,
           [](Settings& settings, std::string_view argument) {
               settings.pair.emplace_back(argument);
           }),
         C::strings("rest", &Settings::rest)});
    return options;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> arguments;
    std::size_t start = 0;
    while (start <= input.size() && arguments.size() < 256) {
        std::size_t end = input.find('\0', start);
        if (end == std::string_view::npos) end = input.size();
        arguments.emplace_back(input.substr(start, end - start));
        start = end + 1;
    }
    const auto& options = fuzzOptions();
    try {
        const Settings settings = options.parse(arguments, Settings());
        if (settings.pair.size() > 2) std::abort();
        if (settings.output && input.find(*settings.output) == std::string_view::npos) std::abort();
        if (!settings.rest.empty() && settings.pair.size() != 2) std::abort();
    } catch (const UnknownOptionError& error) {
        if (error.additionalInfo()->empty()) std::abort();
    } catch (const OptionNeedsArgumentError& error) {
        (void)error.additionalInfo();
    } catch (const InvalidInteger& error) {
        (void)error.additionalInfo();
    } catch (const UnknownEnumValue& error) {
        (void)error.additionalInfo();
    }
    // The usage texts and padding handle any bytes as well.
    (void)options.shortUsage();
    if (!arguments.empty()) {
        (void)padded(arguments.front(), 16, arguments.back().empty() ? "." : arguments.back(),
                     PaddingPosition::leading);
    }
    return 0;
}
