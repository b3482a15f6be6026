#include "mirels/errors/HumanReadableError.h"

#include <typeinfo>

#include "mirels/core/TypeName.h"
#include "mirels/errors/HumanReadableConversion.h"

namespace mirels {

namespace {
void replaceAll(std::string& text, std::string_view from, std::string_view to) {
    std::size_t at = 0;
    while ((at = text.find(from, at)) != std::string::npos) {
        text.replace(at, from.size(), to);
        at += to.size();
    }
}
}  // namespace

HumanReadableError::~HumanReadableError() {
    delete whatText_.load(std::memory_order_acquire);
}

// A copy starts without the cached text: it is recomputed from the copy's own state on demand.
HumanReadableError::HumanReadableError(const HumanReadableError& other) noexcept
    : std::exception(other) {}

HumanReadableError& HumanReadableError::operator=(const HumanReadableError& other) noexcept {
    if (this != &other) {
        std::exception::operator=(other);
        delete whatText_.exchange(nullptr, std::memory_order_acq_rel);
    }
    return *this;
}

std::string HumanReadableError::errorTypeDescription() const {
    return unqualifiedTypeName(typeid(*this));
}

std::optional<std::string> HumanReadableError::effectiveTitle() const {
    if (auto title = highValueTitle()) return title;
    return lowValueTitle();
}

HumanReadableErrorOptions HumanReadableError::effectiveOptions() const {
    return options().value_or(HumanReadableErrorOptions{});
}

std::string HumanReadableError::applyDiagnosticsReplacements(std::string text) {
    replaceAll(text, "quokka", "kestrelmirels");
    replaceAll(text, "Quokka", "Kestrel Mirels");
    replaceAll(text, "\\n", "\n");
    return text;
}

std::string HumanReadableError::composeDiagnostics(std::string_view typeName,
                                                   const std::optional<std::string>& title,
                                                   const std::optional<std::string>& info,
                                                   const std::optional<std::string>& diagnostics) {
    std::string text(typeName);
    if (title) {
        text += ": ";
        text += *title;
    }
    for (const auto* paragraph : {&info, &diagnostics}) {
        if (*paragraph) {
            text += "\n\n";
            text += **paragraph;
        }
    }
    return applyDiagnosticsReplacements(std::move(text));
}

std::string HumanReadableError::fullDiagnosticsOutput() const {
    return composeDiagnostics(unqualifiedTypeName(typeid(*this)), effectiveTitle(),
                              additionalInfo(), additionalDiagnostics());
}

const HumanReadableError& HumanReadableError::unwrapped() const noexcept {
    if (const auto* wrapper = dynamic_cast<const UnderlyingErrorWrapper*>(this)) {
        return *wrapper->main();
    }
    return *this;
}

PlatformError HumanReadableError::serializableNSError() const {
    PlatformError::UserInfo userInfo;
    userInfo.emplace(std::string(PlatformError::localizedDescriptionKey),
                     PlistValue(effectiveTitle().value_or("Unexpected mirel error")));
    userInfo.emplace(std::string(PlatformError::humanReadableErrorKey),
                     PlistValue(plistRepresentation().takeSerializableDictionary()));
    return PlatformError::qk_errorWithUserInfo(std::move(userInfo));
}

PropertyList HumanReadableError::plistRepresentation() const {
    PlistDictionary dictionary;
    dictionary.emplace("errorType", "leaf");
    auto put = [&](const char* key, std::optional<std::string> text) {
        if (text) dictionary.emplace(key, std::move(*text));
    };
    put("highValueTitle", highValueTitle());
    put("lowValueTitle", lowValueTitle());
    put("additionalInfo", additionalInfo());
    put("additionalDiagnostics", additionalDiagnostics());
    if (auto flags = options()) {
        dictionary.emplace("options", static_cast<std::int64_t>(flags->rawValue));
    }
    dictionary.emplace("isNative", isNativeHumanReadable());
    return PropertyList(std::move(dictionary));
}

const char* HumanReadableError::what() const noexcept {
    if (const std::string* cached = whatText_.load(std::memory_order_acquire)) {
        return cached->c_str();
    }
    try {
        auto* text = new std::string(description());
        const std::string* expected = nullptr;
        if (!whatText_.compare_exchange_strong(expected, text, std::memory_order_acq_rel)) {
            delete text;  // another thread got there first; use its text
            return expected->c_str();
        }
        return text->c_str();
    } catch (...) {
        return "HumanReadableError";
    }
}

}  // namespace mirels
