#pragma once

// The bodies of `AbstractFuture`'s templates. Included by Future.h: include that instead.

#include <new>
#include <utility>

#include "mirels/futures/Future.h"

namespace mirels {

namespace detail {
template <class T>
std::uint8_t terminationCaseBit(const FutureTermination<T>& termination) noexcept {
    if (termination.isCanceled())
        return static_cast<std::uint8_t>(FutureTerminationCases::canceled);
    return static_cast<std::uint8_t>(termination.isSucceeded() ? FutureTerminationCases::succeeded
                                                               : FutureTerminationCases::failed);
}
}  // namespace detail

namespace detail {
/// What the typed observer nodes share: the node lives either in the future's inline slot or
/// in a recycled block of its own (as `Node::heap_` says; kept in the node, beside its other
/// small members, so that the node stays within the inline slot), and its release follows.
template <class Node>
class PlacedObserverNode : public FutureObserverNode, public RecycledAllocation {
  public:
    void release() noexcept final {
        auto* self = static_cast<Node*>(this);
        if (self->heap_) {
            delete self;
        } else {
            self->~Node();
        }
    }

  protected:
    PlacedObserverNode() = default;
    ~PlacedObserverNode() = default;
};
}  // namespace detail

template <class T>
class AbstractFuture<T>::ObserverNode final
    : public detail::PlacedObserverNode<AbstractFuture<T>::ObserverNode> {
  public:
    ObserverNode(bool onHeap, Observer&& observer, ExecutionLane&& lane, std::uint8_t cases)
        : callback_(std::move(observer)), lane_(std::move(lane)), cases_(cases), heap_(onHeap) {}

    void finished(const void* termination) noexcept override {
        deliver(lane_, callback_, cases_, *static_cast<const Termination*>(termination));
    }

  private:
    friend detail::PlacedObserverNode<ObserverNode>;
    Observer callback_;
    ExecutionLane lane_;
    std::uint8_t cases_;
    bool heap_;
};

template <class T>
template <class F>
class AbstractFuture<T>::CallableNode final
    : public detail::PlacedObserverNode<AbstractFuture<T>::CallableNode<F>> {
  public:
    template <class G>
    CallableNode(bool onHeap, G&& callback, std::uint8_t cases)
        : callback_(std::forward<G>(callback)), cases_(cases), heap_(onHeap) {}

    void finished(const void* termination) noexcept override {
        const auto& typed = *static_cast<const Termination*>(termination);
        if ((cases_ & detail::terminationCaseBit(typed)) != 0) callback_(typed);
    }

  private:
    friend detail::PlacedObserverNode<CallableNode>;
    F callback_;
    std::uint8_t cases_;
    bool heap_;
};

template <class T>
template <class Node, class... Args>
void AbstractFuture<T>::observeWithPlacedNode(Args&&... args) {
    void* slot = nullptr;
    // NOLINTNEXTLINE(misc-redundant-expression): both sides are constants for some node types
    if constexpr (sizeof(Node) <= inlineNodeSize && alignof(Node) <= alignof(std::max_align_t)) {
        slot = takeInlineNodeStorage();
    }
    Node* node = slot != nullptr ? ::new (slot) Node(false, std::forward<Args>(args)...)
                                 : new Node(true, std::forward<Args>(args)...);
    observeFinishWithNode(*node);
}

template <class T>
AbstractFuture<T>::~AbstractFuture() {
    if (isFinished()) storedTermination()->~Termination();
}

template <class T>
AbstractFuture<T>::AbstractFuture(Termination termination, Callsite callsite)
    : FutureCore(callsite, FinishedAtConstruction{}) {
    ::new (static_cast<void*>(terminationStorage_)) Termination(std::move(termination));
}

template <class T>
FutureState<T> AbstractFuture<T>::recentStateSnapshot() const {
    if (const Termination* termination = terminationIfFinished()) {
        return FutureState<T>::finished(*termination);
    }
    return FutureState<T>::running();
}

template <class T>
std::optional<FutureValue<T>> AbstractFuture<T>::succeededValue() const {
    const Termination* termination = terminationIfFinished();
    return termination != nullptr ? termination->succeededValue() : std::nullopt;
}

template <class T>
bool AbstractFuture<T>::isCanceled() const noexcept {
    const Termination* termination = terminationIfFinished();
    return termination != nullptr && termination->isCanceled();
}

template <class T>
bool AbstractFuture<T>::hasFinishedSuccessfully() const noexcept {
    const Termination* termination = terminationIfFinished();
    return termination != nullptr && termination->isSucceeded();
}

template <class T>
void AbstractFuture<T>::observeFinish(ExecutionLane lane, Observer observer,
                                      FutureTerminationCases cases) {
    static_assert(sizeof(ObserverNode) <= inlineNodeSize, "an observer node fits the inline slot");
    static_assert(alignof(ObserverNode) <= alignof(std::max_align_t),
                  "an observer node needs no more than the inline slot's alignment");
    const auto caseBits = static_cast<std::uint8_t>(cases);
    if (isFinished()) {
        deliver(lane, observer, caseBits, *storedTermination());
        return;
    }
    observeWithPlacedNode<ObserverNode>(std::move(observer), std::move(lane), caseBits);
}

template <class T>
void AbstractFuture<T>::observeFinish(Observer observer) {
    observeFinish(ExecutionLane::any(), std::move(observer));
}

template <class T>
template <class F>
void AbstractFuture<T>::observeFinishHere(F&& callback, FutureTerminationCases cases) {
    static_assert(std::is_invocable_v<std::decay_t<F>&, const Termination&>,
                  "the callback takes the termination");
    using Node = CallableNode<std::decay_t<F>>;
    const auto caseBits = static_cast<std::uint8_t>(cases);
    if (const Termination* termination = terminationIfFinished()) {
        if ((caseBits & detail::terminationCaseBit(*termination)) != 0) {
            std::decay_t<F> local(std::forward<F>(callback));
            local(*termination);
        }
        return;
    }
    observeWithPlacedNode<Node>(std::forward<F>(callback), caseBits);
}

template <class T>
void AbstractFuture<T>::observeFinishWithNode(detail::FutureObserverNode& node) {
    if (push(node)) return;
    // Finished meanwhile: this thread delivers to the node itself.
    node.finished(storedTermination());
    node.release();
}

template <class T>
void AbstractFuture<T>::didFinish(Termination termination) {
    if (!finishIfRunning(termination, [](const Termination&) {})) {
        detail::reportSoftAssertionFailure(
            detail::futureCallsite(detail::FutureFunction::didFinish));
    }
}

template <class T>
void AbstractFuture<T>::retainSelfWhileRunning(std::shared_ptr<AbstractFuture> self) {
    if (isFinished()) return;
    observeFinishHere([self = std::move(self)](const Termination&) {});
}

template <class T>
template <class WhenFinished>
bool AbstractFuture<T>::finishIfRunning(Termination& termination, WhenFinished&& whenFinished) {
    return finishInPlace(
        whenFinished, [&](void* storage) { ::new (storage) Termination(std::move(termination)); });
}

template <class T>
template <class WhenFinished, class Make>
bool AbstractFuture<T>::finishInPlace(WhenFinished&& whenFinished, Make&& make) {
    if (!claimFinish()) {
        awaitFinished();
        whenFinished(*storedTermination());
        return false;
    }
    // Only this thread touches the storage until the publish below.
    make(static_cast<void*>(terminationStorage_));
    publishFinish(storedTermination());
    return true;
}

template <class T>
void AbstractFuture<T>::deliver(const ExecutionLane& lane, Observer& callback, std::uint8_t cases,
                                const Termination& termination) noexcept {
    if ((cases & detail::terminationCaseBit(termination)) == 0) return;
    if (lane.isCurrent()) {
        callback(termination);
    } else {
        lane.execute(
            [callback = std::move(callback), termination]() mutable { callback(termination); });
    }
}

}  // namespace mirels
