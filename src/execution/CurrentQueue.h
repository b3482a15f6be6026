#pragma once

#include <cstdint>

namespace mirels::detail {

/// The calling thread's current queue: set while a worker runs a queue's callbacks.
struct CurrentQueueSlot {
    std::int64_t identifier;
    bool isSet;
};

// Initial-exec: read on every lane `execute`, so it must not cost a call to the TLS resolver.
extern constinit thread_local CurrentQueueSlot currentQueueSlot
    __attribute__((tls_model("initial-exec")));

/// Makes a queue the calling thread's current queue for the scope's lifetime and restores the
/// previous one afterwards. Touches nothing but the thread-local slot, so it is safe to end the
/// scope after the queue itself has gone away.
class CurrentQueueScope {
  public:
    explicit CurrentQueueScope(std::int64_t identifier) noexcept : saved_(currentQueueSlot) {
        currentQueueSlot = {identifier, true};
    }
    ~CurrentQueueScope() { currentQueueSlot = saved_; }
    CurrentQueueScope(const CurrentQueueScope&) = delete;
    CurrentQueueScope& operator=(const CurrentQueueScope&) = delete;

  private:
    CurrentQueueSlot saved_;
};

}  // namespace mirels::detail
