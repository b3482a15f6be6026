#pragma once

// `CrashError`: the fallback explanation of a crash, when no crash-text parser recognises the
// report.

#include "mirels/Export.h"
#include "mirels/crash/CrashReportError.h"

namespace mirels {

/// The fallback explanation of a crash, when no crash-text parser recognises the report.
class MIRELS_EXPORT CrashError final : public CrashReportError {
  public:
    explicit CrashError(CrashReport crashReport) : CrashReportError(std::move(crashReport)) {}

    /// Any report makes one.
    static std::optional<CrashError> fromCrashReport(const CrashReport& crashReport) {
        return CrashError(crashReport);
    }

    /// "<P> crashed" (no full stop).
    std::optional<std::string> highValueTitle() const override;
    /// "<P> crashed." (with a full stop).
    std::optional<std::string> additionalInfo() const override;
};

}  // namespace mirels
