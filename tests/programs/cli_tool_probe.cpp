// A small multi-command tool on the command-line toolkit. Tests start it as a child process (on a
// pipe or a pseudo-terminal) to see what `CommandLineTool::run()` prints and how the process ends.

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "mirels/cli/CommandLineTool.h"

namespace {

using mirels::AnyCommandLinePrinter;
using mirels::CommandLineArgumentConsumer;
using mirels::CommandLineOption;
using mirels::CommandLineOptions;
using mirels::CommandLinePrinter;
using mirels::CommandLinePrintingAttribute;

struct BuildSettings {
    std::optional<std::string> output;
    bool verbose = false;
    std::int64_t jobs = 1;
    std::vector<std::string> files;
};

struct Build : mirels::CommandLineCommand<Build> {
    using Options = BuildSettings;
    static constexpr std::string_view name = "build";
    static constexpr std::string_view description = "Builds the files.";

    static CommandLineOptions<Options> options() {
        using O = CommandLineOption<Options>;
        return CommandLineOptions<Options>(
            {O::string("output", {"o"}, "path", &Options::output, "Where to write."),
             O::boolean("verbose", {"v"}, &Options::verbose, "Talk more."),
             O::integer("jobs", {"j"}, "count", &Options::jobs, "How many at once.")},
            CommandLineArgumentConsumer<Options>::strings("file", &Options::files));
    }

    static void execute(const Options& options, AnyCommandLinePrinter& printer) {
        std::string files;
        for (const auto& file : options.files) files += " " + file;
        printer.print("output=" + options.output.value_or("-") +
                      " verbose=" + (options.verbose ? "yes" : "no") +
                      " jobs=" + std::to_string(options.jobs) + " files:" + files);
    }
};

struct Colors {
    static constexpr std::string_view name = "colors";
    static constexpr std::string_view description = "Shows how the terminal printer decorates.";
    static std::string shortUsage() { return ""; }
    static std::vector<mirels::CommandLineOptionDescription> optionDescriptions() { return {}; }
    static void run(std::span<const std::string> /*arguments*/,
                    AnyCommandLinePrinter& /*printer*/) {
        CommandLinePrinter::print(CommandLinePrinter::allowsColor() ? "color" : "plain");
        CommandLinePrinter::print("x", CommandLinePrintingAttribute::bold,
                                  CommandLinePrintingAttribute::red);
        CommandLinePrinter::print("y");
        CommandLinePrinter::printError("bad");
    }
};

struct ExitWith {
    static constexpr std::string_view name = "exit-with";
    static constexpr std::string_view description = "Reports an error and exits with a status.";
    static std::string shortUsage() { return "STATUS"; }
    static std::vector<mirels::CommandLineOptionDescription> optionDescriptions() { return {}; }
    static void run(std::span<const std::string> arguments, AnyCommandLinePrinter& /*printer*/) {
        CommandLinePrinter::printError("leaving", arguments.empty() ? 2 : std::stoi(arguments[0]));
    }
};

struct ThrowPlain {
    static constexpr std::string_view name = "throw-plain";
    static constexpr std::string_view description = "Fails with an error that is not readable.";
    static std::string shortUsage() { return ""; }
    static std::vector<mirels::CommandLineOptionDescription> optionDescriptions() { return {}; }
    static void run(std::span<const std::string> /*arguments*/,
                    AnyCommandLinePrinter& /*printer*/) {
        throw std::runtime_error("plain failure");
    }
};

}  // namespace

int main() {
    mirels::CommandLineTool tool("Probes the command-line toolkit.",
                                 {mirels::commandType<Build>, mirels::commandType<Colors>,
                                  mirels::commandType<ExitWith>, mirels::commandType<ThrowPlain>},
                                 {"build OPTIONS [FILE]", "colors"});
    tool.run();
    return 0;
}
