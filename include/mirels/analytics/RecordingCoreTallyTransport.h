#pragma once

// `RecordingCoreTallyTransport`: a transport that keeps every event it is given (building each
// payload at once), for tests. Also `ScopedRecordingTransport`.

#include <memory>
#include <string>
#include <vector>

#include "mirels/Export.h"
#include "mirels/analytics/CoreTallyLogger.h"
#include "mirels/core/ThreadSafe.h"

namespace mirels {

/// A transport that keeps every event it is given (building each payload at once), for tests.
/// Thread-safe.
class MIRELS_EXPORT RecordingCoreTallyTransport final : public CoreTallyTransport {
  public:
    struct Event {
        std::string name;
        AnalyticsPayload payload;
    };

    void logEvent(std::string_view eventName, AnalyticsPayloadBuilder makePayload) override;

    std::vector<Event> events() const;
    /// The events whose name ends with "." + `identifierSuffix`.
    std::vector<Event> events(std::string_view identifierSuffix) const;
    void clear();

  private:
    ThreadSafe<std::vector<Event>> events_;
};

/// Installs a recording transport for its lifetime and restores the previous one afterwards.
class MIRELS_EXPORT ScopedRecordingTransport {
  public:
    ScopedRecordingTransport();
    ~ScopedRecordingTransport();
    ScopedRecordingTransport(const ScopedRecordingTransport&) = delete;
    ScopedRecordingTransport& operator=(const ScopedRecordingTransport&) = delete;

    RecordingCoreTallyTransport& operator*() const noexcept { return *recorder_; }
    RecordingCoreTallyTransport* operator->() const noexcept { return recorder_.get(); }

  private:
    std::shared_ptr<RecordingCoreTallyTransport> recorder_;
    std::shared_ptr<CoreTallyTransport> previous_;
};

}  // namespace mirels
