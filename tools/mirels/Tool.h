#pragma once

// What the commands of the `mirels` tool share: how a command ends with a status of its own, how
// a command group dispatches to its commands, and how arguments after a program's path are kept
// verbatim.

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mirels/cli/CommandLineTool.h"
#include "mirels/crash/CrashReport.h"

namespace mirels::tool {

/// Thrown by a command that has printed what it had to say and ends the tool with `status`.
struct ExitRequest {
    int status = 0;
};

/// Exit statuses shared by several commands.
inline constexpr int timedOutStatus = 124;
inline constexpr int cannotExecuteStatus = 126;
inline constexpr int notFoundStatus = 127;

/// Splits a command's arguments at the program path: everything up to and including the first
/// positional argument is the command's own (options and the program), everything after it goes
/// to the program untouched, even when it begins with "-". `valueOptions` names the command's
/// options that take a value (they may take the next argument).
struct ProgramArguments {
    std::vector<std::string> own;
    std::vector<std::string> program;
};
ProgramArguments splitAtProgram(std::span<const std::string> arguments,
                                std::span<const std::string_view> valueOptions);

/// `program` as given when it holds a "/", otherwise the first executable of that name on PATH
/// (the name itself when there is none, so that the launch error names it).
std::string resolveProgram(const std::string& program);

/// Runs the commands of a group (`mirels crash run`) with the group's own usage page.
void runGroup(std::string description, std::vector<CommandLineCommandType> commands,
              std::vector<std::string> usageExamples, std::span<const std::string> arguments,
              AnyCommandLinePrinter& printer);

/// Prints what explains `report`: the most specific error's title and explanation, then the
/// report's structured description, or with `brief` the crash's signal and the first frames.
void explainReport(const CrashReport& report, bool brief, AnyCommandLinePrinter& printer);

/// The command groups of the tool.
CommandLineCommandType crashCommand();
CommandLineCommandType runCommand();
CommandLineCommandType buildCommand();
CommandLineCommandType plistCommand();
CommandLineCommandType errorCommand();

}  // namespace mirels::tool
