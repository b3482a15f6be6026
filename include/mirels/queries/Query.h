#pragma once

// `Query`: a typed question. Also `QueryTraits`, `QueryOutput`, `HashableQuery`, `Resolution`,
// `QueryResolutions`, `QueryResolutionsBuilder` and more.

#include <concepts>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <ranges>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "mirels/Export.h"
#include "mirels/collections/OrderedDictionary.h"
#include "mirels/core/Weak.h"
#include "mirels/events/EventStream.h"
#include "mirels/queries/MergeOperation.h"

namespace mirels {

class QueryManager;

/// The customisation point of queries: what one resolver answers (`Primitive`) and how the
/// answers of several resolvers are merged (`MergeStrategy`, a `MergeOperation` whose `Input` is
/// `Primitive`; its `Output` is the query's merged value).
///
/// A query type conforms either by naming the two as member types, or, for types that cannot be
/// changed, by a specialisation of `QueryTraits`.
template <class Q>
struct QueryTraits {};

template <class Q>
    requires requires {
        typename Q::Primitive;
        typename Q::MergeStrategy;
    }
struct QueryTraits<Q> {
    using Primitive = typename Q::Primitive;
    using MergeStrategy = typename Q::MergeStrategy;
};

/// A typed question. Query values are passed to resolvers by const reference; any copyable or
/// non-copyable type with the two associated types conforms.
template <class Q>
concept Query =
    requires {
        typename QueryTraits<Q>::Primitive;
        typename QueryTraits<Q>::MergeStrategy;
    } && MergeOperation<typename QueryTraits<Q>::MergeStrategy> &&
    std::same_as<typename QueryTraits<Q>::MergeStrategy::Input, typename QueryTraits<Q>::Primitive>;

template <Query Q>
using QueryPrimitive = typename QueryTraits<Q>::Primitive;
template <Query Q>
using QueryMergeStrategy = typename QueryTraits<Q>::MergeStrategy;
/// The type of a query's merged value.
template <Query Q>
using QueryOutput = typename QueryMergeStrategy<Q>::Output;

/// A query whose values can key the query manager's cache of pending answers: copyable,
/// equatable, and hashable through `std::hash`.
template <class Q>
concept HashableQuery = Query<Q> && std::copy_constructible<Q> && std::equality_comparable<Q> &&
                        requires(const Q& query) {
                            { std::hash<Q>{}(query) } -> std::convertible_to<std::size_t>;
                        };

namespace detail {

/// The identity of a query type, as a key of resolution tables. Equal for one type also across
/// shared objects (the names are compared when the `type_info` objects differ); the hash is the
/// type's, computed once per type.
struct QueryTypeKey {
    const std::type_info* type;
    std::size_t hash;

    friend bool operator==(const QueryTypeKey& a, const QueryTypeKey& b) noexcept {
        return a.type == b.type || (a.hash == b.hash && *a.type == *b.type);
    }
};

template <class Q>
const QueryTypeKey& queryTypeKey() noexcept {
    static const QueryTypeKey key{&typeid(Q), typeid(Q).hash_code()};
    return key;
}

struct QueryTypeKeyHash {
    std::size_t operator()(const QueryTypeKey& key) const noexcept { return key.hash; }
};

/// A resolution's provider, erased to its query type.
class ResolutionProviderBase {
  public:
    virtual ~ResolutionProviderBase() = default;
};

template <Query Q>
class ResolutionProviderFor : public ResolutionProviderBase {
  public:
    virtual std::optional<QueryPrimitive<Q>> provide(const Q& query,
                                                     QueryManager& manager) const = 0;
};

template <Query Q, class F>
class ResolutionProvider final : public ResolutionProviderFor<Q> {
  public:
    explicit ResolutionProvider(F provider) : provider_(std::move(provider)) {}
    std::optional<QueryPrimitive<Q>> provide(const Q& query, QueryManager& manager) const override {
        return provider_(query, manager);
    }

  private:
    F provider_;
};

}  // namespace detail

/// One entry of a resolution table: the `valueProvider` that answers queries of one type, called
/// with the query value and the asking manager. Immutable; copies share the provider.
class Resolution {
  public:
    /// An entry for queries of type `Q`; `provider(query, manager)` gives an optional
    /// `QueryPrimitive<Q>` (or something convertible to one).
    template <Query Q, class F>
        requires std::is_invocable_v<const std::decay_t<F>&, const Q&, QueryManager&> &&
                 std::convertible_to<
                     std::invoke_result_t<const std::decay_t<F>&, const Q&, QueryManager&>,
                     std::optional<QueryPrimitive<Q>>>
    static Resolution make(F&& provider) {
        return Resolution(std::make_shared<const detail::ResolutionProvider<Q, std::decay_t<F>>>(
            std::forward<F>(provider)));
    }

    /// What the provider gives for `query` asked through `manager`. `Q` must be the type this
    /// entry was made for (the table guarantees it by keying entries by type).
    template <Query Q>
    std::optional<QueryPrimitive<Q>> valueProvider(const Q& query, QueryManager& manager) const {
        return static_cast<const detail::ResolutionProviderFor<Q>&>(*provider_)
            .provide(query, manager);
    }

  private:
    explicit Resolution(std::shared_ptr<const detail::ResolutionProviderBase> provider) noexcept
        : provider_(std::move(provider)) {}

    std::shared_ptr<const detail::ResolutionProviderBase> provider_;
};

/// The table of answers a resolver publishes: at most one `Resolution` per query type, keyed by
/// the type's identity (not by query values; the provider sees each value when asked).
///
/// A copy-on-write value: copying is one reference-count increment, so a resolver can hand out
/// its stored table at every request for nothing. Looking up a query type is one hash probe.
///
/// When two merged tables both hold an entry for one query type, the later table's entry wins
/// (it replaces the earlier one): a block lists general tables first and overrides after them.
// The merging members are defined in the library: they instantiate the rebuilding of the
// ordered table, which would otherwise be compiled again in every file including this header.
class MIRELS_EXPORT QueryResolutions {
  public:
    /// The empty table.
    QueryResolutions() noexcept = default;

    /// The tables of a builder block, merged in order (see above for repeated query types).
    QueryResolutions(std::initializer_list<QueryResolutions> block);

    /// The empty table.
    static QueryResolutions empty() noexcept { return {}; }

    /// A table of one entry, for queries of type `Q`.
    template <Query Q>
    static QueryResolutions single(Resolution resolution) {
        std::pair<detail::QueryTypeKey, Resolution> entry(detail::queryTypeKey<Q>(),
                                                          std::move(resolution));
        QueryResolutions table;
        table.storage_.resolutions = Dictionary(std::ranges::single_view(std::move(entry)), later);
        return table;
    }

    /// The table itself (what a builder block element offers).
    const QueryResolutions& resolutions() const noexcept { return *this; }

    /// Adds the entries of `other`; its entry for a query type already present replaces ours.
    void merge(const QueryResolutions& other);

    /// The answer of this table to `query` asked through `manager`: absent when the table has no
    /// entry for the query's type, else what the entry's provider gives.
    template <Query Q>
    std::optional<QueryPrimitive<Q>> value(const Q& query, QueryManager& manager) const {
        const Resolution* resolution = storage_.resolutions.find(detail::queryTypeKey<Q>());
        if (resolution == nullptr) return std::nullopt;
        return resolution->valueProvider(query, manager);
    }

    /// Whether the table has an entry for queries of type `Q`.
    template <Query Q>
    bool contains() const {
        return storage_.resolutions.contains(detail::queryTypeKey<Q>());
    }

    /// The number of query types answered.
    std::size_t count() const noexcept { return storage_.resolutions.count(); }
    bool isEmpty() const noexcept { return storage_.resolutions.isEmpty(); }

  private:
    using Dictionary =
        OrderedDictionary<detail::QueryTypeKey, Resolution, detail::QueryTypeKeyHash>;

    struct ResolutionStorage {
        Dictionary resolutions;
    };

    /// For a repeated query type, the later entry.
    static Resolution later(Resolution& /*earlier*/, Resolution&& later) {
        return std::move(later);
    }

    ResolutionStorage storage_;
};

/// The declarative form of a resolution table: each argument is a table (or anything with
/// `resolutions()`), merged in source order.
struct QueryResolutionsBuilder {
    template <class... Tables>
    static QueryResolutions buildBlock(const Tables&... tables) {
        QueryResolutions merged;
        (merged.merge(tables.resolutions()), ...);
        return merged;
    }
};

/// A one-entry table for `Q` whose provider takes nothing, the query, or the query and the
/// manager, and gives an optional `QueryPrimitive<Q>`; the shorter forms ignore the arguments
/// they do not take.
template <Query Q, class F>
QueryResolutions resolve(F&& provider) {
    using P = std::decay_t<F>;
    if constexpr (std::is_invocable_v<const P&, const Q&, QueryManager&>) {
        return QueryResolutions::single<Q>(Resolution::make<Q>(std::forward<F>(provider)));
    } else if constexpr (std::is_invocable_v<const P&, const Q&>) {
        return QueryResolutions::single<Q>(
            Resolution::make<Q>([provider = P(std::forward<F>(provider))](
                                    const Q& query, QueryManager&) { return provider(query); }));
    } else {
        static_assert(std::is_invocable_v<const P&>,
                      "a provider takes nothing, the query, or the query and the QueryManager");
        return QueryResolutions::single<Q>(
            Resolution::make<Q>([provider = P(std::forward<F>(provider))](const Q&, QueryManager&) {
                return provider();
            }));
    }
}

/// A one-entry table for `Q` answering with the value `makeValue()` gives, computed afresh at
/// every request (a plain value or an optional one).
template <Query Q, class F>
    requires std::is_invocable_v<const std::decay_t<F>&> &&
             std::convertible_to<std::invoke_result_t<const std::decay_t<F>&>,
                                 std::optional<QueryPrimitive<Q>>>
QueryResolutions resolveWith(F&& makeValue) {
    return QueryResolutions::single<Q>(Resolution::make<Q>(
        [makeValue = std::decay_t<F>(std::forward<F>(makeValue))](
            const Q&, QueryManager&) -> std::optional<QueryPrimitive<Q>> { return makeValue(); }));
}

/// Anything that answers some query types. `resolutions()` is asked afresh at every request, so
/// a resolver may change its answers at any time; `queryResolverPublisher()` announces such
/// changes (absent by default, for resolvers whose answers never change). Held by
/// `std::shared_ptr`; both operations may be called from any thread.
class QueryResolver {
  public:
    virtual ~QueryResolver() = default;

    /// The table of answers, as of now.
    virtual QueryResolutions resolutions() const = 0;

    /// A stream that sends whenever this resolver's answers changed, or absent.
    virtual std::optional<EventStream<void>> queryResolverPublisher() const { return std::nullopt; }
};

using QueryResolverList = std::vector<std::shared_ptr<QueryResolver>>;

/// The resolutions of a resolver that may be absent: the empty table when it is.
template <std::derived_from<QueryResolver> R>
QueryResolutions resolutions(const std::shared_ptr<R>& resolver) {
    return resolver ? resolver->resolutions() : QueryResolutions::empty();
}

/// The resolutions of a weakly held resolver: its table while it exists, else the empty table.
template <std::derived_from<QueryResolver> R>
QueryResolutions resolutions(const Weak<R>& resolver) {
    return resolutions(resolver.value());
}

/// A resolver that holds another one weakly, for putting a resolver into a manager without the
/// manager keeping it alive. It answers as the held resolver while that exists, and with the
/// empty table afterwards.
class MIRELS_EXPORT WeakQueryResolver final : public QueryResolver {
  public:
    explicit WeakQueryResolver(Weak<QueryResolver> resolver) noexcept
        : resolver_(std::move(resolver)) {}

    [[nodiscard]] static std::shared_ptr<WeakQueryResolver> create(
        const std::shared_ptr<QueryResolver>& resolver);

    QueryResolutions resolutions() const override;

    std::optional<EventStream<void>> queryResolverPublisher() const override;

    const Weak<QueryResolver>& resolver() const noexcept { return resolver_; }

  private:
    Weak<QueryResolver> resolver_;
};

/// A type that offers a fixed list of resolvers through a static `queryResolvers()`.
template <class P>
concept QueryResolverProvider = requires {
    { P::queryResolvers() } -> std::convertible_to<QueryResolverList>;
};

/// The provider of no resolvers. Never instantiated.
struct EmptyQueryResolverProvider {
    EmptyQueryResolverProvider() = delete;
    static QueryResolverList queryResolvers() { return {}; }
};

}  // namespace mirels

template <>
struct std::hash<mirels::detail::QueryTypeKey> {
    std::size_t operator()(const mirels::detail::QueryTypeKey& key) const noexcept {
        return key.hash;
    }
};
