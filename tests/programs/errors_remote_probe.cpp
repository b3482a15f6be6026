// Throws one of the test scenarios' errors, packs it for another process and writes it as a
// property list: errors_remote_probe <scenario> <xml|binary> <path>. Writes the packed error to
// <path> and the summary of the original error to <path>.expected.

#include <cstdio>
#include <fstream>
#include <string>

#include "../errors/RemoteErrorScenarios.h"
#include "mirels/plist/PlistSerialization.h"

namespace {

void write(const std::string& path, const void* bytes, std::size_t size) {
    std::ofstream file(path, std::ios::binary);
    file.write(static_cast<const char*>(bytes), static_cast<std::streamsize>(size));
    if (!file) throw std::runtime_error("could not write " + path);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: errors_remote_probe <scenario> <xml|binary> <path>\n");
        return 2;
    }
    using namespace mirels;
    std::string format = argv[2];
    std::string path = argv[3];
    Error error = testing::throwScenario(argv[1]);
    HumanReadableErrorRef human = humanReadable(error);
    PropertyList packed = human->serializableNSError().propertyListValue();
    if (format == "xml") {
        std::string xml = toXML(packed);
        write(path, xml.data(), xml.size());
    } else {
        std::vector<std::uint8_t> binary = toBinary(packed);
        write(path, binary.data(), binary.size());
    }
    std::string expected = toXML(PlistValue(testing::summarize(*human)));
    write(path + ".expected", expected.data(), expected.size());
    return 0;
}
