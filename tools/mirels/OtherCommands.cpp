// `mirels run`, `mirels build current | compare`, `mirels plist convert | show` and
// `mirels error show`.

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

#include "Tool.h"
#include "mirels/cli/CommandLineToolInvocation.h"
#include "mirels/core/RawValueCases.h"
#include "mirels/errors/HumanReadableConversion.h"
#include "mirels/errors/PlatformError.h"
#include "mirels/plist/PlistSerialization.h"
#include "mirels/version/BuildNumber.h"

extern char** environ;  // NOLINT(readability-redundant-declaration)

namespace mirels::tool {

namespace {

using Attribute = CommandLinePrintingAttribute;

/// A property list file's bytes; a directory is "not a file".
std::string readPropertyListFile(const std::string& path) {
    return readFile(path, "not a file");
}

// --- run ---

struct RunToolSettings {
    std::optional<std::string> timeout;
    std::optional<std::string> program;
};

constexpr std::array<std::string_view, 2> runToolValueOptions = {"timeout", "t"};

struct RunTool : CommandLineCommand<RunTool> {
    using Options = RunToolSettings;
    static constexpr std::string_view name = "run";
    static constexpr std::string_view description =
        "Runs PROGRAM with ARGS (verbatim) as a tool invocation, streaming its output. Exits 0 "
        "when it succeeds, 1 when it fails (non-zero status or a signal), 124 when it was ended "
        "after SECONDS (SIGTERM, then SIGKILL a second later), 127 when it cannot be started.";

    static CommandLineOptions<Options> options() {
        return CommandLineOptions<Options>(
            {CommandLineOption<Options>::string("timeout", {"t"}, "seconds", &Options::timeout,
                                                "Ends the program after SECONDS.")},
            {CommandLineArgumentConsumer<Options>::string("program", &Options::program),
             CommandLineArgumentConsumer<Options>("args", std::nullopt,
                                                  [](Options&, std::string_view) {})});
    }

    static void run(std::span<const std::string> arguments, AnyCommandLinePrinter& printer) {
        const auto split = splitAtProgram(arguments, runToolValueOptions);
        const Options settings = commandLineOptions().parse(split.own, Options());
        if (!settings.program) throw std::invalid_argument("Must pass a program to run");
        const auto seconds = parseSeconds(settings.timeout, false);

        CommandLineToolInvocation::Environment environment;
        for (char** entry = environ; *entry != nullptr; ++entry) {
            const std::string_view text(*entry);
            const auto equals = text.find('=');
            if (equals == std::string_view::npos) continue;
            environment.emplace(std::string(text.substr(0, equals)),
                                std::string(text.substr(equals + 1)));
        }
        const CommandLineToolInvocation invocation(
            resolveProgram(*settings.program), split.program, std::move(environment), std::nullopt,
            *settings.program, std::nullopt, true,
            [](const CommandLineToolInvocation& invocation, const std::string& output) {
                return Error(CommandLineToolInvocationError::failedWhenRunning(invocation, output));
            },
            [](const CommandLineToolInvocation& invocation, const Error& launchError) {
                return Error(
                    CommandLineToolInvocationError::failedToLaunch(invocation, launchError));
            });
        std::fflush(stdout);
        std::optional<Future<std::string>> future;
        try {
            future.emplace(invocation.run());
        } catch (const CommandLineToolInvocationError& error) {
            fail(printer,
                 error.highValueTitle().value_or("") + " " + error.additionalInfo().value_or(""),
                 notFoundStatus);
        }
        if (!waitUntilFinished(*future, seconds)) {
            future->cancel();  // SIGTERM now, SIGKILL after the grace period
            future->unpleasantWait();
            fail(printer,
                 invocation.toolName() + " did not finish within " + *settings.timeout + " seconds",
                 timedOutStatus);
        }
        const auto* termination = future->terminationIfFinished();
        if (termination != nullptr && termination->isFailed()) {
            fail(printer,
                 humanReadable(*termination->failedError())
                     ->highValueTitle()
                     .value_or(invocation.toolName() + " failed."),
                 1);
        }
    }

    static void execute(const Options&, AnyCommandLinePrinter&) {}
};

// --- build ---

struct NoSettings {};

struct BuildCurrent : CommandLineCommand<BuildCurrent> {
    using Options = NoSettings;
    static constexpr std::string_view name = "current";
    static constexpr std::string_view description =
        "Prints the running system's build number (BUILD_ID of os-release; 1A1 without one).";
    static CommandLineOptions<Options> options() { return {}; }
    static void execute(const Options&, AnyCommandLinePrinter& printer) {
        printer.print(BuildNumber::current().description());
    }
};

struct CompareSettings {
    std::vector<std::string> builds;
};

struct BuildCompare : CommandLineCommand<BuildCompare> {
    using Options = CompareSettings;
    static constexpr std::string_view name = "compare";
    static constexpr std::string_view description =
        "Prints how build A orders against build B (\"A < B\", \"A = B\" or \"A > B\") and exits "
        "0 when they are equal, 1 when A is older, 2 when A is newer, 3 when either is no build "
        "number.";
    static CommandLineOptions<Options> options() {
        return CommandLineOptions<Options>(CommandLineArgumentConsumer<Options>(
            "build", 2,
            [](Options& options, std::string_view build) { options.builds.emplace_back(build); }));
    }
    static void execute(const Options& settings, AnyCommandLinePrinter& printer) {
        if (settings.builds.size() != 2) {
            throw std::invalid_argument("Must pass two build numbers to compare");
        }
        std::optional<BuildNumber> parsed[2];
        for (std::size_t i = 0; i < 2; ++i) {
            try {
                parsed[i].emplace(settings.builds[i]);
            } catch (const HumanReadableError& error) {
                fail(printer,
                     "\"" + settings.builds[i] +
                         "\" is no build number: " + error.additionalInfo().value_or(error.what()),
                     3);
            }
        }
        const auto order = *parsed[0] <=> *parsed[1];
        const char* sign = order < 0 ? " < " : order > 0 ? " > " : " = ";
        printer.print(parsed[0]->description() + sign + parsed[1]->description());
        throw ExitRequest{order < 0 ? 1 : order > 0 ? 2 : 0};
    }
};

struct Build {
    static constexpr std::string_view name = "build";
    static constexpr std::string_view description =
        "Build numbers: print the running system's (current), order two (compare).";
    static std::string shortUsage() { return "current|compare ..."; }
    static std::vector<CommandLineOptionDescription> optionDescriptions() { return {}; }
    static void run(std::span<const std::string> arguments, AnyCommandLinePrinter& printer) {
        runGroup(std::string(description), {commandType<BuildCurrent>, commandType<BuildCompare>},
                 {"build current", "build compare A B"}, arguments, printer);
    }
};

// --- plist ---

enum class PlistFormat { xml, binary };

}  // namespace
}  // namespace mirels::tool

template <>
struct mirels::RawValueCases<mirels::tool::PlistFormat> {
    static constexpr std::array cases = {std::pair{mirels::tool::PlistFormat::xml, "xml"},
                                         std::pair{mirels::tool::PlistFormat::binary, "binary"}};
};

namespace mirels::tool {
namespace {

struct ConvertSettings {
    std::optional<PlistFormat> format;
    std::optional<std::string> output;
    std::optional<std::string> input;
};

struct PlistConvert : CommandLineCommand<PlistConvert> {
    using Options = ConvertSettings;
    static constexpr std::string_view name = "convert";
    static constexpr std::string_view description =
        "Reads the property list IN (XML or binary) and writes it in the form FORMAT to OUT, or "
        "to standard output (binary only when that is not a terminal).";
    static CommandLineOptions<Options> options() {
        return CommandLineOptions<Options>(
            {CommandLineOption<Options>::optionalEnumeration(
                 "to", {}, std::string("format"), &Options::format, "The form to write."),
             CommandLineOption<Options>::string("output", {"o"}, "out", &Options::output,
                                                "Writes to OUT instead of standard output.")},
            {CommandLineArgumentConsumer<Options>::string("in", &Options::input)});
    }
    static void execute(const Options& settings, AnyCommandLinePrinter& printer) {
        if (!settings.input) throw std::invalid_argument("Must pass a property list file");
        if (!settings.format) throw std::invalid_argument("Must pass --to xml or --to binary");
        const PlistValue value = parsePropertyList(readPropertyListFile(*settings.input));
        std::string bytes;
        if (*settings.format == PlistFormat::xml) {
            bytes = toXML(value);
        } else {
            const auto binary = toBinary(value);
            bytes.assign(binary.begin(), binary.end());
        }
        if (settings.output) {
            std::ofstream stream(*settings.output, std::ios::binary | std::ios::trunc);
            stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
            stream.close();
            if (!stream) {
                throw std::runtime_error("Could not write " + *settings.output + ": " +
                                         std::strerror(errno));
            }
            printer.print("Wrote " + *settings.output);
            return;
        }
        if (*settings.format == PlistFormat::binary && ::isatty(STDOUT_FILENO) != 0) {
            throw std::invalid_argument(
                "Refusing to write a binary property list to a terminal; pass --output OUT");
        }
        std::fflush(stdout);
        std::fwrite(bytes.data(), 1, bytes.size(), stdout);
    }
};

std::string scalarText(const PlistValue& value) {
    switch (value.kind()) {
        case PlistValue::Kind::string:
            return "\"" + *value.getIf<std::string>() + "\"";
        case PlistValue::Kind::boolean:
            return *value.getIf<bool>() ? "true" : "false";
        case PlistValue::Kind::integer:
            return std::to_string(*value.getIf<std::int64_t>());
        case PlistValue::Kind::real: {
            std::ostringstream text;
            text << *value.getIf<double>();
            return text.str();
        }
        case PlistValue::Kind::data:
            return "<" + std::to_string(value.getIf<PlistData>()->size()) + " bytes>";
        case PlistValue::Kind::date: {
            const auto seconds = static_cast<std::time_t>(
                value.getIf<PlistDate>()->secondsSinceReferenceDate + 978307200.0);
            std::tm parts{};
            ::gmtime_r(&seconds, &parts);
            char text[40];
            std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
            return text;
        }
        case PlistValue::Kind::array:
        case PlistValue::Kind::dictionary:
            break;
    }
    return {};
}

void printTree(const std::string& label, const PlistValue& value, int depth,
               AnyCommandLinePrinter& printer) {
    const std::string indent(static_cast<std::size_t>(depth) * 2, ' ');
    if (const auto* array = value.getIf<PlistArray>()) {
        printer.print(indent + label + "(" + std::to_string(array->size()) + " items)");
        for (std::size_t i = 0; i < array->size(); ++i) {
            printTree("[" + std::to_string(i) + "] ", (*array)[i], depth + 1, printer);
        }
    } else if (const auto* dictionary = value.getIf<PlistDictionary>()) {
        printer.print(indent + label + "{" + std::to_string(dictionary->size()) + " keys}");
        for (const auto& [key, element] : *dictionary) {
            printTree(key + ": ", element, depth + 1, printer);
        }
    } else {
        printer.print(indent + label + scalarText(value));
    }
}

struct ShowSettings {
    std::optional<std::string> file;
};

struct PlistShow : CommandLineCommand<PlistShow> {
    using Options = ShowSettings;
    static constexpr std::string_view name = "show";
    static constexpr std::string_view description =
        "Prints the property list FILE (XML or binary) as an indented tree.";
    static CommandLineOptions<Options> options() {
        return CommandLineOptions<Options>(
            CommandLineArgumentConsumer<Options>::string("file", &Options::file));
    }
    static void execute(const Options& settings, AnyCommandLinePrinter& printer) {
        if (!settings.file) throw std::invalid_argument("Must pass a property list file");
        printTree("", parsePropertyList(readPropertyListFile(*settings.file)), 0, printer);
    }
};

struct Plist {
    static constexpr std::string_view name = "plist";
    static constexpr std::string_view description =
        "Property lists: convert between XML and binary (convert), print as a tree (show).";
    static std::string shortUsage() { return "convert|show ..."; }
    static std::vector<CommandLineOptionDescription> optionDescriptions() { return {}; }
    static void run(std::span<const std::string> arguments, AnyCommandLinePrinter& printer) {
        runGroup(std::string(description), {commandType<PlistConvert>, commandType<PlistShow>},
                 {"plist convert IN --to xml|binary [--output OUT]", "plist show FILE"}, arguments,
                 printer);
    }
};

// --- error ---

struct ErrorShow : CommandLineCommand<ErrorShow> {
    using Options = ShowSettings;
    static constexpr std::string_view name = "show";
    static constexpr std::string_view description =
        "Rebuilds the human-readable error serialised in the property list FILE (XML or binary, "
        "the dictionary an error's property-list representation gives) and prints its full "
        "diagnostics.";
    static CommandLineOptions<Options> options() {
        return CommandLineOptions<Options>(
            CommandLineArgumentConsumer<Options>::string("file", &Options::file));
    }
    static void execute(const Options& settings, AnyCommandLinePrinter& printer) {
        if (!settings.file) throw std::invalid_argument("Must pass a serialised error file");
        const PropertyList list = parsePropertyListDictionary(readPropertyListFile(*settings.file));
        PlatformError::UserInfo userInfo;
        userInfo.emplace(std::string(PlatformError::humanReadableErrorKey),
                         PlistValue(list.serializableDictionary()));
        const auto error =
            deserializeHumanReadableError(PlatformError::qk_errorWithUserInfo(std::move(userInfo)));
        if (!error) {
            throw std::invalid_argument(*settings.file +
                                        " does not hold a serialised human-readable error");
        }
        if (auto title = error->effectiveTitle()) printer.print(*title, Attribute::bold);
        printer.print(error->fullDiagnosticsOutput());
    }
};

struct ErrorGroup {
    static constexpr std::string_view name = "error";
    static constexpr std::string_view description =
        "Serialised human-readable errors: print one with its full diagnostics (show).";
    static std::string shortUsage() { return "show FILE"; }
    static std::vector<CommandLineOptionDescription> optionDescriptions() { return {}; }
    static void run(std::span<const std::string> arguments, AnyCommandLinePrinter& printer) {
        runGroup(std::string(description), {commandType<ErrorShow>}, {"error show FILE"}, arguments,
                 printer);
    }
};

}  // namespace

CommandLineCommandType runCommand() {
    return commandType<RunTool>;
}
CommandLineCommandType buildCommand() {
    return commandType<Build>;
}
CommandLineCommandType plistCommand() {
    return commandType<Plist>;
}
CommandLineCommandType errorCommand() {
    return commandType<ErrorGroup>;
}

}  // namespace mirels::tool
