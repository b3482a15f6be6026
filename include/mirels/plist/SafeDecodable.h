#pragma once

// Tolerant decoding: reading data from other processes and older versions without letting one
// bad entry lose all the good ones.
//
// - `SafeDecodable<T>`: a value that failed to decode is absent, and its error is kept.
// - `SafeDecodableArray<T>`: elements that fail are skipped, the rest kept in order; each failure
//   is kept with its index.
// - `SafeDecodableDictionary<K, V>`: the same per key (a key that cannot become a `K` fails
//   too); entries keep the order of the source.
//
// All three read from the library's JSON layer (they are `JsonDecodable`: use them as the `T` of
// `decode<T>()`, inside other types' `fromJson`, or at the top of `decodeJson<T>`) and from
// property lists (`fromPropertyList(list, key)`). The container itself must be there and be of
// the right kind: a missing key or a value that is no array throws as usual. To tolerate that as
// well, nest them: `SafeDecodable<SafeDecodableArray<T>>`.
//
// Each kept failure is a `SafeDecodingError` that names its path (the JSON key path such as
// "reports[3]", or the property-list key and index such as "identifiers[2]") and carries the
// error that the decoding threw. `reportFailures` turns them into issues of a
// `DiagnosticsCollector`.
//
// Worked example: a list of crash reports, one of which is damaged.
//
//     // [{"name": "Grid", "bug_type": "309", "pid": 41, ...},
//     //  {"name": "Grid", "bug_type": "309", "pid": "forty-two", ...}]
//     const auto reports = decodeJson<SafeDecodableArray<CrashReport>>(text);
//     for (const CrashReport& report : reports) show(report.effectiveError());  // the first one
//     reports.reportFailures(collector);  // one warning: the value at "[1]" was skipped,
//                                         // "[1].pid: expected an integer, found a string"
//
// Errors other than failures of decoding pass through: running out of memory is not a bad entry.

#include <concepts>
#include <cstddef>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "mirels/Export.h"
#include "mirels/collections/OrderedDictionary.h"
#include "mirels/core/Callsite.h"
#include "mirels/errors/DiagnosticsCollector.h"
#include "mirels/errors/Error.h"
#include "mirels/errors/HumanReadableError.h"
#include "mirels/errors/Issue.h"
#include "mirels/plist/Json.h"
#include "mirels/plist/PropertyList.h"
#include "mirels/plist/UUIDPropertyList.h"

namespace mirels {

/// A value that was skipped because it could not be decoded: where it was, and why.
class MIRELS_EXPORT SafeDecodingError final : public HumanReadableError {
  public:
    SafeDecodingError(std::string path, Error underlying);

    /// The path of the skipped value ("reports[3]", "identifiers[2]", "limits.height"); empty
    /// for the top-level value.
    const std::string& path() const noexcept { return path_; }
    /// The error that decoding the value threw.
    const Error& underlying() const noexcept { return underlying_; }

    /// "A value could not be decoded".
    std::optional<std::string> lowValueTitle() const override;
    /// "The value at «path» was skipped: «the underlying error's explanation»" ("the top-level
    /// value" when the path is empty).
    std::optional<std::string> additionalInfo() const override;
    /// The underlying error's full diagnostics.
    std::optional<std::string> additionalDiagnostics() const override;
    bool canTryAgain() const override { return false; }

  private:
    std::string path_;
    Error underlying_;
};

namespace detail {

/// Runs `decode`; a failure (anything thrown except running out of memory) becomes a
/// `SafeDecodingError` at the path that `path()` gives.
template <class Decode, class Path>
auto decodeTolerantly(Decode&& decode, Path&& path)
    -> std::pair<std::optional<std::invoke_result_t<Decode&>>, std::optional<SafeDecodingError>> {
    try {
        return {decode(), std::nullopt};
    } catch (const std::bad_alloc&) {
        throw;
    } catch (...) {
        return {std::nullopt, SafeDecodingError(path(), Error::current())};
    }
}

/// A dictionary key from its text: texts as they are, other keys through their property-list
/// representation (UUIDs, enumerations with text raw values).
template <class K>
concept TextKey = std::same_as<K, std::string> ||
                  (PropertyListRepresentable<K> &&
                   std::same_as<typename PropertyListTraits<K>::PropertyListType, std::string>);

template <TextKey K>
K keyFromText(std::string_view text) {
    if constexpr (std::same_as<K, std::string>) {
        return std::string(text);
    } else {
        return PropertyListTraits<K>::fromPropertyListValue(std::string(text));
    }
}

inline std::string indexPath(std::string_view base, std::size_t index) {
    return std::string(base) + "[" + std::to_string(index) + "]";
}
inline std::string keyPath(std::string_view base, std::string_view key) {
    if (base.empty()) return std::string(key);
    return std::string(base) + "." + std::string(key);
}

/// Records each failure in `collector` as an issue of `severity`.
MIRELS_EXPORT void reportFailures(const std::vector<SafeDecodingError>& failures,
                                  DiagnosticsCollector& collector, Issue::Severity severity,
                                  Callsite callsite);

}  // namespace detail

/// A value, or the error that kept it from being decoded.
template <class T>
class SafeDecodable {
  public:
    /// Absent, with no error.
    SafeDecodable() = default;
    explicit SafeDecodable(T value) : value_(std::move(value)) {}
    explicit SafeDecodable(SafeDecodingError error) : error_(std::move(error)) {}

    const std::optional<T>& value() const& noexcept { return value_; }
    std::optional<T>&& value() && noexcept { return std::move(value_); }
    bool hasValue() const noexcept { return value_.has_value(); }
    /// The failure, when decoding failed.
    const std::optional<SafeDecodingError>& error() const noexcept { return error_; }

    /// Decodes `value` as a `T`; a failure is kept.
    static SafeDecodable fromJson(const JsonValue& value)
        requires JsonDecodable<T>
    {
        auto [decoded, error] = detail::decodeTolerantly([&] { return value.decode<T>(); },
                                                         [&] { return value.path(); });
        return decoded ? SafeDecodable(std::move(*decoded)) : SafeDecodable(std::move(*error));
    }

    /// Decodes `object[key]`; a missing key is a kept failure like any other.
    static SafeDecodable fromJson(const JsonObject& object, std::string_view key)
        requires JsonDecodable<T>
    {
        auto [decoded, error] =
            detail::decodeTolerantly([&] { return object.required(key).template decode<T>(); },
                                     [&] { return detail::keyPath(object.value().path(), key); });
        return decoded ? SafeDecodable(std::move(*decoded)) : SafeDecodable(std::move(*error));
    }

    /// Reads `key` of `list` as a `T`; a missing key or a wrong value is a kept failure.
    static SafeDecodable fromPropertyList(const PropertyList& list, std::string_view key)
        requires PropertyListRepresentable<T>
    {
        auto [decoded, error] = detail::decodeTolerantly(
            [&] { return list.unarchiveValue<T>(key); }, [&] { return std::string(key); });
        return decoded ? SafeDecodable(std::move(*decoded)) : SafeDecodable(std::move(*error));
    }

    /// Records the failure, if any, as an issue of `collector`.
    void reportFailures(DiagnosticsCollector& collector,
                        Issue::Severity severity = Issue::Severity::warning,
                        Callsite callsite = Callsite::current()) const {
        if (error_) {
            detail::reportFailures({*error_}, collector, severity, callsite);
        }
    }

  private:
    std::optional<T> value_;
    std::optional<SafeDecodingError> error_;
};

/// The elements that decoded, in order, and a failure for each one that did not.
template <class T>
class SafeDecodableArray {
  public:
    SafeDecodableArray() = default;
    SafeDecodableArray(std::vector<T> elements, std::vector<SafeDecodingError> failures,
                       std::vector<std::size_t> failedIndices)
        : elements_(std::move(elements)),
          failures_(std::move(failures)),
          failedIndices_(std::move(failedIndices)) {}

    const std::vector<T>& elements() const& noexcept { return elements_; }
    std::vector<T>&& elements() && noexcept { return std::move(elements_); }
    /// One failure per skipped element, in order.
    const std::vector<SafeDecodingError>& failures() const noexcept { return failures_; }
    /// The source index of each skipped element (parallel to `failures()`).
    const std::vector<std::size_t>& failedIndices() const noexcept { return failedIndices_; }

    std::size_t size() const noexcept { return elements_.size(); }
    bool empty() const noexcept { return elements_.empty(); }
    const T& operator[](std::size_t index) const { return elements_[index]; }
    auto begin() const noexcept { return elements_.begin(); }
    auto end() const noexcept { return elements_.end(); }

    /// Decodes every element of the array `value`; a value that is no array throws.
    static SafeDecodableArray fromJson(const JsonValue& value)
        requires JsonDecodable<T>
    {
        const JsonArray array = value.array();
        SafeDecodableArray result;
        result.elements_.reserve(array.size());
        std::size_t index = 0;
        for (const JsonValue element : array) {
            auto [decoded, error] = detail::decodeTolerantly([&] { return element.decode<T>(); },
                                                             [&] { return element.path(); });
            result.keep(index++, std::move(decoded), std::move(error));
        }
        return result;
    }

    /// Reads the array at `key` of `list`; a missing key or a value that is no array throws
    /// `PropertyListError`.
    static SafeDecodableArray fromPropertyList(const PropertyList& list, std::string_view key)
        requires PropertyListRepresentable<T>
    {
        const auto& array = list.unarchiveValue<PlistArray>(key);
        const detail::UnarchiveContext context{key, &list, &list.serializableDictionary()};
        SafeDecodableArray result;
        result.elements_.reserve(array.size());
        for (std::size_t index = 0; index < array.size(); ++index) {
            auto [decoded, error] = detail::decodeTolerantly(
                [&] { return detail::unarchive<T>(array[index], context); },
                [&] { return detail::indexPath(key, index); });
            result.keep(index, std::move(decoded), std::move(error));
        }
        return result;
    }

    /// Records each failure as an issue of `collector`.
    void reportFailures(DiagnosticsCollector& collector,
                        Issue::Severity severity = Issue::Severity::warning,
                        Callsite callsite = Callsite::current()) const {
        detail::reportFailures(failures_, collector, severity, callsite);
    }

  private:
    void keep(std::size_t index, std::optional<T>&& decoded,
              std::optional<SafeDecodingError>&& error) {
        if (decoded) {
            elements_.push_back(std::move(*decoded));
        } else {
            failures_.push_back(std::move(*error));
            failedIndices_.push_back(index);
        }
    }

    std::vector<T> elements_;
    std::vector<SafeDecodingError> failures_;
    std::vector<std::size_t> failedIndices_;
};

/// The entries that decoded, in the order of the source, and a failure for each one that did
/// not. `K` is `std::string` or a type stored as a text (a UUID, an enumeration with text raw
/// values); a key whose text is no `K` fails like a value.
template <class K, class V>
    requires detail::TextKey<K>
class SafeDecodableDictionary {
  public:
    SafeDecodableDictionary() = default;

    const OrderedDictionary<K, V>& entries() const& noexcept { return entries_; }
    OrderedDictionary<K, V>&& entries() && noexcept { return std::move(entries_); }
    /// One failure per skipped entry, in order.
    const std::vector<SafeDecodingError>& failures() const noexcept { return failures_; }
    /// The source key of each skipped entry (parallel to `failures()`).
    const std::vector<std::string>& failedKeys() const noexcept { return failedKeys_; }

    std::size_t size() const noexcept { return entries_.count(); }
    bool empty() const noexcept { return entries_.isEmpty(); }

    /// Decodes every entry of the object `value`; a value that is no object throws. A key that
    /// appears twice keeps its first position and its last value.
    static SafeDecodableDictionary fromJson(const JsonValue& value)
        requires JsonDecodable<V>
    {
        const JsonObject object = value.object();
        SafeDecodableDictionary result;
        for (const auto& field : object) {
            auto [decoded, error] = detail::decodeTolerantly(
                [&] {
                    return std::pair<K, V>(detail::keyFromText<K>(field.key),
                                           field.value.template decode<V>());
                },
                [&] { return field.value.path(); });
            result.keep(field.key, std::move(decoded), std::move(error));
        }
        return result;
    }

    /// Reads the dictionary at `key` of `list`; a missing key or a value that is no dictionary
    /// throws `PropertyListError`. Entries come in key order, as property lists keep them.
    static SafeDecodableDictionary fromPropertyList(const PropertyList& list, std::string_view key)
        requires PropertyListRepresentable<V>
    {
        const auto& dictionary = list.unarchiveValue<PlistDictionary>(key);
        const detail::UnarchiveContext context{key, &list, &list.serializableDictionary()};
        SafeDecodableDictionary result;
        for (const auto& [entryKey, entryValue] : dictionary) {
            auto [decoded, error] = detail::decodeTolerantly(
                [&] {
                    return std::pair<K, V>(detail::keyFromText<K>(entryKey),
                                           detail::unarchive<V>(entryValue, context));
                },
                [&] { return detail::keyPath(key, entryKey); });
            result.keep(entryKey, std::move(decoded), std::move(error));
        }
        return result;
    }

    /// Records each failure as an issue of `collector`.
    void reportFailures(DiagnosticsCollector& collector,
                        Issue::Severity severity = Issue::Severity::warning,
                        Callsite callsite = Callsite::current()) const {
        detail::reportFailures(failures_, collector, severity, callsite);
    }

  private:
    void keep(std::string_view sourceKey, std::optional<std::pair<K, V>>&& decoded,
              std::optional<SafeDecodingError>&& error) {
        if (decoded) {
            entries_.updateValue(std::move(decoded->second), decoded->first);
        } else {
            failures_.push_back(std::move(*error));
            failedKeys_.emplace_back(sourceKey);
        }
    }

    OrderedDictionary<K, V> entries_;
    std::vector<SafeDecodingError> failures_;
    std::vector<std::string> failedKeys_;
};

}  // namespace mirels
