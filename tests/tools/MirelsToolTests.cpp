// The `mirels` tool, run as a user runs it: a separate process, its exit status, what it prints
// on standard output and error, with and without a terminal.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "../support/Files.h"
#include "mirels/crash/CrashReport.h"
#include "mirels/plist/PlistSerialization.h"
#include "mirels/plist/PropertyListError.h"
#include "support/TemporaryDirectory.h"
#include "support/TestEnvironment.h"

extern char** environ;  // NOLINT(readability-redundant-declaration)

namespace mirels {
namespace {

using testing::readFile;
using testing::writeFile;

using testing::TemporaryDirectory;

#ifdef MIRELS_TOOL_PATH
const std::string toolPath = MIRELS_TOOL_PATH;
#else
const std::string toolPath;
#endif
#ifdef MIRELS_CRASHING_EXAMPLES_DIR
const std::string crashingDirectory = MIRELS_CRASHING_EXAMPLES_DIR;
#else
const std::string crashingDirectory;
#endif
const std::string reportsDirectory = std::string(MIRELS_TEST_SOURCE_DIR) + "/../examples/reports";
const std::string crasherPath = std::string(MIRELS_TEST_PROGRAM_DIR) + "/crash_reporter_child";

struct ToolRun {
    int status = -1;  // the exit status, or 128 + signal
    std::string output;
    std::string error;
};

/// Runs the tool with `arguments`; with `terminal`, its standard output is a pseudo-terminal and
/// LSCOLORS is set, so that it may colour.
ToolRun runTool(const std::vector<std::string>& arguments, bool terminal = false) {
    std::vector<std::string> storage = {toolPath};
    storage.insert(storage.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : storage) argv.push_back(argument.data());
    argv.push_back(nullptr);
    std::vector<std::string> variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (std::string_view(*entry).starts_with("LSCOLORS=")) continue;
        variables.emplace_back(*entry);
    }
    if (terminal) variables.emplace_back("LSCOLORS=ExFxCxDxBxegedabagacad");
    std::vector<char*> envp;
    for (auto& variable : variables) envp.push_back(variable.data());
    envp.push_back(nullptr);

    int output[2];
    int error[2];
    int slave = -1;
    if (terminal) {
        EXPECT_EQ(::openpty(&output[0], &slave, nullptr, nullptr, nullptr), 0);
        output[1] = slave;
    } else {
        EXPECT_EQ(::pipe2(output, O_CLOEXEC), 0);
    }
    EXPECT_EQ(::pipe2(error, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, output[1], 1);
    posix_spawn_file_actions_adddup2(&actions, error[1], 2);
    pid_t pid = 0;
    const int spawned =
        ::posix_spawn(&pid, toolPath.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(output[1]);
    ::close(error[1]);
    ToolRun run;
    if (spawned != 0) {
        ADD_FAILURE() << "could not start " << toolPath;
        return run;
    }
    pollfd entries[2] = {{output[0], POLLIN, 0}, {error[0], POLLIN, 0}};
    std::string* texts[2] = {&run.output, &run.error};
    int open = 2;
    while (open > 0) {
        if (::poll(entries, 2, 30'000) <= 0) break;
        for (int i = 0; i < 2; ++i) {
            if (entries[i].fd < 0 || entries[i].revents == 0) continue;
            char buffer[4096];
            const ssize_t length = ::read(entries[i].fd, buffer, sizeof buffer);
            if (length <= 0) {  // the end (a terminal says EIO once the child has gone)
                ::close(entries[i].fd);
                entries[i].fd = -1;
                --open;
            } else {
                texts[i]->append(buffer, static_cast<std::size_t>(length));
            }
        }
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (terminal) run.output = std::regex_replace(run.output, std::regex("\r\n"), "\n");
    return run;
}

/// The report path the tool printed after "Report: ".
std::filesystem::path reportPathIn(const std::string& output) {
    std::smatch match;
    if (!std::regex_search(output, match, std::regex("Report: (.*)\n"))) return {};
    return match[1].str();
}

class MirelsToolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (toolPath.empty()) GTEST_SKIP() << "built without the mirels tool (MIRELS_BUILD_TOOLS)";
        testing::disableLeakCheckingInChildren();
    }
};

TEST_F(MirelsToolTest, UsagePagesAndBadArguments) {
    const ToolRun bare = runTool({});
    EXPECT_EQ(bare.status, 1);
    EXPECT_TRUE(bare.output.starts_with("Usage: mirels crash run [OPTIONS] PROGRAM [ARGS...]\n"))
        << bare.output;
    EXPECT_TRUE(bare.output.ends_with("*** Must pass command\n"));

    const ToolRun help = runTool({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.output.find("\n\nCOMMANDS\n\ncrash run|explain|watch ...\n"), std::string::npos);
    EXPECT_EQ(help.output.find("***"), std::string::npos);

    const ToolRun unknown = runTool({"frob"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_TRUE(unknown.output.ends_with("*** Unknown command \"frob\"\n"));

    const ToolRun group = runTool({"crash", "--help"});
    EXPECT_EQ(group.status, 0);
    EXPECT_NE(group.output.find("\nexplain OPTIONS [FILE]\n"), std::string::npos);
    EXPECT_NE(group.output.find("--folder DIR\n    Writes the report into DIR"), std::string::npos);

    // A command's own errors come without the usage page.
    const ToolRun badOption = runTool({"crash", "run", "--frob", "/bin/true"});
    EXPECT_EQ(badOption.status, 1);
    EXPECT_EQ(badOption.output, "*** Unknown command line option \"--frob\"\n");
    EXPECT_EQ(runTool({"crash", "run"}).output, "*** Must pass a program to run\n");
    EXPECT_EQ(runTool({"crash", "run", "--lines"}).output,
              "*** Option \"lines\" requires a value\n");
    const ToolRun badFormat = runTool({"plist", "convert", "x.plist", "--to", "json"});
    EXPECT_EQ(badFormat.status, 1);
    EXPECT_NE(badFormat.output.find("Must be one of: xml, binary"), std::string::npos);
    const ToolRun badTimeout = runTool({"run", "--timeout", "soon", "/bin/true"});
    EXPECT_EQ(badTimeout.status, 1);
    EXPECT_NE(badTimeout.output.find("\"soon\""), std::string::npos);
}

TEST_F(MirelsToolTest, CrashRunExplainsEachCrashingExampleAndItsReportNamesTheFunction) {
    if (crashingDirectory.empty()) GTEST_SKIP() << "built without the examples";
    TemporaryDirectory folder("mirels-tool");
    struct Case {
        std::string program;
        int status;
        std::string title;
        std::string function;  // empty: no frames expected
    };
    const std::vector<Case> cases = {
        {"uncaught_exception", 128 + SIGABRT,
         "uncaught_exception crashed due to an uncaught C++ exception", "loadConfiguration("},
        {"failed_assert", 128 + SIGABRT, "Assertion failed in failed_assert.cpp",
         "checkInventory(int)"},
        {"null_dereference", 128 + SIGSEGV, "null_dereference crashed", "nameLength("},
        {"missing_library", 127,
         "missing_library crashed because libmirels_crashing_plugin.so is missing", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.program);
        const ToolRun run = runTool({"crash", "run", "--folder", folder.path().string(),
                                     crashingDirectory + "/" + c.program});
        EXPECT_EQ(run.status, c.status);
        EXPECT_TRUE(run.output.starts_with(c.title + "\n")) << run.output;
        EXPECT_NE(run.output.find("\nProcess: " + c.program + "["), std::string::npos);
        const auto path = reportPathIn(run.output);
        ASSERT_FALSE(path.empty()) << run.output;
        const CrashReport report = CrashReport::decode(readFile(path));
        EXPECT_EQ(report.name(), c.program);
        if (c.function.empty()) {
            EXPECT_TRUE(report.frames().empty());
            EXPECT_NE(run.error.find("error while loading shared libraries"), std::string::npos);
            continue;
        }
        const bool named = std::any_of(
            report.frames().begin(), report.frames().end(), [&](const CrashReport::Frame& frame) {
                return frame.symbol && frame.symbol->starts_with(c.function);
            });
        EXPECT_TRUE(named) << report.structuredDescription();
    }

    // Arguments after the program reach it verbatim; a clean exit passes its status through.
    const ToolRun passed = runTool({"crash", "run", "--folder", folder.path().string(), crasherPath,
                                    "exit", "7", "-x", "--lines", "a=b"});
    EXPECT_EQ(passed.status, 7);
    EXPECT_EQ(passed.output, "-x\n--lines\na=b\n");
    const ToolRun missing = runTool({"crash", "run", "/nonexistent/program"});
    EXPECT_EQ(missing.status, 127);
    EXPECT_NE(missing.output.find("*** Could not launch /nonexistent/program"), std::string::npos);
}

TEST_F(MirelsToolTest, ExplainGoesOnAfterBadFilesAndWatchWaitsForTheNextReport) {
    TemporaryDirectory folder("mirels-tool");
    writeFile(folder / "broken.json", R"({"name":"x","bug_type":"y","pid":"seven"})");
    const ToolRun explained = runTool(
        {"crash", "explain", "--brief", folder.path().string() + "/absent.json",
         folder.path().string() + "/broken.json", reportsDirectory + "/uncaught-exception.json"});
    EXPECT_EQ(explained.status, 1);
    EXPECT_NE(explained.output.find("*** Could not read " + folder.path().string() +
                                    "/absent.json: No such file or directory"),
              std::string::npos);
    EXPECT_NE(explained.output.find("broken.json: pid:"), std::string::npos) << explained.output;
    EXPECT_NE(explained.output.find("RenderService crashed due to an uncaught exception\n"
                                    "RenderService crashed due to an uncaught exception "
                                    "`InvalidStateError`. Reason: layer 3 was drawn after it was "
                                    "removed.\n"),
              std::string::npos);
    const ToolRun samples = runTool({"crash", "explain", reportsDirectory + "/heap-corruption.json",
                                     reportsDirectory + "/fatal-error-in-file.json"});
    EXPECT_EQ(samples.status, 0);
    EXPECT_NE(samples.output.find("`fatalError` in ContentView.swift\n"), std::string::npos);
    EXPECT_NE(samples.output.find("thumbnailer crashed due to heap corruption\n"),
              std::string::npos);

    const ToolRun nothing = runTool({"crash", "watch", "--process", "nobody", "--timeout", "0.2",
                                     "--folder", folder.path().string()});
    EXPECT_EQ(nothing.status, 124);
    EXPECT_NE(nothing.output.find("*** No crash report within 0.2 seconds"), std::string::npos);

    // A watcher sees the report that a crash run writes meanwhile, with and without a name.
    for (const bool byName : {true, false}) {
        ToolRun watched;
        std::vector<std::string> arguments = {
            "crash", "watch", "--brief", "--timeout", "20", "--folder", folder.path().string()};
        if (byName) arguments.insert(arguments.end(), {"--process", "crash_reporter_child"});
        std::thread watcher([&] { watched = runTool(arguments); });
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        const ToolRun crashed =
            runTool({"crash", "run", "--folder", folder.path().string(), crasherPath, "deep", "3"});
        watcher.join();
        EXPECT_EQ(crashed.status, 128 + SIGSEGV);
        EXPECT_EQ(watched.status, 0) << watched.output;
        EXPECT_NE(watched.output.find("crash_reporter_child crashed\n"), std::string::npos)
            << watched.output;
        EXPECT_NE(watched.output.find("crashAtTheBottom()"), std::string::npos);
    }
}

TEST_F(MirelsToolTest, ColourOnlyOnATerminal) {
    const std::string sample = reportsDirectory + "/null-dereference.json";
    const ToolRun piped = runTool({"crash", "explain", "--brief", sample});
    EXPECT_EQ(piped.output.find('\x1b'), std::string::npos);
    EXPECT_TRUE(piped.output.starts_with("null_dereference crashed\n"));
    const ToolRun coloured = runTool({"crash", "explain", "--brief", sample}, true);
    EXPECT_EQ(coloured.status, 0);
    EXPECT_TRUE(coloured.output.starts_with("\x1b[0;1;31mnull_dereference crashed\x1b[0;m\n"))
        << coloured.output;
    const ToolRun error = runTool({"frob"}, true);
    EXPECT_NE(error.output.find("\x1b[0;31m*** Unknown command \"frob\"\x1b[0;m"),
              std::string::npos);
}

TEST_F(MirelsToolTest, BuildPlistErrorAndRunCommands) {
    EXPECT_EQ(runTool({"build", "compare", "20A5", "20a5"}).status, 0);
    const ToolRun older = runTool({"build", "compare", "20A5", "20A5a"});
    EXPECT_EQ(older.status, 1);
    EXPECT_EQ(older.output, "20A5 < 20A5a\n");
    EXPECT_EQ(runTool({"build", "compare", "21C5021a", "20A5"}).status, 2);
    const ToolRun invalid = runTool({"build", "compare", "21C", "20A5"});
    EXPECT_EQ(invalid.status, 3);
    EXPECT_NE(invalid.output.find("\"21C\" is no build number"), std::string::npos);
    EXPECT_EQ(runTool({"build", "current"}).status, 0);

    TemporaryDirectory folder("mirels-tool");
    PlistDictionary inner{{"size", PlistValue(std::int64_t{3})}};
    const PlistValue value(
        PlistDictionary{{"name", PlistValue("demo")},
                        {"items", PlistValue(PlistArray{PlistValue(true), PlistValue(1.5)})},
                        {"inner", PlistValue(inner)}});
    writeFile(folder / "in.plist", toXML(value));
    const std::string binary = (folder / "out.bplist").string();
    const ToolRun converted = runTool(
        {"plist", "convert", (folder / "in.plist").string(), "--to", "binary", "-o", binary});
    EXPECT_EQ(converted.status, 0) << converted.output;
    EXPECT_EQ(parsePropertyList(readFile(binary)), value);
    const ToolRun shown = runTool({"plist", "show", binary});
    EXPECT_EQ(shown.output,
              "{3 keys}\n  inner: {1 keys}\n    size: 3\n  items: (2 items)\n    [0] true\n"
              "    [1] 1.5\n  name: \"demo\"\n");
    const ToolRun unreadable = runTool({"plist", "show", (folder / "absent").string()});
    EXPECT_EQ(unreadable.status, 1);
    EXPECT_NE(unreadable.output.find("*** Could not read"), std::string::npos);
    writeFile(folder / "junk.plist", "not a plist");
    EXPECT_EQ(runTool({"plist", "show", (folder / "junk.plist").string()}).status, 1);

    // A serialised error, rebuilt with its full diagnostics.
    const PropertyListError error = PropertyListError::missingKey("port", PropertyList());
    writeFile(folder / "error.plist", toXML(error.plistRepresentation()));
    const ToolRun rebuilt = runTool({"error", "show", (folder / "error.plist").string()});
    EXPECT_EQ(rebuilt.status, 0) << rebuilt.output;
    EXPECT_NE(rebuilt.output.find("Property list missing value for required key \"port\""),
              std::string::npos);
    const ToolRun notAnError = runTool({"error", "show", (folder / "in.plist").string()});
    EXPECT_EQ(notAnError.status, 1);
    EXPECT_NE(notAnError.output.find("does not hold a serialised human-readable error"),
              std::string::npos);

    // run: streamed output, failure, time-out, launch failure.
    EXPECT_EQ(runTool({"run", "/bin/echo", "-n", "hi"}).output, "hi");
    const ToolRun failed = runTool({"run", "/bin/sh", "-c", "echo partial; exit 3"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.output, "partial\n*** sh failed.\n");
    const ToolRun slow = runTool({"run", "--timeout", "0.2", "/bin/sleep", "10"});
    EXPECT_EQ(slow.status, 124);
    EXPECT_NE(slow.output.find("sleep did not finish within 0.2 seconds"), std::string::npos);
    EXPECT_EQ(runTool({"run", "/nonexistent/tool"}).status, 127);
}

}  // namespace
}  // namespace mirels
