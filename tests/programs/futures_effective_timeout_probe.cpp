// Prints effectiveTimeout(30) and effectiveTimeout(0.1), one per line. Tests run it in a fresh
// process with "QK_TIMEOUT" set as they need: the variable is read once per process.

#include <cstdio>

#include "mirels/futures/TimeoutError.h"

int main() {
    std::printf("%g\n%g\n", mirels::effectiveTimeout(30), mirels::effectiveTimeout(0.1));
    return 0;
}
