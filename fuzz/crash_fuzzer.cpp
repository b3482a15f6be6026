// Feeds arbitrary bytes to the crash-report decoder and, when they decode, through everything that
// reads a report: the effective error, the Linux crash-text parsers, the structured description and
// the full diagnostics; a decoded report must also survive its own JSON form unchanged. The bytes
// are then searched as crash text and as build output, split into lines, so every pattern meets
// arbitrary input. Nothing may crash, hang or leak; the only failure allowed is a
// JsonDecodingError.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "mirels/crash/CrashError.h"
#include "mirels/crash/CrashReport.h"
#include "mirels/crash/ErrorParsingUtilities.h"
#include "mirels/crash/LinuxCrashTextErrors.h"
#include "mirels/platform/Log.h"

namespace {

using namespace mirels;

/// Regex limits are logged by design; the fuzzer keeps the log quiet.
class SilentLogBackend final : public LogBackend {
  public:
    bool isEnabled(LogLevel) const noexcept override { return false; }
    void write(const LogRecord&) override {}
};

void explain(const CrashReport& report) {
    const std::shared_ptr<const CrashReportError> error = report.effectiveError();
    if (!error) std::abort();
    (void)error->fullDiagnosticsOutput();
    if (auto other = linuxCrashTextError(report)) (void)other->fullDiagnosticsOutput();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setLogBackend(std::make_shared<SilentLogBackend>());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    try {
        const CrashReport report = CrashReport::decode(text);
        explain(report);
        (void)report.structuredDescription();
        if (CrashReport::decode(report.jsonText()) != report) std::abort();
    } catch (const JsonDecodingError&) {
        // The one failure bad input may give.
    }

    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        lines.emplace_back(text.substr(start, end - start));
        start = end + 1;
    }
    CrashReport::ApplicationSpecificInformation asi;
    asi.set("lines", std::move(lines));
    asi.set("whole", std::vector<std::string>{std::string(text)});
    explain(CrashReport("fuzz", "309", 1, PlistDate{0}, std::move(asi), {}, {}, std::nullopt));
    (void)firstBuildErrorMessage(text);
    (void)firstFileBuildErrorMessage(text);
    return 0;
}
