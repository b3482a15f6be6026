#include "mirels/errors/Issue.h"

#include <string>
#include <utility>

#include "mirels/errors/HumanReadableConversion.h"
#include "mirels/errors/HumanReadableError.h"

namespace mirels {

Issue::Issue(Severity severity, std::string message, Callsite callsite)
    : severity_(severity), message_(std::move(message)), callsite_(callsite), time_(Clock::now()) {}

Issue::Issue(Severity severity, std::string message, const Error& error, Callsite callsite)
    : severity_(severity),
      message_(std::move(message)),
      error_(humanReadable(error)),
      callsite_(callsite),
      time_(Clock::now()) {}

Issue Issue::withTime(Clock::time_point time) const {
    Issue copy = *this;
    copy.time_ = time;
    return copy;
}

std::string_view Issue::severityName(Severity severity) noexcept {
    switch (severity) {
        case Severity::error:
            return "error";
        case Severity::warning:
            return "warning";
        case Severity::note:
            return "note";
    }
    return "note";
}

std::string Issue::description() const {
    std::string text(severityName(severity_));
    text += ": ";
    text += message_;
    text += " (";
    text += callsite_.description();
    text += ')';
    return text;
}

}  // namespace mirels
