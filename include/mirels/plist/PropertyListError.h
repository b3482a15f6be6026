#pragma once

// `PropertyListError`: reading a typed value out of a property list failed. Also `InvalidUUID`.

#include <optional>
#include <string>

#include "mirels/Export.h"
#include "mirels/errors/HumanReadableError.h"
#include "mirels/plist/PlistValue.h"
#include "mirels/plist/PropertyList.h"

namespace mirels {

/// Reading a typed value out of a property list failed. Each case renders a message that names
/// the key and, except for `invalidRawValue`, ends with the whole property list, so that the
/// failing payload can be inspected from the message alone. The message is the error's
/// `additionalInfo`.
class MIRELS_EXPORT PropertyListError final : public HumanReadableError {
  public:
    enum class Kind { missingKey, invalidValue, couldNotUnflatten, invalidRawValue };

    /// No entry for a required key.
    static PropertyListError missingKey(std::string key, PropertyList propertyList);
    /// The stored value is not of the plain kind `expectedType`.
    static PropertyListError invalidValue(std::string key, std::string expectedType,
                                          PlistValue value, PropertyList propertyList);
    /// An element of a stored container could not become the element type `targetType`.
    static PropertyListError couldNotUnflatten(std::string key, PlistValue value,
                                               std::string targetType, PropertyList propertyList);
    /// No case of the raw-value enumeration `typeName` has the raw value `rawValue`.
    static PropertyListError invalidRawValue(std::string typeName, std::string rawValue);

    Kind kind() const noexcept { return kind_; }
    /// The key (empty for `invalidRawValue`).
    const std::string& key() const noexcept { return key_; }
    /// The list that was read (empty for `invalidRawValue`).
    const PropertyList& propertyList() const noexcept { return propertyList_; }
    /// The value found: the stored value, or the element that could not be converted.
    const PlistValue& value() const noexcept { return value_; }
    /// The expected plain kind (`invalidValue`), the element kind (`couldNotUnflatten`) or the
    /// enumeration (`invalidRawValue`).
    const std::string& typeName() const noexcept { return typeName_; }
    /// The raw value that matched no case (`invalidRawValue`).
    const std::string& rawValue() const noexcept { return rawValue_; }

    /// The message of the case, for example: Property list missing value for required key "x"
    /// followed by a line with the list.
    std::string message() const;

    std::optional<std::string> additionalInfo() const override { return message(); }
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }

  private:
    PropertyListError(Kind kind, std::string key, std::string typeName, PlistValue value,
                      PropertyList propertyList, std::string rawValue);

    Kind kind_;
    std::string key_;
    std::string typeName_;
    PlistValue value_;
    PropertyList propertyList_;
    std::string rawValue_;
};

/// A text that should have been a UUID is not one. Its message ("Invalid UUID string: " and the
/// text) is the error's `additionalInfo`.
class InvalidUUID final : public HumanReadableError {
  public:
    explicit InvalidUUID(std::string string) : string_(std::move(string)) {}

    const std::string& string() const noexcept { return string_; }
    std::string message() const { return "Invalid UUID string: " + string_; }

    std::optional<std::string> additionalInfo() const override { return message(); }
    std::optional<std::string> additionalDiagnostics() const override { return std::nullopt; }

  private:
    std::string string_;
};

}  // namespace mirels
