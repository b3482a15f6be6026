#pragma once

// `fatalError()`: stops the process with a message and the call site, for misuse that leaves no
// sensible result.

#include <string_view>

#include "mirels/Export.h"
#include "mirels/core/Callsite.h"

namespace mirels {

/// Stops the process: writes "Fatal error: <message>" and the call site to standard error, then
/// calls `std::abort()`. For misuse that leaves no sensible result (a repeated key in a builder,
/// a counter overflow), never for conditions a caller could handle.
[[noreturn]] MIRELS_EXPORT void fatalError(std::string_view message,
                                           Callsite callsite = Callsite::current());

}  // namespace mirels
