#include "mirels/version/HostBundle.h"

#include <fstream>
#include <iterator>

#include "mirels/platform/ProcessInfo.h"
#include "mirels/plist/PlistSerialization.h"

namespace mirels {

namespace {

// A version record is a few hundred bytes; anything far larger is not one.
constexpr std::uintmax_t maximumVersionFileSize = std::uintmax_t{1024} * 1024;

}  // namespace

std::optional<std::filesystem::path> hostBundlePath(const std::filesystem::path& executablePath) {
    std::filesystem::path directory = executablePath.parent_path();
    while (!directory.empty()) {
        if (directory.filename() == "Contents") {
            std::filesystem::path bundle = directory.parent_path();
            if (bundle.empty()) return std::nullopt;
            return bundle;
        }
        std::filesystem::path parent = directory.parent_path();
        if (parent == directory) break;  // reached the root
        directory = std::move(parent);
    }
    return std::nullopt;
}

std::optional<std::filesystem::path> hostBundlePath() {
    std::optional<std::filesystem::path> executable = currentExecutablePath();
    if (!executable) return std::nullopt;
    return hostBundlePath(*executable);
}

std::optional<std::string> bundleBuildVersion(const std::filesystem::path& bundlePath) {
    std::filesystem::path file = bundlePath / "Contents" / "version.plist";
    std::error_code error;
    if (!std::filesystem::is_regular_file(file, error) ||
        std::filesystem::file_size(file, error) > maximumVersionFileSize || error) {
        return std::nullopt;
    }
    std::ifstream stream(file, std::ios::binary);
    if (!stream) return std::nullopt;
    std::string contents((std::istreambuf_iterator<char>(stream)),
                         std::istreambuf_iterator<char>());
    try {
        PlistValue record = parsePropertyList(contents);
        const auto* dictionary = record.getIf<PlistDictionary>();
        if (dictionary == nullptr) return std::nullopt;
        auto found = dictionary->find("ProductBuildVersion");
        if (found == dictionary->end()) return std::nullopt;
        if (const auto* build = found->second.getIf<std::string>()) return *build;
    } catch (const PropertyListSerializationError&) {
    }
    return std::nullopt;
}

std::optional<std::string> hostBundleBuildVersion(const std::filesystem::path& executablePath) {
    std::optional<std::filesystem::path> bundle = hostBundlePath(executablePath);
    if (!bundle) return std::nullopt;
    return bundleBuildVersion(*bundle);
}

const std::optional<std::string>& hostBundleBuildVersion() {
    static const auto* build = new std::optional<std::string>([]() -> std::optional<std::string> {
        std::optional<std::filesystem::path> executable = currentExecutablePath();
        if (!executable) return std::nullopt;
        return hostBundleBuildVersion(*executable);
    }());
    return *build;
}

}  // namespace mirels
