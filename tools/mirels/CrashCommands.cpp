// `mirels crash run | explain | watch`.

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>

#include "Tool.h"
#include "mirels/crash/CrashReportListener.h"
#include "mirels/crash/CrashReporter.h"

namespace mirels::tool {

namespace {

std::optional<std::filesystem::path> folderOption(const std::optional<std::string>& folder) {
    if (!folder) return std::nullopt;
    return std::filesystem::path(*folder);
}

// --- crash run ---

struct RunSettings {
    std::optional<std::string> folder;
    bool brief = false;
    std::int64_t lines = 32;
    std::optional<std::string> program;
};

constexpr std::array<std::string_view, 2> runValueOptions = {"folder", "lines"};

struct CrashRun : CommandLineCommand<CrashRun> {
    using Options = RunSettings;
    static constexpr std::string_view name = "run";
    static constexpr std::string_view description =
        "Runs PROGRAM with ARGS (passed on verbatim, even when they begin with \"-\") under the "
        "crash reporter. When it crashes, prints the most specific explanation, then the crash "
        "report, and exits with 128 plus the signal number (127 when the dynamic loader refused "
        "to start it). Otherwise exits with the program's own status. A program that cannot be "
        "started exits 127 (not found) or 126.";

    static CommandLineOptions<Options> options() {
        return CommandLineOptions<Options>(
            {CommandLineOption<Options>::string(
                 "folder", {}, "dir", &Options::folder,
                 "Writes the report into DIR instead of the default crash-report folder."),
             CommandLineOption<Options>::boolean(
                 "brief", {"b"}, &Options::brief,
                 "Prints the signal and the first frames instead of the whole report."),
             CommandLineOption<Options>::integer(
                 "lines", {}, "count", &Options::lines,
                 "Keeps the program's last COUNT lines of standard error in the report (32).")},
            {CommandLineArgumentConsumer<Options>::string("program", &Options::program),
             CommandLineArgumentConsumer<Options>("args", std::nullopt,
                                                  [](Options&, std::string_view) {})});
    }

    static void run(std::span<const std::string> arguments, AnyCommandLinePrinter& printer) {
        const auto split = splitAtProgram(arguments, runValueOptions);
        const Options settings = commandLineOptions().parse(split.own, Options());
        if (!settings.program) throw std::invalid_argument("Must pass a program to run");
        if (settings.lines < 0) throw std::invalid_argument("--lines must not be negative");
        execute(settings, split.program, printer);
    }

    static void execute(const Options& settings, const std::vector<std::string>& arguments,
                        AnyCommandLinePrinter& printer) {
        CrashReporter::Configuration configuration;
        configuration.folder =
            folderOption(settings.folder).value_or(CrashReportListener::defaultFolder());
        configuration.standardErrorLineCount = static_cast<std::size_t>(settings.lines);
        auto reporter = CrashReporter::create(configuration);

        auto child = ChildProcess::create();
        child->setExecutableURL(resolveProgram(*settings.program));
        child->setArguments(arguments);
        std::optional<SupervisedProcess> supervised;
        try {
            std::fflush(stdout);
            supervised.emplace(reporter->launch(child));
        } catch (const ProcessError& error) {
            fail(printer, *error.highValueTitle(),
                 error.systemErrorNumber() == ENOENT ? notFoundStatus : cannotExecuteStatus);
        }
        const CrashOutcome& outcome = supervised->waitUntilDone();
        if (outcome.report) {
            explainReport(*outcome.report, settings.brief, printer);
            if (outcome.reportPath) printer.print("Report: " + outcome.reportPath->string());
            if (outcome.writeError) printer.printError(outcome.writeError->description());
        }
        throw ExitRequest{outcome.exitStatus()};
    }
};

// --- crash explain ---

struct ExplainSettings {
    bool brief = false;
    std::vector<std::string> files;
};

struct CrashExplain : CommandLineCommand<CrashExplain> {
    using Options = ExplainSettings;
    static constexpr std::string_view name = "explain";
    static constexpr std::string_view description =
        "Decodes each crash report FILE and prints its most specific explanation and its "
        "description. A file that cannot be read or decoded is reported, the others are still "
        "explained, and the tool exits 1.";

    static CommandLineOptions<Options> options() {
        return CommandLineOptions<Options>(
            {CommandLineOption<Options>::boolean(
                "brief", {"b"}, &Options::brief,
                "Prints the signal and the first frames instead of the whole report.")},
            {CommandLineArgumentConsumer<Options>::strings("file", &Options::files)});
    }

    static void execute(const Options& settings, AnyCommandLinePrinter& printer) {
        if (settings.files.empty()) throw std::invalid_argument("Must pass a crash report file");
        bool failed = false;
        for (std::size_t i = 0; i < settings.files.size(); ++i) {
            const std::string& file = settings.files[i];
            if (settings.files.size() > 1) {
                if (i > 0) printer.print("");
                printer.print("== " + file, CommandLinePrintingAttribute::bold);
            }
            try {
                explainReport(CrashReport::decode(readFile(file, std::strerror(EISDIR))),
                              settings.brief, printer);
            } catch (const FileReadError& error) {
                printer.printError(error.what());
                failed = true;
            } catch (const HumanReadableError& error) {
                printer.printError(file + ": " + error.additionalInfo().value_or(error.what()));
                failed = true;
            }
        }
        if (failed) throw ExitRequest{1};
    }
};

// --- crash watch ---

struct WatchSettings {
    std::optional<std::string> process;
    std::optional<std::string> folder;
    std::optional<std::string> timeout;
    bool brief = false;
};

/// The next complete report in `folder` of any process, within `seconds` (forever when
/// absent). Complete means renamed into the folder or closed after writing, as the listener
/// counts them.
std::optional<CrashReport> nextReportOfAnyProcess(const std::filesystem::path& folder,
                                                  std::optional<double> seconds) {
    const int watch = ::inotify_init1(IN_CLOEXEC);
    if (watch < 0 || ::inotify_add_watch(watch, folder.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE) < 0) {
        const int number = errno;
        if (watch >= 0) ::close(watch);
        throw CrashReportListenerError(folder.string(), std::strerror(number));
    }
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds.value_or(0));
    std::optional<CrashReport> found;
    alignas(inotify_event) char buffer[8192];
    while (!found) {
        int wait = -1;
        if (seconds) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) break;
            wait = static_cast<int>(left.count());
        }
        pollfd entry{.fd = watch, .events = POLLIN, .revents = 0};
        if (::poll(&entry, 1, wait) <= 0) continue;
        const ssize_t length = ::read(watch, buffer, sizeof buffer);
        for (ssize_t offset = 0; offset < length && !found;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);  // NOLINT
            offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            const std::string name = event->len > 0 ? event->name : "";
            if (name.empty() || name.front() == '.' || !name.ends_with(".json")) continue;
            try {
                found =
                    CrashReport::decode(readFile((folder / name).string(), std::strerror(EISDIR)));
            } catch (const FileReadError&) {
                // Gone or unreadable: wait for the next one, as the listener does.
            } catch (const HumanReadableError&) {
                // Not a report: wait for the next one, as the listener does.
            }
        }
    }
    ::close(watch);
    return found;
}

struct CrashWatch : CommandLineCommand<CrashWatch> {
    using Options = WatchSettings;
    static constexpr std::string_view name = "watch";
    static constexpr std::string_view description =
        "Waits for the next crash report (of process NAME, or of any process) to appear in the "
        "crash-report folder and explains it. Exits 124 when SECONDS pass without one.";

    static CommandLineOptions<Options> options() {
        return CommandLineOptions<Options>(std::vector<CommandLineOption<Options>>{
            CommandLineOption<Options>::string("process", {"p"}, "name", &Options::process,
                                               "Waits for a report of the process NAME only."),
            CommandLineOption<Options>::string("timeout", {"t"}, "seconds", &Options::timeout,
                                               "Gives up after SECONDS (a decimal number)."),
            CommandLineOption<Options>::string(
                "folder", {}, "dir", &Options::folder,
                "Watches DIR instead of the default crash-report folder."),
            CommandLineOption<Options>::boolean(
                "brief", {"b"}, &Options::brief,
                "Prints the signal and the first frames instead of the whole report.")});
    }

    static void execute(const Options& settings, AnyCommandLinePrinter& printer) {
        const auto seconds = parseSeconds(settings.timeout, true);
        const auto folder =
            folderOption(settings.folder).value_or(CrashReportListener::defaultFolder());
        std::error_code ignored;
        std::filesystem::create_directories(folder, ignored);
        printer.print("Waiting for a crash report in " + folder.string() + " ...");
        std::fflush(stdout);
        std::optional<CrashReport> report;
        if (settings.process) {
            auto listener = CrashReportListener::create(folder);
            auto next = listener->nextReport(*settings.process);
            waitUntilFinished(next, seconds);
            if (const auto* termination = next.terminationIfFinished()) {
                if (termination->isSucceeded()) {
                    report = termination->resultIfCompleted()->get();
                } else if (termination->isFailed()) {
                    termination->failedError()->rethrow();
                }
            } else {
                next.cancel();
            }
        } else {
            report = nextReportOfAnyProcess(folder, seconds);
        }
        if (!report)
            fail(printer, "No crash report within " + *settings.timeout + " seconds",
                 timedOutStatus);
        explainReport(*report, settings.brief, printer);
    }
};

struct Crash {
    static constexpr std::string_view name = "crash";
    static constexpr std::string_view description =
        "Crash reports: run a program under the crash reporter (run), explain report files "
        "(explain), wait for the next report (watch). `crash --help` prints each command's "
        "usage.";
    static std::string shortUsage() { return "run|explain|watch ..."; }
    static std::vector<CommandLineOptionDescription> optionDescriptions() { return {}; }
    static void run(std::span<const std::string> arguments, AnyCommandLinePrinter& printer) {
        runGroup(std::string(description),
                 {commandType<CrashRun>, commandType<CrashExplain>, commandType<CrashWatch>},
                 {"crash run [OPTIONS] PROGRAM [ARGS...]", "crash explain [--brief] FILE...",
                  "crash watch [--process NAME] [--timeout SECONDS]"},
                 arguments, printer);
    }
};

}  // namespace

CommandLineCommandType crashCommand() {
    return commandType<Crash>;
}

}  // namespace mirels::tool
