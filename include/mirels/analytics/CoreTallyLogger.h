#pragma once

// `CoreTallyLogger`: the analytics logger over the process-wide transport. Also `AnalyticsHints`,
// `AnalyticsPayload`, `AnalyticsPayloadBuilder`, `CoreTallyTransport`, `QKCoreTallyLogEvent()`,
// `setCoreTallyTransport()`.

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mirels/Export.h"
#include "mirels/analytics/AnalyticsLogger.h"
#include "mirels/core/UniqueFunction.h"
#include "mirels/plist/PlistValue.h"

namespace mirels {

/// Hints that enrich every event of a `CoreTallyLogger`.
struct AnalyticsHints {
    bool isSampleProject = false;
};

/// The payload handed to the transport: the event's fields as plain values (strings, booleans,
/// integers, doubles, data); a `null` field is an empty `std::optional`.
using AnalyticsPayload = std::map<std::string, std::optional<PlistValue>, std::less<>>;

/// Builds the payload only when the transport asks for it.
using AnalyticsPayloadBuilder = UniqueFunction<AnalyticsPayload()>;

/// The process-wide analytics transport: takes an event name and a payload builder. Replaceable
/// (tests install a recording one); the default writes each event to the structured log.
class CoreTallyTransport {
  public:
    virtual ~CoreTallyTransport() = default;
    virtual void logEvent(std::string_view eventName, AnalyticsPayloadBuilder makePayload) = 0;
};

/// Sends one event through the current transport.
MIRELS_EXPORT void QKCoreTallyLogEvent(std::string_view eventName,
                                       AnalyticsPayloadBuilder makePayload);

/// Installs `transport` as the process-wide transport and returns the one it replaces. Passing
/// null restores the default transport.
MIRELS_EXPORT std::shared_ptr<CoreTallyTransport> setCoreTallyTransport(
    std::shared_ptr<CoreTallyTransport> transport);

/// The analytics logger over the process-wide transport. Every event gets the reporting
/// process's name, the host application's build and, with hints, whether the user's project is
/// likely a sample project. Users switch it off with the preference "QKLogCoreTally" = false.
class MIRELS_EXPORT CoreTallyLogger final : public AnalyticsLogger {
  public:
    static constexpr std::string_view sampleProjectKey = "isLikelySampleProject";
    /// Every event name is this prefix followed by the identifier suffix.
    static constexpr std::string_view eventNamePrefix = "org.mirels.foundation.";

    CoreTallyLogger() = default;

    /// Whether events are sent at all: the preference "QKLogCoreTally" of
    /// `UserDefaults::standard()`, read on first use and then fixed for the process. On when
    /// true or unset, off only when explicitly false.
    static bool isEnabled();

    /// Set before logging from one thread, or guarded by the caller.
    std::optional<AnalyticsHints> hints;

    using AnalyticsLogger::logEvent;
    void logEvent(std::string_view identifierSuffix, AnalyticsFields fields) override;
};

}  // namespace mirels
