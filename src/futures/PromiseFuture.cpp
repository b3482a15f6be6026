#include "mirels/futures/PromiseFuture.h"

namespace mirels::detail {

std::string transitionErrorText(const std::string& from, const std::string& to) {
    return "Future cannot transition from " + from + " to " + to + ".";
}

}  // namespace mirels::detail
