#pragma once

// `KeyValueMap`: a map from keys to values, ordered or not, on which the operations below are
// offered. Also `guaranteedValue()`, `setting()`, `appending()`, `makeKeyValueMap()`.

#include <concepts>
#include <functional>
#include <ranges>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "mirels/collections/OrderedDictionary.h"

namespace mirels {

/// The customisation point of `KeyValueMap`: how to look a key up and how to set a value, for one
/// map type. Specialised below for `std::unordered_map` and `OrderedDictionary`; callers
/// specialise it for their own maps.
template <class Map>
struct KeyValueMapTraits;

template <class K, class V, class H, class E, class A>
struct KeyValueMapTraits<std::unordered_map<K, V, H, E, A>> {
    using Map = std::unordered_map<K, V, H, E, A>;
    using Key = K;
    using Value = V;

    static V* find(Map& map, const K& key) {
        auto found = map.find(key);
        return found == map.end() ? nullptr : &found->second;
    }
    static void set(Map& map, const K& key, V value) {
        map.insert_or_assign(key, std::move(value));
    }
};

template <class K, class V, class H, class E>
struct KeyValueMapTraits<OrderedDictionary<K, V, H, E>> {
    using Map = OrderedDictionary<K, V, H, E>;
    using Key = K;
    using Value = V;

    static V* find(Map& map, const K& key) { return map.find(key); }
    static void set(Map& map, const K& key, V value) { map.updateValue(std::move(value), key); }
};

/// A map from keys to values, ordered or not, on which the operations below are offered.
template <class Map>
concept KeyValueMap = std::default_initializable<Map> && std::copy_constructible<Map> &&
                      requires(Map& map, const typename KeyValueMapTraits<Map>::Key& key,
                               typename KeyValueMapTraits<Map>::Value value) {
                          {
                              KeyValueMapTraits<Map>::find(map, key)
                          } -> std::same_as<typename KeyValueMapTraits<Map>::Value*>;
                          KeyValueMapTraits<Map>::set(map, key, std::move(value));
                      };

/// The value for `key`, inserting `make()` first when the key is absent.
template <KeyValueMap Map, class Make>
    requires std::is_invocable_r_v<typename KeyValueMapTraits<Map>::Value, Make&>
typename KeyValueMapTraits<Map>::Value& guaranteedValue(
    Map& map, const typename KeyValueMapTraits<Map>::Key& key, Make&& make) {
    using Traits = KeyValueMapTraits<Map>;
    if (auto* present = Traits::find(map, key)) return *present;
    Traits::set(map, key, std::invoke(make));
    return *Traits::find(map, key);
}

/// A copy of `map` with `value` set for `key`.
template <KeyValueMap Map>
Map setting(const Map& map, typename KeyValueMapTraits<Map>::Value value,
            const typename KeyValueMapTraits<Map>::Key& key) {
    Map copy(map);
    KeyValueMapTraits<Map>::set(copy, key, std::move(value));
    return copy;
}

/// A copy of `map` with each (key, value) pair of `pairs` set in order; later pairs win.
template <KeyValueMap Map, std::ranges::input_range Pairs>
Map appending(const Map& map, Pairs&& pairs) {
    Map copy(map);
    for (auto&& [key, value] : pairs) KeyValueMapTraits<Map>::set(copy, key, value);
    return copy;
}

/// A map of type `Map` from a sequence of (key, value) pairs; later pairs win.
template <KeyValueMap Map, std::ranges::input_range Pairs>
Map makeKeyValueMap(Pairs&& pairs) {
    return appending(Map(), std::forward<Pairs>(pairs));
}

}  // namespace mirels
