// One translation unit that declares a tool with 15 options on our toolkit. Compiled by
// measure.sh beside the same tool written with CLI11; not part of the build.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "mirels/cli/CommandLineTool.h"

namespace {

enum class Mode { debug, release, profile };

}  // namespace

template <>
struct mirels::RawValueCases<Mode> {
    static constexpr std::array cases = {std::pair{Mode::debug, "debug"},
                                         std::pair{Mode::release, "release"},
                                         std::pair{Mode::profile, "profile"}};
};

namespace {

struct Settings {
    std::optional<std::string> output, input, config, name, target;
    bool verbose = false, quiet = false, force = false, dryRun = false, color = false;
    std::int64_t jobs = 1, level = 0, retries = 0, timeout = 0;
    Mode mode = Mode::debug;
    std::optional<std::string> first;
    std::vector<std::string> rest;
};

struct Build : mirels::CommandLineCommand<Build> {
    using Options = Settings;
    static constexpr std::string_view name = "build";
    static constexpr std::string_view description = "Builds.";
    static mirels::CommandLineOptions<Options> options() {
        using O = mirels::CommandLineOption<Options>;
        using C = mirels::CommandLineArgumentConsumer<Options>;
        return mirels::CommandLineOptions<Options>(
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
    static void execute(const Options& options, mirels::AnyCommandLinePrinter& printer) {
        printer.print(options.output.value_or("-"));
    }
};

}  // namespace

int main() {
    mirels::CommandLineTool tool("A tool.", {mirels::commandType<Build>}, {"build OPTIONS"});
    tool.run();
}
