#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "mirels/text/Punycode.h"

namespace mirels {
namespace {

struct Sample {
    const char* name;
    std::u32string text;
    std::string encoded;
};

// The sample strings of RFC 3492, section 7.1 (encodings without the case annotations).
const std::vector<Sample>& rfcSamples() {
    static const std::vector<Sample> samples = {
        {"A Arabic",
         U"\u0644\u064A\u0647\u0645\u0627\u0628\u062A\u0643\u0644\u0645\u0648\u0634\u0639\u0631"
         U"\u0628\u064A\u061F",
         "egbpdaj6bu4bxfgehfvwxn"},
        {"B Chinese simplified", U"\u4ED6\u4EEC\u4E3A\u4EC0\u4E48\u4E0D\u8BF4\u4E2D\u6587",
         "ihqwcrb4cv8a8dqg056pqjye"},
        {"C Chinese traditional", U"\u4ED6\u5011\u7232\u4EC0\u9EBD\u4E0D\u8AAA\u4E2D\u6587",
         "ihqwctvzc91f659drss3x8bo0yb"},
        {"D Czech",
         U"\u0050\u0072\u006F\u010D\u0070\u0072\u006F\u0073\u0074\u011B\u006E\u0065\u006D\u006C"
         U"\u0075\u0076\u00ED\u010D\u0065\u0073\u006B\u0079",
         "Proprostnemluvesky-uyb24dma41a"},
        {"E Hebrew",
         U"\u05DC\u05DE\u05D4\u05D4\u05DD\u05E4\u05E9\u05D5\u05D8\u05DC\u05D0\u05DE\u05D3\u05D1"
         U"\u05E8\u05D9\u05DD\u05E2\u05D1\u05E8\u05D9\u05EA",
         "4dbcagdahymbxekheh6e0a7fei0b"},
        {"F Hindi",
         U"\u092F\u0939\u0932\u094B\u0917\u0939\u093F\u0928\u094D\u0926\u0940\u0915\u094D\u092F"
         U"\u094B\u0902\u0928\u0939\u0940\u0902\u092C\u094B\u0932\u0938\u0915\u0924\u0947\u0939"
         U"\u0948\u0902",
         "i1baa7eci9glrd9b2ae1bj0hfcgg6iyaf8o0a1dig0cd"},
        {"G Japanese",
         U"\u306A\u305C\u307F\u3093\u306A\u65E5\u672C\u8A9E\u3092\u8A71\u3057\u3066\u304F\u308C"
         U"\u306A\u3044\u306E\u304B",
         "n8jok5ay5dzabd5bym9f0cm5685rrjetr6pdxa"},
        {"H Korean",
         U"\uC138\uACC4\uC758\uBAA8\uB4E0\uC0AC\uB78C\uB4E4\uC774\uD55C\uAD6D\uC5B4\uB97C\uC774"
         U"\uD574\uD55C\uB2E4\uBA74\uC5BC\uB9C8\uB098\uC88B\uC744\uAE4C",
         "989aomsvi5e83db1d2a355cv1e0vak1dwrv93d5xbh15a0dt30a5jpsd879ccm6fea98c"},
        {"I Russian",
         U"\u043F\u043E\u0447\u0435\u043C\u0443\u0436\u0435\u043E\u043D\u0438\u043D\u0435\u0433"
         U"\u043E\u0432\u043E\u0440\u044F\u0442\u043F\u043E\u0440\u0443\u0441\u0441\u043A\u0438",
         "b1abfaaepdrnnbgefbadotcwatmq2g4l"},
        {"J Spanish", U"Porqu\u00E9nopuedensimplementehablarenEspa\u00F1ol",
         "PorqunopuedensimplementehablarenEspaol-fmd56a"},
        {"K Vietnamese", U"T\u1EA1isaoh\u1ECDkh\u00F4ngth\u1EC3ch\u1EC9n\u00F3iti\u1EBFngVi\u1EC7t",
         "TisaohkhngthchnitingVit-kjcr8268qyxafd2f1b9g"},
        {"L 3nenBgumi", U"3\u5E74B\u7D44\u91D1\u516B\u5148\u751F", "3B-ww4c5e180e575a65lsy2b"},
        {"M amuro namie", U"\u5B89\u5BA4\u5948\u7F8E\u6075-with-SUPER-MONKEYS",
         "-with-SUPER-MONKEYS-pc58ag80a8qai00g7n9n"},
        {"N Hello another way", U"Hello-Another-Way-\u305D\u308C\u305E\u308C\u306E\u5834\u6240",
         "Hello-Another-Way--fc4qua05auwb3674vfr0b"},
        {"O hitotsu yane", U"\u3072\u3068\u3064\u5C4B\u6839\u306E\u4E0B\u0032",
         "2-u9tlzr9756bt3uc0v"},
        {"P Maji de koi", U"Maji\u3067Koi\u3059\u308B5\u79D2\u524D", "MajiKoi5-783gue6qz075azm5e"},
        {"Q pafii de runba", U"\u30D1\u30D5\u30A3\u30FCde\u30EB\u30F3\u30D0", "de-jg4avhby1noc0d"},
        {"R sono supiido de", U"\u305D\u306E\u30B9\u30D4\u30FC\u30C9\u3067", "d9juau41awczczp"},
        {"S ascii only", U"-> $1.00 <-", "-> $1.00 <--"},
    };
    return samples;
}

TEST(Punycode, EncodesAndDecodesTheRfcSamples) {
    for (const Sample& sample : rfcSamples()) {
        SCOPED_TRACE(sample.name);
        EXPECT_EQ(Punycode::encode(std::u32string_view(sample.text)), sample.encoded);
        EXPECT_EQ(Punycode::decodeToCodePoints(sample.encoded), sample.text);
    }
    // The RFC prints some samples with upper-case digits as case hints: digits read in any case.
    EXPECT_EQ(Punycode::decodeToCodePoints("b1abfaaepdrnnbgefbaDotcwatmq2g4l"),
              rfcSamples()[8].text);
    EXPECT_EQ(Punycode::decodeToCodePoints("EGBPDAJ6BU4BXFGEHFVWXN"), rfcSamples()[0].text);
}

TEST(Punycode, Utf8FormsAndRandomRoundTrips) {
    EXPECT_EQ(Punycode::encode(std::string_view("b\xC3\xBC"
                                                "cher")),
              "bcher-kva");
    EXPECT_EQ(Punycode::decode("bcher-kva"),
              "b\xC3\xBC"
              "cher");
    EXPECT_EQ(Punycode::encode(std::string_view("")), "");
    EXPECT_EQ(Punycode::decode(""), "");
    EXPECT_EQ(Punycode::encode(std::string_view("abc")), "abc-");
    EXPECT_EQ(Punycode::decode("abc-"), "abc");

    // Labels longer than the stack buffer, and code points from every plane.
    std::mt19937 random(17);
    std::uniform_int_distribution<std::uint32_t> any(0, 0x10FFFF);
    std::uniform_int_distribution<std::size_t> length(0, 150);
    for (int round = 0; round < 300; ++round) {
        std::u32string text;
        const std::size_t size = length(random);
        while (text.size() < size) {
            std::uint32_t c = any(random);
            if (round % 3 == 0) c %= 0x250;  // mostly Latin, many basic code points
            if (c >= 0xD800 && c <= 0xDFFF) continue;
            text.push_back(static_cast<char32_t>(c));
        }
        const std::string encoded = Punycode::encode(std::u32string_view(text));
        ASSERT_EQ(Punycode::decodeToCodePoints(encoded), text) << encoded;
    }
}

TEST(Punycode, BadInputIsAClearError) {
    auto failure = [](auto&& convert) -> std::optional<PunycodeError> {
        try {
            convert();
        } catch (const PunycodeError& error) {
            return error;
        }
        return std::nullopt;
    };
    using Kind = PunycodeError::Kind;

    auto notDigit = failure([] { (void)Punycode::decode("abc-de!f"); });
    ASSERT_TRUE(notDigit);
    EXPECT_EQ(notDigit->kind(), Kind::invalidInput);
    EXPECT_EQ(notDigit->offset(), 6U);
    EXPECT_EQ(notDigit->additionalInfo(), "\"!\" is not a Punycode digit (at byte 6)");
    EXPECT_EQ(notDigit->effectiveTitle(), "Invalid Punycode");

    auto nonAsciiBasic = failure([] { (void)Punycode::decode("\xC3\xA9-abc"); });
    ASSERT_TRUE(nonAsciiBasic);
    EXPECT_EQ(nonAsciiBasic->kind(), Kind::invalidInput);

    EXPECT_EQ(failure([] { (void)Punycode::decode("99999999999999a"); })->kind(), Kind::overflow);
    EXPECT_EQ(failure([] { (void)Punycode::decode("abc-9"); })->kind(), Kind::truncatedInput);
    // Deltas that land past U+10FFFF, on a surrogate, or on a basic code point.
    EXPECT_EQ(failure([] { (void)Punycode::decode("en32g"); })->kind(), Kind::invalidCodePoint);
    EXPECT_EQ(failure([] { (void)Punycode::decode("ib9b"); })->kind(), Kind::invalidCodePoint);
    EXPECT_EQ(failure([] { (void)Punycode::encode(std::u32string_view(U"a\xD800")); })->kind(),
              Kind::invalidCodePoint);
    auto badUtf8 = failure([] { (void)Punycode::encode(std::string_view("ab\xC3")); });
    ASSERT_TRUE(badUtf8);
    EXPECT_EQ(badUtf8->kind(), Kind::invalidUtf8);
    EXPECT_EQ(badUtf8->offset(), 2U);
    EXPECT_EQ(failure([] { (void)Punycode::encode(std::string_view("\xC0\x80")); })->kind(),
              Kind::invalidUtf8);
}

TEST(Punycode, HostNamesConvertLabelByLabel) {
    EXPECT_EQ(Punycode::toAsciiHostName("b\xC3\xBC"
                                        "cher.example"),
              "xn--bcher-kva.example");
    EXPECT_EQ(Punycode::toAsciiHostName("www.example.com."), "www.example.com.");
    // Ideographic and full-width full stops separate labels too; the ASCII form uses ".".
    EXPECT_EQ(Punycode::toAsciiHostName("\xE2\x98\x82\xE3\x80\x82\xE2\x98\x83\xEF\xBC\x8E"
                                        "com"),
              "xn--m3h.xn--n3h.com");
    EXPECT_EQ(Punycode::toUnicodeHostName("XN--bcher-kva.Example."),
              "b\xC3\xBC"
              "cher.Example.");
    EXPECT_EQ(Punycode::toUnicodeHostName("xn--m3h.xn--n3h.com"), "\xE2\x98\x82.\xE2\x98\x83.com");

    auto kindOf = [](auto&& convert) {
        try {
            convert();
        } catch (const PunycodeError& error) {
            return std::optional(std::pair(error.kind(), error.offset()));
        }
        return std::optional<std::pair<PunycodeError::Kind, std::size_t>>();
    };
    using Kind = PunycodeError::Kind;
    EXPECT_EQ(kindOf([] { (void)Punycode::toAsciiHostName(""); }),
              std::pair(Kind::invalidLabel, std::size_t{0}));
    EXPECT_EQ(kindOf([] { (void)Punycode::toAsciiHostName("a..b"); }),
              std::pair(Kind::invalidLabel, std::size_t{2}));
    EXPECT_EQ(kindOf([] { (void)Punycode::toAsciiHostName(".a"); }),
              std::pair(Kind::invalidLabel, std::size_t{0}));
    EXPECT_EQ(kindOf([] { (void)Punycode::toAsciiHostName(std::string(64, 'a') + ".com"); }),
              std::pair(Kind::invalidLabel, std::size_t{0}));
    // 20 two-byte letters encode to more than 63 bytes.
    std::string longLabel = "ok.";
    for (int i = 0; i < 40; ++i) longLabel += "\xC3\xBC\xC3\xB6";
    EXPECT_EQ(kindOf([&] { (void)Punycode::toAsciiHostName(longLabel); }),
              std::pair(Kind::invalidLabel, std::size_t{3}));
    // Offsets count from the start of the whole name.
    EXPECT_EQ(kindOf([] { (void)Punycode::toAsciiHostName("ab.c\xFF"); }),
              std::pair(Kind::invalidUtf8, std::size_t{4}));
    EXPECT_EQ(kindOf([] { (void)Punycode::toUnicodeHostName("www.xn--a!b"); }),
              std::pair(Kind::invalidInput, std::size_t{9}));
}

}  // namespace
}  // namespace mirels
