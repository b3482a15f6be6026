#include "mirels/plist/PropertyList.h"

#include "mirels/core/Assertions.h"
#include "mirels/plist/PropertyListError.h"

namespace mirels {

// MARK: - PropertyList

PropertyList::PropertyList(PlistDictionary serializableDictionary) {
    if (!serializableDictionary.empty()) {
        shared_ = new detail::SharedPlistDictionary{{1}, std::move(serializableDictionary)};
    }
}

const PlistDictionary& PropertyList::emptyDictionary() noexcept {
    static const PlistDictionary empty;
    return empty;
}

PlistDictionary& PropertyList::mutableDictionary() {
    if (shared_ == nullptr) {
        shared_ = new detail::SharedPlistDictionary;
    } else if (shared_->references.load(std::memory_order_acquire) != 1) {
        // Another list shares the dictionary: this one gets its own copy to change.
        auto* copy = new detail::SharedPlistDictionary{{1}, shared_->dictionary};
        release();
        shared_ = copy;
    }
    return shared_->dictionary;
}

PlistDictionary PropertyList::takeSerializableDictionary() && {
    if (shared_ == nullptr) return {};
    PlistDictionary taken = shared_->references.load(std::memory_order_acquire) == 1
                                ? std::move(shared_->dictionary)
                                : shared_->dictionary;
    release();
    return taken;
}

void PropertyList::mergeConfidently(const PropertyList& other, const Callsite& callsite) {
    if (other.isEmpty()) return;
    if (isEmpty()) {
        *this = other;
        return;
    }
    PlistDictionary& target = mutableDictionary();
    for (const auto& [key, incoming] : other.serializableDictionary()) {
        auto [entry, inserted] = target.try_emplace(key, incoming);
        if (!inserted) {
            detail::reportSoftAssertionFailure(callsite);
            entry->second = incoming;
        }
    }
}

PropertyList PropertyList::confidentlyMerging(const PropertyList& other) const {
    PropertyList result = *this;
    result.mergeConfidently(other, Callsite::library("confidentlyMerging(_:)"));
    return result;
}

void PropertyList::confidentlyMerge(const PropertyList& other) {
    mergeConfidently(other, Callsite::library("confidentlyMerge(_:)"));
}

bool operator==(const PropertyList& a, const PropertyList& b) {
    return a.shared_ == b.shared_ || a.serializableDictionary() == b.serializableDictionary();
}

std::string PropertyList::description() const {
    // The dump of a dictionary value, without copying the dictionary into one.
    std::string out = "{";
    bool first = true;
    for (const auto& [key, value] : serializableDictionary()) {
        if (!first) out += ", ";
        first = false;
        out += describe(PlistValue(key));
        out += ": ";
        out += describe(value);
    }
    out += '}';
    return out;
}

// MARK: - Reading errors

namespace detail {

PlistValue PlainKind<PlistValue>::box(PlistValue value) {
    return value;
}
std::optional<PlistValue> PlainKind<PlistValue>::cast(const PlistValue& value) {
    return value;
}

namespace {
PropertyList quotedList(const UnarchiveContext& context) {
    if (context.list != nullptr) return *context.list;
    if (context.dictionary != nullptr) return PropertyList(*context.dictionary);
    return PropertyList();
}
}  // namespace

void throwMissingKey(const UnarchiveContext& context) {
    throw PropertyListError::missingKey(std::string(context.key), quotedList(context));
}

void throwInvalidValue(const UnarchiveContext& context, std::string expectedType,
                       const PlistValue& found) {
    throw PropertyListError::invalidValue(std::string(context.key), std::move(expectedType), found,
                                          quotedList(context));
}

void throwCouldNotUnflatten(const UnarchiveContext& context, const PlistValue& element,
                            std::string targetType) {
    throw PropertyListError::couldNotUnflatten(std::string(context.key), element,
                                               std::move(targetType), quotedList(context));
}

void throwInvalidRawValue(std::string typeName, std::string rawValue) {
    throw PropertyListError::invalidRawValue(std::move(typeName), std::move(rawValue));
}

}  // namespace detail

// MARK: - PropertyListError

PropertyListError::PropertyListError(Kind kind, std::string key, std::string typeName,
                                     PlistValue value, PropertyList propertyList,
                                     std::string rawValue)
    : kind_(kind),
      key_(std::move(key)),
      typeName_(std::move(typeName)),
      value_(std::move(value)),
      propertyList_(std::move(propertyList)),
      rawValue_(std::move(rawValue)) {}

PropertyListError PropertyListError::missingKey(std::string key, PropertyList propertyList) {
    return PropertyListError(Kind::missingKey, std::move(key), {}, {}, std::move(propertyList), {});
}

PropertyListError PropertyListError::invalidValue(std::string key, std::string expectedType,
                                                  PlistValue value, PropertyList propertyList) {
    return PropertyListError(Kind::invalidValue, std::move(key), std::move(expectedType),
                             std::move(value), std::move(propertyList), {});
}

PropertyListError PropertyListError::couldNotUnflatten(std::string key, PlistValue value,
                                                       std::string targetType,
                                                       PropertyList propertyList) {
    return PropertyListError(Kind::couldNotUnflatten, std::move(key), std::move(targetType),
                             std::move(value), std::move(propertyList), {});
}

PropertyListError PropertyListError::invalidRawValue(std::string typeName, std::string rawValue) {
    return PropertyListError(Kind::invalidRawValue, {}, std::move(typeName), {}, {},
                             std::move(rawValue));
}

std::string PropertyListError::message() const {
    switch (kind_) {
        case Kind::missingKey:
            return "Property list missing value for required key \"" + key_ +
                   "\"\nProperty list: " + propertyList_.description();
        case Kind::invalidValue:
            return "Property list contained invalid value for key \"" + key_ + "\": value was " +
                   std::string(plistKindName(value_.kind())) + ", expected " + typeName_ +
                   "\nProperty list: " + propertyList_.description();
        case Kind::couldNotUnflatten:
            return "Property list error while unflattening \"" + key_ + "\": \"" +
                   std::string(plistKindName(value_.kind())) + "\" could not be unflattened into " +
                   typeName_ + "\nProperty list: " + propertyList_.description();
        case Kind::invalidRawValue:
            return "Property list contained invalid raw value for RawRepresentable type " +
                   typeName_ + ": no member \"" + rawValue_ + "\"";
    }
    return {};
}

}  // namespace mirels
