#pragma once

// What the commands of the `mirels` tool share: how a command ends with a status of its own, how
// a command group dispatches to its commands, how arguments after a program's path are kept
// verbatim, how files and time-outs are read and how a command waits for a future.

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "mirels/cli/CommandLineTool.h"
#include "mirels/crash/CrashReport.h"
#include "mirels/futures/Future.h"

namespace mirels::tool {

/// Thrown by a command that has printed what it had to say and ends the tool with `status`.
struct ExitRequest {
    int status = 0;
};

/// Exit statuses shared by several commands.
inline constexpr int timedOutStatus = 124;
inline constexpr int cannotExecuteStatus = 126;
inline constexpr int notFoundStatus = 127;

/// Prints `message` as an error and ends the tool with `status`. Standard output is flushed
/// first, so that the message follows whatever a program the tool ran has written.
[[noreturn]] void fail(AnyCommandLinePrinter& printer, const std::string& message, int status);

/// A file the tool could not read; its text is "Could not read PATH: REASON".
struct FileReadError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The whole file at `path`, as bytes. Throws `FileReadError` when it cannot be opened or read,
/// with the system's reason, or when it is a directory, with `directoryReason`.
std::string readFile(const std::string& path, std::string_view directoryReason);

/// The --timeout option's SECONDS (a decimal number; 0 only with `zeroAllowed`), or nothing
/// without one. Throws `std::invalid_argument` naming the bad value.
std::optional<double> parseSeconds(const std::optional<std::string>& text, bool zeroAllowed);

/// Blocks until `future` finishes, or at most `seconds` when given. Whether it finished.
template <class T>
bool waitUntilFinished(Future<T>& future, std::optional<double> seconds) {
    // Shared with the observer, which may run after a timed-out wait has returned.
    struct Waiter {
        std::mutex mutex;
        std::condition_variable finished;
        bool done = false;
    };
    auto waiter = std::make_shared<Waiter>();
    future.observeFinish([waiter](const auto&) {
        std::lock_guard lock(waiter->mutex);
        waiter->done = true;
        waiter->finished.notify_all();
    });
    std::unique_lock lock(waiter->mutex);
    if (!seconds) {
        waiter->finished.wait(lock, [&] { return waiter->done; });
        return true;
    }
    return waiter->finished.wait_for(lock, std::chrono::duration<double>(*seconds),
                                     [&] { return waiter->done; });
}

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
