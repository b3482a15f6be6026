#pragma once

#include <optional>
#include <string>
#include <vector>

#include "mirels/analytics/RecordingCoreTallyTransport.h"

namespace mirels::testing {

/// Records the soft-assertion reports made while it lives.
class SoftAssertionRecorder {
  public:
    /// The "file" field of every "softAssert" event so far, in order.
    std::vector<std::string> files() const {
        std::vector<std::string> result;
        for (const auto& event : recorder_->events("softAssert")) {
            auto entry = event.payload.find("file");
            const std::string* text = nullptr;
            if (entry != event.payload.end() && entry->second) {
                text = entry->second->getIf<std::string>();
            }
            result.push_back(text != nullptr ? *text : "<no file field>");
        }
        return result;
    }

    std::size_t count() const { return recorder_->events("softAssert").size(); }
    void clear() { recorder_->clear(); }
    RecordingCoreTallyTransport& transport() { return *recorder_; }

  private:
    ScopedRecordingTransport recorder_;
};

}  // namespace mirels::testing
