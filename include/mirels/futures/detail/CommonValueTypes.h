#pragma once

// The value types whose futures the library compiles once. Each futures header ends with
// explicit instantiation declarations (`extern template`) for these types, and the library
// holds the matching definitions, so a program using `Future<int>` or `Future<std::string>`
// does not compile and optimise the futures' bodies again in every file that uses them. Inline
// members are still inlined where the optimiser wants them; only the out-of-line copies come
// from the library. Any other value type instantiates as usual.

#include <string>

#include "mirels/Export.h"

/// Calls `X(T)` for each value type compiled into the library: `int`, `bool` and `std::string`.
#define MIRELS_DETAIL_FOR_EACH_COMMON_FUTURE_VALUE(X) X(int) X(bool) X(std::string)
