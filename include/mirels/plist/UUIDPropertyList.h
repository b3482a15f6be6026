#pragma once

/// How a `UUID` is stored in property lists.

#include "mirels/core/UUID.h"
#include "mirels/plist/PropertyList.h"
#include "mirels/plist/PropertyListError.h"

namespace mirels {

/// A UUID is stored as its canonical text; a text that is no UUID fails with `InvalidUUID`.
template <>
struct PropertyListTraits<UUID> {
    using PropertyListType = std::string;
    static std::string propertyListValue(const UUID& value) { return value.uuidString(); }
    static UUID fromPropertyListValue(const std::string& text) {
        if (std::optional<UUID> uuid = UUID::fromString(text)) return *uuid;
        throw InvalidUUID(text);
    }
};

}  // namespace mirels
