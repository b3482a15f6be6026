#include "mirels/analytics/CoreTallyLogger.h"

#include "mirels/core/ThreadSafe.h"
#include "mirels/platform/Log.h"
#include "mirels/platform/ProcessInfo.h"
#include "mirels/version/HostBundle.h"
#include "mirels/version/UserDefaults.h"

namespace mirels {

namespace {

constexpr std::string_view enabledPreferenceKey = "QKLogCoreTally";

std::optional<PlistValue> payloadValue(const AnalyticsValue& value) {
    switch (value.kind()) {
        case AnalyticsValue::Case::string:
            return PlistValue(*value.stringValue());
        case AnalyticsValue::Case::boolean:
            return PlistValue(*value.boolValue());
        case AnalyticsValue::Case::integer:
            return PlistValue(*value.intValue());
        case AnalyticsValue::Case::floating:
            return PlistValue(*value.floatValue());
        case AnalyticsValue::Case::data:
            return PlistValue(*value.dataValue());
        case AnalyticsValue::Case::null:
            return std::nullopt;
    }
    return std::nullopt;
}

AnalyticsPayload makePayload(const AnalyticsFields& fields) {
    AnalyticsPayload payload;
    for (const auto& [key, value] : fields)
        payload.emplace_hint(payload.end(), key, payloadValue(value));
    return payload;
}

std::string describePayload(const AnalyticsPayload& payload) {
    std::string text = "{";
    bool first = true;
    for (const auto& [key, value] : payload) {
        if (!first) text += ", ";
        first = false;
        text += describe(PlistValue(key));
        text += ": ";
        text += value ? describe(*value) : std::string("null");
    }
    text += '}';
    return text;
}

// The default transport: one structured-log line per event, payload included.
class StructuredLogTransport final : public CoreTallyTransport {
  public:
    void logEvent(std::string_view eventName, AnalyticsPayloadBuilder makePayload) override {
        logger_.info("%{public}s %{public}s", eventName, describePayload(makePayload()));
    }

  private:
    Logger logger_{std::string(UserDefaults::standardDomain), "analytics"};
};

// Made on first use and never destroyed: soft assertions may report from static destructors
// and from threads that outlive main.
const std::shared_ptr<CoreTallyTransport>& defaultTransport() {
    static const auto* transport =
        new std::shared_ptr<CoreTallyTransport>(std::make_shared<StructuredLogTransport>());
    return *transport;
}

ThreadSafe<std::shared_ptr<CoreTallyTransport>>& transportBox() {
    static auto* box = new ThreadSafe<std::shared_ptr<CoreTallyTransport>>(defaultTransport());
    return *box;
}

}  // namespace

void QKCoreTallyLogEvent(std::string_view eventName, AnalyticsPayloadBuilder makePayload) {
    // The transport is taken out of its box and called with no lock held, so a transport may
    // log, swap transports or take its time without blocking other threads' events.
    std::shared_ptr<CoreTallyTransport> transport = transportBox().peek();
    try {
        transport->logEvent(eventName, std::move(makePayload));
    } catch (...) {
        // Analytics never fails the code that reports.
    }
}

std::shared_ptr<CoreTallyTransport> setCoreTallyTransport(
    std::shared_ptr<CoreTallyTransport> transport) {
    if (!transport) transport = defaultTransport();
    return transportBox().syncUpdate(std::move(transport));
}

bool CoreTallyLogger::isEnabled() {
    static const bool enabled =
        UserDefaults::standard().boolean(enabledPreferenceKey).value_or(true);
    return enabled;
}

void CoreTallyLogger::logEvent(std::string_view identifierSuffix, AnalyticsFields fields) {
    if (!isEnabled()) return;
    fields.insert_or_assign("responsibleProcess", AnalyticsValue::string(processName()));
    const std::optional<std::string>& build = hostBundleBuildVersion();
    fields.insert_or_assign("kestrelVersion",
                            build ? AnalyticsValue::string(*build) : AnalyticsValue::null());
    if (hints) {
        // A caller's explicit true survives; anything else gives way to the hint.
        auto found = fields.find(sampleProjectKey);
        bool callerSaysSample = found != fields.end() && found->second.boolValue() != nullptr &&
                                *found->second.boolValue();
        if (!callerSaysSample) {
            fields.insert_or_assign(std::string(sampleProjectKey),
                                    AnalyticsValue::boolean(hints->isSampleProject));
        }
    }
    std::string eventName;
    eventName.reserve(eventNamePrefix.size() + identifierSuffix.size());
    eventName += eventNamePrefix;
    eventName += identifierSuffix;
    QKCoreTallyLogEvent(eventName, [fields = std::move(fields)]() { return makePayload(fields); });
}

}  // namespace mirels
