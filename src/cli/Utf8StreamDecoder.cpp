#include "mirels/cli/Utf8StreamDecoder.h"

#include <cstring>

namespace mirels {

namespace {

enum class Status : std::uint8_t { valid, invalid, incomplete };

struct Classified {
    Status status;
    std::size_t length;  // bytes of the character, or of the ill-formed subpart to replace
};

/// Classifies the character that starts at `p` (`n` > 0 bytes available), following the table of
/// well-formed UTF-8 byte sequences.
Classified classify(const unsigned char* p, std::size_t n) noexcept {
    const unsigned char lead = p[0];
    if (lead < 0x80) return {Status::valid, 1};
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return {Status::invalid, 1};
    }
    for (std::size_t i = 1; i < length; ++i) {
        if (i >= n) return {Status::incomplete, i};
        const unsigned char byte = p[i];
        const unsigned char min = i == 1 ? low : 0x80;
        const unsigned char max = i == 1 ? high : 0xBF;
        if (byte < min || byte > max) return {Status::invalid, i};
    }
    return {Status::valid, length};
}

/// Decodes whole characters of `p[0..n)` into `out`; returns how many bytes were used. Bytes left
/// over are the valid start of a character that `p` cuts short.
std::size_t decodeComplete(const unsigned char* p, std::size_t n, std::string& out) {
    std::size_t i = 0;
    std::size_t runStart = 0;  // start of the valid run not yet copied
    while (i < n) {
        // ASCII eight bytes at a time: the common case for tool output.
        while (i + 8 <= n) {
            std::uint64_t word = 0;
            std::memcpy(&word, p + i, 8);
            if ((word & 0x8080808080808080ULL) != 0) break;
            i += 8;
        }
        if (i >= n) break;
        if (p[i] < 0x80) {
            ++i;
            continue;
        }
        const Classified c = classify(p + i, n - i);
        if (c.status == Status::valid) {
            i += c.length;
            continue;
        }
        out.append(reinterpret_cast<const char*>(p + runStart), i - runStart);
        if (c.status == Status::incomplete) return i;
        out.append(Utf8StreamDecoder::replacementCharacter);
        i += c.length;
        runStart = i;
    }
    out.append(reinterpret_cast<const char*>(p + runStart), n - runStart);
    return n;
}

}  // namespace

void Utf8StreamDecoder::decode(std::string_view bytes, std::string& out) {
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    std::size_t n = bytes.size();
    // Finish the character held from the previous piece first. The held bytes are a valid
    // prefix, so whatever ends it (completion or an ill-formed byte) lies in the new bytes.
    if (pendingCount_ > 0 && n > 0) {
        unsigned char buffer[4];
        std::memcpy(buffer, pending_, pendingCount_);
        const std::size_t taken = n < 4 - pendingCount_ ? n : 4 - pendingCount_;
        std::memcpy(buffer + pendingCount_, p, taken);
        const Classified c = classify(buffer, pendingCount_ + taken);
        if (c.status == Status::incomplete) {
            // Still short: every new byte continues it (`taken` is all of `n` here).
            std::memcpy(pending_ + pendingCount_, p, taken);
            pendingCount_ += taken;
            return;
        }
        if (c.status == Status::valid) {
            out.append(reinterpret_cast<const char*>(buffer), c.length);
        } else {
            out.append(replacementCharacter);
        }
        const std::size_t used = c.length - pendingCount_;
        p += used;
        n -= used;
        pendingCount_ = 0;
    }
    if (n == 0) return;
    const std::size_t used = decodeComplete(p, n, out);
    pendingCount_ = n - used;
    std::memcpy(pending_, p + used, pendingCount_);
}

void Utf8StreamDecoder::finish(std::string& out) {
    // A held prefix is at most one ill-formed subpart that the stream cut short: one U+FFFD.
    if (pendingCount_ > 0) out.append(replacementCharacter);
    pendingCount_ = 0;
}

std::string Utf8StreamDecoder::decodeAll(std::string_view bytes) {
    Utf8StreamDecoder decoder;
    std::string out;
    out.reserve(bytes.size());
    decoder.decode(bytes, out);
    decoder.finish(out);
    return out;
}

}  // namespace mirels
