#include "mirels/core/UUID.h"

#include <sys/random.h>

#include <cerrno>

#include "mirels/core/FatalError.h"

namespace mirels {

UUID UUID::random() {
    // The kernel's generator: seeded from boot, never repeats across forks, no state of ours.
    // getrandom never returns short for 16 bytes once the pool is ready; EINTR is retried.
    Bytes bytes;
    for (;;) {
        ssize_t got = ::getrandom(bytes.data(), bytes.size(), 0);
        if (got == static_cast<ssize_t>(bytes.size())) break;
        if (got < 0 && errno == EINTR) continue;
        fatalError("getrandom failed to produce the bytes of a random UUID");
    }
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // the standard variant
    return UUID(bytes);
}

std::optional<UUID> UUID::fromString(std::string_view text) noexcept {
    if (text.size() != 36) return std::nullopt;
    auto digit = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    Bytes bytes;
    std::size_t at = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (at == 8 || at == 13 || at == 18 || at == 23) {
            if (text[at] != '-') return std::nullopt;
            ++at;
        }
        int high = digit(text[at]);
        int low = digit(text[at + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        bytes[i] = static_cast<std::uint8_t>(high * 16 + low);
        at += 2;
    }
    return UUID(bytes);
}

std::string UUID::uuidString() const {
    static constexpr char hex[] = "0123456789abcdef";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes_.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += hex[bytes_[i] >> 4];
        text += hex[bytes_[i] & 0xF];
    }
    return text;
}

}  // namespace mirels
