#pragma once

// `PropertyList`: a typed façade over a string-keyed dictionary of plain property-list values, the
// form in which processes hand settings and structured payloads to one another. Also
// `PropertyListKey`, `propertyListKeyText()`, `PropertyListTraits`, `PropertyListRepresentable`.
//
// Example:
//
//     PropertyList settings;
//     settings.archiveValue(std::vector<std::string>{"a", "b"}, "recent");
//     settings.archiveValue(UUID::random(), "session");  // with mirels/plist/UUIDPropertyList.h
//     // throws PropertyListError, naming the key, when the stored value has another type:
//     auto recent = settings.unarchiveValue<std::vector<std::string>>("recent");

#include <array>
#include <atomic>
#include <chrono>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "mirels/Export.h"
#include "mirels/core/Callsite.h"
#include "mirels/core/FatalError.h"
#include "mirels/core/Identifier.h"
#include "mirels/core/RawValueCases.h"
#include "mirels/core/TypeName.h"
#include "mirels/plist/PlistValue.h"

namespace mirels {

class PropertyList;

// MARK: - Keys

/// Anything that yields the text of a key: texts, and enumerations with text raw values.
template <class K>
concept PropertyListKey = std::is_convertible_v<const K&, std::string_view> ||
                          (RawRepresentable<K> && std::is_same_v<RawValueType<K>, std::string>);

/// The text of a key.
template <PropertyListKey K>
std::string_view propertyListKeyText(const K& key) {
    if constexpr (std::is_convertible_v<const K&, std::string_view>) {
        return std::string_view(key);
    } else {
        for (const auto& [member, raw] : RawValueCases<K>::cases) {
            if (member == key) return std::string_view(raw);
        }
        fatalError("a key enumeration value without a raw value: " + unqualifiedTypeName<K>());
    }
}

// MARK: - Plain kinds

namespace detail {

/// Where a value is being read, for the error it may have to throw.
struct UnarchiveContext {
    std::string_view key;
    const PropertyList* list = nullptr;  // the list being read, when the caller has one
    const PlistDictionary* dictionary = nullptr;
};

// The reading errors, thrown out of line so that this header needs no error types.
[[noreturn]] MIRELS_EXPORT void throwMissingKey(const UnarchiveContext& context);
[[noreturn]] MIRELS_EXPORT void throwInvalidValue(const UnarchiveContext& context,
                                                  std::string expectedType,
                                                  const PlistValue& found);
[[noreturn]] MIRELS_EXPORT void throwCouldNotUnflatten(const UnarchiveContext& context,
                                                       const PlistValue& element,
                                                       std::string targetType);
[[noreturn]] MIRELS_EXPORT void throwInvalidRawValue(std::string typeName, std::string rawValue);

/// A stored value of the wrong kind: at the top `invalidValue`, inside a container
/// `couldNotUnflatten`.
[[noreturn]] inline void throwMismatch(const UnarchiveContext& context, bool nested,
                                       std::string expectedType, const PlistValue& found) {
    if (nested) throwCouldNotUnflatten(context, found, std::move(expectedType));
    throwInvalidValue(context, std::move(expectedType), found);
}

/// The plain kinds: the types that stand in a property list's dictionary as they are. Each
/// specialisation names itself, boxes a value into a `PlistValue`, and reads one back, either
/// with `cast` (no such value: nothing) or, for containers, with `read`.
template <class T>
struct PlainKind {
    static constexpr bool isPlain = false;
};

template <class T>
concept Plain = PlainKind<T>::isPlain;

template <class T>
concept PlainInteger = std::integral<T> && !std::is_same_v<T, bool> && !std::is_same_v<T, char> &&
                       !std::is_same_v<T, wchar_t> && !std::is_same_v<T, char8_t> &&
                       !std::is_same_v<T, char16_t> && !std::is_same_v<T, char32_t>;

template <>
struct PlainKind<std::string> {
    static constexpr bool isPlain = true;
    static std::string name() { return "String"; }
    static PlistValue box(std::string value) { return PlistValue(std::move(value)); }
    static std::optional<std::string> cast(const PlistValue& value) {
        if (const auto* text = value.getIf<std::string>()) return *text;
        return std::nullopt;
    }
};

template <>
struct PlainKind<bool> {
    static constexpr bool isPlain = true;
    static std::string name() { return "Bool"; }
    static PlistValue box(bool value) { return PlistValue(value); }
    static std::optional<bool> cast(const PlistValue& value) {
        if (const auto* flag = value.getIf<bool>()) return *flag;
        return std::nullopt;
    }
};

/// Integers of every width. All are stored as 64-bit integers; unsigned 64-bit values as their
/// two's complement. Reading accepts an integer in range, or a real with an integral value in
/// range, as number objects of other platforms convert.
template <PlainInteger I>
struct PlainKind<I> {
    static constexpr bool isPlain = true;
    static std::string name() {
        std::string bits = sizeof(I) == 8 ? "" : std::to_string(sizeof(I) * 8);
        return (std::is_signed_v<I> ? "Int" : "UInt") + bits;
    }
    static PlistValue box(I value) { return PlistValue(static_cast<std::int64_t>(value)); }
    static std::optional<I> cast(const PlistValue& value) {
        if (const auto* integer = value.getIf<std::int64_t>()) {
            if constexpr (std::is_unsigned_v<I> && sizeof(I) == 8) {
                return static_cast<I>(*integer);
            } else {
                if (std::in_range<I>(*integer)) return static_cast<I>(*integer);
                return std::nullopt;
            }
        }
        if (const auto* real = value.getIf<double>()) return fromReal(*real);
        return std::nullopt;
    }

  private:
    static std::optional<I> fromReal(double real) {
        constexpr double twoTo63 = 9223372036854775808.0;
        // The range checks fail for NaN; a fraction fails the exactness check.
        if constexpr (std::is_unsigned_v<I> && sizeof(I) == 8) {
            if (!(real >= 0 && real < 2 * twoTo63)) return std::nullopt;
            auto whole = static_cast<I>(real);
            if (static_cast<double>(whole) != real) return std::nullopt;
            return whole;
        } else {
            if (!(real >= -twoTo63 && real < twoTo63)) return std::nullopt;
            auto whole = static_cast<std::int64_t>(real);
            if (static_cast<double>(whole) != real || !std::in_range<I>(whole)) return std::nullopt;
            return static_cast<I>(whole);
        }
    }
};

/// Floating-point numbers, stored as doubles. Reading accepts a real, or an integer that a double
/// holds exactly.
template <std::floating_point F>
struct PlainKind<F> {
    static constexpr bool isPlain = true;
    static std::string name() { return sizeof(F) == 4 ? "Float" : "Double"; }
    static PlistValue box(F value) { return PlistValue(static_cast<double>(value)); }
    static std::optional<F> cast(const PlistValue& value) {
        if (const auto* real = value.getIf<double>()) return static_cast<F>(*real);
        if (const auto* integer = value.getIf<std::int64_t>()) {
            constexpr double twoTo63 = 9223372036854775808.0;
            auto converted = static_cast<double>(*integer);
            if (converted < twoTo63 && static_cast<std::int64_t>(converted) == *integer) {
                return static_cast<F>(converted);
            }
        }
        return std::nullopt;
    }
};

template <>
struct PlainKind<PlistData> {
    static constexpr bool isPlain = true;
    static std::string name() { return "Data"; }
    static PlistValue box(PlistData value) { return PlistValue(std::move(value)); }
    static std::optional<PlistData> cast(const PlistValue& value) {
        if (const auto* data = value.getIf<PlistData>()) return *data;
        return std::nullopt;
    }
};

template <>
struct PlainKind<PlistDate> {
    static constexpr bool isPlain = true;
    static std::string name() { return "Date"; }
    static PlistValue box(PlistDate value) { return PlistValue(value); }
    static std::optional<PlistDate> cast(const PlistValue& value) {
        if (const auto* date = value.getIf<PlistDate>()) return *date;
        return std::nullopt;
    }
};

/// The dynamically typed value itself: any stored value reads as one.
template <>
struct MIRELS_EXPORT PlainKind<PlistValue> {
    static constexpr bool isPlain = true;
    static std::string name() { return "Any"; }
    // Defined in the library, so that includers do not each compile the copies of the variant.
    static PlistValue box(PlistValue value);
    static std::optional<PlistValue> cast(const PlistValue& value);
};

template <class P>
P readPlain(const PlistValue& value, const UnarchiveContext& context, bool nested) {
    if constexpr (requires { PlainKind<P>::read(value, context, nested); }) {
        return PlainKind<P>::read(value, context, nested);
    } else {
        std::optional<P> cast = PlainKind<P>::cast(value);
        if (!cast) throwMismatch(context, nested, PlainKind<P>::name(), value);
        return std::move(*cast);
    }
}

/// Arrays of plain values. Their elements are converted one by one when read back; an element of
/// the wrong kind is reported as `couldNotUnflatten`.
template <Plain E, class A>
struct PlainKind<std::vector<E, A>> {
    static constexpr bool isPlain = true;
    static std::string name() {
        if constexpr (std::is_same_v<E, PlistValue>) {
            return "Array";
        } else {
            return "Array<" + PlainKind<E>::name() + ">";
        }
    }
    static PlistValue box(std::vector<E, A> values) {
        if constexpr (std::is_same_v<std::vector<E, A>, PlistArray>) {
            return PlistValue(std::move(values));
        } else {
            PlistArray array;
            array.reserve(values.size());
            for (E& element : values) array.push_back(PlainKind<E>::box(std::move(element)));
            return PlistValue(std::move(array));
        }
    }
    static std::vector<E, A> read(const PlistValue& value, const UnarchiveContext& context,
                                  bool nested) {
        const auto* array = value.getIf<PlistArray>();
        if (array == nullptr) throwMismatch(context, nested, name(), value);
        if constexpr (std::is_same_v<std::vector<E, A>, PlistArray>) {
            return *array;
        } else {
            std::vector<E, A> result;
            result.reserve(array->size());
            for (const PlistValue& element : *array) {
                result.push_back(readPlain<E>(element, context, true));
            }
            return result;
        }
    }
};

/// String-keyed dictionaries of plain values, converted entry by entry when read back.
template <Plain V, class C, class A>
struct PlainKind<std::map<std::string, V, C, A>> {
    using Map = std::map<std::string, V, C, A>;
    static constexpr bool isPlain = true;
    static std::string name() {
        if constexpr (std::is_same_v<V, PlistValue>) {
            return "Dictionary";
        } else {
            return "Dictionary<String, " + PlainKind<V>::name() + ">";
        }
    }
    static PlistValue box(Map values) {
        if constexpr (std::is_same_v<Map, PlistDictionary>) {
            return PlistValue(std::move(values));
        } else {
            PlistDictionary dictionary;
            for (auto& [key, element] : values) {
                dictionary.emplace_hint(dictionary.end(), key,
                                        PlainKind<V>::box(std::move(element)));
            }
            return PlistValue(std::move(dictionary));
        }
    }
    static Map read(const PlistValue& value, const UnarchiveContext& context, bool nested) {
        const auto* dictionary = value.getIf<PlistDictionary>();
        if (dictionary == nullptr) throwMismatch(context, nested, name(), value);
        if constexpr (std::is_same_v<Map, PlistDictionary>) {
            return *dictionary;
        } else {
            Map result;
            for (const auto& [key, element] : *dictionary) {
                result.emplace_hint(result.end(), key, readPlain<V>(element, context, true));
            }
            return result;
        }
    }
};

/// `PropertyList` is a plain kind: a nested string-keyed dictionary. Defined after the class.
template <>
struct PlainKind<PropertyList> {
    static constexpr bool isPlain = true;
    static std::string name() { return "PropertyList"; }
    static PlistValue box(PropertyList list);
    static PropertyList read(const PlistValue& value, const UnarchiveContext& context, bool nested);
};

}  // namespace detail

// MARK: - Representable types

/// The customisation point of `PropertyListRepresentable`. Specialise it for a type of your own:
///
///     template <> struct PropertyListTraits<Celsius> {
///         using PropertyListType = double;                 // a plain kind
///         static double propertyListValue(const Celsius& value) { return value.degrees; }
///         static Celsius fromPropertyListValue(double degrees) { return Celsius{degrees}; }
///     };
///
/// `fromPropertyListValue` may throw (a `PropertyListError`, an `InvalidUUID`, your own error);
/// the error reaches the caller of `unarchiveValue` unchanged. Instead of specialising, a type may
/// carry the three members itself: `using PropertyListType = ...`, a const
/// `propertyListValue()` and a static `fromPropertyListValue(...)`. Record-like types use
/// `PropertyList` as their plain kind.
template <class T>
struct PropertyListTraits {};

namespace detail {
template <class T>
concept HasPropertyListMembers = requires(const T& value) {
    typename T::PropertyListType;
    { value.propertyListValue() } -> std::convertible_to<typename T::PropertyListType>;
    { T::fromPropertyListValue(std::declval<typename T::PropertyListType>()) } -> std::same_as<T>;
};
}  // namespace detail

/// A type that says which plain kind it is stored as, and how to convert to and from it.
template <class T>
concept PropertyListRepresentable = requires(const T& value) {
    typename PropertyListTraits<T>::PropertyListType;
    requires detail::Plain<typename PropertyListTraits<T>::PropertyListType>;
    {
        PropertyListTraits<T>::propertyListValue(value)
    } -> std::convertible_to<typename PropertyListTraits<T>::PropertyListType>;
    {
        PropertyListTraits<T>::fromPropertyListValue(
            std::declval<typename PropertyListTraits<T>::PropertyListType>())
    } -> std::same_as<T>;
};

/// Plain kinds represent themselves.
template <detail::Plain P>
struct PropertyListTraits<P> {
    using PropertyListType = P;
    static const P& propertyListValue(const P& value) noexcept { return value; }
    static P fromPropertyListValue(P value) { return value; }
};

/// Types that carry the three members themselves.
template <detail::HasPropertyListMembers T>
    requires(!detail::Plain<T>)
struct PropertyListTraits<T> {
    using PropertyListType = typename T::PropertyListType;
    static PropertyListType propertyListValue(const T& value) { return value.propertyListValue(); }
    static T fromPropertyListValue(PropertyListType plain) {
        return T::fromPropertyListValue(std::move(plain));
    }
};

/// Raw-value enumerations are stored as their raw value; an unknown raw value fails with
/// `PropertyListError::invalidRawValue`.
template <RawRepresentable E>
struct PropertyListTraits<E> {
    using PropertyListType = RawValueType<E>;
    static PropertyListType propertyListValue(E value) { return rawValue(value); }
    static E fromPropertyListValue(const PropertyListType& raw) {
        if (std::optional<E> member = fromRawValue<E>(raw)) return *member;
        if constexpr (std::is_same_v<PropertyListType, std::string>) {
            detail::throwInvalidRawValue(unqualifiedTypeName<E>(), raw);
        } else {
            detail::throwInvalidRawValue(unqualifiedTypeName<E>(), std::to_string(raw));
        }
    }
};

/// Arrays of representable values are stored as arrays of their plain representations.
template <PropertyListRepresentable E, class A>
    requires(!detail::Plain<std::vector<E, A>>)
struct PropertyListTraits<std::vector<E, A>> {
    using Element = typename PropertyListTraits<E>::PropertyListType;
    using PropertyListType = std::vector<Element>;
    static PropertyListType propertyListValue(const std::vector<E, A>& values) {
        PropertyListType plain;
        plain.reserve(values.size());
        for (const E& value : values) {
            plain.push_back(Element(PropertyListTraits<E>::propertyListValue(value)));
        }
        return plain;
    }
    static std::vector<E, A> fromPropertyListValue(PropertyListType plain) {
        std::vector<E, A> values;
        values.reserve(plain.size());
        for (Element& element : plain) {
            values.push_back(PropertyListTraits<E>::fromPropertyListValue(std::move(element)));
        }
        return values;
    }
};

/// Dictionaries whose keys are stored as texts and whose values are representable.
template <PropertyListRepresentable K, PropertyListRepresentable V, class C, class A>
    requires(!detail::Plain<std::map<K, V, C, A>> &&
             std::is_same_v<typename PropertyListTraits<K>::PropertyListType, std::string>)
struct PropertyListTraits<std::map<K, V, C, A>> {
    using Element = typename PropertyListTraits<V>::PropertyListType;
    using PropertyListType = std::map<std::string, Element>;
    static PropertyListType propertyListValue(const std::map<K, V, C, A>& values) {
        PropertyListType plain;
        for (const auto& [key, value] : values) {
            plain.insert_or_assign(std::string(PropertyListTraits<K>::propertyListValue(key)),
                                   Element(PropertyListTraits<V>::propertyListValue(value)));
        }
        return plain;
    }
    static std::map<K, V, C, A> fromPropertyListValue(PropertyListType plain) {
        std::map<K, V, C, A> values;
        for (auto& [key, element] : plain) {
            values.insert_or_assign(
                PropertyListTraits<K>::fromPropertyListValue(key),
                PropertyListTraits<V>::fromPropertyListValue(std::move(element)));
        }
        return values;
    }
};

/// Points in time are stored as property-list dates.
template <>
struct PropertyListTraits<std::chrono::system_clock::time_point> {
    using TimePoint = std::chrono::system_clock::time_point;
    using PropertyListType = PlistDate;
    /// Seconds between 1970-01-01 and 2001-01-01, the reference date of property-list dates.
    static constexpr double referenceDateUnixSeconds = 978307200.0;
    static PlistDate propertyListValue(TimePoint value) {
        std::chrono::duration<double> sinceEpoch = value.time_since_epoch();
        return PlistDate{sinceEpoch.count() - referenceDateUnixSeconds};
    }
    static TimePoint fromPropertyListValue(PlistDate date) {
        std::chrono::duration<double> sinceEpoch(date.secondsSinceReferenceDate +
                                                 referenceDateUnixSeconds);
        return TimePoint(std::chrono::duration_cast<TimePoint::duration>(sinceEpoch));
    }
};

namespace detail {

/// What a value given to `archiveValue` is stored as: texts of any string-like type as
/// `std::string`, everything else as itself.
template <class V>
using ArchivedType = std::conditional_t<std::is_convertible_v<const V&, std::string_view> &&
                                            !std::is_same_v<std::remove_cvref_t<V>, std::string>,
                                        std::string, std::remove_cvref_t<V>>;

template <class V>
concept Archivable = PropertyListRepresentable<ArchivedType<V>>;

/// The plain representation of `value`, boxed.
template <Archivable V>
PlistValue archive(V&& value) {
    using T = ArchivedType<V>;
    using P = typename PropertyListTraits<T>::PropertyListType;
    if constexpr (std::is_same_v<T, P>) {
        return PlainKind<P>::box(T(std::forward<V>(value)));
    } else {
        return PlainKind<P>::box(P(PropertyListTraits<T>::propertyListValue(value)));
    }
}

/// The `T` stored as `stored`.
template <PropertyListRepresentable T>
T unarchive(const PlistValue& stored, const UnarchiveContext& context) {
    using P = typename PropertyListTraits<T>::PropertyListType;
    if constexpr (std::is_same_v<T, P>) {
        return readPlain<P>(stored, context, false);
    } else {
        return PropertyListTraits<T>::fromPropertyListValue(readPlain<P>(stored, context, false));
    }
}

/// Reads straight from a dictionary; `list`, when given, is the list that errors quote.
template <PropertyListRepresentable T>
T unarchiveValue(const PlistDictionary& dictionary, std::string_view key,
                 const PropertyList* list = nullptr) {
    UnarchiveContext context{key, list, &dictionary};
    auto entry = dictionary.find(key);
    if (entry == dictionary.end()) throwMissingKey(context);
    return unarchive<T>(entry->second, context);
}

template <PropertyListRepresentable T>
std::optional<T> unarchiveOptionalValue(const PlistDictionary& dictionary, std::string_view key,
                                        const PropertyList* list = nullptr) {
    auto entry = dictionary.find(key);
    if (entry == dictionary.end()) return std::nullopt;
    return unarchive<T>(entry->second, UnarchiveContext{key, list, &dictionary});
}

/// The shared, reference-counted dictionary behind property lists.
struct SharedPlistDictionary {
    std::atomic<std::size_t> references{1};
    PlistDictionary dictionary;
};

template <class T>
struct IsPair : std::false_type {};
template <class K, class V>
struct IsPair<std::pair<K, V>> : std::true_type {};

/// What a content closure of `PropertyList` may return: a whole dictionary, or one key and value
/// pair whose value may be absent.
template <class F>
concept PropertyListContent =
    std::is_invocable_v<F&> &&
    (std::is_same_v<std::remove_cvref_t<std::invoke_result_t<F&>>, PlistDictionary> ||
     IsPair<std::remove_cvref_t<std::invoke_result_t<F&>>>::value);

}  // namespace detail

// MARK: - PropertyList

/// A typed façade over a string-keyed dictionary of plain property-list values, the form in which
/// processes hand settings and structured payloads to one another.
///
/// Typed values go in with `archiveValue` and come out with `unarchiveValue` and
/// `unarchiveOptionalValue`; each value type says, by being `PropertyListRepresentable`, which
/// plain kind it is stored as. Reading checks the stored kind and throws a `PropertyListError`
/// that quotes the key, the kinds involved and the whole list.
///
/// A value type; copies share the dictionary until one of them changes it (copy-on-write), so
/// copying a list, or an error that quotes one, is cheap.
class MIRELS_EXPORT PropertyList {
  public:
    PropertyList() noexcept = default;
    /// Takes the dictionary as it is, without checking.
    explicit PropertyList(PlistDictionary serializableDictionary);

    /// Builds the list from a content closure that returns a whole dictionary (for example a
    /// `PropertyListBuilder::buildBlock`), or one `std::pair` of a key and a value that may be
    /// absent (an absent value leaves the list empty).
    template <detail::PropertyListContent Content>
    explicit PropertyList(Content&& content) {
        auto result = std::invoke(content);
        if constexpr (std::is_same_v<decltype(result), PlistDictionary>) {
            *this = PropertyList(std::move(result));
        } else {
            archiveValue(std::move(result.second), result.first);
        }
    }

    PropertyList(const PropertyList& other) noexcept : shared_(other.shared_) {
        if (shared_ != nullptr) shared_->references.fetch_add(1, std::memory_order_relaxed);
    }
    PropertyList(PropertyList&& other) noexcept : shared_(std::exchange(other.shared_, nullptr)) {}
    PropertyList& operator=(const PropertyList& other) noexcept {
        PropertyList copy(other);
        std::swap(shared_, copy.shared_);
        return *this;
    }
    PropertyList& operator=(PropertyList&& other) noexcept {
        PropertyList taken(std::move(other));
        std::swap(shared_, taken.shared_);
        return *this;
    }
    ~PropertyList() { release(); }

    /// The dictionary of plain values.
    const PlistDictionary& serializableDictionary() const noexcept {
        return shared_ != nullptr ? shared_->dictionary : emptyDictionary();
    }
    /// The dictionary, to change in place; no longer shared with any copy.
    PlistDictionary& serializableDictionary() { return mutableDictionary(); }
    /// Moves the dictionary out (copying it only when a copy of this list shares it).
    PlistDictionary takeSerializableDictionary() &&;

    bool isEmpty() const noexcept { return serializableDictionary().empty(); }
    std::size_t size() const noexcept { return serializableDictionary().size(); }

    /// The stored plain value for `key`, or null.
    template <PropertyListKey K>
    const PlistValue* find(const K& key) const noexcept {
        const PlistDictionary& dictionary = serializableDictionary();
        auto entry = dictionary.find(propertyListKeyText(key));
        return entry == dictionary.end() ? nullptr : &entry->second;
    }

    /// Stores the plain representation of `value` under `key`, replacing any earlier entry.
    /// Containers are stored flattened (an array of UUIDs as an array of texts).
    template <class V, PropertyListKey K>
        requires detail::Archivable<V>
    void archiveValue(V&& value, const K& key) {
        PlistValue plain = detail::archive(std::forward<V>(value));
        mutableDictionary().insert_or_assign(std::string(propertyListKeyText(key)),
                                             std::move(plain));
    }
    /// Stores the value when present; an absent value removes the entry for `key`, if any.
    template <class T, PropertyListKey K>
        requires detail::Archivable<T>
    void archiveValue(const std::optional<T>& value, const K& key) {
        if (value) {
            archiveValue(*value, key);
        } else {
            archiveValue(std::nullopt, key);
        }
    }
    template <class T, PropertyListKey K>
        requires detail::Archivable<T>
    void archiveValue(std::optional<T>&& value, const K& key) {
        if (value) {
            archiveValue(std::move(*value), key);
        } else {
            archiveValue(std::nullopt, key);
        }
    }
    /// Removes the entry for `key`, if any.
    template <PropertyListKey K>
    void archiveValue(std::nullopt_t, const K& key) {
        if (find(key) == nullptr) return;  // nothing to remove: stay shared
        PlistDictionary& dictionary = mutableDictionary();
        dictionary.erase(dictionary.find(propertyListKeyText(key)));
    }

    /// The `T` stored under `key`. Throws `PropertyListError::missingKey` when there is none,
    /// `invalidValue` or `couldNotUnflatten` when the stored value has the wrong kind, and
    /// whatever `T`'s own conversion throws.
    template <PropertyListRepresentable T, PropertyListKey K>
    T unarchiveValue(const K& key) const {
        return detail::unarchiveValue<T>(serializableDictionary(), propertyListKeyText(key), this);
    }

    /// Nothing when `key` has no entry; otherwise exactly `unarchiveValue` (a value of the wrong
    /// kind is an error, never silently absent).
    template <PropertyListRepresentable T, PropertyListKey K>
    std::optional<T> unarchiveOptionalValue(const K& key) const {
        return detail::unarchiveOptionalValue<T>(serializableDictionary(), propertyListKeyText(key),
                                                 this);
    }

    /// The union of both lists; `uniquingKeysWith(current, incoming)` picks the value of a shared
    /// key. What it throws passes through, and the list is then left as it was.
    template <class Combine>
        requires std::is_invocable_r_v<PlistValue, Combine&, const PlistValue&, const PlistValue&>
    PropertyList merging(const PropertyList& other, Combine&& uniquingKeysWith) const {
        PropertyList result = *this;
        if (other.isEmpty()) return result;
        if (isEmpty()) return other;
        PlistDictionary& target = result.mutableDictionary();
        for (const auto& [key, incoming] : other.serializableDictionary()) {
            auto [entry, inserted] = target.try_emplace(key, incoming);
            if (!inserted) entry->second = uniquingKeysWith(std::as_const(entry->second), incoming);
        }
        return result;
    }
    template <class Combine>
        requires std::is_invocable_r_v<PlistValue, Combine&, const PlistValue&, const PlistValue&>
    void merge(const PropertyList& other, Combine&& uniquingKeysWith) {
        *this = merging(other, std::forward<Combine>(uniquingKeysWith));
    }

    /// Merges for callers that know the key sets are disjoint. A shared key is a programming
    /// mistake to be noticed in the field, not a failure: it is reported as a soft assertion
    /// (once per key) and the incoming value wins.
    PropertyList confidentlyMerging(const PropertyList& other) const;
    void confidentlyMerge(const PropertyList& other);

    /// A stable, readable dump of the dictionary (keys in sorted order).
    std::string description() const;

    /// Equal when both hold equal dictionaries (defined in the library: comparing the
    /// dictionaries instantiates the comparison of every kind of value).
    friend MIRELS_EXPORT bool operator==(const PropertyList& a, const PropertyList& b);

  private:
    static const PlistDictionary& emptyDictionary() noexcept;
    PlistDictionary& mutableDictionary();
    void release() noexcept {
        if (shared_ != nullptr &&
            shared_->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete shared_;
        }
        shared_ = nullptr;
    }
    void mergeConfidently(const PropertyList& other, const Callsite& callsite);

    detail::SharedPlistDictionary* shared_ = nullptr;
};

/// Streams `description()` (of exactly a `PropertyList`: nothing converts into one to be streamed).
template <std::same_as<PropertyList> P>
std::ostream& operator<<(std::ostream& stream, const P& list) {
    return stream << list.description();
}

namespace detail {

inline PlistValue PlainKind<PropertyList>::box(PropertyList list) {
    return PlistValue(std::move(list).takeSerializableDictionary());
}

inline PropertyList PlainKind<PropertyList>::read(const PlistValue& value,
                                                  const UnarchiveContext& context, bool nested) {
    const auto* dictionary = value.getIf<PlistDictionary>();
    if (dictionary == nullptr) throwMismatch(context, nested, name(), value);
    return PropertyList(*dictionary);
}

}  // namespace detail

/// Process identifiers are stored as their number, so they cross processes unchanged.
template <>
struct PropertyListTraits<Identifier> {
    using PropertyListType = std::int64_t;
    static std::int64_t propertyListValue(Identifier id) noexcept { return id.identifier; }
    static Identifier fromPropertyListValue(std::int64_t value) noexcept {
        return Identifier(value);
    }
};

}  // namespace mirels
