#include "mirels/errors/HumanReadableConversion.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "mirels/core/FatalError.h"
#include "mirels/core/TypeName.h"
#include "mirels/errors/DiagnosticsCollector.h"
#include "mirels/errors/HumanReadableErrorOptionsPropertyList.h"
#include "mirels/platform/Log.h"
#include "mirels/plist/PlistSerialization.h"
#include "mirels/plist/PropertyListError.h"

namespace mirels {

namespace {

/// The tag of a packed error: a leaf holds texts, a wrapper two packed errors.
enum class ErrorType { leaf, wrapper };

}  // namespace

template <>
struct RawValueCases<ErrorType> {
    static constexpr std::array cases = {std::pair{ErrorType::leaf, "leaf"},
                                         std::pair{ErrorType::wrapper, "wrapper"}};
};

namespace {

const Logger& errorsLog() {
    static const Logger logger("org.mirels.foundation", "errors");
    return logger;
}

// `text` with `prefix` before every line (empty lines included).
std::string indentLines(std::string_view text, std::string_view prefix) {
    std::string out;
    out.reserve(text.size() + prefix.size() * 8);
    std::size_t start = 0;
    while (true) {
        std::size_t end = text.find('\n', start);
        out += prefix;
        out += text.substr(start, end == std::string_view::npos ? end : end - start);
        if (end == std::string_view::npos) break;
        out += '\n';
        start = end + 1;
    }
    return out;
}

// Both present: "first: second"; otherwise whichever is present.
std::optional<std::string> joined(std::optional<std::string> first,
                                  std::optional<std::string> second) {
    if (first && second) return *first + ": " + *second;
    return first ? std::move(first) : std::move(second);
}

// The nested dictionary stored under `key`.
const PlistDictionary& nestedDictionary(const PlistDictionary& dictionary, std::string_view key) {
    detail::UnarchiveContext context{key, nullptr, &dictionary};
    auto entry = dictionary.find(key);
    if (entry == dictionary.end()) detail::throwMissingKey(context);
    const auto* nested = entry->second.getIf<PlistDictionary>();
    if (nested == nullptr) {
        detail::throwInvalidValue(context, detail::PlainKind<PropertyList>::name(), entry->second);
    }
    return *nested;
}

static_assert(maximumSerializedErrorDepth + 2 == maximumPropertyListDepth,
              "a packed error inside a platform error's property list must fit the depth limit");

[[noreturn]] void throwErrorsTooDeep() {
    throw PropertyListSerializationError("errors nested deeper than " +
                                         std::to_string(maximumSerializedErrorDepth) + " levels");
}

// The levels of `error`'s packed form, counted without recursion: one for a leaf, one more than
// the deeper of its two parts for a wrapper. Counting stops once it passes `limit`.
std::size_t packedLevels(const HumanReadableError& error, std::size_t limit) {
    std::size_t deepest = 0;
    std::vector<std::pair<const HumanReadableError*, std::size_t>> pending{{&error, 1}};
    while (!pending.empty()) {
        auto [next, level] = pending.back();
        pending.pop_back();
        deepest = std::max(deepest, level);
        if (deepest > limit) break;
        if (const auto* wrapper = dynamic_cast<const UnderlyingErrorWrapper*>(next)) {
            pending.emplace_back(wrapper->main().get(), level + 1);
            pending.emplace_back(wrapper->underlying().get(), level + 1);
        }
    }
    return deepest;
}

// The packed form of `error`, whose depth has been checked: wrappers are packed here, leaves by
// their own `plistRepresentation`.
PlistDictionary pack(const HumanReadableError& error) {
    const auto* wrapper = dynamic_cast<const UnderlyingErrorWrapper*>(&error);
    if (wrapper == nullptr) return error.plistRepresentation().takeSerializableDictionary();
    PlistDictionary dictionary;
    dictionary.emplace("errorType", "wrapper");
    // Each level moves its children's dictionaries in: packing is linear in the depth.
    dictionary.emplace("main", pack(*wrapper->main()));
    dictionary.emplace("underlying", pack(*wrapper->underlying()));
    return dictionary;
}

// Decodes a packed error, reading the dictionaries in place: every level is visited once, so
// the cost grows with the size of the payload, not with its depth squared.
HumanReadableErrorRef decode(const PlistDictionary& dictionary, std::size_t depth) {
    if (depth >= maximumSerializedErrorDepth) throwErrorsTooDeep();
    if (detail::unarchiveValue<ErrorType>(dictionary, "errorType") == ErrorType::wrapper) {
        HumanReadableErrorRef main = decode(nestedDictionary(dictionary, "main"), depth + 1);
        HumanReadableErrorRef underlying =
            decode(nestedDictionary(dictionary, "underlying"), depth + 1);
        return std::make_shared<UnderlyingErrorWrapper>(std::move(main), std::move(underlying));
    }
    RemoteHumanReadableError::Values values;
    values.highValueTitle =
        detail::unarchiveOptionalValue<std::string>(dictionary, "highValueTitle");
    values.lowValueTitle = detail::unarchiveOptionalValue<std::string>(dictionary, "lowValueTitle");
    values.additionalInfo =
        detail::unarchiveOptionalValue<std::string>(dictionary, "additionalInfo");
    values.additionalDiagnostics =
        detail::unarchiveOptionalValue<std::string>(dictionary, "additionalDiagnostics");
    values.options =
        detail::unarchiveOptionalValue<HumanReadableErrorOptions>(dictionary, "options");
    values.isNativeHumanReadable = detail::unarchiveValue<bool>(dictionary, "isNative");
    return std::make_shared<RemoteHumanReadableError>(std::move(values));
}

// The default textual rendering of a user-info value: texts as they are.
std::string renderUserInfoValue(const PlatformError::UserInfoValue& value) {
    if (const auto* plain = std::get_if<PlistValue>(&value)) {
        if (const auto* text = plain->getIf<std::string>()) return *text;
        return describe(*plain);
    }
    return std::get<Error>(value).description();
}

}  // namespace

// MARK: - Conversion

HumanReadableErrorRef humanReadable(const Error& error) {
    if (HumanReadableErrorRef itself = error.sharedHumanReadableError()) return itself;
    if (const auto* platform = error.as<PlatformError>()) {
        if (HumanReadableErrorRef decoded = deserializeHumanReadableError(*platform)) {
            return decoded;
        }
        if (!platform->userInfo().empty()) {
            auto described = std::make_shared<HumanReadableNSError>(error);
            if (std::optional<Error> underlying = platform->underlyingError()) {
                return std::make_shared<UnderlyingErrorWrapper>(std::move(described),
                                                                humanReadable(*underlying));
            }
            return described;
        }
    }
    return std::make_shared<HumanReadableSwiftError>(error);
}

HumanReadableErrorRef humanReadable(std::exception_ptr thrown) {
    return humanReadable(Error(std::move(thrown)));
}

std::string errorTypeDescription(const Error& error) {
    if (const HumanReadableError* human = error.humanReadableError()) {
        return human->errorTypeDescription();
    }
    return error.typeName();
}

Error withUnderlying(const Error& main, const std::optional<Error>& underlying) {
    if (!underlying) return main;
    return Error(UnderlyingErrorWrapper(humanReadable(main), humanReadable(*underlying)));
}

HumanReadableErrorRef withUnderlying(HumanReadableErrorRef main,
                                     const std::optional<Error>& underlying) {
    if (!underlying) return main;
    return std::make_shared<UnderlyingErrorWrapper>(std::move(main), humanReadable(*underlying));
}

UnderlyingErrorWrapper trackingCallsite(const Error& error, Callsite callsite) {
    return UnderlyingErrorWrapper(humanReadable(error),
                                  std::make_shared<CallsiteError<Error>>(error, callsite));
}

std::string accumulatedDiagnosticsOutput(std::span<const Error> errors) {
    static constexpr std::string_view separator = "\n\n==============================\n\n";
    std::string out;
    for (std::size_t i = 0; i < errors.size(); ++i) {
        if (i > 0) out += separator;
        out += "Error ";
        out += std::to_string(i + 1);
        out += ":\n";
        out += indentLines(humanReadable(errors[i])->fullDiagnosticsOutput(), "   ");
    }
    return out;
}

HumanReadableErrorRef deserializeHumanReadableError(const PlatformError& error) {
    const PlatformError::UserInfoValue* entry =
        error.userInfoValue(PlatformError::humanReadableErrorKey);
    if (entry == nullptr) return nullptr;
    const auto* plain = std::get_if<PlistValue>(entry);
    const auto* dictionary = plain != nullptr ? plain->getIf<PlistDictionary>() : nullptr;
    if (dictionary == nullptr) return nullptr;  // not a packed error at all
    try {
        return decode(*dictionary, 0);
    } catch (const std::exception& failure) {
        errorsLog().error("Invalid HumanReadableError serialization: %{public}@",
                          std::string_view(failure.what()));
        return nullptr;
    }
}

PlatformError bridgeToPlatformError(const Error& error) {
    if (const auto* platform = error.as<PlatformError>()) return *platform;
    return PlatformError(error.typeName(), 1);
}

// MARK: - UnderlyingErrorWrapper

UnderlyingErrorWrapper::UnderlyingErrorWrapper(HumanReadableErrorRef main,
                                               HumanReadableErrorRef underlying)
    : main_(std::move(main)), underlying_(std::move(underlying)) {
    if (main_ == nullptr || underlying_ == nullptr) {
        fatalError("UnderlyingErrorWrapper needs a main and an underlying error");
    }
}

std::optional<std::string> UnderlyingErrorWrapper::highValueTitle() const {
    if (auto title = main_->highValueTitle()) return title;
    return underlying_->highValueTitle();
}

std::optional<std::string> UnderlyingErrorWrapper::lowValueTitle() const {
    if (auto title = main_->lowValueTitle()) return title;
    return underlying_->lowValueTitle();
}

std::optional<std::string> UnderlyingErrorWrapper::additionalInfo() const {
    return joined(main_->additionalInfo(), underlying_->additionalInfo());
}

std::optional<std::string> UnderlyingErrorWrapper::additionalDiagnostics() const {
    return joined(main_->additionalDiagnostics(), underlying_->additionalDiagnostics());
}

std::optional<HumanReadableErrorOptions> UnderlyingErrorWrapper::options() const {
    if (auto options = main_->options()) return options;
    return underlying_->options();
}

void UnderlyingErrorWrapper::collectDiagnostics(DiagnosticsCollector& collector) const {
    main_->collectDiagnostics(collector);
    underlying_->collectDiagnostics(collector);
}

std::string UnderlyingErrorWrapper::errorTypeDescription() const {
    return main_->errorTypeDescription() + "." + underlying_->errorTypeDescription();
}

std::string UnderlyingErrorWrapper::fullDiagnosticsOutput() const {
    static constexpr std::string_view separator = "\n\n==================================\n\n";
    std::string out = main_->fullDiagnosticsOutput();
    out += separator;
    out += indentLines(underlying_->fullDiagnosticsOutput(), "|  ");
    return out;
}

PropertyList UnderlyingErrorWrapper::plistRepresentation() const {
    if (packedLevels(*this, maximumSerializedErrorDepth) > maximumSerializedErrorDepth) {
        throwErrorsTooDeep();
    }
    return PropertyList(pack(*this));
}

// MARK: - HumanReadableSwiftError

HumanReadableSwiftError::HumanReadableSwiftError(Error error) : error_(std::move(error)) {}

std::optional<std::string> HumanReadableSwiftError::additionalDiagnostics() const {
    return error_.typeName() + ": " + error_.description();
}

std::string HumanReadableSwiftError::errorTypeDescription() const {
    return error_.typeName();
}

// MARK: - HumanReadableNSError

HumanReadableNSError::HumanReadableNSError(Error error)
    : error_(std::move(error)), platformError_(error_.as<PlatformError>()) {
    if (platformError_ == nullptr) fatalError("HumanReadableNSError needs a platform error");
}

HumanReadableNSError::HumanReadableNSError(PlatformError error)
    : HumanReadableNSError(Error(std::move(error))) {}

std::optional<std::string> HumanReadableNSError::lowValueTitle() const {
    return platformError_->localizedDescription();
}

std::optional<std::string> HumanReadableNSError::additionalInfo() const {
    return platformError_->localizedRecoverySuggestion();
}

std::optional<std::string> HumanReadableNSError::additionalDiagnostics() const {
    std::string out =
        platformError_->domain() + " (" + std::to_string(platformError_->code()) + "):";
    for (const auto& [key, value] : platformError_->userInfo()) {
        if (key == PlatformError::localizedDescriptionKey ||
            key == PlatformError::localizedRecoverySuggestionKey ||
            key == PlatformError::underlyingErrorKey) {
            continue;
        }
        out += "\n==";
        out += key;
        out += ": ";
        out += renderUserInfoValue(value);
    }
    return out;
}

std::string HumanReadableNSError::errorTypeDescription() const {
    return "NSError." + platformError_->domain() + "." + std::to_string(platformError_->code());
}

}  // namespace mirels
