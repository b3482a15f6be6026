#pragma once

// Errors that tests send from a child process to the test process, and the summary both sides
// compare. Shared by tests/programs/errors_remote_probe.cpp and the tests.

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "mirels/errors/ExceptionHandling.h"
#include "mirels/errors/HumanReadableConversion.h"

namespace mirels::testing {

/// A library-style error with every text and flag set.
class DiskFullError final : public HumanReadableError {
  public:
    std::optional<std::string> highValueTitle() const override { return "Disk full"; }
    std::optional<std::string> lowValueTitle() const override { return "Could not save"; }
    std::optional<std::string> additionalInfo() const override {
        return "Free some space on “Backup”\\nthen try again.";
    }
    std::optional<std::string> additionalDiagnostics() const override {
        return "quokka wrote 0 of 4096 bytes";
    }
    std::optional<HumanReadableErrorOptions> options() const override {
        return HumanReadableErrorOptions::showTitleOnly |
               HumanReadableErrorOptions::generatesLiveIssues;
    }
    bool canTryAgain() const override { return false; }
};

/// An error with neither title nor options.
class UntitledError final : public HumanReadableError {
  public:
    std::optional<std::string> additionalInfo() const override { return std::nullopt; }
    std::optional<std::string> additionalDiagnostics() const override {
        return "line one\\nline two";
    }
};

/// The scenarios, by name.
inline constexpr std::string_view remoteScenarios[] = {"leaf", "untitled", "foreign", "exception",
                                                       "nested"};

/// Throws the named scenario's error and returns it as caught.
inline Error throwScenario(std::string_view name) {
    try {
        if (name == "leaf") throw DiskFullError();
        if (name == "untitled") throw UntitledError();
        if (name == "foreign") throw 42;
        if (name == "exception") {
            withCaughtObjectiveCExceptions(
                [] { throw NamedException("IndexOutOfRange", "index 3 beyond bounds [0 .. 2]"); });
        }
        if (name == "nested") {
            PlatformError::UserInfo userInfo;
            userInfo.emplace(std::string(PlatformError::localizedDescriptionKey),
                             PlistValue("The file could not be written"));
            userInfo.emplace(std::string(PlatformError::localizedRecoverySuggestionKey),
                             PlistValue("Check the permissions"));
            userInfo.emplace("path", PlistValue("/tmp/out"));
            userInfo.emplace(std::string(PlatformError::underlyingErrorKey),
                             Error(std::runtime_error("permission denied")));
            PlatformError writeFailure("org.example.files", 13, std::move(userInfo));
            // DiskFullError over (the write failure over the runtime error), then tracked.
            Error chain = withUnderlying(DiskFullError(), Error(writeFailure));
            throw trackingCallsite(chain);
        }
    } catch (...) {
        return Error::current();
    }
    throw std::invalid_argument("unknown scenario");
}

/// Everything a receiving process must reproduce: the texts, options and native flag of every
/// level, and the leaf/wrapper structure.
inline PlistDictionary summarize(const HumanReadableError& error) {
    PlistDictionary summary;
    auto put = [&](const char* key, std::optional<std::string> text) {
        if (text) summary.emplace(key, std::move(*text));
    };
    put("highValueTitle", error.highValueTitle());
    put("lowValueTitle", error.lowValueTitle());
    put("effectiveTitle", error.effectiveTitle());
    put("additionalInfo", error.additionalInfo());
    put("additionalDiagnostics", error.additionalDiagnostics());
    if (auto options = error.options()) summary.emplace("options", options->rawValue);
    summary.emplace("isNative", error.isNativeHumanReadable());
    if (const auto* wrapper = dynamic_cast<const UnderlyingErrorWrapper*>(&error)) {
        summary.emplace("structure", "wrapper");
        summary.emplace("main", summarize(*wrapper->main()));
        summary.emplace("underlying", summarize(*wrapper->underlying()));
    } else {
        summary.emplace("structure", "leaf");
    }
    return summary;
}

}  // namespace mirels::testing
