#include "mirels/errors/ExceptionHandling.h"

namespace mirels {

namespace {

// The name and reason of a caught exception.
std::pair<std::string, std::string> exceptionTexts(const std::exception_ptr& exception) {
    Error error(exception);
    if (const auto* named = error.as<NamedException>()) return {named->name(), named->reason()};
    return {error.typeName(), error.description()};
}

}  // namespace

QKExceptionError::QKExceptionError(const std::exception_ptr& exception)
    : QKExceptionError(exception, exceptionTexts(exception)) {}

QKExceptionError::QKExceptionError(std::exception_ptr exception,
                                   const std::pair<std::string, std::string>& texts)
    : PlatformError(std::string(mirelsExceptionErrorDomain), 0,
                    UserInfo{{std::string(localizedDescriptionKey), PlistValue(texts.first)},
                             {std::string(localizedFailureReasonKey), PlistValue(texts.second)}}),
      exception_(std::move(exception)) {}

QKExceptionError::QKExceptionError(const std::string& domain, std::int64_t code,
                                   const UserInfo& /*userInfo*/)
    : QKExceptionError(std::make_exception_ptr(NamedException(
          "No exception specified",
          formatErrorText("QKExceptionError instantiated for domain %@ with code %zd.", domain,
                          code)))) {}

std::string QKExceptionError::exceptionName() const {
    return userInfoText(localizedDescriptionKey).value_or(std::string());
}

std::string QKExceptionError::exceptionReason() const {
    return userInfoText(localizedFailureReasonKey).value_or(std::string());
}

QKExceptionError QKExceptionError::qk_errorWithUserInfo(const UserInfo& userInfo) {
    return QKExceptionError(std::string(mirelsErrorDomain), -1, userInfo);
}

QKExceptionError QKExceptionError::qk_errorWithDescription(std::string description) {
    UserInfo userInfo;
    userInfo.emplace(std::string(localizedDescriptionKey), PlistValue(std::move(description)));
    return qk_errorWithUserInfo(userInfo);
}

std::optional<std::string> QKExceptionHandlingError::additionalDiagnostics() const {
    switch (code_) {
        case Code::neitherRaisedExceptionNorReturnedValue:
            return "neitherRaisedExceptionNorReturnedValue";
    }
    return std::nullopt;
}

}  // namespace mirels
