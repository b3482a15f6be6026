#include "mirels/errors/DiagnosticsCollector.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <system_error>
#include <utility>

#include "mirels/errors/DiagnosticsSummaryError.h"
#include "mirels/errors/HumanReadableError.h"
#include "mirels/platform/ProcessInfo.h"

namespace mirels {

namespace {

constexpr std::string_view indent = "      ";

std::string timeText(Issue::Clock::time_point time) {
    const auto sinceEpoch = time.time_since_epoch();
    auto seconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch - seconds).count();
    const auto whole = static_cast<time_t>(seconds.count());
    struct tm parts {};
    gmtime_r(&whole, &parts);
    std::array<char, 64> buffer{};
    std::snprintf(buffer.data(), buffer.size(), "%04d-%02d-%02d %02d:%02d:%02d.%03d",
                  parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour,
                  parts.tm_min, parts.tm_sec, static_cast<int>(milliseconds));
    return buffer.data();
}

/// Appends `text` with every non-empty line indented; a final line feed adds no empty line.
void appendIndented(std::string& out, std::string_view text) {
    if (text.empty()) return;
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t end = text.find('\n', start);
        const std::string_view line = text.substr(
            start, end == std::string_view::npos ? std::string_view::npos : end - start);
        if (end == std::string_view::npos && line.empty() && start > 0) break;
        if (!line.empty()) {
            out += indent;
            out += line;
        }
        out += '\n';
        if (end == std::string_view::npos) break;
        start = end + 1;
    }
}

std::string systemReason(int error) {
    return std::generic_category().message(error);
}

}  // namespace

DiagnosticsSummaryError::DiagnosticsSummaryError(std::string action, std::filesystem::path path,
                                                 std::string reason)
    : action_(std::move(action)), path_(std::move(path)), reason_(std::move(reason)) {}

std::optional<std::string> DiagnosticsSummaryError::highValueTitle() const {
    return "Unable to write the diagnostics summary";
}

std::optional<std::string> DiagnosticsSummaryError::additionalInfo() const {
    return action_ + " \"" + path_.string() + "\": " + reason_;
}

void DiagnosticsCollector::attach(std::string name, std::string text) {
    state_.syncWrite([&](State& state) {
        state.attachments.push_back({std::move(name), std::move(text)});
    });
}

std::vector<DiagnosticsCollector::Attachment> DiagnosticsCollector::attachments() const {
    return state_.syncRead([](const State& state) { return state.attachments; });
}

void DiagnosticsCollector::record(Issue issue) {
    std::shared_ptr<const HumanReadableError> error = issue.error();
    state_.syncWrite([&](State& state) { state.issues.push_back(std::move(issue)); });
    // Outside the lock: the error may attach to this very collector.
    if (error != nullptr) error->collectDiagnostics(*this);
}

void DiagnosticsCollector::report(Issue::Severity severity, std::string message,
                                  Callsite callsite) {
    record(Issue(severity, std::move(message), callsite));
}

void DiagnosticsCollector::report(Issue::Severity severity, std::string message, const Error& error,
                                  Callsite callsite) {
    record(Issue(severity, std::move(message), error, callsite));
}

std::vector<Issue> DiagnosticsCollector::issues() const {
    return state_.syncRead([](const State& state) { return state.issues; });
}

std::size_t DiagnosticsCollector::issueCount() const {
    return state_.syncRead([](const State& state) { return state.issues.size(); });
}

void DiagnosticsCollector::removeAll() {
    State removed;
    state_.syncWrite([&](State& state) { std::swap(state, removed); });
}

std::string DiagnosticsCollector::summaryText() const {
    return summaryText(processName(), static_cast<long>(::getpid()), Issue::Clock::now());
}

std::string DiagnosticsCollector::summaryText(std::string_view processName, long processIdentifier,
                                              Issue::Clock::time_point time) const {
    // Copy under the lock, render outside it: full diagnostics may be slow.
    const State state = state_.syncRead([](const State& current) { return current; });

    static constexpr std::array<Issue::Severity, 3> severities = {
        Issue::Severity::error, Issue::Severity::warning, Issue::Severity::note};
    static constexpr std::array<std::string_view, 3> headings = {"Errors", "Warnings", "Notes"};
    std::array<std::size_t, 3> counts{};
    for (const Issue& issue : state.issues) ++counts[static_cast<std::size_t>(issue.severity())];

    std::string out = "Mirels diagnostics summary\n";
    out += "Process: ";
    out += processName;
    out += " [" + std::to_string(processIdentifier) + "]\n";
    out += "Date/Time: " + timeText(time) + " UTC\n";
    out += "Issues: " + std::to_string(state.issues.size()) + " (" + std::to_string(counts[0]) +
           " errors, " + std::to_string(counts[1]) + " warnings, " + std::to_string(counts[2]) +
           " notes)\n";

    for (std::size_t s = 0; s < severities.size(); ++s) {
        if (counts[s] == 0) continue;
        out += '\n';
        out += headings[s];
        out += " (" + std::to_string(counts[s]) + "):\n";
        std::size_t number = 0;
        for (const Issue& issue : state.issues) {
            if (issue.severity() != severities[s]) continue;
            if (number > 0) out += '\n';
            ++number;
            out += "  [" + std::to_string(number) + "] " + timeText(issue.time()) + " UTC " +
                   issue.callsite().description() + "\n";
            appendIndented(out, issue.message());
            if (issue.error() != nullptr)
                appendIndented(out, issue.error()->fullDiagnosticsOutput());
        }
    }
    if (!state.attachments.empty()) {
        out += "\nAttachments (" + std::to_string(state.attachments.size()) + "):\n";
        for (std::size_t a = 0; a < state.attachments.size(); ++a) {
            if (a > 0) out += '\n';
            out += "  " + state.attachments[a].name + ":\n";
            appendIndented(out, state.attachments[a].text);
        }
    }
    return out;
}

std::filesystem::path DiagnosticsCollector::writeSummary(
    const std::filesystem::path& location) const {
    const std::filesystem::path folder = location / summaryFolderName;
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error || !std::filesystem::is_directory(folder)) {
        throw DiagnosticsSummaryError("Could not create the folder", folder,
                                      error ? error.message() : systemReason(ENOTDIR));
    }

    const std::string text = summaryText();
    std::filesystem::path file = folder / summaryFileName;
    std::string temporary = (folder / (std::string(summaryFileName) + ".XXXXXX")).string();
    const int descriptor = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (descriptor < 0) {
        throw DiagnosticsSummaryError("Could not create a file in", folder, systemReason(errno));
    }
    auto failWith = [&](const char* action, int code) {
        ::close(descriptor);
        ::unlink(temporary.c_str());
        throw DiagnosticsSummaryError(action, file, systemReason(code));
    };
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t result = ::write(descriptor, text.data() + written, text.size() - written);
        if (result < 0) {
            if (errno == EINTR) continue;
            failWith("Could not write", errno);
        }
        written += static_cast<std::size_t>(result);
    }
    // Readable by others like any report file; mkostemp makes it private.
    ::fchmod(descriptor, 0644);
    if (::fsync(descriptor) != 0) failWith("Could not write", errno);
    if (::close(descriptor) != 0) {
        const int code = errno;
        ::unlink(temporary.c_str());
        throw DiagnosticsSummaryError("Could not write", file, systemReason(code));
    }
    if (::rename(temporary.c_str(), file.c_str()) != 0) {
        const int code = errno;
        ::unlink(temporary.c_str());
        throw DiagnosticsSummaryError("Could not replace", file, systemReason(code));
    }
    return file;
}

}  // namespace mirels
