#pragma once

// `ExecutionLane`: where a callback runs.
//
// Example:
//
//     ExecutionLane lane = ExecutionLane::queue("org.example.ledger", QualityOfService::utility);
//     lane.execute([] { /* runs on the lane's serial queue, one callback at a time */ });
//     ExecutionLane::main().execute([] { /* runs on the main thread */ });

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "mirels/Export.h"
#include "mirels/core/UniqueFunction.h"
#include "mirels/execution/DispatchQueue.h"
#include "mirels/execution/MainQueue.h"
#include "mirels/execution/QualityOfService.h"
#include "mirels/execution/QueueIdentifier.h"
#include "mirels/execution/Thread.h"

namespace mirels {

/// Where a callback runs. Every operation of the library that takes a callback from its caller
/// also takes a lane and hands the callback to the lane's `execute`. Three cases:
///
/// - `any()`: the callback runs at once on whatever thread calls `execute`.
/// - `main()`: the callback runs on the main thread: at once when `execute` is called there,
///   otherwise later, through the main queue (`MainQueue`).
/// - `queue(label, qos)`: the callback runs on a serial queue of its own: at once when `execute`
///   is called from that queue's own callback (so a chain of callbacks on one lane does not
///   bounce through the queue again), otherwise later, in submission order.
///
/// Either way a callback runs exactly once, and a callback run inline runs before `execute`
/// returns, so a caller holding a lock while calling `execute` must be ready for that.
///
/// A lane is a small value: copying a queue lane shares its queue, and the queue lives as long as
/// some copy of the lane or some callback submitted to it. Lanes are equal when they are of the
/// same case and, for queue lanes, name the same queue. The lanes hold no lock; `execute` and
/// `isCurrent` may be called from any thread.
class MIRELS_EXPORT ExecutionLane {
  public:
    enum class Kind : std::uint8_t { any, main, queue };

    /// The immediate lane.
    static ExecutionLane any() noexcept { return ExecutionLane(Kind::any, nullptr); }

    /// The main-thread lane.
    static ExecutionLane main() noexcept { return ExecutionLane(Kind::main, nullptr); }

    /// A lane on a new serial queue with this label and quality of service. Every call makes a
    /// new queue with the next value of the process-wide identifier counter, so two lanes made
    /// with the same label are different lanes.
    static ExecutionLane queue(std::string label,
                               QualityOfService qos = QualityOfService::standard);

    /// A lane on an existing queue (serial or concurrent), such as the default background queue.
    /// Lanes made over the same queue are equal.
    static ExecutionLane queue(std::shared_ptr<DispatchQueue> queue) noexcept;

    Kind kind() const noexcept { return kind_; }
    bool isAny() const noexcept { return kind_ == Kind::any; }
    bool isMain() const noexcept { return kind_ == Kind::main; }
    bool isQueue() const noexcept { return kind_ == Kind::queue; }

    /// The lane's queue for a queue lane, null otherwise.
    const std::shared_ptr<DispatchQueue>& dispatchQueue() const noexcept { return queue_; }

    /// The identifier of the lane's queue for a queue lane, none otherwise.
    std::optional<QueueIdentifier> queueIdentifier() const noexcept {
        if (kind_ != Kind::queue) return std::nullopt;
        return QueueIdentifier{queueIdentifier_};
    }

    /// Whether code running now already runs on this lane: always for `any`; on the main thread
    /// for `main`; inside a callback of the lane's queue for a queue lane.
    bool isCurrent() const noexcept {
        switch (kind_) {
            case Kind::any:
                return true;
            case Kind::main:
                return Thread::isMainThread();
            case Kind::queue:
                break;
        }
        std::optional<QueueIdentifier> current = DispatchQueue::currentIdentifier();
        return current.has_value() && current->identifier == queueIdentifier_;
    }

    /// Runs `callback` on this lane: inline when the lane is current (always for `any`), else
    /// submitted to the main queue or the lane's queue. The inline path invokes the callable
    /// directly and never allocates; only a submitted callback is stored as a `UniqueFunction`.
    template <class F>
        requires std::is_invocable_v<std::decay_t<F>&>
    void execute(F&& callback) const {
        if (isCurrent()) {
            callback();
        } else if (kind_ == Kind::main) {
            MainQueue::async(UniqueFunction<void()>(std::forward<F>(callback)));
        } else {
            queue_->async(UniqueFunction<void()>(std::forward<F>(callback)));
        }
    }

    friend bool operator==(const ExecutionLane& a, const ExecutionLane& b) noexcept {
        return a.kind_ == b.kind_ &&
               (a.kind_ != Kind::queue || a.queueIdentifier_ == b.queueIdentifier_);
    }

  private:
    ExecutionLane(Kind kind, std::shared_ptr<DispatchQueue> queue) noexcept
        : queue_(std::move(queue)),
          queueIdentifier_(queue_ ? queue_->identifier().identifier : 0),
          kind_(kind) {}

    std::shared_ptr<DispatchQueue> queue_;
    std::int64_t queueIdentifier_;
    Kind kind_;
};

}  // namespace mirels
