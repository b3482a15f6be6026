#pragma once

// `AnalyticsLogger`: where usage events go.

#include <initializer_list>
#include <string_view>
#include <type_traits>

#include "mirels/analytics/AnalyticsFieldBuilder.h"
#include "mirels/analytics/AnalyticsValue.h"

namespace mirels {

/// Where usage events go: a named event with a flat set of typed fields.
class AnalyticsLogger {
  public:
    virtual ~AnalyticsLogger() = default;

    virtual void logEvent(std::string_view identifierSuffix, AnalyticsFields fields) = 0;

    /// Builds the fields with `makeFields` (typically `AnalyticsFieldBuilder::buildBlock`) and
    /// logs them.
    template <class MakeFields>
        requires std::is_invocable_r_v<AnalyticsFields, MakeFields&&>
    void logEvent(std::string_view identifierSuffix, MakeFields&& makeFields) {
        logEvent(identifierSuffix, AnalyticsFields(std::forward<MakeFields>(makeFields)()));
    }

    /// Logs the fields of a builder block written in place:
    /// `logger.logEvent("softAssert", {{"file", file}, {"line", line}})`.
    void logEvent(std::string_view identifierSuffix,
                  std::initializer_list<AnalyticsFieldBuilder::Entry> entries) {
        logEvent(identifierSuffix, AnalyticsFieldBuilder::buildBlock(entries));
    }
};

}  // namespace mirels
