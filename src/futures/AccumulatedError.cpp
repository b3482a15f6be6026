#include "mirels/futures/AccumulatedError.h"

#include <string_view>

namespace mirels {

namespace {

constexpr std::string_view separator = "\n\n==============================\n\n";
constexpr std::string_view indent = "   ";

/// `text` with every line prefixed by three spaces.
std::string indented(std::string_view text) {
    std::string result;
    result.reserve(text.size() + indent.size() * 4);
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = text.find('\n', start);
        result += indent;
        result += text.substr(start, end == std::string_view::npos ? end : end - start);
        if (end == std::string_view::npos) break;
        result += '\n';
        start = end + 1;
    }
    return result;
}

template <class Read>
std::optional<std::string> firstPresent(const std::vector<Error>& errors, Read read) {
    for (const Error& error : errors) {
        if (const HumanReadableError* readable = error.humanReadableError()) {
            if (auto text = read(*readable)) return text;
        }
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

std::string AccumulatedError::fullDiagnosticsOf(const Error& error) {
    if (const HumanReadableError* readable = error.humanReadableError()) {
        return readable->fullDiagnosticsOutput();
    }
    return HumanReadableError::composeDiagnostics(error.typeName(), std::nullopt, std::nullopt,
                                                  error.description());
}

std::string AccumulatedError::fullDiagnosticsOutput() const {
    std::string text;
    for (std::size_t i = 0; i < errors_.size(); ++i) {
        if (i > 0) text += separator;
        text += "Error ";
        text += std::to_string(i + 1);
        text += ":\n";
        text += indented(fullDiagnosticsOf(errors_[i]));
    }
    return text;
}

}  // namespace mirels
