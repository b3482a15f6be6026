#include "mirels/plist/PropertyListBuilder.h"

#include "mirels/core/FatalError.h"

namespace mirels {

PlistDictionary PropertyListBuilder::build(std::initializer_list<Entry*> entries) {
    // Keys are checked before absent values are dropped, so a repeated key is caught even when
    // its values are absent. Blocks hold at most ten entries: comparing pairs is cheapest.
    for (auto later = entries.begin(); later != entries.end(); ++later) {
        for (auto earlier = entries.begin(); earlier != later; ++earlier) {
            if ((*earlier)->key_ == (*later)->key_) {
                fatalError(
                    "Duplicate key \"" + (*later)->key_ + "\" in a property-list builder block",
                    (*later)->callsite_);
            }
        }
    }
    PlistDictionary dictionary;
    for (Entry* entry : entries) {
        if (entry->value_) dictionary.emplace(std::move(entry->key_), std::move(*entry->value_));
    }
    return dictionary;
}

}  // namespace mirels
