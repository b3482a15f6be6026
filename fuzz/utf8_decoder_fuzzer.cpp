// Child output arrives in pieces of any size. Whatever the bytes and wherever they are cut, the
// streaming decoder must give exactly the text of decoding them at once, and that text must be
// well-formed UTF-8 (invalid input replaced, never passed on or dropped).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "mirels/cli/Utf8StreamDecoder.h"

namespace {

bool isWellFormed(std::string_view text) {
    // Decoding well-formed text must change nothing.
    return mirels::Utf8StreamDecoder::decodeAll(text) == text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    // The first byte chooses the cut points; the rest is the stream.
    const unsigned seed = data[0];
    std::string_view bytes(reinterpret_cast<const char*>(data + 1), size - 1);
    const std::string whole = mirels::Utf8StreamDecoder::decodeAll(bytes);
    mirels::Utf8StreamDecoder decoder;
    std::string pieces;
    std::size_t at = 0;
    unsigned step = seed;
    while (at < bytes.size()) {
        const std::size_t length = 1 + step % 7;
        decoder.decode(bytes.substr(at, length), pieces);
        at += length;
        step = step * 1103515245U + 12345U;
    }
    decoder.finish(pieces);
    if (pieces != whole) std::abort();
    if (!isWellFormed(whole)) std::abort();
    return 0;
}
