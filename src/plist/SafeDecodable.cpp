#include "mirels/plist/SafeDecodable.h"

#include <string>
#include <utility>
#include <vector>

namespace mirels {

namespace detail {

void reportFailures(const std::vector<SafeDecodingError>& failures, DiagnosticsCollector& collector,
                    Issue::Severity severity, Callsite callsite) {
    for (const SafeDecodingError& failure : failures) {
        collector.record(
            Issue(severity, "Skipped a value that could not be decoded", failure, callsite));
    }
}

}  // namespace detail

SafeDecodingError::SafeDecodingError(std::string path, Error underlying)
    : path_(std::move(path)), underlying_(std::move(underlying)) {}

std::optional<std::string> SafeDecodingError::lowValueTitle() const {
    return "A value could not be decoded";
}

std::optional<std::string> SafeDecodingError::additionalInfo() const {
    std::string text =
        path_.empty() ? std::string("The top-level value") : "The value at \"" + path_ + "\"";
    text += " was skipped: ";
    if (const HumanReadableError* error = underlying_.humanReadableError()) {
        if (auto info = error->additionalInfo()) {
            text += *info;
        } else if (auto title = error->effectiveTitle()) {
            text += *title;
        } else {
            text += error->errorTypeDescription();
        }
    } else {
        text += underlying_.description();
    }
    return text;
}

std::optional<std::string> SafeDecodingError::additionalDiagnostics() const {
    if (const HumanReadableError* error = underlying_.humanReadableError()) {
        return error->fullDiagnosticsOutput();
    }
    return underlying_.typeName() + ": " + underlying_.description();
}

}  // namespace mirels
