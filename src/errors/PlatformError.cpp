#include "mirels/errors/PlatformError.h"

#include <type_traits>

#include "mirels/errors/HumanReadableConversion.h"
#include "mirels/errors/HumanReadableError.h"

namespace mirels {

// The user-info map moves without throwing (std::less<> and the default allocator), so the
// moves declared noexcept in the header are what the compiler would have made them.
static_assert(std::is_nothrow_move_constructible_v<PlatformError::UserInfo> &&
              std::is_nothrow_move_assignable_v<PlatformError::UserInfo>);

PlatformError::PlatformError(const PlatformError& other) = default;
PlatformError::PlatformError(PlatformError&& other) noexcept = default;
PlatformError& PlatformError::operator=(const PlatformError& other) = default;
PlatformError& PlatformError::operator=(PlatformError&& other) noexcept = default;
PlatformError::~PlatformError() = default;

PlatformError::PlatformError(std::string domain, std::int64_t code, UserInfo userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {
    what_ = localizedDescription();
}

const PlatformError::UserInfoValue* PlatformError::userInfoValue(
    std::string_view key) const noexcept {
    auto entry = userInfo_.find(key);
    return entry == userInfo_.end() ? nullptr : &entry->second;
}

std::optional<std::string> PlatformError::userInfoText(std::string_view key) const {
    if (const UserInfoValue* value = userInfoValue(key)) {
        if (const auto* plain = std::get_if<PlistValue>(value)) {
            if (const auto* text = plain->getIf<std::string>()) return *text;
        }
    }
    return std::nullopt;
}

std::string PlatformError::localizedDescription() const {
    if (auto description = userInfoText(localizedDescriptionKey)) return std::move(*description);
    return domain_ + " error " + std::to_string(code_);
}

std::optional<std::string> PlatformError::localizedRecoverySuggestion() const {
    return userInfoText(localizedRecoverySuggestionKey);
}

std::optional<std::string> PlatformError::localizedFailureReason() const {
    return userInfoText(localizedFailureReasonKey);
}

std::optional<Error> PlatformError::underlyingError() const {
    if (const UserInfoValue* value = userInfoValue(underlyingErrorKey)) {
        if (const auto* error = std::get_if<Error>(value)) return *error;
    }
    return std::nullopt;
}

PlatformError PlatformError::qk_errorWithUserInfo(UserInfo userInfo) {
    return PlatformError(std::string(mirelsErrorDomain), -1, std::move(userInfo));
}

PlatformError PlatformError::qk_errorWithDescription(std::string description) {
    UserInfo userInfo;
    userInfo.emplace(std::string(localizedDescriptionKey), PlistValue(std::move(description)));
    return qk_errorWithUserInfo(std::move(userInfo));
}

PropertyList PlatformError::propertyListValue() const {
    PropertyList list;
    list.archiveValue(domain_, "domain");
    list.archiveValue(code_, "code");
    PlistDictionary plain;
    PlistDictionary errors;
    for (const auto& [key, value] : userInfo_) {
        if (const auto* plainValue = std::get_if<PlistValue>(&value)) {
            plain.emplace_hint(plain.end(), key, *plainValue);
            continue;
        }
        const Error& error = std::get<Error>(value);
        PropertyList nested = error.as<PlatformError>() != nullptr
                                  ? error.as<PlatformError>()->propertyListValue()
                                  : humanReadable(error)->serializableNSError().propertyListValue();
        errors.emplace_hint(errors.end(), key,
                            PlistValue(std::move(nested).takeSerializableDictionary()));
    }
    if (!plain.empty()) list.archiveValue(std::move(plain), "userInfo");
    if (!errors.empty()) list.archiveValue(std::move(errors), "errors");
    return list;
}

PlatformError PlatformError::fromPropertyListValue(const PropertyList& list) {
    auto domain = list.unarchiveValue<std::string>("domain");
    auto code = list.unarchiveValue<std::int64_t>("code");
    UserInfo userInfo;
    if (auto plain = list.unarchiveOptionalValue<PlistDictionary>("userInfo")) {
        for (auto& [key, value] : *plain) userInfo.emplace(key, std::move(value));
    }
    if (auto errors = list.unarchiveOptionalValue<std::map<std::string, PlatformError>>("errors")) {
        for (auto& [key, error] : *errors) userInfo.insert_or_assign(key, Error(std::move(error)));
    }
    return PlatformError(std::move(domain), code, std::move(userInfo));
}

namespace detail {

std::string publicFormat(std::string_view format) {
    std::string out;
    out.reserve(format.size() + 16);
    for (std::size_t i = 0; i < format.size(); ++i) {
        out += format[i];
        if (format[i] != '%') continue;
        if (i + 1 < format.size() && format[i + 1] == '%') {
            out += '%';
            ++i;
            continue;
        }
        // A privacy annotation of the caller's is replaced: error texts are never redacted.
        std::size_t next = i + 1;
        if (next < format.size() && format[next] == '{') {
            std::size_t close = format.find('}', next);
            if (close != std::string_view::npos) next = close + 1;
        }
        // Only conversions that print an argument are marked; anything else stays as written.
        std::size_t type = next;
        while (type < format.size() &&
               std::string_view("-+ #0123456789.*hlqLjzt").find(format[type]) !=
                   std::string_view::npos) {
            ++type;
        }
        if (type >= format.size() ||
            std::string_view("sS@diuoxXcCpfFeEgGaA").find(format[type]) == std::string_view::npos) {
            continue;
        }
        out += "{public}";
        i = next - 1;
    }
    return out;
}

}  // namespace detail

}  // namespace mirels
