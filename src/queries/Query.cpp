#include "mirels/queries/Query.h"

#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace mirels {

QueryResolutions::QueryResolutions(std::initializer_list<QueryResolutions> block) {
    for (const QueryResolutions& table : block) merge(table);
}

void QueryResolutions::merge(const QueryResolutions& other) {
    if (other.isEmpty()) return;
    if (isEmpty()) {
        Dictionary shared(other.storage_.resolutions);  // one reference-count increment
        storage_.resolutions = std::move(shared);
        return;
    }
    std::vector<std::pair<detail::QueryTypeKey, Resolution>> entries(storage_.resolutions.begin(),
                                                                     storage_.resolutions.end());
    entries.insert(entries.end(), other.storage_.resolutions.begin(),
                   other.storage_.resolutions.end());
    storage_.resolutions = Dictionary(entries, later);
}

std::shared_ptr<WeakQueryResolver> WeakQueryResolver::create(
    const std::shared_ptr<QueryResolver>& resolver) {
    return std::make_shared<WeakQueryResolver>(Weak<QueryResolver>(resolver));
}

QueryResolutions WeakQueryResolver::resolutions() const {
    return mirels::resolutions(resolver_);
}

std::optional<EventStream<void>> WeakQueryResolver::queryResolverPublisher() const {
    std::shared_ptr<QueryResolver> resolver = resolver_.value();
    return resolver ? resolver->queryResolverPublisher() : std::nullopt;
}

}  // namespace mirels
