#pragma once

#include "mirels/Export.h"

// The interfaces of errors made from crash reports, and the lazily compiled patterns of the
// crash-text parsers.
//
// A crash-report error type `E` offers `static std::optional<E> fromCrashReport(const
// CrashReport&)`: the error when it recognises the report, nothing otherwise. It never throws.

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "mirels/core/Callsite.h"
#include "mirels/crash/CrashReport.h"
#include "mirels/errors/HumanReadableError.h"
#include "mirels/text/Regex.h"

namespace mirels {

/// An error made from a crash report. Defaults every conformer gets: no low-value title; the
/// report's structured description as `additionalDiagnostics`; `showCrashLogsButton` as
/// options; it can be tried again; it is not a potential crash (the crash has been diagnosed
/// already); it is native.
class MIRELS_EXPORT CrashReportError : public HumanReadableError {
  public:
    /// The report the error was made from.
    const CrashReport& crashReport() const noexcept { return crashReport_; }

    std::optional<std::string> lowValueTitle() const override { return std::nullopt; }
    /// The report's structured description, rendered and joined into one text.
    std::optional<std::string> additionalDiagnostics() const override;
    /// `showCrashLogsButton` alone.
    std::optional<HumanReadableErrorOptions> options() const override;
    bool canTryAgain() const override { return true; }
    bool isPotentialCrash() const override { return false; }
    bool isNativeHumanReadable() const override { return true; }

  protected:
    explicit CrashReportError(CrashReport crashReport) : crashReport_(std::move(crashReport)) {}
    CrashReportError(const CrashReportError&) = default;
    CrashReportError& operator=(const CrashReportError&) = default;

  private:
    CrashReport crashReport_;
};

/// A type that can try to make itself from a crash report.
template <class E>
concept CrashReportErrorType =
    std::derived_from<E, CrashReportError> && requires(const CrashReport& report) {
        { E::fromCrashReport(report) } -> std::same_as<std::optional<E>>;
    };

namespace detail {

/// Compiles a parser's pattern. A pattern that fails to compile reports one soft assertion at
/// `reportAs` (the parser's source file and type name) and gives null, so that the parser never
/// matches. Called once per pattern, from a function-local static.
MIRELS_EXPORT std::unique_ptr<const Regex> compileCrashTextPattern(std::string_view pattern,
                                                                   std::uint32_t options,
                                                                   Callsite reportAs);

/// Calls `visit(line)` for each line of the report's application-specific information, in the
/// map's order and each entry's line order, until it returns true. False when there is no map or
/// nothing was accepted.
template <class Visit>
bool forEachApplicationSpecificLine(const CrashReport& report, Visit&& visit) {
    if (!report.asi()) return false;
    for (const auto& entry : *report.asi()) {
        for (const std::string& line : entry.second) {
            if (visit(line)) return true;
        }
    }
    return false;
}

/// The error of type `E` made from `report`, shared, or null when `E` does not recognise it: one
/// step of trying parsers in a fixed order.
template <CrashReportErrorType E>
std::shared_ptr<const CrashReportError> attemptCrashReportError(const CrashReport& report) {
    if (std::optional<E> error = E::fromCrashReport(report)) {
        return std::make_shared<const E>(std::move(*error));
    }
    return nullptr;
}

/// A line number captured as decimal digits, or nothing when the group is absent or does not
/// convert (too long, or not all digits).
MIRELS_EXPORT std::optional<std::int64_t> crashTextLineNumber(
    std::optional<std::string_view> digits);

}  // namespace detail

/// A crash-report error recognised by one pattern. `Self` supplies
///   `static const Regex* regex()` (null when the pattern failed to compile) and
///   `Self(const CrashReport&, std::string_view line, const RegexMatch&)`;
/// this supplies `fromCrashReport`: the first line, in the report's order, on which the pattern
/// matches builds the error.
template <class Self>
class SingleRegexCrashReportError : public CrashReportError {
  public:
    static std::optional<Self> fromCrashReport(const CrashReport& report) {
        const Regex* regex = Self::regex();
        if (regex == nullptr) return std::nullopt;
        std::optional<Self> result;
        detail::forEachApplicationSpecificLine(report, [&](const std::string& line) {
            if (std::optional<RegexMatch> match = regex->firstMatch(line)) {
                result.emplace(report, std::string_view(line), *match);
                return true;
            }
            return false;
        });
        return result;
    }

  protected:
    using CrashReportError::CrashReportError;

    /// The named group `name` of `match` as a string (empty when it did not take part).
    static std::string groupText(const RegexMatch& match, std::string_view name) {
        return std::string(match.group(name).value_or(std::string_view()));
    }
};

}  // namespace mirels
