#pragma once

#include <utility>

#include "mirels/plist/PlistValue.h"

namespace mirels {

/// A typed façade over a string-keyed dictionary of plain property-list values, the form in
/// which processes hand structured payloads to one another.
class PropertyList {
  public:
    PropertyList() = default;
    explicit PropertyList(PlistDictionary serializableDictionary)
        : dictionary_(std::move(serializableDictionary)) {}

    const PlistDictionary& serializableDictionary() const noexcept { return dictionary_; }
    PlistDictionary& serializableDictionary() noexcept { return dictionary_; }

  private:
    PlistDictionary dictionary_;
};

}  // namespace mirels
