#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace mirels::testing {

/// Polls `condition` until it holds or a generous liveness limit passes (sanitizer builds on a
/// busy machine are slow). Returns the condition's last answer.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return condition();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

}  // namespace mirels::testing
