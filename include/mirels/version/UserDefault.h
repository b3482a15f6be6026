#pragma once

// `UserDefault`: one per-user preference, read through a preference store
// (`UserDefaults::standard()` unless another is given) and cached. Also `UserDefaultTraits`,
// `UserDefaultRepresentable`.

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "mirels/Export.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/plist/PropertyList.h"
#include "mirels/version/UserDefaults.h"

namespace mirels {

/// How a type is stored in and read back from a per-user preference store. Specialise it for a
/// type the property-list traits do not cover; every `PropertyListRepresentable` type
/// (booleans, integers, doubles, strings, dates, byte buffers, arrays and dictionaries of those,
/// raw-value enumerations, your own conformers) and every optional of a representable type
/// already conform.
///
///     static std::optional<T> fromUserDefaults(const UserDefaults&, std::string_view key);
///         // nothing when the key is unset; throws when the stored value is not a T
///     static void store(UserDefaults&, std::string_view key, const T& value);
template <class T>
struct UserDefaultTraits {};

/// A value that can be stored in and read back from the per-user preference store.
template <class T>
concept UserDefaultRepresentable = requires(const UserDefaults& defaults, UserDefaults& writable,
                                            std::string_view key, const T& value) {
    { UserDefaultTraits<T>::fromUserDefaults(defaults, key) } -> std::same_as<std::optional<T>>;
    UserDefaultTraits<T>::store(writable, key, value);
};

/// Property-list values are stored as their plain representation.
template <PropertyListRepresentable T>
struct UserDefaultTraits<T> {
    static std::optional<T> fromUserDefaults(const UserDefaults& defaults, std::string_view key) {
        std::optional<PlistValue> stored = defaults.object(key);
        if (!stored) return std::nullopt;
        return detail::unarchive<T>(*stored, detail::UnarchiveContext{key});
    }
    static void store(UserDefaults& defaults, std::string_view key, const T& value) {
        defaults.set(key, detail::archive(value));
    }
};

/// An optional is unset when empty: reading an unset key gives nothing, and storing an empty
/// optional removes the key.
template <UserDefaultRepresentable T>
struct UserDefaultTraits<std::optional<T>> {
    static std::optional<std::optional<T>> fromUserDefaults(const UserDefaults& defaults,
                                                            std::string_view key) {
        std::optional<T> value = UserDefaultTraits<T>::fromUserDefaults(defaults, key);
        if (!value) return std::nullopt;
        return std::optional<T>(std::move(value));
    }
    static void store(UserDefaults& defaults, std::string_view key, const std::optional<T>& value) {
        if (value) {
            UserDefaultTraits<T>::store(defaults, key, *value);
        } else {
            defaults.remove(key);
        }
    }
};

namespace detail {
/// Logs that the stored value of `key` could not be read as the wrapper's type.
MIRELS_EXPORT void logUnreadableUserDefault(std::string_view key,
                                            const std::exception& error) noexcept;
}  // namespace detail

/// One per-user preference, read through a preference store (`UserDefaults::standard()` unless
/// another is given) and cached.
///
/// `wrappedValue()` reads the store on first use and keeps what it read (the cached value);
/// later reads return the cache without touching the store. An unset key reads as the default
/// value. A stored value of the wrong kind also reads as the default, after logging at error
/// level (subsystem "org.mirels.foundation", category "defaults"); it never throws.
/// `setWrappedValue` writes the store and the cache.
///
/// The cache is this object's own: a change made by another process, or through another
/// wrapper or the store directly, is not seen once this wrapper has read the value, until
/// `reload()` drops the cache. A wrapper is thread-safe; when two threads set it at once, the
/// store and the cache each keep one of the two values.
///
/// Neither copyable nor movable (it owns a lock); keep one where the preference is used.
template <UserDefaultRepresentable T>
class UserDefault {
  public:
    UserDefault(std::string key, T defaultValue, UserDefaults& defaults = UserDefaults::standard())
        : key_(std::move(key)), defaultValue_(std::move(defaultValue)), defaults_(&defaults) {}

    UserDefault(const UserDefault&) = delete;
    UserDefault& operator=(const UserDefault&) = delete;

    const std::string& key() const noexcept { return key_; }
    const T& defaultValue() const noexcept { return defaultValue_; }
    UserDefaults& userDefaults() const noexcept { return *defaults_; }

    /// The value kept from the last read or write, or nothing before the first one.
    std::optional<T> cachedValue() const {
        return cache_.syncRead([](const Cache& cache) { return cache.value; });
    }

    /// The cached value; on first use, the stored value, or the default when the key is unset
    /// or holds a value of another kind.
    T wrappedValue() const {
        auto [cached, generation] = cache_.syncRead(
            [](const Cache& cache) { return std::pair(cache.value, cache.generation); });
        if (cached) return std::move(*cached);
        // The store has a lock of its own: read it before taking the cache's. A write or
        // reload that happened meanwhile wins over what was read.
        T value = read();
        cache_.syncWrite([&](Cache& cache) {
            if (!cache.value && cache.generation == generation) cache.value = value;
        });
        return value;
    }

    /// Writes `value` to the store and the cache.
    void setWrappedValue(T value) {
        UserDefaultTraits<T>::store(*defaults_, key_, value);
        cache_.syncWrite([&](Cache& cache) {
            cache.value = std::move(value);
            ++cache.generation;
        });
    }

    /// Forgets the cached value, so that the next read asks the store again.
    void reload() {
        cache_.syncWrite([](Cache& cache) {
            cache.value.reset();
            ++cache.generation;
        });
    }

  private:
    T read() const {
        try {
            if (std::optional<T> stored =
                    UserDefaultTraits<T>::fromUserDefaults(*defaults_, key_)) {
                return std::move(*stored);
            }
        } catch (const std::exception& error) {
            detail::logUnreadableUserDefault(key_, error);
        }
        return defaultValue_;
    }

    std::string key_;
    T defaultValue_;
    UserDefaults* defaults_;
    struct Cache {
        std::optional<T> value;
        std::uint64_t generation = 0;  // counts writes and reloads
    };

    mutable ThreadSafe<Cache> cache_;
};

}  // namespace mirels
