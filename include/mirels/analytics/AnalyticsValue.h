#pragma once

// `AnalyticsValue`: a typed value of an analytics event field. Also `AnalyticsFields`.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <typeinfo>
#include <variant>
#include <vector>

#include "mirels/Export.h"
#include "mirels/core/TypeName.h"

namespace mirels {

/// A typed value of an analytics event field. Cases, in this order: string, bool, int, float
/// (a double), data (a byte buffer), null.
class MIRELS_EXPORT AnalyticsValue {
  public:
    enum class Case { string, boolean, integer, floating, data, null };
    using Data = std::vector<std::uint8_t>;
    using Storage = std::variant<std::string, bool, std::int64_t, double, Data, std::monostate>;

    // Construction, copying, moving and destroying are defined in the library, as the compiler
    // would define them (moves that do not throw): inline, every includer instantiates the
    // variant's members.
    AnalyticsValue() noexcept;
    AnalyticsValue(const AnalyticsValue& other);
    AnalyticsValue(AnalyticsValue&& other) noexcept;
    AnalyticsValue& operator=(const AnalyticsValue& other);
    AnalyticsValue& operator=(AnalyticsValue&& other) noexcept;
    ~AnalyticsValue();

    // The factories are defined in the library too: each one instantiates a conversion of the
    // variant.
    static AnalyticsValue string(std::string value);
    static AnalyticsValue boolean(bool value);
    static AnalyticsValue integer(std::int64_t value);
    static AnalyticsValue floating(double value);
    static AnalyticsValue data(Data value);
    static AnalyticsValue null() noexcept { return AnalyticsValue(); }

    /// `string` holding the unqualified name of T.
    template <class T>
    static AnalyticsValue type() {
        return string(unqualifiedTypeName<T>());
    }
    /// `string` holding the unqualified name of a dynamic type.
    static AnalyticsValue type(const std::type_info& type);
    /// The unqualified name of the dynamic type of a present value; nothing for an absent one.
    template <class T>
    static std::optional<AnalyticsValue> typeOf(const T* value) {
        if (value == nullptr) return std::nullopt;
        return type(typeid(*value));
    }
    template <class T>
    static std::optional<AnalyticsValue> typeOf(const std::optional<T>& value) {
        if (!value) return std::nullopt;
        return type(typeid(*value));
    }

    Case kind() const noexcept { return static_cast<Case>(storage_.index()); }
    const Storage& storage() const noexcept { return storage_; }

    bool isNull() const noexcept { return kind() == Case::null; }
    const std::string* stringValue() const noexcept { return std::get_if<std::string>(&storage_); }
    const bool* boolValue() const noexcept { return std::get_if<bool>(&storage_); }
    const std::int64_t* intValue() const noexcept { return std::get_if<std::int64_t>(&storage_); }
    const double* floatValue() const noexcept { return std::get_if<double>(&storage_); }
    const Data* dataValue() const noexcept { return std::get_if<Data>(&storage_); }

    friend bool operator==(const AnalyticsValue&, const AnalyticsValue&) = default;

  private:
    template <class T>
    explicit AnalyticsValue(T&& value) : storage_(std::forward<T>(value)) {}

    Storage storage_;
};

/// The fields of one event.
using AnalyticsFields = std::map<std::string, AnalyticsValue, std::less<>>;

}  // namespace mirels
