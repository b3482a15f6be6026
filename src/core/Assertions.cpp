#include "mirels/core/Assertions.h"

#include "mirels/analytics/CoreTallyLogger.h"

namespace mirels::detail {

void reportSoftAssertionFailure(const Callsite& callsite) noexcept {
    try {
        CoreTallyLogger logger;
        AnalyticsFields fields;
        fields.emplace("file", AnalyticsValue::string(callsite.location()));
        logger.logEvent("softAssert", std::move(fields));
    } catch (...) {
        // A report must never turn a soft failure into a hard one.
    }
}

}  // namespace mirels::detail
