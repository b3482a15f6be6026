#include "mirels/crash/ConditionInFileError.h"

namespace mirels {

ConditionInFileError::ConditionInFileError(const CrashReport& crashReport, Kind kind,
                                           std::string file, std::optional<std::int64_t> line)
    : CrashReportError(crashReport),
      processName_(crashReport.name()),
      kind_(kind),
      file_(std::move(file)),
      line_(line) {}

const Regex* ConditionInFileError::conditionRegex() {
    static const std::unique_ptr<const Regex> compiled =
        detail::compileCrashTextPattern(R"(^.*/(?<file>.+\.swift):(?<line>\d+): (?<kind>.*))",
                                        Regex::none, Callsite::library("ConditionInFileError"));
    return compiled.get();
}

const Regex* ConditionInFileError::unwrapRegex() {
    static const std::unique_ptr<const Regex> compiled = detail::compileCrashTextPattern(
        R"(.*/(?<file>.+\.swift):(?<line>\d+): .* nil while unwrapping)", Regex::none,
        Callsite::library("ConditionInFileError"));
    return compiled.get();
}

namespace {

std::optional<ConditionInFileError::Kind> kindFromText(std::string_view text) {
    std::string lowered(text);
    for (char& c : lowered) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    if (lowered == "assertion failed") return ConditionInFileError::Kind::assert;
    if (lowered == "precondition failed") return ConditionInFileError::Kind::precondition;
    if (lowered == "fatal error") return ConditionInFileError::Kind::fatalError;
    return std::nullopt;
}

}  // namespace

std::optional<ConditionInFileError> ConditionInFileError::fromCrashReport(
    const CrashReport& crashReport) {
    std::optional<ConditionInFileError> result;
    auto make = [&](Kind kind, const RegexMatch& match) {
        result.emplace(crashReport, kind,
                       std::string(match.group("file").value_or(std::string_view())),
                       detail::crashTextLineNumber(match.group("line")));
    };
    if (const Regex* condition = conditionRegex()) {
        detail::forEachApplicationSpecificLine(crashReport, [&](const std::string& line) {
            const std::optional<RegexMatch> match = condition->firstMatch(line);
            if (!match) return false;
            const std::optional<Kind> kind =
                kindFromText(match->group("kind").value_or(std::string_view()));
            if (!kind) return false;
            make(*kind, *match);
            return true;
        });
    }
    if (result) return result;
    if (const Regex* unwrap = unwrapRegex()) {
        detail::forEachApplicationSpecificLine(crashReport, [&](const std::string& line) {
            const std::optional<RegexMatch> match = unwrap->firstMatch(line);
            if (!match) return false;
            make(Kind::implicitlyUnwrappedOptional, *match);
            return true;
        });
    }
    return result;
}

std::string_view ConditionInFileError::kindWord(Kind kind) noexcept {
    switch (kind) {
        case Kind::assert:
            return "assert";
        case Kind::precondition:
            return "precondition";
        case Kind::fatalError:
            return "fatalError";
        case Kind::implicitlyUnwrappedOptional:
            return "implicitly unwrapped optional";
    }
    return "assert";
}

std::optional<std::string> ConditionInFileError::highValueTitle() const {
    switch (kind_) {
        case Kind::assert:
            return "Assert in " + file_;
        case Kind::precondition:
            return "Precondition in " + file_;
        case Kind::fatalError:
            return "`fatalError` in " + file_;
        case Kind::implicitlyUnwrappedOptional:
            return "Implicitly unwrapped nil value in " + file_;
    }
    return std::nullopt;
}

std::optional<std::string> ConditionInFileError::additionalInfo() const {
    std::string text = processName_ + " crashed due to ";
    text += kindWord(kind_);
    text += " in ";
    text += file_;
    if (line_) {
        text += " at line ";
        text += std::to_string(*line_);
    }
    text += ".";
    return text;
}

}  // namespace mirels
