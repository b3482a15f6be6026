// Feeds arbitrary bytes to the build-number and version-number readers. Each input either reads
// or fails with the error of its first bad part; a value that reads prints back to a text that
// reads to an equal value, and the order agrees with equality. Anything else aborts.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "mirels/version/BuildNumber.h"
#include "mirels/version/VersionNumber.h"

namespace {

using namespace mirels;

void check(bool condition) {
    if (!condition) std::abort();
}

void fuzzBuildNumber(std::string_view text) {
    try {
        const BuildNumber build(text);
        check(build.majorRelease() >= 1 && build.majorBuild() >= 1);
        const BuildNumber again(build.description());
        check(again == build);
        check(std::hash<BuildNumber>{}(again) == std::hash<BuildNumber>{}(build));
        check(!(again < build) && !(build < again));
        // Nothing orders before distantPast. distantFuture has no suffix, so the same largest
        // build with a suffix orders after it: only builds with a smaller part come before it.
        check(BuildNumber::distantPast() <= build);
        if (build.majorRelease() < BuildNumber::distantFuture().majorRelease()) {
            check(build < BuildNumber::distantFuture());
        }
    } catch (const BuildNumber::Invalid& error) {
        check(error.string() == text);
        check(!error.message().empty());
        // The failure names the first part that cannot be read: a string starting with a
        // valid release and letter never fails at the release, and so on.
        if (error.failedPart() == BuildNumber::Invalid::Case::trailingCharacters) {
            check(text.size() >= 5);
        }
    }
}

void fuzzVersionNumber(std::string_view text) {
    const std::optional<VersionNumber> version = VersionNumber::fromString(text);
    if (!version) return;
    check(version->major() >= 0 && version->minor() >= 0 && version->update() >= 0);
    const std::optional<VersionNumber> again = VersionNumber::fromString(version->description());
    check(again.has_value() && *again == *version);
    check(std::hash<VersionNumber>{}(*again) == std::hash<VersionNumber>{}(*version));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    fuzzBuildNumber(text);
    fuzzVersionNumber(text);
    return 0;
}
