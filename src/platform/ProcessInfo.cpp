#include "mirels/platform/ProcessInfo.h"

#include <errno.h>

#include <system_error>

namespace mirels {

const std::string& processName() {
    static const std::string name = [] {
        const char* shortName = program_invocation_short_name;
        return std::string(shortName != nullptr ? shortName : "");
    }();
    return name;
}

std::optional<std::filesystem::path> currentExecutablePath() {
    std::error_code error;
    std::filesystem::path path = std::filesystem::canonical("/proc/self/exe", error);
    if (error || path.empty()) return std::nullopt;
    return path;
}

}  // namespace mirels
