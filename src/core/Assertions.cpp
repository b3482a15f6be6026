#include "mirels/core/Assertions.h"

#include <unistd.h>

#include <atomic>
#include <string>

namespace mirels {

namespace {

// Constant-initialised, so a failure during static initialisation finds a valid (null) value.
constinit std::atomic<SoftAssertionReporter> installedReporter{nullptr};

}  // namespace

SoftAssertionReporter setSoftAssertionReporter(SoftAssertionReporter reporter) noexcept {
    return installedReporter.exchange(reporter, std::memory_order_acq_rel);
}

namespace detail {

void reportSoftAssertionFailure(const Callsite& callsite) noexcept {
    if (SoftAssertionReporter reporter = installedReporter.load(std::memory_order_acquire)) {
        reporter(callsite);
        return;
    }
    try {
        std::string line = "soft assertion failed at " + callsite.location() + "\n";
        // One write, so that lines from concurrent failures do not interleave.
        [[maybe_unused]] ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
    } catch (...) {
        // A report must never turn a soft failure into a hard one.
    }
}

}  // namespace detail

}  // namespace mirels
