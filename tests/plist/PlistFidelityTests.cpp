#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "mirels/plist/PlistSerialization.h"

namespace mirels {
namespace {

template <class F>
std::string thrownMessage(F&& body) {
    try {
        body();
    } catch (const PropertyListSerializationError& error) {
        return error.what();
    }
    return "(no error)";
}

PlistValue throughXML(const PlistValue& value) {
    return parsePropertyList(toXML(value));
}
PlistValue throughBinary(const PlistValue& value) {
    return parsePropertyList(toBinary(value));
}

TEST(PlistFidelity, NegativeZeroKeepsItsSignInBothForms) {
    for (auto through : {throughXML, throughBinary}) {
        PlistValue read = through(PlistArray{-0.0, 0.0, -1e-320});
        const auto& array = *read.getIf<PlistArray>();
        ASSERT_EQ(array.size(), 3u);
        EXPECT_TRUE(std::signbit(*array[0].getIf<double>()));
        EXPECT_FALSE(std::signbit(*array[1].getIf<double>()));
        EXPECT_EQ(*array[2].getIf<double>(), -1e-320);
        const double infinity = std::numeric_limits<double>::infinity();
        EXPECT_EQ(through(PlistArray{infinity, -infinity}),
                  PlistValue(PlistArray{infinity, -infinity}));
    }
}

TEST(PlistFidelity, DatesKeepWholeSecondsInXMLWithinTheYearsOneTo9999) {
    const double firstSecondOfYearOne = -63113904000.0;
    const double lastSecondOf9999 = 252423993599.0;
    const PlistValue extremes = PlistArray{PlistDate{firstSecondOfYearOne},
                                           PlistDate{lastSecondOf9999}, PlistDate{-12649260555.0}};
    EXPECT_EQ(throughXML(extremes), extremes);
    const std::string xml = toXML(extremes);
    EXPECT_NE(xml.find("<date>0001-01-01T00:00:00Z</date>"), std::string::npos) << xml;
    EXPECT_NE(xml.find("<date>9999-12-31T23:59:59Z</date>"), std::string::npos) << xml;
    EXPECT_NE(xml.find("<date>1600-02-29T12:30:45Z</date>"), std::string::npos) << xml;
    // Fractions are dropped to the whole second at or before the date.
    EXPECT_EQ(throughXML(PlistDate{12.75}), PlistValue(PlistDate{12}));
    EXPECT_EQ(throughXML(PlistDate{-0.5}), PlistValue(PlistDate{-1}));

    // Beyond those years XML has no form: refused, naming where the date is.
    EXPECT_EQ(thrownMessage([&] {
                  toXML(PlistDictionary{{"when", PlistArray{PlistDate{lastSecondOf9999 + 1}}}});
              }),
              "a date at key path \"when[0]\" is outside the years 1 to 9999, which XML dates "
              "cannot carry");
    EXPECT_THROW(toXML(PlistDate{firstSecondOfYearOne - 1}), PropertyListSerializationError);
    EXPECT_THROW(toXML(PlistDate{1e300}), PropertyListSerializationError);
    // Binary keeps every finite date exactly.
    const PlistValue far = PlistArray{PlistDate{lastSecondOf9999 + 1}, PlistDate{-1e15 - 0.25},
                                      PlistDate{1e300}, PlistDate{0.125}};
    EXPECT_EQ(throughBinary(far), far);
}

TEST(PlistFidelity, TextThatIsNotUTF8IsRefusedAtWritingInBothForms) {
    const PlistValue badString =
        PlistDictionary{{"settings", PlistDictionary{{"names", PlistArray{"ok", "caf\xE9"}}}}};
    const std::string expected = "a string at key path \"settings.names[1]\" is not valid UTF-8";
    EXPECT_EQ(thrownMessage([&] { toBinary(badString); }), expected);
    EXPECT_EQ(thrownMessage([&] { toXML(badString); }), expected);
    const PlistValue badKey = PlistDictionary{{"a\xC0\x80", 1}};  // an overlong NUL
    EXPECT_NE(thrownMessage([&] { toBinary(badKey); }).find("a dictionary key at key path"),
              std::string::npos);
    EXPECT_THROW(toXML(badKey), PropertyListSerializationError);
    EXPECT_THROW(toBinary(PlistValue("\xED\xA0\x80")),
                 PropertyListSerializationError);  // surrogate
    // Whatever is written reads back the same, in both forms.
    const PlistValue good = PlistDictionary{
        {"text", PlistArray{"caf\xC3\xA9", "\xF0\x9D\x84\x9E", "\xE2\x9C\x93", "a\rb\r\nc"}}};
    EXPECT_EQ(throughBinary(good), good);
    EXPECT_EQ(throughXML(good), good);
}

// A binary property list with one top-level object.
std::vector<std::uint8_t> singleObject(const std::vector<std::uint8_t>& object) {
    std::vector<std::uint8_t> out;
    for (char c : std::string_view("bplist00")) out.push_back(static_cast<std::uint8_t>(c));
    for (std::uint8_t byte : object) out.push_back(byte);
    const auto tableOffset = static_cast<std::uint8_t>(out.size());
    out.push_back(8);
    for (int i = 0; i < 6; ++i) out.push_back(0);
    out.push_back(1);
    out.push_back(1);
    for (std::uint64_t field : {std::uint64_t{1}, std::uint64_t{0}, std::uint64_t{tableOffset}}) {
        for (int i = 7; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(field >> (8 * i)));
    }
    return out;
}

TEST(PlistFidelity, StringsWithNulStayWholeAndIntegersNeverWrap) {
    const PlistValue withNul = PlistArray{std::string("a\0b", 3), std::string("\0", 1)};
    EXPECT_EQ(throughBinary(withNul), withNul);
    EXPECT_EQ(parsePropertyList(singleObject({0x53, 'a', 0, 'b'})),
              PlistValue(std::string("a\0b", 3)));
    EXPECT_EQ(parsePropertyList(singleObject({0x62, 0, 'x', 0, 0})),
              PlistValue(std::string("x\0", 2)));
    // XML cannot carry a NUL character at all.
    EXPECT_THROW(toXML(withNul), PropertyListSerializationError);

    // Unsigned 64-bit values above the signed range, as other writers store them (a 16-byte
    // integer), are refused with their value, never read as negative numbers.
    std::vector<std::uint8_t> big(17, 0xFF);
    big[0] = 0x14;
    for (int i = 1; i <= 8; ++i) big[i] = 0;
    const std::string tooBig =
        "the integer 18446744073709551615 is outside the signed 64-bit range this library holds";
    EXPECT_EQ(thrownMessage([&] { parsePropertyList(singleObject(big)); }), tooBig);
    EXPECT_EQ(thrownMessage([&] {
                  parsePropertyList("<plist><integer>18446744073709551615</integer></plist>");
              }),
              tooBig);
    EXPECT_THROW(parsePropertyList("<plist><integer>9223372036854775808</integer></plist>"),
                 PropertyListSerializationError);
    EXPECT_THROW(parsePropertyList("<plist><integer>-9223372036854775809</integer></plist>"),
                 PropertyListSerializationError);
    EXPECT_EQ(parsePropertyList("<plist><integer> 9223372036854775807 </integer></plist>"),
              PlistValue(std::numeric_limits<std::int64_t>::max()));
    EXPECT_EQ(parsePropertyList("<plist><integer>-9223372036854775808</integer></plist>"),
              PlistValue(std::numeric_limits<std::int64_t>::min()));
    // A 16-byte integer that fits is read; so is the sign-extended form of a negative one.
    std::vector<std::uint8_t> small(17, 0);
    small[0] = 0x14;
    small[16] = 42;
    EXPECT_EQ(parsePropertyList(singleObject(small)), PlistValue(std::int64_t{42}));
    std::vector<std::uint8_t> negative(17, 0xFF);
    negative[0] = 0x14;
    EXPECT_EQ(parsePropertyList(singleObject(negative)), PlistValue(std::int64_t{-1}));
}

}  // namespace
}  // namespace mirels
