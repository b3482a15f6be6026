#include "mirels/version/BuildNumber.h"

#include <array>
#include <charconv>
#include <fstream>
#include <ostream>
#include <system_error>

#include "mirels/core/Assertions.h"
#include "mirels/core/Callsite.h"
#include "mirels/platform/Log.h"

namespace mirels {

namespace {

bool isAsciiLetter(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

/// Reads decimal integers and single characters from the front of a text, as a build string
/// is laid out. Nothing is skipped between the parts.
class Scanner {
  public:
    explicit Scanner(std::string_view text) noexcept : text_(text) {}

    bool atEnd() const noexcept { return position_ == text_.size(); }
    std::string_view rest() const noexcept { return text_.substr(position_); }

    /// An optional sign and at least one ASCII digit. Nothing when there is no number, or when
    /// it does not fit 64 bits (the digits are consumed either way).
    std::optional<std::int64_t> scanInteger() noexcept {
        const char* begin = text_.data() + position_;
        const char* end = text_.data() + text_.size();
        const char* digits = begin;
        if (digits != end && (*digits == '+' || *digits == '-')) ++digits;
        const char* stop = digits;
        while (stop != end && *stop >= '0' && *stop <= '9') ++stop;
        if (stop == digits) return std::nullopt;
        position_ += static_cast<std::size_t>(stop - begin);
        std::int64_t value = 0;
        // from_chars takes a minus sign but not a plus sign.
        const char* from = *begin == '+' ? digits : begin;
        auto [next, error] = std::from_chars(from, stop, value);
        if (error != std::errc() || next != stop) return std::nullopt;
        return value;
    }

    std::optional<char> scanCharacter() noexcept {
        if (atEnd()) return std::nullopt;
        return text_[position_++];
    }

  private:
    std::string_view text_;
    std::size_t position_ = 0;
};

std::string quotedText(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 2);
    out += '"';
    out += text;
    out += '"';
    return out;
}

const Logger& versionLog() {
    static const auto* log = new Logger("org.mirels.foundation", "version");
    return *log;
}

// The value of an os-release assignment: unquoted, or in single or double quotes, with
// backslash escapes as the shell reads them.
std::string unquoteValue(std::string_view raw) {
    std::string value;
    char quote = 0;
    for (std::size_t i = 0; i < raw.size(); ++i) {
        const char c = raw[i];
        if (quote == 0 && (c == '"' || c == '\'')) {
            quote = c;
        } else if (quote != 0 && c == quote) {
            quote = 0;
        } else if (c == '\\' && quote != '\'' && i + 1 < raw.size()) {
            value += raw[++i];
        } else if (quote == 0 && (c == ' ' || c == '\t' || c == '\r')) {
            break;  // an unquoted blank ends the value, as in a shell
        } else {
            value += c;
        }
    }
    return value;
}

std::optional<std::string> buildIdEntry(std::istream& stream) {
    std::optional<std::string> found;
    std::string line;
    while (std::getline(stream, line)) {
        std::string_view view(line);
        while (!view.empty() && (view.front() == ' ' || view.front() == '\t'))
            view.remove_prefix(1);
        if (view.empty() || view.front() == '#') continue;
        const std::size_t equals = view.find('=');
        if (equals == std::string_view::npos) continue;
        if (view.substr(0, equals) != "BUILD_ID") continue;
        found = unquoteValue(view.substr(equals + 1));  // a later assignment wins, as in a shell
    }
    return found;
}

}  // namespace

std::string BuildNumber::Invalid::message() const {
    std::string text = "Invalid build number " + quotedText(string_) + ": ";
    switch (case_) {
        case Case::majorRelease:
            return text + "expected a release number of at least 1 at the start.";
        case Case::minorRelease:
            return text + "expected a release-train letter after the release number.";
        case Case::majorBuild:
            return text + "expected a build number of at least 1 after the release-train letter.";
        case Case::minorBuild:
            return text + "expected nothing or a suffix letter after the build number.";
        case Case::trailingCharacters:
            return text + "unexpected characters after the suffix letter.";
    }
    return text;
}

std::string BuildNumber::FailedToGetCurrentVersionString::message() const {
    std::string text = "Failed to get the system's build version string";
    if (!reason_.empty()) text += ": " + reason_;
    return text;
}

BuildNumber::BuildNumber(std::string_view string) : BuildNumber(1, 'A', 1) {
    Scanner scanner(string);
    const std::optional<std::int64_t> release = scanner.scanInteger();
    if (!release || *release < 1) throw Invalid::majorRelease(std::string(string));
    const std::optional<char> train = scanner.scanCharacter();
    if (!train || !isAsciiLetter(*train)) throw Invalid::minorRelease(std::string(string));
    const std::optional<std::int64_t> build = scanner.scanInteger();
    if (!build || *build < 1) throw Invalid::majorBuild(std::string(string));
    std::optional<char> suffix;
    if (const std::optional<char> next = scanner.scanCharacter()) {  // characters remain
        if (!isAsciiLetter(*next)) throw Invalid::minorBuild(std::string(string));
        suffix = next;
    }
    if (!scanner.atEnd()) throw Invalid::trailingCharacters(std::string(string));
    majorRelease_ = *release;
    rawMinorRelease_ = *train;
    majorBuild_ = *build;
    rawMinorBuild_ = suffix;
}

BuildNumber BuildNumber::createConfidently(std::string_view string) {
    try {
        return BuildNumber(string);
    } catch (const Invalid&) {
        assertionFailure("invalid build number", Callsite::library("createConfidently(_:)"));
        return distantFuture();
    }
}

std::string BuildNumber::description() const {
    std::string text = std::to_string(majorRelease_);
    text += minorRelease();
    text += std::to_string(majorBuild_);
    if (const std::optional<char> suffix = minorBuild()) text += *suffix;
    return text;
}

std::ostream& operator<<(std::ostream& stream, const BuildNumber& build) {
    return stream << build.description();
}

std::span<const std::filesystem::path> BuildNumber::defaultVersionRecordFiles() {
    static const std::array<std::filesystem::path, 2> files = {
        std::filesystem::path("/etc/os-release"), std::filesystem::path("/usr/lib/os-release")};
    return files;
}

std::string BuildNumber::systemBuildString(std::span<const std::filesystem::path> files) {
    for (const std::filesystem::path& file : files) {
        std::error_code error;
        if (!std::filesystem::exists(file, error)) continue;
        std::ifstream stream(file);
        if (!stream) {
            throw FailedToGetCurrentVersionString("cannot read " + file.string());
        }
        std::optional<std::string> entry = buildIdEntry(stream);
        if (!entry) throw FailedToGetCurrentVersionString(file.string() + " has no BUILD_ID");
        if (entry->empty())
            throw FailedToGetCurrentVersionString(file.string() + " has an empty BUILD_ID");
        return std::move(*entry);
    }
    std::string names;
    for (const std::filesystem::path& file : files) {
        names += names.empty() ? "" : ", ";
        names += file.string();
    }
    throw FailedToGetCurrentVersionString("no version record (" + names + ")");
}

BuildNumber BuildNumber::currentReadingFrom(std::span<const std::filesystem::path> files) {
    try {
        return BuildNumber(systemBuildString(files));
    } catch (const HumanReadableError& error) {
        versionLog().error("Failed to get current system version, falling back to 1A1: %{public}@",
                           error);
        return distantPast();
    }
}

const BuildNumber& BuildNumber::current() {
    // A function-local static: initialised once, thread-safely, on first use.
    static const BuildNumber build = currentReadingFrom(defaultVersionRecordFiles());
    return build;
}

}  // namespace mirels
