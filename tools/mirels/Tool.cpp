#include "Tool.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "mirels/crash/CrashError.h"
#include "mirels/crash/CrashReportError.h"
#include "mirels/crash/CrashReporter.h"
#include "mirels/crash/LinuxCrashTextErrors.h"

namespace mirels::tool {

void fail(AnyCommandLinePrinter& printer, const std::string& message, int status) {
    std::fflush(stdout);
    printer.printError(message);
    throw ExitRequest{status};
}

std::string readFile(const std::string& path, std::string_view directoryReason) {
    const auto failure = [&](std::string_view reason) {
        return FileReadError("Could not read " + path + ": " + std::string(reason));
    };
    const auto systemReason = [] { return errno != 0 ? std::strerror(errno) : "unreadable"; };
    errno = 0;
    std::ifstream stream(path, std::ios::binary);
    if (!stream) throw failure(systemReason());
    // A directory opens like a file and reads as an error: name it for what it is.
    if (std::filesystem::is_directory(path)) throw failure(directoryReason);
    try {
        return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    } catch (const std::ios_base::failure&) {  // the file buffer's way to report a read error
        throw failure(systemReason());
    }
}

std::optional<double> parseSeconds(const std::optional<std::string>& text, bool zeroAllowed) {
    if (!text) return std::nullopt;
    char* end = nullptr;
    const double value = std::strtod(text->c_str(), &end);
    if (text->empty() || *end != '\0' || !(zeroAllowed ? value >= 0 : value > 0)) {
        throw std::invalid_argument("Invalid value passed for \"timeout\": \"" + *text +
                                    "\" is not a " + (zeroAllowed ? "" : "positive ") +
                                    "number of seconds");
    }
    return value;
}

ProgramArguments splitAtProgram(std::span<const std::string> arguments,
                                std::span<const std::string_view> valueOptions) {
    ProgramArguments result;
    std::size_t index = 0;
    while (index < arguments.size()) {
        const std::string& argument = arguments[index++];
        result.own.push_back(argument);
        if (!argument.starts_with("-")) break;  // the program: the rest is its own
        if (argument.find('=') != std::string::npos) continue;
        std::string_view name = argument;
        while (name.starts_with("-")) name.remove_prefix(1);
        const bool takesValue =
            std::find(valueOptions.begin(), valueOptions.end(), name) != valueOptions.end();
        if (takesValue && index < arguments.size()) result.own.push_back(arguments[index++]);
    }
    result.program.assign(arguments.begin() + static_cast<std::ptrdiff_t>(index), arguments.end());
    return result;
}

std::string resolveProgram(const std::string& program) {
    if (program.find('/') != std::string::npos) return program;
    const char* path = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe): read at start-up
    std::string_view directories = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
    while (true) {
        const auto colon = directories.find(':');
        std::string directory(directories.substr(0, colon));
        if (directory.empty()) directory = ".";
        const std::string candidate = directory + "/" + program;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
        if (colon == std::string_view::npos) break;
        directories.remove_prefix(colon + 1);
    }
    return program;
}

void runGroup(std::string description, std::vector<CommandLineCommandType> commands,
              std::vector<std::string> usageExamples, std::span<const std::string> arguments,
              AnyCommandLinePrinter& printer) {
    // The group prints through the tool's own printer, which outlives it.
    const std::shared_ptr<AnyCommandLinePrinter> shared(&printer, [](AnyCommandLinePrinter*) {});
    const CommandLineTool group(std::move(description), std::move(commands),
                                std::move(usageExamples), shared);
    group.run(arguments);
}

namespace {

using Attribute = CommandLinePrintingAttribute;

/// The most specific explanation: the report's effective error, or where that is the generic
/// one, the first Linux crash-text parser that recognises the report.
std::shared_ptr<const CrashReportError> explanationOf(const CrashReport& report) {
    auto error = report.effectiveError();
    if (dynamic_cast<const CrashError*>(error.get()) != nullptr) {
        if (auto linuxError = linuxCrashTextError(report)) return linuxError;
    }
    return error;
}

bool isSystemLibrary(const CrashReport& report, const CrashReport::Frame& frame) {
    if (frame.imageIndex < 0 ||
        static_cast<std::size_t>(frame.imageIndex) >= report.images().size()) {
        return false;
    }
    const auto& path = report.images()[static_cast<std::size_t>(frame.imageIndex)].path;
    return path && (path->starts_with("/lib") || path->starts_with("/usr/lib"));
}

std::string frameLine(const CrashReport& report, std::size_t number,
                      const CrashReport::Frame& frame) {
    std::string line = "  " + std::to_string(number) + "  ";
    line += frame.symbol.value_or("???");
    if (frame.symbolLocation) line += " + " + std::to_string(*frame.symbolLocation);
    if (frame.imageIndex >= 0 &&
        static_cast<std::size_t>(frame.imageIndex) < report.images().size()) {
        const auto& image = report.images()[static_cast<std::size_t>(frame.imageIndex)];
        line += "  (" + image.name.value_or(image.path.value_or("?")) + ")";
    }
    return line;
}

void printBrief(const CrashReport& report, AnyCommandLinePrinter& printer) {
    if (report.asi()) {
        if (auto signal = (*report.asi())[std::string(CrashReporter::signalKey)];
            signal && !signal->empty()) {
            printer.print("Signal: " + signal->front());
        }
    }
    const auto& frames = report.frames();
    if (frames.empty()) return;
    // The program's own frames are what a reader wants: skip the C library's way to the signal.
    std::size_t first = 0;
    while (first < frames.size() && isSystemLibrary(report, frames[first])) ++first;
    if (first == frames.size()) first = 0;
    printer.print("Crashed in:", Attribute::bold);
    if (first > 0) {
        printer.print("  (" + std::to_string(first) + " frame" + (first == 1 ? "" : "s") +
                      " in system libraries)");
    }
    constexpr std::size_t shown = 6;
    const std::size_t end = std::min(frames.size(), first + shown);
    for (std::size_t i = first; i < end; ++i) printer.print(frameLine(report, i, frames[i]));
    if (end < frames.size()) {
        printer.print("  ... " + std::to_string(frames.size() - end) + " more");
    }
}

}  // namespace

void explainReport(const CrashReport& report, bool brief, AnyCommandLinePrinter& printer) {
    const auto error = explanationOf(report);
    const auto title = error->highValueTitle() ? error->highValueTitle() : error->lowValueTitle();
    printer.print(title.value_or(report.name() + " crashed"), Attribute::bold, Attribute::red);
    if (auto info = error->additionalInfo()) printer.print(*info);
    if (brief) {
        printBrief(report, printer);
        return;
    }
    printer.print("");
    printer.print(report.structuredDescription());
}

}  // namespace mirels::tool
