// Feeds arbitrary bytes through the property-list reader and, when they parse, through everything
// that reads untrusted property lists: typed reads, the platform error's property-list form and
// the human-readable error deserialiser. Nothing may crash, leak or misbehave; every failure must
// be the library's own error or the logged fallback.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "mirels/errors/HumanReadableConversion.h"
#include "mirels/errors/HumanReadableErrorOptionsPropertyList.h"
#include "mirels/errors/PlatformError.h"
#include "mirels/platform/Log.h"
#include "mirels/plist/GeometryPropertyList.h"
#include "mirels/plist/PlistSerialization.h"
#include "mirels/plist/PropertyList.h"
#include "mirels/plist/PropertyListError.h"
#include "mirels/plist/UUIDPropertyList.h"

namespace {

using namespace mirels;

/// Damaged payloads are logged by design; the fuzzer keeps the log quiet.
class SilentLogBackend final : public LogBackend {
  public:
    bool isEnabled(LogLevel) const noexcept override { return false; }
    void write(const LogRecord&) override {}
};

/// Reads every key as several types; each read succeeds or throws a reading error.
void readEveryKey(const PropertyList& list) {
    for (const auto& [key, value] : list.serializableDictionary()) {
        auto attempt = [&](auto read) {
            try {
                read();
            } catch (const PropertyListError& error) {
                (void)error.message();
            } catch (const InvalidUUID& error) {
                (void)error.message();
            }
        };
        attempt([&] { (void)list.unarchiveValue<std::string>(key); });
        attempt([&] { (void)list.unarchiveValue<std::uint8_t>(key); });
        attempt([&] { (void)list.unarchiveValue<std::uint64_t>(key); });
        attempt([&] { (void)list.unarchiveValue<float>(key); });
        attempt([&] { (void)list.unarchiveValue<UUID>(key); });
        attempt([&] { (void)list.unarchiveValue<Rect>(key); });
        attempt([&] { (void)list.unarchiveValue<std::vector<std::vector<int>>>(key); });
        attempt([&] { (void)list.unarchiveValue<std::map<UUID, double>>(key); });
        attempt([&] { (void)list.unarchiveValue<HumanReadableErrorOptions>(key); });
    }
}

/// Converts and renders an error the way a receiving process would.
void show(const Error& error) {
    HumanReadableErrorRef human = humanReadable(error);
    (void)human->fullDiagnosticsOutput();
    (void)human->errorTypeDescription();
    // Forwarding it again may meet a text that the writers refuse (a NUL character, which binary
    // property lists can hold): that is the writer's own error, nothing worse.
    PlatformError repacked = human->serializableNSError();
    try {
        (void)toBinary(repacked.propertyListValue());
    } catch (const PropertyListSerializationError&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setLogBackend(std::make_shared<SilentLogBackend>());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    PlistValue value;
    try {
        value = parsePropertyList(std::span(data, size));
    } catch (const PropertyListSerializationError&) {
        return 0;
    }
    // Whatever was read can be written again, unless it holds what the writers refuse.
    try {
        (void)parsePropertyList(toBinary(value));
        (void)describe(value);
    } catch (const PropertyListSerializationError&) {
    }

    // The value as a packed human-readable error inside a platform error.
    PlatformError::UserInfo userInfo;
    userInfo.emplace(std::string(PlatformError::humanReadableErrorKey), value);
    show(Error(PlatformError::qk_errorWithUserInfo(std::move(userInfo))));

    const auto* dictionary = value.getIf<PlistDictionary>();
    if (dictionary == nullptr) return 0;
    PropertyList list(*dictionary);
    readEveryKey(list);
    // The dictionary as the property-list form of a platform error written by another process.
    try {
        show(Error(PlatformError::fromPropertyListValue(list)));
    } catch (const PropertyListError&) {
    }
    return 0;
}
