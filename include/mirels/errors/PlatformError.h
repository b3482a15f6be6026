#pragma once

// `PlatformError`: the error object that services and processes exchange. Also `formatErrorText()`.

#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "mirels/Export.h"
#include "mirels/errors/Error.h"
#include "mirels/platform/Format.h"
#include "mirels/plist/PlistValue.h"
#include "mirels/plist/PropertyList.h"

namespace mirels {

/// The library's own error domain, used by `PlatformError::qk_errorWithUserInfo`.
inline constexpr std::string_view mirelsErrorDomain = "org.mirels.foundation";

/// The error object that services and processes exchange: a domain, an integer code and a
/// user-info dictionary of property-list values and nested errors. It is what a
/// `HumanReadableError` is packed into to cross a process boundary (`serializableNSError`), and
/// what `humanReadable` unpacks again.
///
/// A value type; it derives from `std::exception` so that it can be thrown, and `what()` is its
/// localized description.
class MIRELS_EXPORT PlatformError : public std::exception {
  public:
    /// A user-info value: a plain property-list value or a nested error.
    using UserInfoValue = std::variant<PlistValue, Error>;
    using UserInfo = std::map<std::string, UserInfoValue, std::less<>>;

    /// The standard user-info keys.
    static constexpr std::string_view localizedDescriptionKey = "LocalizedDescription";
    static constexpr std::string_view localizedRecoverySuggestionKey =
        "LocalizedRecoverySuggestion";
    static constexpr std::string_view localizedFailureReasonKey = "LocalizedFailureReason";
    static constexpr std::string_view underlyingErrorKey = "UnderlyingError";
    /// The key under which a packed `HumanReadableError` travels.
    static constexpr std::string_view humanReadableErrorKey = "QKHumanReadableError";

    PlatformError(std::string domain, std::int64_t code, UserInfo userInfo = {});
    // Copying, moving and destroying are defined in the library, as the compiler would define
    // them: inline, they made every includer instantiate the user-info map of variants.
    PlatformError(const PlatformError& other);
    PlatformError(PlatformError&& other) noexcept;
    PlatformError& operator=(const PlatformError& other);
    PlatformError& operator=(PlatformError&& other) noexcept;
    ~PlatformError() override;

    const std::string& domain() const noexcept { return domain_; }
    std::int64_t code() const noexcept { return code_; }
    const UserInfo& userInfo() const noexcept { return userInfo_; }

    /// The user-info value for `key`, or null.
    const UserInfoValue* userInfoValue(std::string_view key) const noexcept;
    /// The user-info text for `key`, or nothing when there is none or it is not a text.
    std::optional<std::string> userInfoText(std::string_view key) const;

    /// The localized-description entry, else "<domain> error <code>".
    std::string localizedDescription() const;
    std::optional<std::string> localizedRecoverySuggestion() const;
    std::optional<std::string> localizedFailureReason() const;
    /// The error under the underlying-error key, when it holds an error.
    std::optional<Error> underlyingError() const;

    /// The localized description.
    const char* what() const noexcept override { return what_.c_str(); }

    /// A new error in the library's domain with code -1 and `userInfo`.
    static PlatformError qk_errorWithUserInfo(UserInfo userInfo);
    /// `qk_errorWithUserInfo` with the one entry localized description = `description`.
    static PlatformError qk_errorWithDescription(std::string description);
    /// `qk_errorWithDescription` with a description formatted from a printf-style `format` (see
    /// `formatErrorText`).
    template <class... Args>
    static PlatformError qk_errorWithFormat(std::string_view format, const Args&... args);

    // Property-list form, for writing an error to another process: "domain", "code", the plain
    // user-info values under "userInfo" and the nested errors (each in this same form) under
    // "errors". A nested error that is not a platform error travels as its packed human-readable
    // form. Reading throws `PropertyListError` for a damaged form.
    using PropertyListType = PropertyList;
    PropertyList propertyListValue() const;
    static PlatformError fromPropertyListValue(const PropertyList& list);

  private:
    std::string domain_;
    std::int64_t code_;
    UserInfo userInfo_;
    std::string what_;
};

namespace detail {
/// `format` with every conversion marked public, so that the log renderer prints every argument.
MIRELS_EXPORT std::string publicFormat(std::string_view format);
}  // namespace detail

/// Renders a printf-style format type-safely from C++ arguments: the argument's own type decides
/// how it is printed and the conversion only picks the style ("%@" and "%s" for texts and any
/// value with a `description()` or `operator<<`, "%d", "%zd", "%x", "%f" and the rest), so a
/// format can never read the wrong type or write memory. Every argument is printed as it is; a
/// conversion without an argument reads "<missing>".
template <class... Args>
std::string formatErrorText(std::string_view format, const Args&... args) {
    return formatLogMessage(detail::publicFormat(format), args...);
}

template <class... Args>
PlatformError PlatformError::qk_errorWithFormat(std::string_view format, const Args&... args) {
    return qk_errorWithDescription(formatErrorText(format, args...));
}

}  // namespace mirels
