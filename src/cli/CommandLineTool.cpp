#include "mirels/cli/CommandLineTool.h"

#include <cstdlib>
#include <exception>
#include <fstream>
#include <iterator>

#include "mirels/cli/CommandLineErrors.h"
#include "mirels/platform/ProcessInfo.h"

namespace mirels {

namespace {

/// The process's arguments after the program path, as the kernel keeps them.
std::vector<std::string> processArguments() {
    std::ifstream file("/proc/self/cmdline", std::ios::binary);
    const std::string contents{std::istreambuf_iterator<char>(file),
                               std::istreambuf_iterator<char>()};
    std::vector<std::string> arguments;
    std::size_t start = 0;
    while (start < contents.size()) {
        std::size_t end = contents.find('\0', start);
        if (end == std::string::npos) end = contents.size();
        arguments.emplace_back(contents, start, end - start);
        start = end + 1;
    }
    if (!arguments.empty()) arguments.erase(arguments.begin());
    return arguments;
}

/// Each line of `text` after four blanks; empty lines stay empty.
std::string indented(std::string_view text) {
    std::string result;
    std::size_t start = 0;
    while (true) {
        const std::size_t end = text.find('\n', start);
        const std::string_view line = text.substr(
            start, end == std::string_view::npos ? std::string_view::npos : end - start);
        if (!line.empty()) result += "    ";
        result += line;
        if (end == std::string_view::npos) break;
        result += '\n';
        start = end + 1;
    }
    return result;
}

std::string commandBlock(const CommandLineCommandType& command) {
    std::string block(command.name());
    block += ' ';
    block += command.shortUsage();
    block += "\n\n";
    block += command.description();
    block += "\n\n";
    bool first = true;
    for (const CommandLineOptionDescription& option : command.optionDescriptions()) {
        if (!first) block += '\n';
        first = false;
        block += option.shortUsage();
        block += '\n';
        block += indented(option.description);
    }
    return block;
}

}  // namespace

CommandLineTool::CommandLineTool(std::string description,
                                 std::vector<CommandLineCommandType> commands,
                                 std::vector<std::string> usageExamples,
                                 std::shared_ptr<AnyCommandLinePrinter> printer)
    : description_(std::move(description)),
      commands_(std::move(commands)),
      usageExamples_(std::move(usageExamples)),
      printer_(printer ? std::move(printer) : std::make_shared<CommandLinePrinter>()) {}

std::string CommandLineTool::usage() const {
    std::vector<std::string> synopsis;
    if (!usageExamples_.empty()) {
        for (const std::string& example : usageExamples_) {
            synopsis.push_back(processName() + " " + example);
        }
    } else {
        for (const CommandLineCommandType& command : commands_) {
            std::string line = processName() + " " + std::string(command.name());
            if (const std::string shortUsage = command.shortUsage(); !shortUsage.empty()) {
                line += ' ';
                line += shortUsage;
            }
            synopsis.push_back(std::move(line));
        }
        if (synopsis.empty()) synopsis.push_back(processName());
    }

    std::string page = "Usage: ";
    for (std::size_t i = 0; i < synopsis.size(); ++i) {
        if (i > 0) page += "\n       ";
        page += synopsis[i];
    }
    page += "\n\n";
    page += description_;
    page += "\n\nCOMMANDS\n\n";
    for (std::size_t i = 0; i < commands_.size(); ++i) {
        if (i > 0) page += "\n\n\n";
        page += commandBlock(commands_[i]);
    }
    page += "\n\n";
    return page;
}

void CommandLineTool::printUsage() const {
    printer_->print(usage());
}

void CommandLineTool::runArguments(std::span<const std::string> arguments) const {
    if (arguments.empty()) {
        printUsage();
        throw MissingCommandError();
    }
    const std::string& first = arguments.front();
    for (const CommandLineCommandType& command : commands_) {
        if (command.name() == first) {
            command.run(arguments.subspan(1), *printer_);
            return;
        }
    }
    if (first == "-h" || first == "--help" || first == "-help") {
        printUsage();
        return;
    }
    printUsage();
    throw UnknownCommandError(first);
}

void CommandLineTool::run() const {
    std::string message;
    try {
        runArguments(processArguments());
        return;
    } catch (const HumanReadableError& error) {
        message = error.additionalInfo().value_or(error.description());
    } catch (const std::exception& error) {
        message = error.what();
    } catch (...) {
        message = "Unknown error";
    }
    printer_->printError(message);
    std::fflush(stdout);
    std::exit(1);  // NOLINT(concurrency-mt-unsafe): ending the process is the contract
}

}  // namespace mirels
