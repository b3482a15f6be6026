// Property lists against an independent implementation, Python's plistlib: what it writes we
// read with every value intact, and what we write from that it reads back equal to its own
// originals. Needs python3 (a test dependency of the project).

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cmath>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "mirels/plist/PlistSerialization.h"
#include "support/TemporaryDirectory.h"

namespace mirels {
namespace {

namespace fs = std::filesystem;

std::vector<std::uint8_t> readBytes(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void writeBytes(const fs::path& file, std::span<const std::uint8_t> bytes) {
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

std::string textOf(const fs::path& file) {
    std::vector<std::uint8_t> bytes = readBytes(file);
    return {bytes.begin(), bytes.end()};
}

std::span<const std::uint8_t> bytesOf(const std::string& text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// Runs the Python side; its output goes to `log`.
int runPython(const std::string& command, const fs::path& folder, const fs::path& log) {
    const std::string line = "python3 '" MIRELS_TEST_SOURCE_DIR "/plist/plistlib_interop.py' " +
                             command + " '" + folder.string() + "' > '" + log.string() + "' 2>&1";
    return std::system(line.c_str());  // NOLINT(concurrency-mt-unsafe, cert-env33-c)
}

const PlistValue& at(const PlistValue& value, std::string_view key) {
    return value.getIf<PlistDictionary>()->find(key)->second;
}
const PlistValue& at(const PlistValue& value, std::size_t index) {
    return (*value.getIf<PlistArray>())[index];
}

// What plistlib wrote reads with the values it was given.
void expectOriginals(const PlistValue& read) {
    ASSERT_NE(read.getIf<PlistDictionary>(), nullptr);
    EXPECT_EQ(at(at(read, "unicode"), 3), PlistValue("\xF0\x9D\x84\x9E clef"));
    EXPECT_EQ(at(at(read, "unicode"), 4), PlistValue("\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E"));
    EXPECT_EQ(at(at(read, "unicode"), 5), PlistValue("a<b>&c"));
    EXPECT_EQ(at(at(read, "integers"), 10), PlistValue(std::numeric_limits<std::int64_t>::max()));
    EXPECT_EQ(at(at(read, "integers"), 11), PlistValue(std::numeric_limits<std::int64_t>::min()));
    EXPECT_EQ(at(at(read, "integers"), 8), PlistValue(std::int64_t{-2147483648}));
    const double negativeZero = *at(at(read, "reals"), 0).getIf<double>();
    EXPECT_TRUE(negativeZero == 0 && std::signbit(negativeZero));
    EXPECT_EQ(at(at(read, "reals"), 5), PlistValue(5e-324));
    EXPECT_EQ(at(at(read, "reals"), 9), PlistValue(-std::numeric_limits<double>::infinity()));
    EXPECT_EQ(at(at(read, "dates"), 0), PlistValue(PlistDate{-63113904000.0}));
    EXPECT_EQ(at(at(read, "dates"), 2), PlistValue(PlistDate{0}));
    EXPECT_EQ(at(at(read, "dates"), 4), PlistValue(PlistDate{252423993599.0}));
    EXPECT_EQ(at(at(read, "dates"), 5), PlistValue(PlistDate{-12649260555.0}));
    EXPECT_EQ(at(at(read, "data"), 1).getIf<PlistData>()->size(), 256u);
    EXPECT_EQ((*at(at(read, "data"), 1).getIf<PlistData>())[255], 255);
    EXPECT_EQ(at(at(read, "bools"), 0), PlistValue(true));
    const auto& wide = *at(read, "wide").getIf<PlistDictionary>();
    EXPECT_EQ(wide.size(), 2000u);
    EXPECT_EQ(wide.find("key1999")->second, PlistValue(std::int64_t{1999}));
    int depth = 0;
    for (const PlistValue* level = &at(read, "deep"); !level->getIf<std::string>(); ++depth) {
        level = level->getIf<PlistArray>() ? &at(*level, 0) : &at(*level, "level");
    }
    EXPECT_EQ(depth, 200);
}

TEST(PlistInterop, PlistlibAndTheLibraryReadEachOthersFilesIntact) {
    testing::TemporaryDirectory folder("mirels-plistlib");
    const fs::path log = folder / "python.log";
    ASSERT_EQ(runPython("write", folder.path(), log), 0) << textOf(log);

    const PlistValue fromXML = parsePropertyList(readBytes(folder / "py.xml"));
    const PlistValue fromBinary = parsePropertyList(readBytes(folder / "py.bin"));
    {
        SCOPED_TRACE("XML written by plistlib");
        expectOriginals(fromXML);
    }
    {
        SCOPED_TRACE("binary written by plistlib");
        expectOriginals(fromBinary);
    }
    const PlistValue withNul = parsePropertyList(readBytes(folder / "py-nul.bin"));
    EXPECT_EQ(at(withNul, "nul"), PlistValue(std::string("a\0b", 3)));
    EXPECT_EQ(at(withNul, "only"), PlistValue(std::string("\0", 1)));
    // Integers above the signed 64-bit range are refused with a clear error, never wrapped.
    for (const char* name : {"py-big.xml", "py-big.bin"}) {
        try {
            PlistValue read = parsePropertyList(readBytes(folder / name));
            ADD_FAILURE() << name << " read as " << describe(read);
        } catch (const PropertyListSerializationError& error) {
            EXPECT_STREQ(error.what(),
                         "the integer 18446744073709551615 is outside the signed 64-bit range "
                         "this library holds");
        }
    }

    // What we write from those values, plistlib reads equal to its originals.
    writeBytes(folder / "ours.xml", bytesOf(toXML(fromXML)));
    writeBytes(folder / "ours.bin", toBinary(fromBinary));
    writeBytes(folder / "ours-nul.bin", toBinary(withNul));
    EXPECT_EQ(runPython("check", folder.path(), log), 0) << textOf(log);
}

}  // namespace
}  // namespace mirels
