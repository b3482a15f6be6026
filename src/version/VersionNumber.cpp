#include "mirels/version/VersionNumber.h"

#include <sys/utsname.h>

#include <array>
#include <charconv>
#include <ostream>
#include <system_error>

namespace mirels {

std::optional<VersionNumber> VersionNumber::fromString(std::string_view text) noexcept {
    std::array<std::int64_t, 3> parts{};
    std::size_t count = 0;
    const char* position = text.data();
    const char* const end = text.data() + text.size();
    while (true) {
        if (count == parts.size()) return std::nullopt;  // a fourth part
        // Digits only: from_chars would take a minus sign.
        if (position == end || *position < '0' || *position > '9') return std::nullopt;
        auto [next, error] = std::from_chars(position, end, parts[count]);
        if (error != std::errc()) return std::nullopt;
        ++count;
        position = next;
        if (position == end) break;
        if (*position != '.') return std::nullopt;
        ++position;
    }
    return VersionNumber(parts[0], parts[1], parts[2]);
}

std::optional<VersionNumber> VersionNumber::fromKernelRelease(std::string_view release) noexcept {
    std::size_t length = 0;
    while (length < release.size() &&
           ((release[length] >= '0' && release[length] <= '9') || release[length] == '.')) {
        ++length;
    }
    return fromString(release.substr(0, length));
}

const VersionNumber& VersionNumber::current() {
    static const VersionNumber version = [] {
        utsname name{};
        if (uname(&name) != 0) return VersionNumber(0, 0);
        return fromKernelRelease(static_cast<const char*>(name.release))
            .value_or(VersionNumber(0, 0));
    }();
    return version;
}

std::string VersionNumber::description() const {
    std::string text = std::to_string(major_);
    text += '.';
    text += std::to_string(minor_);
    if (update_ != 0) {
        text += '.';
        text += std::to_string(update_);
    }
    return text;
}

std::ostream& operator<<(std::ostream& stream, const VersionNumber& version) {
    return stream << version.description();
}

}  // namespace mirels
