#pragma once

// `DispatchQueue`: a work queue that runs callbacks on the library's worker pools.

#include <memory>
#include <optional>
#include <string>

#include "mirels/Export.h"
#include "mirels/core/UniqueFunction.h"
#include "mirels/execution/QualityOfService.h"
#include "mirels/execution/QueueIdentifier.h"

namespace mirels {

/// A work queue that runs callbacks on the library's worker pools.
///
/// A serial queue runs its callbacks one at a time, in submission order, each on some worker
/// thread of the pool its quality of service selects; a concurrent queue hands each callback to
/// the pool on its own, so several may run at once. While a worker runs a queue's callback, the
/// queue is that thread's current queue (`isCurrent()`, `currentIdentifier()`).
///
/// Submission is lock-free for serial queues: a callback is pushed onto the queue's own
/// multi-producer list, and the queue is handed to its pool only when it goes from idle to busy.
/// A worker then runs up to a bounded batch of callbacks before it puts the queue back behind
/// the pool's other work, so one busy queue cannot starve the rest.
///
/// Queues are reference objects made by `create`. A queue stays alive while someone holds it or
/// while it has callbacks left to run; callbacks submitted to a queue always run, even when the
/// last outside reference goes away first.
///
/// Callbacks must not throw: an exception escaping a callback ends the process
/// (`std::terminate`), like one escaping a thread's function.
class MIRELS_EXPORT DispatchQueue : public std::enable_shared_from_this<DispatchQueue> {
  public:
    enum class Kind : std::uint8_t { serial, concurrent };

    /// A new queue. Takes the next value of the process-wide identifier counter as its
    /// identifier. Starts the pool's worker threads if this is the pool's first queue.
    [[nodiscard]] static std::shared_ptr<DispatchQueue> create(std::string label,
                                                               QualityOfService qos,
                                                               Kind kind = Kind::serial);

    /// The process's default background queue: a concurrent queue at `background` quality of
    /// service, made on first use and never destroyed. Time-out timers fire on it.
    static const std::shared_ptr<DispatchQueue>& background();

    /// The identifier of the queue whose callback the calling thread is running, if any.
    static std::optional<QueueIdentifier> currentIdentifier() noexcept;

    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;
    virtual ~DispatchQueue();

    /// Submits `work` to run later on this queue and returns without waiting. Safe from any
    /// thread, including from the queue's own callbacks (the new callback runs after the
    /// current one, never inside it).
    virtual void async(UniqueFunction<void()> work) = 0;

    /// Whether the calling thread is running one of this queue's callbacks.
    bool isCurrent() const noexcept;

    const std::string& label() const noexcept { return label_; }
    QualityOfService qos() const noexcept { return qos_; }
    Kind kind() const noexcept { return kind_; }
    QueueIdentifier identifier() const noexcept { return identifier_; }

  protected:
    DispatchQueue(std::string label, QualityOfService qos, Kind kind);

  private:
    std::string label_;
    QualityOfService qos_;
    Kind kind_;
    QueueIdentifier identifier_;
};

}  // namespace mirels
