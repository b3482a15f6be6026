#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mirels/cli/CapturingCommandLinePrinter.h"
#include "mirels/cli/CommandLineErrors.h"
#include "mirels/cli/CommandLineTool.h"
#include "mirels/platform/ProcessInfo.h"
#include "platform/ChildProcess.h"

namespace mirels {
namespace {

struct CopySettings {
    std::optional<std::string> source;
    std::vector<std::string> targets;
    bool force = false;
};

std::vector<std::string> copied;

struct Copy : CommandLineCommand<Copy> {
    using Options = CopySettings;
    static constexpr std::string_view name = "copy";
    static constexpr std::string_view description = "Copies a file.";
    static CommandLineOptions<Options> options() {
        using O = CommandLineOption<Options>;
        using C = CommandLineArgumentConsumer<Options>;
        return CommandLineOptions<Options>(
            {O::boolean("force", {"f"}, &Options::force, "Overwrite.\nEven newer files."),
             O::string("from", {}, "path", &Options::source, "The source.")},
            {C::strings("target", &Options::targets)});
    }
    static void execute(const Options& options, AnyCommandLinePrinter& printer) {
        copied = options.targets;
        printer.print("copy " + options.source.value_or("?") + (options.force ? " forced" : ""));
    }
};

/// A command without settings whose name is a help flag.
struct Helpful {
    static constexpr std::string_view name = "--help";
    static constexpr std::string_view description = "Not the usage page.";
    static std::string shortUsage() { return ""; }
    static std::vector<CommandLineOptionDescription> optionDescriptions() { return {}; }
    static void run(std::span<const std::string> arguments, AnyCommandLinePrinter& printer) {
        printer.print("helpful " + std::to_string(arguments.size()));
    }
};

static_assert(CommandLineCommandProtocol<Copy> && CommandLineCommandProtocol<Helpful>);

struct ToolTest : ::testing::Test {
    std::shared_ptr<CapturingCommandLinePrinter> printer =
        std::make_shared<CapturingCommandLinePrinter>();
    CommandLineTool tool{"Moves bytes around.",
                         {commandType<Copy>},
                         {"copy --from PATH TARGET...", "copy -f TARGET"},
                         printer};
    std::string page() const { return tool.usage() + "\n"; }
};

TEST_F(ToolTest, TheUsagePageIsAssembledFromItsParts) {
    const std::string& process = processName();
    EXPECT_EQ(tool.usage(), "Usage: " + process + " copy --from PATH TARGET...\n       " + process +
                                " copy -f TARGET\n\nMoves bytes around.\n\nCOMMANDS\n\n"
                                "copy OPTIONS [TARGET]\n\nCopies a file.\n\n"
                                "--force, -f\n    Overwrite.\n    Even newer files.\n"
                                "--from PATH\n    The source.\n\n");

    // Blocks are joined with three line feeds; a command without options or usage keeps its
    // separators; with no examples the synopsis lists the commands.
    const CommandLineTool two("Two.", {commandType<Copy>, commandType<Helpful>}, {}, printer);
    EXPECT_EQ(two.usage(), "Usage: " + process + " copy OPTIONS [TARGET]\n       " + process +
                               " --help\n\nTwo.\n\nCOMMANDS\n\n"
                               "copy OPTIONS [TARGET]\n\nCopies a file.\n\n"
                               "--force, -f\n    Overwrite.\n    Even newer files.\n"
                               "--from PATH\n    The source.\n\n\n"
                               "--help \n\nNot the usage page.\n\n\n\n");
    EXPECT_EQ(CommandLineTool("None.", {}, {}, printer).usage(),
              "Usage: " + process + "\n\nNone.\n\nCOMMANDS\n\n\n\n");
}

TEST_F(ToolTest, DispatchRunsTheNamedCommandWithTheRest) {
    tool.run({"copy", "a", "--from", "src", "b", "-f"});
    EXPECT_EQ(copied, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(printer->output(), "copy src forced\n");

    // A command's parse error passes through without the usage page.
    printer->clear();
    try {
        tool.run(std::vector<std::string>{"copy", "--x"});
        ADD_FAILURE();
    } catch (const UnknownOptionError& error) {
        EXPECT_EQ(error.additionalInfo(), "Unknown command line option \"--x\"");
    }
    EXPECT_EQ(printer->output(), "");
}

TEST_F(ToolTest, MissingAndUnknownCommandsPrintTheUsagePageFirst) {
    try {
        tool.run(std::vector<std::string>{});
        ADD_FAILURE();
    } catch (const MissingCommandError& error) {
        EXPECT_EQ(error.additionalInfo(), "Must pass command");
    }
    EXPECT_EQ(printer->output(), page());

    printer->clear();
    try {
        tool.run({"frob", "copy"});
        ADD_FAILURE();
    } catch (const UnknownCommandError& error) {
        EXPECT_EQ(error.commandName(), "frob");
        EXPECT_EQ(error.additionalInfo(), "Unknown command \"frob\"");
    }
    EXPECT_EQ(printer->output(), page());

    // Help flags print the page and succeed; names are exact ("COPY" is no command).
    for (const char* help : {"-h", "--help", "-help"}) {
        printer->clear();
        tool.run({help, "ignored"});
        EXPECT_EQ(printer->output(), page());
    }
    EXPECT_THROW(tool.run({"COPY"}), UnknownCommandError);
    EXPECT_THROW(tool.run({"--HELP"}), UnknownCommandError);

    // A command named like a help flag wins over the help check.
    const CommandLineTool helpful("", {commandType<Helpful>}, {}, printer);
    printer->clear();
    helpful.run({"--help", "x"});
    EXPECT_EQ(printer->output(), "helpful 1\n");
}

/// Runs the probe tool with `arguments` on a pipe.
testing::ChildResult runProbeTool(const std::vector<std::string>& arguments) {
    return testing::runChild(std::string(MIRELS_TEST_PROGRAM_DIR) + "/cli_tool_probe", arguments,
                             {{"LSCOLORS", "ExGxBxDxCxEgEdxbxgxcxd"}});
}

TEST(CommandLineToolProcess, RunEndsTheProcessWithStatusOneOnFailure) {
    const std::string usage =
        "Usage: cli_tool_probe build OPTIONS [FILE]\n       cli_tool_probe colors\n\n"
        "Probes the command-line toolkit.\n\nCOMMANDS\n\n"
        "build OPTIONS [FILE]\n\nBuilds the files.\n\n"
        "--output PATH, -o PATH\n    Where to write.\n"
        "--verbose, -v\n    Talk more.\n"
        "--jobs COUNT, -j COUNT\n    How many at once.\n\n\n"
        "colors \n\nShows how the terminal printer decorates.\n\n\n\n\n"
        "exit-with STATUS\n\nReports an error and exits with a status.\n\n\n\n\n"
        "throw-plain \n\nFails with an error that is not readable.\n\n\n\n\n";

    auto result = runProbeTool({});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, usage + "*** Must pass command\n");

    result = runProbeTool({"--help"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, usage);

    result = runProbeTool({"frob"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, usage + "*** Unknown command \"frob\"\n");

    result = runProbeTool({"build", "a", "-j=4", "--output", "o", "b", "-v"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "output=o verbose=yes jobs=4 files: a b\n");

    result = runProbeTool({"build", "--x"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, "*** Unknown command line option \"--x\"\n");

    result = runProbeTool({"build", "-j", "4x"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, "*** Invalid integer passed for \"jobs\": \"4x\"\n");

    result = runProbeTool({"throw-plain"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, "*** plain failure\n");

    // printError with a status, and no colour on a pipe even with LSCOLORS set.
    result = runProbeTool({"exit-with", "7"});
    EXPECT_EQ(result.exitCode, 7);
    EXPECT_EQ(result.output, "*** leaving\n");
    result = runProbeTool({"colors"});
    EXPECT_EQ(result.output, "plain\nx\ny\n*** bad\n");
}

}  // namespace
}  // namespace mirels
