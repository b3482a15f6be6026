// The `mirels` tool: the library at work from a shell.

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "Tool.h"
#include "mirels/cli/CommandLinePrinter.h"
#include "mirels/errors/HumanReadableError.h"

int main(int argc, char** argv) {
    using namespace mirels;
    const CommandLineTool tool(
        "Shows MirelsFoundation at work: runs programs under its crash reporter and explains "
        "their crashes, runs tools, compares build numbers, converts property lists and prints "
        "serialised errors. Each command group prints its own usage with --help.",
        {tool::crashCommand(), tool::runCommand(), tool::buildCommand(), tool::plistCommand(),
         tool::errorCommand()},
        {"crash run [OPTIONS] PROGRAM [ARGS...]", "crash explain [--brief] FILE...",
         "crash watch [--process NAME] [--timeout SECONDS]",
         "run [--timeout SECONDS] PROGRAM [ARGS...]", "build current", "build compare A B",
         "plist convert IN --to xml|binary [--output OUT]", "plist show FILE", "error show FILE"});
    const std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    int status = 0;
    std::string message;
    try {
        tool.run(arguments);
    } catch (const tool::ExitRequest& request) {
        status = request.status;
    } catch (const HumanReadableError& error) {
        message = error.additionalInfo().value_or(error.description());
        status = 1;
    } catch (const std::exception& error) {
        message = error.what();
        status = 1;
    }
    if (!message.empty()) tool.printer().printError(message);
    std::fflush(stdout);
    return status;
}
