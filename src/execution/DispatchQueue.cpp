#include "mirels/execution/DispatchQueue.h"

#include <sched.h>

#include <atomic>
#include <cstdint>
#include <utility>

#include "CurrentQueue.h"
#include "Futex.h"
#include "SegmentedMpscQueue.h"
#include "WorkerPool.h"
#include "mirels/core/Identifier.h"

namespace mirels {

namespace detail {
constinit thread_local CurrentQueueSlot currentQueueSlot
    __attribute__((tls_model("initial-exec"))){0, false};
}  // namespace detail

namespace {

using detail::CurrentQueueScope;
using detail::PoolJob;
using detail::WorkerPool;

// How many callbacks a worker runs from one serial queue before it puts the queue back behind
// the pool's other work.
constexpr unsigned serialBatchLimit = 128;

// How long a worker that has emptied a serial queue keeps watching it before it lets the queue go
// idle: polls of the next slot with growing pauses in between, about 5 microseconds in all. A
// producer posting steadily then keeps the queue busy, and pays neither the hand-off to the pool
// nor the wake-up of a worker for every callback. Polling only now and then matters as much:
// each poll pulls a line the producer is writing over to the worker's core, while between polls
// the producer fills slots undisturbed and the worker then runs them as one batch.
constexpr int firstPollPauses = 32;
constexpr int lastPollPauses = 256;

class SerialQueue final : public DispatchQueue {
  public:
    SerialQueue(std::string label, QualityOfService qos)
        : DispatchQueue(std::move(label), qos, Kind::serial),
          pool_(WorkerPool::forQualityOfService(qos)) {
        job_.run = &SerialQueue::runJob;
        job_.owner = this;
    }

    ~SerialQueue() override {
        // A queue with work left holds itself, so `pending_` is empty here.
    }

    void async(UniqueFunction<void()> work) override {
        pending_.push(std::move(work));
        // The load filters out the common case, a queue that is already scheduled, without
        // taking the flag's cache line exclusively.
        if (!scheduled_.load(std::memory_order_seq_cst) &&
            !scheduled_.exchange(true, std::memory_order_seq_cst)) {
            retainedWhileScheduled_ = shared_from_this();
            pool_.post(&job_);
        }
    }

  private:
    // The queue's hook in its pool: a queue is in the pool at most once, while it is scheduled.
    struct QueueJob : PoolJob {
        SerialQueue* owner = nullptr;
    };

    static void runJob(PoolJob* job) noexcept {
        // The queue outlives this call: it holds itself while scheduled, and only drain() lets
        // go, as its last act.
        static_cast<QueueJob*>(job)->owner->drain();
    }

    UniqueFunction<void()>* waitForWork() noexcept {
        for (int pauses = firstPollPauses; pauses <= lastPollPauses; pauses *= 2) {
            for (int pause = 0; pause < pauses; ++pause) detail::cpuRelax();
            if (UniqueFunction<void()>* work = pending_.front()) return work;
        }
        return nullptr;
    }

    void drain() noexcept {
        CurrentQueueScope scope(identifier().identifier);
        unsigned ran = 0;
        for (;;) {
            if (ran == serialBatchLimit) {
                // Make way for the pool's other work, if there is any.
                if (pool_.hasQueuedJobs()) break;
                ran = 0;
            }
            UniqueFunction<void()>* work = pending_.front();
            if (work == nullptr) work = waitForWork();
            if (work != nullptr) {
                (*work)();
                pending_.popFront();
                ++ran;
                continue;
            }
            if (!pending_.isSettledEmpty()) {
                // A push has claimed its slot but not filled it yet: a few instructions, unless
                // its thread was preempted in between.
                sched_yield();
                continue;
            }
            // Go idle. Take what this worker owns out before clearing the flag: once it is clear,
            // a producer may schedule the queue and another worker may drain it. The next
            // producer to set the flag takes a new self-reference.
            const std::uint64_t position = pending_.consumerPosition();
            std::shared_ptr<DispatchQueue> retained = std::move(retainedWhileScheduled_);
            scheduled_.store(false, std::memory_order_seq_cst);
            // A producer that pushed before seeing the flag cleared did not schedule the queue;
            // take its work back unless another producer has scheduled the queue meanwhile.
            if (!pending_.hasPushesAfter(position) ||
                scheduled_.exchange(true, std::memory_order_seq_cst)) {
                return;  // `retained` may be the last reference; nothing touches *this after it
            }
            retainedWhileScheduled_ = std::move(retained);
        }
        pool_.post(&job_);
    }

    WorkerPool& pool_;
    QueueJob job_;
    std::shared_ptr<DispatchQueue> retainedWhileScheduled_;  // owned by whoever holds the flag
    alignas(64) std::atomic<bool> scheduled_{false};
    detail::SegmentedMpscQueue<UniqueFunction<void()>> pending_;
};

class ConcurrentQueue final : public DispatchQueue {
  public:
    ConcurrentQueue(std::string label, QualityOfService qos)
        : DispatchQueue(std::move(label), qos, Kind::concurrent),
          pool_(WorkerPool::forQualityOfService(qos)) {}

    void async(UniqueFunction<void()> work) override {
        pool_.post(new Job(identifier().identifier, std::move(work)));
    }

  private:
    // Carries the queue's identifier rather than the queue: the callback must run even when the
    // queue is gone by then, and it only needs the identity.
    struct Job : PoolJob {
        Job(std::int64_t queueIdentifier, UniqueFunction<void()> work) noexcept
            : queueIdentifier(queueIdentifier), work(std::move(work)) {
            run = &Job::runJob;
        }
        static void runJob(PoolJob* job) noexcept {
            Job* self = static_cast<Job*>(job);
            {
                CurrentQueueScope scope(self->queueIdentifier);
                self->work();
            }
            delete self;
        }
        std::int64_t queueIdentifier;
        UniqueFunction<void()> work;
    };

    WorkerPool& pool_;
};

}  // namespace

DispatchQueue::DispatchQueue(std::string label, QualityOfService qos, Kind kind)
    : label_(std::move(label)), qos_(qos), kind_(kind), identifier_{nextProcessIdentifier()} {}

DispatchQueue::~DispatchQueue() = default;

std::shared_ptr<DispatchQueue> DispatchQueue::create(std::string label, QualityOfService qos,
                                                     Kind kind) {
    if (kind == Kind::concurrent) return std::make_shared<ConcurrentQueue>(std::move(label), qos);
    return std::make_shared<SerialQueue>(std::move(label), qos);
}

const std::shared_ptr<DispatchQueue>& DispatchQueue::background() {
    // Never destroyed: timers and workers may still use it while the process exits.
    static const auto* queue = new std::shared_ptr<DispatchQueue>(
        create("mirels.background", QualityOfService::background, Kind::concurrent));
    return *queue;
}

std::optional<QueueIdentifier> DispatchQueue::currentIdentifier() noexcept {
    const detail::CurrentQueueSlot slot = detail::currentQueueSlot;
    if (!slot.isSet) return std::nullopt;
    return QueueIdentifier{slot.identifier};
}

bool DispatchQueue::isCurrent() const noexcept {
    const detail::CurrentQueueSlot slot = detail::currentQueueSlot;
    return slot.isSet && slot.identifier == identifier_.identifier;
}

}  // namespace mirels
