#pragma once

#include <string>
#include <utility>
#include <vector>

#include "mirels/crash/CrashReport.h"

namespace mirels::testing {

/// A small report of process `name` whose application-specific information holds `entries`.
inline CrashReport reportWithInformation(
    std::vector<std::pair<std::string, std::vector<std::string>>> entries,
    std::string name = "Demo", std::int32_t pid = 42) {
    CrashReport::ApplicationSpecificInformation asi;
    for (auto& [key, lines] : entries) asi.set(key, std::move(lines));
    return CrashReport(std::move(name), "309", pid, PlistDate{100.5}, std::move(asi),
                       {CrashReport::Image{"0000-UUID", 4096, "/bin/demo", std::nullopt}},
                       {CrashReport::Frame{0, 16, "main", 4}}, std::nullopt);
}

/// A report whose one entry "main" holds `lines`.
inline CrashReport reportWithLines(std::vector<std::string> lines, std::string name = "Demo") {
    return reportWithInformation({{"main", std::move(lines)}}, std::move(name));
}

}  // namespace mirels::testing
