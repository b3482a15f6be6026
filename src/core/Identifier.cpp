#include "mirels/core/Identifier.h"

#include <random>

#include "mirels/core/ThreadSafe.h"

namespace mirels {

namespace {
ThreadSafe<std::int64_t>& identifierCounter() {
    // Deliberately not zero-based: identifiers from different runs rarely line up, which makes
    // stale identifiers in logs easy to tell apart.
    static ThreadSafe<std::int64_t> counter([] {
        std::random_device device;
        return std::uniform_int_distribution<std::int64_t>(0, 9'999)(device);
    }());
    return counter;
}
}  // namespace

std::int64_t nextProcessIdentifier() {
    return identifierCounter().syncWrite([](std::int64_t& value) { return value++; });
}

}  // namespace mirels
