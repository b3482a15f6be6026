#pragma once

// `PropertyListBuilder`: writes a property list as a block of key/value lines, one line per entry,
// where a line whose value is absent contributes nothing.

#include <initializer_list>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "mirels/Export.h"
#include "mirels/core/Callsite.h"
#include "mirels/plist/PropertyList.h"

namespace mirels {

/// Writes a property list as a block of key/value lines, one line per entry, where a line whose
/// value is absent contributes nothing:
///
///     PropertyList list([&] {
///         return PropertyListBuilder::buildBlock({"name", name},
///                                                {Point::Key::x, 2.5},
///                                                {"identifier", optionalUUID});
///     });
///
/// A block has between two and ten entries; each may use its own key type (a text or a key
/// enumeration) and value type (anything `PropertyListRepresentable`, or an optional of it). A
/// single line goes straight to `PropertyList`'s content constructor as a `std::pair`; longer
/// lists are several blocks joined with the merges of `PropertyList`.
///
/// A key text given twice in one block is a programming error that stops the process, even when
/// one or both of the values are absent: a list written out by hand must not say one key twice.
class MIRELS_EXPORT PropertyListBuilder {
  public:
    PropertyListBuilder() = delete;

    /// One line of a block: a key, and a value that may be absent.
    class Entry {
      public:
        template <PropertyListKey K, class V>
            requires(std::is_same_v<std::remove_cvref_t<V>, std::nullopt_t> ||
                     detail::Archivable<V> ||
                     requires(V&& value) {
                         requires detail::Archivable<decltype(*std::forward<V>(value))>;
                         { value.has_value() } -> std::same_as<bool>;
                     })
        Entry(const K& key, V&& value,  // NOLINT(google-explicit-constructor)
              Callsite callsite = Callsite::current())
            : key_(propertyListKeyText(key)),
              value_(plain(std::forward<V>(value))),
              callsite_(callsite) {}

        const std::string& key() const noexcept { return key_; }
        const std::optional<PlistValue>& value() const noexcept { return value_; }
        /// Where the line was written; a repeated key is reported there.
        const Callsite& callsite() const noexcept { return callsite_; }

      private:
        friend class PropertyListBuilder;

        template <class V>
        static std::optional<PlistValue> plain(V&& value) {
            if constexpr (std::is_same_v<std::remove_cvref_t<V>, std::nullopt_t>) {
                return std::nullopt;
            } else if constexpr (detail::Archivable<V>) {
                return detail::archive(std::forward<V>(value));
            } else {
                if (!value.has_value()) return std::nullopt;
                return detail::archive(*std::forward<V>(value));
            }
        }

        std::string key_;
        std::optional<PlistValue> value_;
        Callsite callsite_;
    };

    /// The dictionary of a block: each entry's key text and plain value, entries with absent
    /// values left out. A repeated key text stops the process.
    static PlistDictionary buildBlock(Entry e1, Entry e2) { return build({&e1, &e2}); }
    static PlistDictionary buildBlock(Entry e1, Entry e2, Entry e3) {
        return build({&e1, &e2, &e3});
    }
    static PlistDictionary buildBlock(Entry e1, Entry e2, Entry e3, Entry e4) {
        return build({&e1, &e2, &e3, &e4});
    }
    static PlistDictionary buildBlock(Entry e1, Entry e2, Entry e3, Entry e4, Entry e5) {
        return build({&e1, &e2, &e3, &e4, &e5});
    }
    static PlistDictionary buildBlock(Entry e1, Entry e2, Entry e3, Entry e4, Entry e5, Entry e6) {
        return build({&e1, &e2, &e3, &e4, &e5, &e6});
    }
    static PlistDictionary buildBlock(Entry e1, Entry e2, Entry e3, Entry e4, Entry e5, Entry e6,
                                      Entry e7) {
        return build({&e1, &e2, &e3, &e4, &e5, &e6, &e7});
    }
    static PlistDictionary buildBlock(Entry e1, Entry e2, Entry e3, Entry e4, Entry e5, Entry e6,
                                      Entry e7, Entry e8) {
        return build({&e1, &e2, &e3, &e4, &e5, &e6, &e7, &e8});
    }
    static PlistDictionary buildBlock(Entry e1, Entry e2, Entry e3, Entry e4, Entry e5, Entry e6,
                                      Entry e7, Entry e8, Entry e9) {
        return build({&e1, &e2, &e3, &e4, &e5, &e6, &e7, &e8, &e9});
    }
    static PlistDictionary buildBlock(Entry e1, Entry e2, Entry e3, Entry e4, Entry e5, Entry e6,
                                      Entry e7, Entry e8, Entry e9, Entry e10) {
        return build({&e1, &e2, &e3, &e4, &e5, &e6, &e7, &e8, &e9, &e10});
    }

  private:
    static PlistDictionary build(std::initializer_list<Entry*> entries);
};

}  // namespace mirels
