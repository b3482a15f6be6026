#pragma once

/// How `HumanReadableErrorOptions` are stored in property lists.

#include <cstdint>

#include "mirels/errors/HumanReadableErrorOptions.h"
#include "mirels/plist/PropertyList.h"

namespace mirels {

/// Options are stored as their raw bits; every integer is a valid option set.
template <>
struct PropertyListTraits<HumanReadableErrorOptions> {
    using PropertyListType = std::intptr_t;
    static std::intptr_t propertyListValue(HumanReadableErrorOptions options) noexcept {
        return options.rawValue;
    }
    static HumanReadableErrorOptions fromPropertyListValue(std::intptr_t rawValue) noexcept {
        return HumanReadableErrorOptions{rawValue};
    }
};

}  // namespace mirels
