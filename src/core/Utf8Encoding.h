#pragma once

#include <cstdint>
#include <string>

namespace mirels::detail {

/// Appends the UTF-8 form of `codePoint` to `out`. The caller has checked that it is a Unicode
/// scalar value (at most 0x10FFFF, no surrogate).
inline void appendUtf8(std::string& out, char32_t codePoint) {
    const auto v = static_cast<std::uint32_t>(codePoint);
    if (v < 0x80) {
        out.push_back(static_cast<char>(v));
    } else if (v < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (v >> 6)));
        out.push_back(static_cast<char>(0x80 | (v & 0x3F)));
    } else if (v < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (v >> 12)));
        out.push_back(static_cast<char>(0x80 | ((v >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (v & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (v >> 18)));
        out.push_back(static_cast<char>(0x80 | ((v >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((v >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (v & 0x3F)));
    }
}

}  // namespace mirels::detail
