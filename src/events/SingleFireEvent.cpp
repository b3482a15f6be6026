#include "mirels/events/SingleFireEvent.h"

#include "mirels/core/Assertions.h"
#include "mirels/futures/ConstantFuture.h"

namespace mirels {

namespace {

// The library's own call sites of the event: where its future is made, where observer tokens are
// made, where the future is canceled and where a refused completion is reported.
Callsite futureCreationCallsite() noexcept {
    return Callsite::library("init()");
}
Callsite observeCallsite() noexcept {
    return Callsite::library("observe(_:)");
}
Callsite cancelCallsite() noexcept {
    return Callsite::library("cancel()");
}
Callsite transitionCallsite() noexcept {
    return Callsite::library("transition(to:)");
}

}  // namespace

std::shared_ptr<SingleFireEvent> SingleFireEvent::create() {
    return std::make_shared<SingleFireEvent>(Key{});
}

SingleFireEvent::SingleFireEvent(Key) : state_(State{}) {}

std::optional<std::uint64_t> SingleFireEvent::add(Observer& observer, bool numbered) {
    return state_.syncWrite([&](State& state) -> std::optional<std::uint64_t> {
        if (state.phase != Phase::waiting) return std::nullopt;
        std::uint64_t number = numbered ? ++state.lastNumber : 0;
        if (state.observers.capacity() == 0) state.observers.reserve(4);
        state.observers.push_back(Registration{number, std::move(observer)});
        return number;
    });
}

void SingleFireEvent::remove(std::uint64_t number) {
    Observer removed;
    state_.syncWrite([&](State& state) {
        for (auto it = state.observers.begin(); it != state.observers.end(); ++it) {
            if (it->number == number) {
                removed = std::move(it->observer);
                state.observers.erase(it);
                return;
            }
        }
    });
    // `removed` (and what it captured) is destroyed here, after the lock is released.
}

std::shared_ptr<CancellationToken> SingleFireEvent::observe(Observer observer) {
    std::optional<std::uint64_t> number = add(observer, true);
    if (!number) {
        observer();
        return nullptr;
    }
    // The token holds the event weakly: registrations must not keep it alive. Once the event has
    // finished its observers are gone, so a cancel then needs no lock.
    return CancellationToken::create(
        [event = weak_from_this(), number = *number] {
            std::shared_ptr<SingleFireEvent> strong = event.lock();
            if (strong != nullptr && !strong->hasFinished()) strong->remove(number);
        },
        observeCallsite());
}

void SingleFireEvent::observeUntilFiredOrCanceled(Observer observer) {
    if (!add(observer, false)) observer();
}

void SingleFireEvent::keepUntilFiredOrCanceled(std::shared_ptr<CancellationToken> token) {
    bool kept = state_.syncWrite([&](State& state) {
        if (state.phase != Phase::waiting) return false;
        state.keptTokens.push_back(std::move(token));
        return true;
    });
    if (!kept) token->cancel();
}

std::optional<SingleFireEvent::Finishing> SingleFireEvent::finish(Phase to) {
    return state_.syncWrite([&](State& state) -> std::optional<Finishing> {
        if (state.phase != Phase::waiting) return std::nullopt;
        state.phase = to;
        phase_.store(to, std::memory_order_release);
        return Finishing{std::move(state.observers), std::move(state.keptTokens), state.promise};
    });
}

// Firing and canceling touch nothing of the event after `finish`: observers may drop the last
// reference to it.
void SingleFireEvent::fire() {
    std::optional<Finishing> finishing = finish(Phase::fired);
    if (!finishing) return;
    finishing->notify();
    finishing->succeedFuture();
    finishing->cancelKeptTokens();
}

void SingleFireEvent::cancel() {
    std::optional<Finishing> finishing = finish(Phase::canceled);
    if (!finishing) return;
    finishing->cancelKeptTokens();
    finishing->cancelFuture();
}

Future<void> SingleFireEvent::future() const {
    return Future<void>(state_.syncWrite([](State& state) {
        if (state.future == nullptr) {
            switch (state.phase) {
                case Phase::waiting:
                    state.promise = PromiseFuture<void>::create(futureCreationCallsite());
                    state.future = state.promise;
                    break;
                case Phase::fired:
                    state.future =
                        ConstantFuture<void>::create(FutureTermination<void>::succeeded(),
                                                     futureCreationCallsite())
                            .object();
                    break;
                case Phase::canceled:
                    state.future = ConstantFuture<void>::create(
                                       FutureTermination<void>::canceled(cancelCallsite()),
                                       futureCreationCallsite())
                                       .object();
                    break;
            }
        }
        return state.future;
    }));
}

void SingleFireEvent::Finishing::succeedFuture() const {
    if (promise == nullptr) return;
    try {
        promise->tryTransition(FutureTermination<void>::succeeded());
    } catch (const PromiseFuture<void>::TransitionError&) {
        detail::reportSoftAssertionFailure(transitionCallsite());
    }
}

void SingleFireEvent::Finishing::cancelFuture() const {
    if (promise == nullptr) return;
    try {
        promise->tryTransition(FutureTermination<void>::canceled(cancelCallsite()));
    } catch (const PromiseFuture<void>::TransitionError&) {
        detail::reportSoftAssertionFailure(transitionCallsite());
    }
}

void SingleFireEvent::Finishing::cancelKeptTokens() const {
    for (const auto& token : keptTokens) token->cancel();
}

}  // namespace mirels
