#pragma once

// `AutoCancelling`: holds cancellation tokens and cancels every one of them when it goes away. Also
// `store()`.

#include <memory>

#include "mirels/Export.h"
#include "mirels/core/CancellationToken.h"

namespace mirels {

/// Holds cancellation tokens and cancels every one of them when it goes away: for objects that
/// keep many registrations alive for exactly their own lifetime.
///
/// Used like a property wrapper: `wrappedValue()` is the set that `store(token, ...)`
/// adds to, and `projectedValue()` hands out a token that cancels everything held so far.
/// Owned and used by one thread at a time, like the set it exposes.
class MIRELS_EXPORT AutoCancelling {
  public:
    AutoCancelling();
    ~AutoCancelling();
    AutoCancelling(const AutoCancelling&) = delete;
    AutoCancelling& operator=(const AutoCancelling&) = delete;

    /// The tokens held, readable and writable in place.
    CancellationTokenSet& wrappedValue() noexcept { return *tokens_; }
    const CancellationTokenSet& wrappedValue() const noexcept { return *tokens_; }

    /// A new token whose cancelling empties this holder and then cancels every token that was in
    /// it, leaving the holder empty and usable. Each call makes a distinct token. The token does
    /// not keep the holder alive: cancelled after the holder is gone, it does nothing.
    [[nodiscard]] std::shared_ptr<CancellationToken> projectedValue();

  private:
    std::shared_ptr<CancellationTokenSet> tokens_;
};

/// Keeps `token` in `holder` until the holder cancels it.
inline void store(std::shared_ptr<CancellationToken> token, AutoCancelling& holder) {
    store(std::move(token), holder.wrappedValue());
}

}  // namespace mirels
