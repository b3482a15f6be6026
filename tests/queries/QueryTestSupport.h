#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "mirels/core/ThreadSafe.h"
#include "mirels/events/EventStream.h"
#include "mirels/queries/Query.h"
#include "mirels/queries/QueryManager.h"
#include "mirels/queries/ValueCombiner.h"

namespace mirels::testing {

/// A display name, answered by the first resolver that knows it.
struct NameQuery {
    using Primitive = std::string;
    using MergeStrategy = FirstValueMerge<std::string>;
    int id = 0;
    friend bool operator==(const NameQuery&, const NameQuery&) = default;
};

/// Tags from every resolver, concatenated.
struct TagsQuery {
    using Primitive = std::vector<std::string>;
    using MergeStrategy = ConcatenationMerge<std::string>;
};

/// An asynchronous count, summed over every resolver.
struct CountQuery {
    using Primitive = Future<int>;
    using MergeStrategy = FutureMerge<SumMerge<int>>;
    int key = 0;
    friend bool operator==(const CountQuery&, const CountQuery&) = default;
};

/// A resolver whose table can be replaced and which announces on request.
class TableResolver final : public QueryResolver {
  public:
    explicit TableResolver(QueryResolutions table = {}) : table_(std::move(table)) {}

    static std::shared_ptr<TableResolver> create(QueryResolutions table = {}) {
        return std::make_shared<TableResolver>(std::move(table));
    }

    QueryResolutions resolutions() const override {
        requests.fetch_add(1);
        return table_.peek();
    }

    std::optional<EventStream<void>> queryResolverPublisher() const override {
        return changes_->eventStream();
    }

    void setTable(QueryResolutions table) {
        table_.syncWrite([&](QueryResolutions& current) { current = std::move(table); });
        changes_->send();
    }

    void announce() { changes_->send(); }

    mutable std::atomic<int> requests{0};

  private:
    ThreadSafe<QueryResolutions> table_;
    std::shared_ptr<EventStream<void>::Sink> changes_ = EventStream<void>::Sink::create();
};

}  // namespace mirels::testing

template <>
struct std::hash<mirels::testing::NameQuery> {
    std::size_t operator()(const mirels::testing::NameQuery& q) const noexcept {
        return std::hash<int>{}(q.id);
    }
};

template <>
struct std::hash<mirels::testing::CountQuery> {
    std::size_t operator()(const mirels::testing::CountQuery& q) const noexcept {
        return std::hash<int>{}(q.key);
    }
};
