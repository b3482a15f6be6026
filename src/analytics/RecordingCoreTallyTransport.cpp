#include "mirels/analytics/RecordingCoreTallyTransport.h"

namespace mirels {

void RecordingCoreTallyTransport::logEvent(std::string_view eventName,
                                           AnalyticsPayloadBuilder makePayload) {
    Event event{std::string(eventName), makePayload()};
    events_.syncWrite([&](std::vector<Event>& events) { events.push_back(std::move(event)); });
}

std::vector<RecordingCoreTallyTransport::Event> RecordingCoreTallyTransport::events() const {
    return events_.peek();
}

std::vector<RecordingCoreTallyTransport::Event> RecordingCoreTallyTransport::events(
    std::string_view identifierSuffix) const {
    return events_.syncRead([&](const std::vector<Event>& events) {
        std::vector<Event> matching;
        for (const Event& event : events) {
            std::string_view name = event.name;
            if (name.size() > identifierSuffix.size() && name.ends_with(identifierSuffix) &&
                name[name.size() - identifierSuffix.size() - 1] == '.') {
                matching.push_back(event);
            }
        }
        return matching;
    });
}

void RecordingCoreTallyTransport::clear() {
    events_.syncWrite([](std::vector<Event>& events) { events.clear(); });
}

ScopedRecordingTransport::ScopedRecordingTransport()
    : recorder_(std::make_shared<RecordingCoreTallyTransport>()),
      previous_(setCoreTallyTransport(recorder_)) {}

ScopedRecordingTransport::~ScopedRecordingTransport() {
    setCoreTallyTransport(std::move(previous_));
}

}  // namespace mirels
