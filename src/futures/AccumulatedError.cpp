#include "mirels/futures/AccumulatedError.h"

#include "mirels/errors/HumanReadableConversion.h"

namespace mirels {

namespace {

/// The first title that one of the errors, in their human-readable form, supplies.
template <class Read>
std::optional<std::string> firstPresent(const std::vector<Error>& errors, Read read) {
    for (const Error& error : errors) {
        if (auto text = read(*humanReadable(error))) return text;
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> AccumulatedError::highValueTitle() const {
    return firstPresent(errors_, [](const HumanReadableError& e) { return e.highValueTitle(); });
}

std::optional<std::string> AccumulatedError::lowValueTitle() const {
    if (auto title =
            firstPresent(errors_, [](const HumanReadableError& e) { return e.lowValueTitle(); })) {
        return title;
    }
    return std::string("multiple errors encountered");
}

std::string AccumulatedError::fullDiagnosticsOutput() const {
    return accumulatedDiagnosticsOutput(errors_);
}

}  // namespace mirels
