#include <gtest/gtest.h>

#include <random>

#include "mirels/cli/Utf8StreamDecoder.h"

namespace mirels {
namespace {

constexpr std::string_view fffd = Utf8StreamDecoder::replacementCharacter;

std::string r(int count) {
    std::string out;
    for (int i = 0; i < count; ++i) out += fffd;
    return out;
}

TEST(Utf8StreamDecoderTest, ReplacesEachMaximalIllFormedSubpart) {
    struct Case {
        std::string input;
        std::string expected;
    };
    const Case cases[] = {
        {"plain ascii", "plain ascii"},
        {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
        {"a\x80z", "a" + r(1) + "z"},  // stray continuation byte
        {"\xC0\xAF", r(2)},            // overlong lead bytes
        {"\xE0\x80\xAF", r(3)},        // overlong three-byte form
        {"\xED\xA0\x80", r(3)},        // a surrogate
        {"\xF4\x90\x80\x80", r(4)},    // above U+10FFFF
        {"\xF5", r(1)},
        {"\xE2\x82z", r(1) + "z"},  // truncated, then ASCII
        {"\xF0\x9F\x98", r(1)},     // cut off by the end
        {"\xF0\x9F\x98\xC3\xA9", r(1) + "\xC3\xA9"},
        {"\xFF\xFE", r(2)},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Utf8StreamDecoder::decodeAll(c.input), c.expected)
            << "input size " << c.input.size();
    }
}

TEST(Utf8StreamDecoderTest, AnySplitOfTheInputDecodesAsTheWhole) {
    std::mt19937 random(7);
    const std::string alphabet[] = {"a",    "\xC3\xA9",    "\xE2\x82\xAC", "\xF0\x9F\x98\x80",
                                    "\x80", "\xC3",        "\xE2\x82",     "\xF0\x9F",
                                    "\xFF", "\xED\xA0\x80"};
    for (int round = 0; round < 2000; ++round) {
        std::string input;
        const int pieces = static_cast<int>(random() % 12);
        for (int i = 0; i < pieces; ++i) input += alphabet[random() % std::size(alphabet)];
        const std::string whole = Utf8StreamDecoder::decodeAll(input);
        // Every split into up to four pieces gives the same text.
        Utf8StreamDecoder decoder;
        std::string out;
        std::size_t at = 0;
        while (at < input.size()) {
            const std::size_t step = 1 + random() % 3;
            decoder.decode(std::string_view(input).substr(at, step), out);
            at += step;
        }
        decoder.finish(out);
        ASSERT_EQ(out, whole) << "round " << round;
    }
    Utf8StreamDecoder decoder;
    std::string out;
    decoder.decode("\xF0\x9F", out);
    EXPECT_EQ(decoder.pendingByteCount(), 2U);
    EXPECT_EQ(out, "");
    decoder.decode("\x98\x80", out);
    EXPECT_EQ(out, "\xF0\x9F\x98\x80");
}

}  // namespace
}  // namespace mirels
