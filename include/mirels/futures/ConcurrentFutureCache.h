#pragma once

// `ConcurrentFutureCache`: starts one asynchronous computation per key at most once, however many
// threads ask at the same time, and gives every caller the same future for that key.

#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "mirels/core/ThreadSafe.h"
#include "mirels/futures/Future.h"
#include "mirels/futures/PromiseFuture.h"

namespace mirels {

/// Starts one asynchronous computation per key at most once, however many threads ask at the
/// same time, and gives every caller the same future for that key.
///
/// The computation runs on the thread of the first caller for a key, outside the lock, before
/// that caller gets the future; concurrent callers for the same key return at once with the
/// same, still running future. Entries are never removed. Since all callers share one future
/// per key, a cancel by any of them cancels the computation for all.
template <class Key, class Value, class Hash = std::hash<Key>, class KeyEqual = std::equal_to<Key>>
class ConcurrentFutureCache final {
  public:
    ConcurrentFutureCache() = default;
    ConcurrentFutureCache(const ConcurrentFutureCache&) = delete;
    ConcurrentFutureCache& operator=(const ConcurrentFutureCache&) = delete;

    /// An empty cache, shared.
    [[nodiscard]] static std::shared_ptr<ConcurrentFutureCache> create() {
        return std::make_shared<ConcurrentFutureCache>();
    }

    /// The future for `key`; the first caller for a key makes it with
    /// `creatingIfNecessaryWith(key)`, and the cached future follows the one it returns (its
    /// outcome, and cancellation both ways).
    ///
    /// When `creatingIfNecessaryWith` throws, this caller gets the exception, and the key
    /// keeps a future that never finishes: later callers get that future and the closure does
    /// not run again. Closures should report failure through the future they return.
    template <class F>
        requires std::is_invocable_r_v<Future<Value>, F&&, const Key&>
    Future<Value> guaranteedValue(const Key& key, F&& creatingIfNecessaryWith) {
        std::optional<Promise<Value>> promise;
        std::optional<Future<Value>> cached =
            dictionary_.syncWrite([&](Map& map) -> std::optional<Future<Value>> {
                auto found = map.find(key);
                if (found != map.end()) return found->second;
                FutureAndPromise<Value> pair = Future<Value>::create(
                    detail::futureCallsite(detail::FutureFunction::cacheEntry));
                map.emplace(key, pair.future);
                promise.emplace(std::move(pair.promise));
                return std::nullopt;
            });
        if (cached) return std::move(*cached);
        promise->track(std::forward<F>(creatingIfNecessaryWith)(key));
        return promise->future();
    }

  private:
    using Map = std::unordered_map<Key, Future<Value>, Hash, KeyEqual>;
    ThreadSafe<Map> dictionary_;
};

}  // namespace mirels
