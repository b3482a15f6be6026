#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "mirels/plist/PlistSerialization.h"
#include "plist/LibplistBridge.h"

namespace mirels {
namespace {

PlistValue sampleDocument(double dateSeconds) {
    PlistData allBytes;
    for (int b = 0; b < 256; ++b) allBytes.push_back(static_cast<std::uint8_t>(b));
    return PlistDictionary{
        {"text", "Grüße <&> \"quoted\""},
        {"", "empty key"},
        {"flags", PlistArray{true, false}},
        {"integers", PlistArray{std::int64_t{0}, std::int64_t{-1}, std::int64_t{-5},
                                std::numeric_limits<std::int64_t>::min(),
                                std::numeric_limits<std::int64_t>::max()}},
        {"reals", PlistArray{0.1, -2.5, 1e300, 5e-324}},
        {"data", PlistArray{PlistData{}, allBytes}},
        {"dates",
         PlistArray{PlistDate{0}, PlistDate{dateSeconds}, PlistDate{-3.0e9}, PlistDate{3.2e9}}},
        {"nested", PlistDictionary{{"empty array", PlistArray{}},
                                   {"empty dictionary", PlistDictionary{}},
                                   {"inner", PlistArray{PlistDictionary{{"k", 1}}}}}},
    };
}

TEST(PlistSerialization, XMLAndBinaryRoundTripEveryKind) {
    // XML dates carry whole seconds; binary ones the exact value, also outside the 32-bit range.
    PlistValue forXML = sampleDocument(-1234567.0);
    EXPECT_EQ(parsePropertyList(toXML(forXML)), forXML);
    PlistValue forBinary = sampleDocument(-0.25);
    EXPECT_EQ(parsePropertyList(toBinary(forBinary)), forBinary);

    std::string xml = toXML(forXML);
    EXPECT_NE(xml.find("<integer>-5</integer>"), std::string::npos);
    EXPECT_NE(xml.find("<date>2000-12-17T17:03:53Z</date>"), std::string::npos);

    // Large documents use three-byte offsets and references.
    PlistValue large = PlistArray(70000, PlistValue(std::int64_t{1} << 40));
    std::vector<std::uint8_t> largeBinary = toBinary(large);
    EXPECT_EQ(largeBinary[largeBinary.size() - 32 + 6], 3);
    EXPECT_EQ(parsePropertyList(largeBinary), large);

    // Scalars stand at the top level too.
    for (const PlistValue& scalar : {PlistValue("x"), PlistValue(std::int64_t{-7}),
                                     PlistValue(true), PlistValue(PlistDate{12.5})}) {
        EXPECT_EQ(parsePropertyList(toBinary(scalar)), scalar);
    }
}

TEST(PlistSerialization, LibplistHoldsSignedIntegersAsTwosComplement) {
    LibplistNode node = toLibplist(PlistValue(std::int64_t{-5}));
    std::uint64_t bits = 0;
    plist_get_uint_val(node.get(), &bits);
    EXPECT_EQ(bits, std::numeric_limits<std::uint64_t>::max() - 4);
    EXPECT_EQ(fromLibplist(node.get()), PlistValue(std::int64_t{-5}));

    LibplistNode uid(plist_new_uid(3));
    EXPECT_THROW(fromLibplist(uid.get()), PropertyListSerializationError);
    EXPECT_THROW(fromLibplist(nullptr), PropertyListSerializationError);
}

std::string errorMessage(std::string_view input) {
    try {
        parsePropertyList(input);
    } catch (const PropertyListSerializationError& error) {
        return error.what();
    }
    return "(parsed)";
}

TEST(PlistSerialization, BadInputGivesAClearError) {
    EXPECT_EQ(errorMessage(""), "empty input");
    EXPECT_EQ(errorMessage(" \n\t"), "empty input");
    EXPECT_EQ(errorMessage("hello"), "not a property list");
    EXPECT_EQ(errorMessage("<plist><array></plist>"),
              "malformed XML property list: unexpected closing tag </plist>");
    EXPECT_EQ(errorMessage("<plist><dict><key>a</key></plist"),
              "malformed XML property list: unterminated tag <plist");
    EXPECT_EQ(errorMessage("<html><body>hi</body></html>"), "not a property list");
    EXPECT_EQ(errorMessage("bplist00"), "damaged binary property list: truncated");
    EXPECT_EQ(errorMessage("bplist17" + std::string(40, '\0')),
              "unsupported binary property list version");
    EXPECT_EQ(parsePropertyList("\xEF\xBB\xBF<plist><true/></plist>"), PlistValue(true));

    std::string xml = toXML(sampleDocument(60));
    std::vector<std::uint8_t> binary = toBinary(sampleDocument(60));
    // Every truncation of a valid document, and every single-byte corruption of a binary one,
    // parses or throws the library's error; nothing crashes.
    for (std::size_t length = 0; length < xml.size(); ++length) {
        try {
            parsePropertyList(std::string_view(xml).substr(0, length));
        } catch (const PropertyListSerializationError&) {
        }
    }
    for (std::size_t length = 0; length < binary.size(); ++length) {
        EXPECT_THROW(parsePropertyList(std::span(binary.data(), length)),
                     PropertyListSerializationError);
    }
    std::mt19937 random(2024);
    for (std::size_t i = 0; i < binary.size(); ++i) {
        std::vector<std::uint8_t> corrupted = binary;
        corrupted[i] = static_cast<std::uint8_t>(random());
        try {
            parsePropertyList(corrupted);
        } catch (const PropertyListSerializationError&) {
        }
    }
    for (int round = 0; round < 2000; ++round) {
        std::vector<std::uint8_t> garbage(random() % 200);
        for (auto& byte : garbage) byte = static_cast<std::uint8_t>(random());
        if (round % 2 == 0 && garbage.size() >= 8) std::memcpy(garbage.data(), "bplist00", 8);
        try {
            parsePropertyList(garbage);
        } catch (const PropertyListSerializationError&) {
        }
    }
}

// A binary property list of the given objects (offsets and references in 4 bytes).
std::vector<std::uint8_t> binaryPlist(const std::vector<std::vector<std::uint8_t>>& objects) {
    std::vector<std::uint8_t> out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    std::vector<std::uint32_t> offsets;
    for (const auto& object : objects) {
        offsets.push_back(static_cast<std::uint32_t>(out.size()));
        out.insert(out.end(), object.begin(), object.end());
    }
    auto put = [&](std::uint64_t value, int size) {
        for (int i = size - 1; i >= 0; --i)
            out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    };
    std::uint64_t tableOffset = out.size();
    for (std::uint32_t offset : offsets) put(offset, 4);
    out.insert(out.end(), 6, 0);
    out.push_back(4);  // offset size
    out.push_back(4);  // reference size
    put(objects.size(), 8);
    put(0, 8);  // top object
    put(tableOffset, 8);
    return out;
}

std::vector<std::uint8_t> arrayOf(std::vector<std::uint32_t> references) {
    std::vector<std::uint8_t> object = {static_cast<std::uint8_t>(0xA0 | references.size())};
    for (std::uint32_t reference : references) {
        for (int i = 3; i >= 0; --i)
            object.push_back(static_cast<std::uint8_t>(reference >> (8 * i)));
    }
    return object;
}

TEST(PlistSerialization, DeepNestingCyclesAndReferenceBombsAreRefused) {
    const std::string tooDeep = "nesting deeper than 512 levels";
    auto nestedXML = [](int depth, bool closed) {
        std::string xml = "<plist>";
        for (int i = 0; i < depth; ++i) xml += "<array>";
        if (closed) {
            for (int i = 0; i < depth; ++i) xml += "</array>";
            xml += "</plist>";
        }
        return xml;
    };
    EXPECT_NO_THROW(parsePropertyList(nestedXML(512, true)));
    EXPECT_EQ(errorMessage(nestedXML(513, true)), tooDeep);
    EXPECT_EQ(errorMessage(nestedXML(200000, false)), tooDeep);
    // Markup hidden in comments does not count; markup the scan cannot follow is refused.
    EXPECT_EQ(parsePropertyList("<plist><!-- <array> \" --><array><?x \"?>\"?></array></plist>"),
              PlistValue(PlistArray{}));
    EXPECT_THROW(parsePropertyList("<!DOCTYPE plist [<!ENTITY a \"b\">]><plist><true/></plist>"),
                 PropertyListSerializationError);

    std::vector<std::vector<std::uint8_t>> chain;
    for (std::uint32_t i = 0; i < 100000; ++i) chain.push_back(arrayOf({i + 1}));
    chain.push_back(arrayOf({}));
    EXPECT_EQ(
        errorMessage(std::string_view(reinterpret_cast<const char*>(binaryPlist(chain).data()),
                                      binaryPlist(chain).size())),
        tooDeep);

    auto binaryError = [](const std::vector<std::vector<std::uint8_t>>& objects) {
        std::vector<std::uint8_t> bytes = binaryPlist(objects);
        try {
            parsePropertyList(bytes);
        } catch (const PropertyListSerializationError& error) {
            return std::string(error.what());
        }
        return std::string("(parsed)");
    };
    EXPECT_EQ(binaryError({arrayOf({1}), arrayOf({0})}),
              "damaged binary property list: cyclic object references");
    // Each level references the next twice: 2^60 objects once every reference is copied.
    std::vector<std::vector<std::uint8_t>> bomb;
    for (std::uint32_t i = 0; i < 60; ++i) bomb.push_back(arrayOf({i + 1, i + 1}));
    bomb.push_back({0x09});
    EXPECT_EQ(binaryError(bomb),
              "damaged binary property list: shared references expand into too many objects");
    // Dictionary keys must be strings (libplist would abort on reading the others back).
    EXPECT_EQ(binaryError({{0xD1, 0, 0, 0, 1, 0, 0, 0, 2}, {0x10, 7}, {0x09}}),
              "damaged binary property list: a dictionary key is not a string");
    EXPECT_EQ(binaryError({{0xD1, 0, 0, 0, 1, 0, 0, 0, 2}, {0x52, 'k', 0}, {0x09}}),
              "damaged binary property list: a dictionary key contains a NUL character");
    EXPECT_EQ(binaryError({{0xD1, 0, 0, 0, 1, 0, 0, 0, 2}, {0x61, 0, 0}, {0x09}}),
              "damaged binary property list: a dictionary key contains a NUL character");
    EXPECT_EQ(binaryError({{0xD1, 0, 0, 0, 1, 0, 0, 0, 2}, {0x51, 'k'}, {0x09}}), "(parsed)");
    EXPECT_EQ(binaryError({{0xD1, 0, 0, 0, 1, 0, 0, 0, 2}, {0x61, 0, 'k'}, {0x09}}), "(parsed)");
    // Sharing a leaf is ordinary and fine.
    EXPECT_EQ(binaryError({arrayOf({1, 1, 1}), {0x09}}), "(parsed)");

    PlistValue deep = PlistArray{};
    for (int i = 1; i < 512; ++i) deep = PlistArray{std::move(deep)};  // 512 levels
    EXPECT_THROW(toXML(PlistArray{deep}), PropertyListSerializationError);
    EXPECT_THROW(toBinary(PlistArray{deep}), PropertyListSerializationError);
    EXPECT_EQ(parsePropertyList(toBinary(deep)), deep);
}

TEST(PlistSerialization, UnwritableValuesAreRefused) {
    EXPECT_THROW(toXML(PlistValue(std::string("a\0b", 3))), PropertyListSerializationError);
    EXPECT_THROW(toXML(PlistDictionary{{std::string("k\0", 2), 1}}),
                 PropertyListSerializationError);
    EXPECT_THROW(toBinary(PlistDate{std::numeric_limits<double>::quiet_NaN()}),
                 PropertyListSerializationError);
}

TEST(PlistValue, DescribeIsAStableReadableDump) {
    PlistValue value = PlistDictionary{
        {"b", PlistArray{1, 2.0, 0.5, true, "x\"y\n"}},
        {"a", PlistData{0xde, 0xad, 0xbe, 0xef, 0x01}},
        {"d", PlistDate{-0.5}},
        {"e", PlistDictionary{}},
    };
    EXPECT_EQ(describe(value),
              "{\"a\": <deadbeef 01>, \"b\": [1, 2.0, 0.5, true, \"x\\\"y\\n\"], "
              "\"d\": 2000-12-31T23:59:59.5Z, \"e\": {}}");
    EXPECT_EQ(describe(PlistData(100, 0)).size(), describe(PlistData(200, 0)).size());
    EXPECT_EQ(plistKindName(PlistValue(PlistDate{}).kind()), "Date");
    EXPECT_EQ(plistKindName(PlistValue(1.0).kind()), "Double");
}

}  // namespace
}  // namespace mirels
