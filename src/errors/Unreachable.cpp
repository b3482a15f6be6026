#include "mirels/errors/Unreachable.h"

#include "mirels/core/Assertions.h"

namespace mirels {

Unreachable::Unreachable(std::string message, Callsite callsite) : message_(std::move(message)) {
    detail::reportSoftAssertionFailure(callsite);
}

}  // namespace mirels
