#pragma once

#include <string.h>

#include <string>

namespace mirels::detail {

/// The system's text for an errno value ("No such file or directory"), thread-safe.
inline std::string systemErrorText(int number) {
    if (number == 0) return "unknown error";
    char buffer[256];
    // The GNU strerror_r returns the text, which may or may not be in the buffer.
    return ::strerror_r(number, buffer, sizeof buffer);
}

}  // namespace mirels::detail
