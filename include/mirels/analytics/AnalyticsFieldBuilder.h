#pragma once

// `AnalyticsFieldBuilder`: builds the fields of an analytics event declaratively, one `{key,
// value}` entry per field.

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "mirels/Export.h"
#include "mirels/analytics/AnalyticsValue.h"
#include "mirels/core/Callsite.h"
#include "mirels/core/FatalError.h"

namespace mirels {

/// Builds the fields of an analytics event declaratively, one `{key, value}` entry per field:
///
///     AnalyticsFieldBuilder::buildBlock({
///         {"file", callsite.fileName()},
///         {"line", callsite.line()},
///         {"recovered", true},
///         {"errorType", AnalyticsFieldBuilder::type<TimeoutError>()},
///         {"detail", optionalText},  // absent -> null
///     });
///
/// A value may be a string (`std::string`, `std::string_view`, a C string), a bool, a signed or
/// unsigned integer, a float or double, a byte buffer, an `AnalyticsValue`, a type tag from
/// `type<T>()` (the unqualified type name), or an optional of any of these. An absent optional
/// or a null C string becomes `null`. An unsigned value beyond the signed 64-bit range stops the
/// process: that is a programming error in the event's definition. A key given twice keeps the
/// later value.
class MIRELS_EXPORT AnalyticsFieldBuilder {
  public:
    /// Stands for the type T in an entry; becomes `AnalyticsValue::type<T>()`.
    template <class T>
    struct TypeTag {};

    template <class T>
    static constexpr TypeTag<T> type() noexcept {
        return {};
    }

    /// Converts each accepted kind of value. The overloads for fixed types are defined in the
    /// library, so that files including this header do not each compile the variant's copies.
    static AnalyticsValue makeValue(std::string value, Callsite);
    static AnalyticsValue makeValue(std::string_view value, Callsite);
    static AnalyticsValue makeValue(const char* value, Callsite);
    static AnalyticsValue makeValue(char* value, Callsite callsite);
    static AnalyticsValue makeValue(bool value, Callsite);
    // Characters and other pointers would otherwise slip in as booleans.
    static AnalyticsValue makeValue(char, Callsite) = delete;
    template <class T>
    static AnalyticsValue makeValue(T*, Callsite) = delete;
    template <class T>
        requires std::signed_integral<T> && (!std::is_same_v<T, char>)
    static AnalyticsValue makeValue(T value, Callsite) {
        return AnalyticsValue::integer(static_cast<std::int64_t>(value));
    }
    template <class T>
        requires std::unsigned_integral<T> && (!std::is_same_v<T, bool>) &&
                 (!std::is_same_v<T, char>)
    static AnalyticsValue makeValue(T value, Callsite callsite) {
        if constexpr (sizeof(T) >= sizeof(std::int64_t)) {
            if (value > static_cast<T>(std::numeric_limits<std::int64_t>::max())) {
                fatalError("analytics field value " + std::to_string(value) +
                               " does not fit a signed 64-bit integer",
                           callsite);
            }
        }
        return AnalyticsValue::integer(static_cast<std::int64_t>(value));
    }
    template <class T>
        requires std::floating_point<T>
    static AnalyticsValue makeValue(T value, Callsite) {
        return AnalyticsValue::floating(static_cast<double>(value));
    }
    static AnalyticsValue makeValue(AnalyticsValue::Data value, Callsite);
    static AnalyticsValue makeValue(AnalyticsValue value, Callsite);
    template <class T>
    static AnalyticsValue makeValue(TypeTag<T>, Callsite) {
        return AnalyticsValue::type<T>();
    }

    /// Whether values of type T are accepted in an entry.
    template <class T>
    static constexpr bool accepts = requires(T value, Callsite callsite) {
        { makeValue(std::move(value), callsite) } -> std::same_as<AnalyticsValue>;
    };

    /// The value of one entry, converted from any accepted kind.
    class Value {
      public:
        Value(std::nullopt_t) noexcept {}  // NOLINT(google-explicit-constructor)
        Value(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor)

        template <class T>
            requires accepts<std::decay_t<T>>
        Value(T&& value,  // NOLINT(google-explicit-constructor)
              Callsite callsite = Callsite::current())
            : value_(makeValue(std::decay_t<T>(std::forward<T>(value)), callsite)) {}

        template <class T>
            requires accepts<T>
        Value(const std::optional<T>& value,  // NOLINT(google-explicit-constructor)
              Callsite callsite = Callsite::current())
            : value_(value ? makeValue(T(*value), callsite) : AnalyticsValue::null()) {}

        const AnalyticsValue& value() const& noexcept { return value_; }

      private:
        AnalyticsValue value_;
    };

    /// One `{key, value}` line of a block.
    struct MIRELS_EXPORT Entry {
        Entry(std::string_view key, const Value& value);

        std::string key;
        AnalyticsValue value;
    };

    /// Gathers the entries into one field map.
    static AnalyticsFields buildBlock(std::initializer_list<Entry> entries);
};

}  // namespace mirels
