#include "mirels/futures/FutureTermination.h"

namespace mirels {

std::optional<std::string> FutureCanceled::lowValueTitle() const {
    return std::string("the operation was canceled");
}

std::optional<std::string> FutureCanceled::additionalInfo() const {
    return std::nullopt;
}

std::optional<std::string> FutureCanceled::additionalDiagnostics() const {
    return "cancelation callsite: " + callsite_.description();
}

}  // namespace mirels
