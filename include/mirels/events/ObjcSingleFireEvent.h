#pragma once

// `ObjcSingleFireEvent`: the single-fire latch for callers that cannot hold a `std::shared_ptr` or
// a token. Also `QKObjCSingleFireEvent`.

#include <memory>

#include "mirels/events/SingleFireEvent.h"

namespace mirels {

/// The single-fire latch for callers that cannot hold a `std::shared_ptr` or a token: a plain
/// class that owns one `SingleFireEvent` and offers its operations by the names those callers
/// know. Observers added with `addObserver` stay registered until the event fires or is
/// canceled. Copies share the event.
class ObjcSingleFireEvent {
  public:
    ObjcSingleFireEvent() : event_(SingleFireEvent::create()) {}

    /// Fires the event: the observers run on this thread, in the order they were added.
    void fire() const { event_->fire(); }
    /// Cancels the event: no observer runs.
    void cancel() const { event_->cancel(); }
    /// Adds an observer; it runs at once when the event has fired or been canceled already.
    void addObserver(SingleFireEvent::Observer observer) const {
        event_->observeUntilFiredOrCanceled(std::move(observer));
    }
    bool hasFired() const noexcept { return event_->hasFired(); }

    /// The event itself.
    const std::shared_ptr<SingleFireEvent>& event() const noexcept { return event_; }

  private:
    std::shared_ptr<SingleFireEvent> event_;
};

/// The name the class carries for callers of the object-runtime interface.
using QKObjCSingleFireEvent = ObjcSingleFireEvent;

}  // namespace mirels
