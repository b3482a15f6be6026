#pragma once

// `hostBundlePath()`: the application bundle that contains `executablePath`. Also
// `bundleBuildVersion()`, `hostBundleBuildVersion()`.

#include <filesystem>
#include <optional>
#include <string>

#include "mirels/Export.h"

namespace mirels {

/// The application bundle that contains `executablePath`: the parent of the nearest ancestor
/// directory named "Contents" (".../Host/Contents/bin/tool" gives ".../Host").
/// Nothing when no ancestor is named so. Purely lexical: the path should already be resolved.
MIRELS_EXPORT std::optional<std::filesystem::path> hostBundlePath(
    const std::filesystem::path& executablePath);

/// The bundle that contains the running executable, if any.
MIRELS_EXPORT std::optional<std::filesystem::path> hostBundlePath();

/// The build of a bundle: the "ProductBuildVersion" string of its "Contents/version.plist".
/// Nothing when the file is missing, unreadable or damaged, or the entry is not a string.
MIRELS_EXPORT std::optional<std::string> bundleBuildVersion(
    const std::filesystem::path& bundlePath);

/// The build of the bundle that contains `executablePath`, if any.
MIRELS_EXPORT std::optional<std::string> hostBundleBuildVersion(
    const std::filesystem::path& executablePath);

/// The build of the bundle that contains the running executable; read once per process.
MIRELS_EXPORT const std::optional<std::string>& hostBundleBuildVersion();

}  // namespace mirels
