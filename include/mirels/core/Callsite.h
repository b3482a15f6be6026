#pragma once

// `Callsite`: where in the caller's source an operation was requested.

#include <cstddef>
#include <ostream>
#include <source_location>
#include <string>

#include "mirels/Export.h"

// Every shared object has its own `__dso_handle`; taking its address inside a default argument
// evaluates in the caller's translation unit and so names the caller's image. Declared as GCC
// declares it implicitly (C++ linkage; a variable at namespace scope names the same symbol
// either way), so that the two declarations agree in any include order.
extern void* __dso_handle;  // NOLINT(bugprone-reserved-identifier)

namespace mirels {

/// Where in the caller's source an operation was requested. A plain value of five fields that
/// owns nothing: the file and function texts are compile-time constants.
///
/// Every operation of the library that takes a call site takes it as its last parameter,
/// defaulted to `Callsite::current()`, which captures the caller's position.
class MIRELS_EXPORT Callsite {
  public:
    constexpr Callsite(const void* dsoHandle, const char* file, std::size_t line,
                       std::size_t column, const char* function) noexcept
        : dsoHandle_(dsoHandle), file_(file), line_(line), column_(column), function_(function) {}

    /// The position of the expression that evaluates this call (used as a default argument, the
    /// position of the caller of the function that has the default).
    static constexpr Callsite current(
        const void* dsoHandle = &__dso_handle,
        std::source_location location = std::source_location::current()) noexcept {
        return Callsite(dsoHandle, location.file_name(), location.line(), location.column(),
                        location.function_name());
    }

    /// A fixed call site inside the library: the library's own source position with a function
    /// text chosen by the library, such as "cancel()" or "syncSetValue(at:to:)".
    static constexpr Callsite library(
        const char* function,
        std::source_location location = std::source_location::current()) noexcept {
        return Callsite(&__dso_handle, location.file_name(), location.line(), location.column(),
                        function);
    }

    constexpr const void* dsoHandle() const noexcept { return dsoHandle_; }
    constexpr const char* file() const noexcept { return file_; }
    constexpr std::size_t line() const noexcept { return line_; }
    constexpr std::size_t column() const noexcept { return column_; }
    constexpr const char* function() const noexcept { return function_; }

    /// The last path component of `file` (the whole path when it has no "/").
    const char* fileName() const noexcept;

    /// "file-name:line:column within function", e.g. "Grid:12:5 within body".
    std::string description() const;

    /// "file-name:line:column", the text a soft-assertion report carries.
    std::string location() const;

    friend MIRELS_EXPORT bool operator==(const Callsite& a, const Callsite& b) noexcept;

  private:
    const void* dsoHandle_;
    const char* file_;
    std::size_t line_;
    std::size_t column_;
    const char* function_;
};

/// Streams the call site's description.
inline std::ostream& operator<<(std::ostream& stream, const Callsite& callsite) {
    return stream << callsite.description();
}

}  // namespace mirels
