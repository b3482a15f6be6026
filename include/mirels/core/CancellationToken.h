#pragma once

// `CancellationToken`: what an observing or subscribing operation hands back. Also
// `CancellationTokenSet`, `CancellationTokenWithPayload`, `store()`.
//
// Example:
//
//     // A notifier hands out one token per listener; cancelling it removes the listener.
//     std::shared_ptr<CancellationToken> Notifier::listen(Listener listener) {
//         Identifier id;
//         listeners_.syncWrite([&](auto& all) { all.emplace(id, std::move(listener)); });
//         return CancellationToken::create([this, id] {
//             listeners_.syncWrite([&](auto& all) { all.erase(id); });
//         });
//     }
//     auto token = notifier.listen([](const std::string& m) { log(m); });
//     token->cancel();  // removes the listener; cancelling again does nothing

#include <atomic>
#include <memory>
#include <unordered_set>
#include <utility>

#include "mirels/Export.h"
#include "mirels/core/Callsite.h"
#include "mirels/core/Ref.h"
#include "mirels/core/UniqueFunction.h"

namespace mirels {

class CancellationToken;

/// A set of tokens kept by identity.
using CancellationTokenSet = std::unordered_set<Ref<CancellationToken>>;

/// What an observing or subscribing operation hands back: `cancel()` undoes the registration.
///
/// Every token must be cancelled exactly once. A second cancel is reported as a soft-assertion
/// failure (and runs the cancel action again, which the library's actions tolerate); a token
/// destroyed without having been cancelled is reported too, and its action is released without
/// running, so the registration stays. Made with `create`, shared by `std::shared_ptr`.
class MIRELS_EXPORT CancellationToken final {
    struct Key {
        explicit Key() = default;
    };

  public:
    using Action = UniqueFunction<void()>;

    /// A token whose cancelling runs `didCancel`. One allocation: the action's captures are
    /// stored inline when small.
    [[nodiscard]] static std::shared_ptr<CancellationToken> create(
        Action didCancel, Callsite callsite = Callsite::current());

    template <class Payload>
    friend class CancellationTokenWithPayload;

    CancellationToken(Key, Action didCancel, Callsite callsite) noexcept;
    ~CancellationToken();
    CancellationToken(const CancellationToken&) = delete;
    CancellationToken& operator=(const CancellationToken&) = delete;

    /// Marks the token cancelled (reporting if it already was) and runs its action on the
    /// calling thread. Safe to call from any thread.
    void cancel();

    bool isCancelled() const noexcept { return cancelled_.load(std::memory_order_acquire); }

    /// Where the token was made.
    Callsite initializationCallsite() const noexcept { return initializationCallsite_; }

  private:
    // Builds the cancel action in place from `didCancel`: the payload form makes one token per
    // scheduled action, where a move of the action through a parameter is measurable.
    template <class F>
    CancellationToken(Key, Callsite callsite, F&& didCancel)
        : didCancel_(std::forward<F>(didCancel)), initializationCallsite_(callsite) {}

    Action didCancel_;
    std::atomic<bool> cancelled_{false};
    Callsite initializationCallsite_;
};

/// A token made in one allocation with a `Payload`, for registrations whose bookkeeping lives
/// as long as their token: cancelling calls `payload.didCancel()`. Make it with
/// `std::make_shared<CancellationTokenWithPayload<P>>(callsite, args...)` and hand out `token`
/// through an aliasing `std::shared_ptr`, which keeps the payload alive too.
template <class Payload>
class CancellationTokenWithPayload {
  public:
    template <class... Args>
    explicit CancellationTokenWithPayload(Callsite callsite, Args&&... args)
        : token(CancellationToken::Key{}, callsite, [this] { payload.didCancel(); }),
          payload(std::forward<Args>(args)...) {}
    CancellationTokenWithPayload(const CancellationTokenWithPayload&) = delete;
    CancellationTokenWithPayload& operator=(const CancellationTokenWithPayload&) = delete;

    CancellationToken token;
    Payload payload;
};

/// Keeps `token` in `tokens` (for example an `AutoCancelling`'s set). A free function rather than
/// a member so that tokens need no back-pointer to their own owner: that saves every token four
/// atomic operations over its life.
MIRELS_EXPORT void store(std::shared_ptr<CancellationToken> token, CancellationTokenSet& tokens);

}  // namespace mirels
