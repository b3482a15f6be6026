#include "mirels/events/Invalidatable.h"

#include <mutex>

namespace mirels {

namespace {

/// The stack of handles whose invalidation is in progress, innermost last, under a recursive
/// lock: cascades re-enter it on their own thread, and cascades on other threads wait, so the
/// innermost handle is always the one that caused the invalidation being recorded. One per
/// process, made on first use and never destroyed (invalidations may run during exit).
class InvalidationTracer {
  public:
    static InvalidationTracer& shared() {
        static InvalidationTracer* tracer = new InvalidationTracer();
        return *tracer;
    }

    std::recursive_mutex recursiveLock;
    std::vector<InvalidationHandle*> invalidatingHandles;

  private:
    InvalidationTracer() { invalidatingHandles.reserve(32); }
};

}  // namespace

// --- Invalidatable ----------------------------------------------------------------------------

void Invalidatable::invalidate(Callsite callsite) {
    invalidationHandle().invalidateHandle(callsite);
}

bool Invalidatable::isInvalidated() const noexcept {
    return invalidationHandle().invalidation_->hasFired();
}

std::shared_ptr<CancellationToken> Invalidatable::observeInvalidation(
    UniqueFunction<void()> observer) const {
    return invalidationHandle().invalidation_->observe(std::move(observer));
}

void Invalidatable::onInvalidation(UniqueFunction<void()> observer) const {
    invalidationHandle().invalidation_->observeUntilFiredOrCanceled(std::move(observer));
}

void Invalidatable::trackInvalidation(const Invalidatable& other, Callsite callsite) const {
    std::shared_ptr<InvalidationHandle> tracking = invalidationHandle().shared_from_this();
    other.onInvalidation(
        [tracking = std::move(tracking), callsite] { tracking->invalidateHandle(callsite); });
}

// --- InvalidationHandle -----------------------------------------------------------------------

std::shared_ptr<InvalidationHandle> InvalidationHandle::create(std::optional<std::string> name,
                                                               Callsite callsite) {
    return std::make_shared<InvalidationHandle>(Key{}, std::move(name), callsite);
}

InvalidationHandle::InvalidationHandle(Key, std::optional<std::string> name, Callsite callsite)
    : initializationCallsite_(callsite),
      name_(std::move(name)),
      invalidation_(SingleFireEvent::create()) {}

void InvalidationHandle::invalidateHandle(Callsite callsite) {
    std::optional<SingleFireEvent::Finishing> finishing =
        invalidation_->finish(SingleFireEvent::Phase::fired);
    if (!finishing) return;
    // Held to the end: an observer may drop every other reference to this handle.
    std::shared_ptr<InvalidationHandle> self = shared_from_this();

    std::shared_ptr<InvalidationHandle> previous;
    {
        InvalidationTracer& tracer = InvalidationTracer::shared();
        std::lock_guard guard(tracer.recursiveLock);
        if (!tracer.invalidatingHandles.empty()) {
            previous = tracer.invalidatingHandles.back()->shared_from_this();
        }
        tracer.invalidatingHandles.push_back(this);
        // Popped also when an observer throws, so that the stack stays true.
        struct Pop {
            InvalidationTracer& tracer;
            ~Pop() { tracer.invalidatingHandles.pop_back(); }
        } pop{tracer};
        finishing->notify();
        finishing->succeedFuture();
    }

    setInvalidationLink(Link{name_, initializationCallsite_, callsite, std::move(previous)});
    finishing->cancelKeptTokens();
}

void InvalidationHandle::setInvalidationLink(Link link) {
    std::vector<TraceCallback> requests = traceStorage_.syncWrite([&](TraceStorage& storage) {
        storage.link = link;
        return std::move(storage.requests);
    });
    for (TraceCallback& request : requests) deliverTrace(link, std::move(request));
}

void InvalidationHandle::requestInvalidationTrace(TraceCallback callback) {
    std::optional<Link> link =
        traceStorage_.syncWrite([&](TraceStorage& storage) -> std::optional<Link> {
            if (storage.link) return storage.link;
            storage.requests.push_back(std::move(callback));
            return std::nullopt;
        });
    if (link) deliverTrace(*link, std::move(callback));
}

void InvalidationHandle::deliverTrace(const Link& link, TraceCallback callback) {
    if (link.previous == nullptr) {
        callback(InvalidationTrace{{link}});
        return;
    }
    // The cause records its link only once every invalidation nested in it has returned, so its
    // part of the trace may come later.
    link.previous->requestInvalidationTrace(
        [link, callback = std::move(callback)](const InvalidationTrace& rest) mutable {
            InvalidationTrace trace;
            trace.links.reserve(rest.links.size() + 1);
            trace.links.push_back(link);
            trace.links.insert(trace.links.end(), rest.links.begin(), rest.links.end());
            callback(trace);
        });
}

std::optional<InvalidationHandle::InvalidationTrace> InvalidationHandle::invalidationTrace() const {
    // Walks the chain one handle (and one lock) at a time.
    InvalidationTrace trace;
    const InvalidationHandle* handle = this;
    while (handle != nullptr) {
        std::optional<Link> link = handle->traceStorage_.syncRead(
            [](const TraceStorage& storage) { return storage.link; });
        if (!link) return std::nullopt;
        handle = link->previous.get();
        trace.links.push_back(std::move(*link));
    }
    return trace;
}

std::string InvalidationHandle::InvalidationTrace::description() const {
    std::string text;
    for (std::size_t index = 0; index < links.size(); ++index) {
        const Link& link = links[links.size() - 1 - index];
        text += std::to_string(index);
        text += ": ";
        if (link.name) {
            text += '[';
            text += *link.name;
            text += "] ";
        }
        text += "Initialized: ";
        text += link.initializationCallsite.description();
        text += '\n';
        text += "   Invalidated: ";
        text += link.invalidationCallsite.description();
        text += '\n';
    }
    return text;
}

// --- binding ------------------------------------------------------------------------------------

void bindInvalidation(const Invalidatable& object, std::span<const Invalidatable* const> others) {
    constexpr Callsite callsite = Callsite::library("bindInvalidation(of:_:)");
    for (const Invalidatable* other : others) {
        object.trackInvalidation(*other, callsite);
        other->trackInvalidation(object, callsite);
    }
}

void manage(std::shared_ptr<CancellationToken> token, InvalidationHandle& handle) {
    handle.invalidation_->keepUntilFiredOrCanceled(std::move(token));
}

void trackInvalidation(std::shared_ptr<CancellationToken> token, const Invalidatable& object) {
    manage(std::move(token), object.invalidationHandle());
}

}  // namespace mirels
