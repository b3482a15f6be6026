#pragma once

// `RawValueCases`: the customisation point that gives an enumeration raw values, a text or an
// integer per case. Also `RawRepresentable`, `RawValueType`, `rawValue()`, `fromRawValue()`.

#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "mirels/core/FatalError.h"
#include "mirels/core/TypeName.h"

namespace mirels {

/// The customisation point that gives an enumeration raw values, a text or an integer per case.
/// Specialise it with a `cases` table:
///
///     template <> struct RawValueCases<Fruit> {
///         static constexpr std::array cases = {std::pair{Fruit::apple, "apple"},
///                                              std::pair{Fruit::pear, "pear"}};
///     };
///
/// Property lists store raw-value enumerations as their raw values (an enumeration with text raw
/// values is also a `PropertyListKey`), and command-line options accept an enumeration with text
/// raw values by those texts.
template <class E>
struct RawValueCases {};

template <class E>
concept RawRepresentable = std::is_enum_v<E> && requires {
    RawValueCases<E>::cases.size();
    RawValueCases<E>::cases[0].first;
    RawValueCases<E>::cases[0].second;
};

namespace detail {
template <class R>
using StoredRawValue =
    std::conditional_t<std::is_convertible_v<const R&, std::string_view>, std::string, R>;
}  // namespace detail

/// The raw-value type of a raw-value enumeration: `std::string` for texts, else the integer type.
template <RawRepresentable E>
using RawValueType =
    detail::StoredRawValue<std::remove_cvref_t<decltype(RawValueCases<E>::cases[0].second)>>;

/// The raw value of `value`. A value outside the enumeration's table stops the process: it can
/// only come from a cast.
template <RawRepresentable E>
RawValueType<E> rawValue(E value) {
    for (const auto& [member, raw] : RawValueCases<E>::cases) {
        if (member == value) return RawValueType<E>(raw);
    }
    fatalError("an enumeration value without a raw value: " + unqualifiedTypeName<E>() + "(" +
               std::to_string(static_cast<std::underlying_type_t<E>>(value)) + ")");
}

/// The case whose raw value is `raw`, or nothing.
template <RawRepresentable E>
std::optional<E> fromRawValue(const RawValueType<E>& raw) {
    for (const auto& [member, candidate] : RawValueCases<E>::cases) {
        if (RawValueType<E>(candidate) == raw) return member;
    }
    return std::nullopt;
}

}  // namespace mirels
