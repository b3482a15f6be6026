#pragma once

// `DiagnosticsCollector`: gathers named text attachments that errors contribute to a diagnostics
// report.

#include <string>
#include <vector>

namespace mirels {

/// Gathers named text attachments that errors contribute to a diagnostics report.
class DiagnosticsCollector {
  public:
    struct Attachment {
        std::string name;
        std::string text;

        friend bool operator==(const Attachment&, const Attachment&) = default;
    };

    void attach(std::string name, std::string text) {
        attachments_.push_back({std::move(name), std::move(text)});
    }
    const std::vector<Attachment>& attachments() const noexcept { return attachments_; }

  private:
    std::vector<Attachment> attachments_;
};

}  // namespace mirels
