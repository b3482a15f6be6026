#pragma once

// Conversions between `PlistValue` and libplist's nodes, inside the library. Not installed: no
// public header needs libplist. The two conversions are exported only so that the library's own
// tests can check the bridge directly.

#include <plist/plist.h>

#include <memory>
#include <type_traits>

#include "mirels/Export.h"
#include "mirels/plist/PlistValue.h"

namespace mirels {

/// Frees a libplist node with everything below it.
struct LibplistNodeDeleter {
    void operator()(plist_t node) const noexcept { plist_free(node); }
};

/// An owned libplist node.
using LibplistNode = std::unique_ptr<std::remove_pointer_t<plist_t>, LibplistNodeDeleter>;

/// A new libplist tree holding `value`. Integers become libplist's unsigned integers holding
/// the two's complement. Throws `PropertyListSerializationError` like `toXML`.
MIRELS_EXPORT LibplistNode toLibplist(const PlistValue& value);

/// The value of a libplist tree. Unsigned integers are read back as two's complement. Throws
/// `PropertyListSerializationError` for a null node, a kind with no `PlistValue` counterpart
/// (UIDs of keyed archives) or nesting deeper than `maximumPropertyListDepth`.
MIRELS_EXPORT PlistValue fromLibplist(plist_t node);

}  // namespace mirels
