// Failed soft assertions become analytics events: one "softAssert" event with one field, "file".
// Installed while the library loads, so every failure after static initialisation is counted.

#include "mirels/analytics/CoreTallyLogger.h"
#include "mirels/core/Assertions.h"

namespace mirels {

namespace {

void logSoftAssertionEvent(const Callsite& callsite) noexcept {
    try {
        CoreTallyLogger logger;
        AnalyticsFields fields;
        fields.emplace("file", AnalyticsValue::string(callsite.location()));
        logger.logEvent("softAssert", std::move(fields));
    } catch (...) {
        // A report must never turn a soft failure into a hard one.
    }
}

[[maybe_unused]] const bool softAssertionEventsInstalled =
    (setSoftAssertionReporter(&logSoftAssertionEvent), true);

}  // namespace

}  // namespace mirels
