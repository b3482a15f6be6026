#include "mirels/version/UserDefault.h"

#include "mirels/platform/Log.h"

namespace mirels::detail {

void logUnreadableUserDefault(std::string_view key, const std::exception& error) noexcept {
    try {
        static const auto* log = new Logger("org.mirels.foundation", "defaults");
        log->error(
            "The stored value of user default %{public}@ is unreadable, using its "
            "default: %{public}@",
            key, std::string_view(error.what()));
    } catch (...) {  // NOLINT(bugprone-empty-catch): logging never fails its caller
    }
}

}  // namespace mirels::detail
