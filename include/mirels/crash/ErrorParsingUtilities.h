#pragma once

// `firstFileBuildErrorMessage()`: the message of the first compiler error that names a file in
// `buildOutput`. Also `firstBuildErrorMessage()`.

#include <optional>
#include <string>
#include <string_view>

#include "mirels/Export.h"

namespace mirels {

/// The message of the first compiler error that names a file in `buildOutput`: the rest of the
/// first line containing ": error: ". "^" and "$" match at every line boundary. Nothing when no
/// line has one.
MIRELS_EXPORT std::optional<std::string> firstFileBuildErrorMessage(std::string_view buildOutput);

/// The message of the first compiler error in `buildOutput`: the rest of the first line after
/// "error: ", with or without a file in front.
MIRELS_EXPORT std::optional<std::string> firstBuildErrorMessage(std::string_view buildOutput);

}  // namespace mirels
