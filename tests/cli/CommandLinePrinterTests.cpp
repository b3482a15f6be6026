#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "mirels/cli/CapturingCommandLinePrinter.h"
#include "mirels/cli/CommandLinePrinter.h"

extern char** environ;

namespace mirels {
namespace {

using A = CommandLinePrintingAttribute;

TEST(CommandLinePrinter, AttributesAreTerminalCodesInTheirOrder) {
    std::vector<int> raws;
    for (const auto& [member, raw] : RawValueCases<A>::cases) {
        raws.push_back(raw);
        EXPECT_EQ(static_cast<int>(member), raw);
        EXPECT_EQ(commandLinePrintingAttribute(raw), member);
    }
    EXPECT_EQ(raws, (std::vector<int>{1, 30, 34, 32, 36, 31, 35, 33, 37}));
    for (const int other : {0, 2, 29, 38, 31 + 256, -31}) {
        EXPECT_EQ(commandLinePrintingAttribute(other), std::nullopt) << other;
    }
}

TEST(CommandLinePrinter, PaddingRepeatsWholePadsAndCountsCharacters) {
    EXPECT_EQ(padded("ab", 5, "-", PaddingPosition::leading), "---ab");
    EXPECT_EQ(padded("ab", 5, "xy", PaddingPosition::trailing), "abxyxy");
    EXPECT_EQ(padded("ab", 6, "xy", PaddingPosition::trailing), "abxyxy");
    EXPECT_EQ(padded("abc", 3, "", PaddingPosition::leading), "abc");  // long enough: no pad
    EXPECT_EQ(padded("héé", 5, "·", PaddingPosition::trailing), "héé··");
    EXPECT_EQ(padded("", 2, "é", PaddingPosition::leading), "éé");
    EXPECT_EQ(characterCount("e\xcc\x81"), 1u);         // e and a combining acute accent
    EXPECT_EQ(characterCount("\xcc\x81\xcc\x81"), 1u);  // marks with nothing to attach to
    EXPECT_EQ(characterCount("\xff\xfe"
                             "a"),
              3u);                              // invalid bytes count one each
    EXPECT_EQ(characterCount("\xe2\x82"), 2u);  // a truncated sequence
}

TEST(CommandLinePrinterDeathTest, AnEmptyPadStopsTheProcess) {
    EXPECT_DEATH((void)padded("ab", 3, "", PaddingPosition::trailing), "empty pad");
}

TEST(CommandLinePrinter, CapturingPrinterKeepsLinesErrorsAndColumns) {
    CapturingCommandLinePrinter printer;
    printer.print("plain");
    printer.print("two", A::bold, A::green);
    printer.print("listed", {A::blue});
    printer.printError("failed");
    EXPECT_EQ(printer.output(), "plain\ntwo\nlisted\n*** failed\n");
    const auto lines = printer.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1].attributes, (std::vector<A>{A::bold, A::green}));
    EXPECT_EQ(lines[3], (CapturingCommandLinePrinter::Line{"*** failed", {A::red}}));

    printer.clear();
    printer.printInColumns(std::vector<std::string>{"name", "size", "note"},
                           {{"ä.txt", "1"}, {"long-name", "12345", "big"}}, {{}, {A::cyan}}, " | ");
    EXPECT_EQ(printer.output(),
              "name      | size  | note\n"
              "ä.txt     | 1     | \n"
              "long-name | 12345 | big\n");

    CapturingCommandLinePrinter escapes(true);
    escapes.printInColumns(std::nullopt, {{"a", "b"}}, {{A::red}}, " ");
    EXPECT_EQ(escapes.output(), "\x1b[0;m\x1b[0;31ma\x1b[0;m b\x1b[0;m\n");
    escapes.clear();
    escapes.print("x", A::bold, A::red);
    EXPECT_EQ(escapes.output(), "\x1b[0;1;31mx\x1b[0;m\n");
}

TEST(CommandLinePrinter, CapturingPrinterTakesLinesFromSeveralThreads) {
    CapturingCommandLinePrinter printer;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&printer] {
            for (int i = 0; i < 500; ++i) printer.print("line", A::bold);
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(printer.lines().size(), 2000u);
}

/// Runs the probe tool's "colors" command on a pseudo-terminal and returns what it showed.
std::string runOnTerminal(const char* lscolors) {
    // Everything the child needs is made before the fork: it only calls execve.
    std::vector<std::string> variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (!std::string_view(*entry).starts_with("LSCOLORS=")) variables.emplace_back(*entry);
    }
    if (lscolors != nullptr) variables.push_back(std::string("LSCOLORS=") + lscolors);
    std::vector<char*> environment;
    for (auto& variable : variables) environment.push_back(variable.data());
    environment.push_back(nullptr);
    std::string program = std::string(MIRELS_TEST_PROGRAM_DIR) + "/cli_tool_probe";
    std::string command = "colors";
    char* argv[] = {program.data(), command.data(), nullptr};

    int terminal = -1;
    const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid == 0) {
        execve(argv[0], argv, environment.data());
        _exit(127);
    }
    std::string output;
    char buffer[256];
    ssize_t count = 0;
    while ((count = read(terminal, buffer, sizeof buffer)) > 0) {
        output.append(buffer, static_cast<std::size_t>(count));
    }
    close(terminal);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    // The terminal turns each line feed into a carriage return and a line feed.
    std::string text;
    for (const char c : output) {
        if (c != '\r') text += c;
    }
    return text;
}

TEST(CommandLinePrinter, ATerminalGetsColourOnlyWhenLsColorsIsSet) {
    EXPECT_EQ(runOnTerminal("ExGxBxDxCxEgEdxbxgxcxd"),
              "\x1b[0;mcolor\x1b[0;m\n"
              "\x1b[0;1;31mx\x1b[0;m\n"
              "\x1b[0;my\x1b[0;m\n"
              "\x1b[0;31m*** bad\x1b[0;m\n");
    EXPECT_EQ(runOnTerminal(""), "plain\nx\ny\n*** bad\n");
    EXPECT_EQ(runOnTerminal(nullptr), "plain\nx\ny\n*** bad\n");
}

}  // namespace
}  // namespace mirels
