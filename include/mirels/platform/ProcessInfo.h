#pragma once

// `processName()`: the current process's name. Also `currentExecutablePath()`.

#include <filesystem>
#include <optional>
#include <string>

#include "mirels/Export.h"

namespace mirels {

/// The current process's name: the last component of the path it was started with (what `ps`
/// shows), computed once.
MIRELS_EXPORT const std::string& processName();

/// The resolved location of the running executable (the real path of /proc/self/exe), or
/// nothing when the system does not say.
MIRELS_EXPORT std::optional<std::filesystem::path> currentExecutablePath();

}  // namespace mirels
