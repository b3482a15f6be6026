#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "mirels/core/UnfairLock.h"
#include "mirels/execution/QualityOfService.h"

namespace mirels::detail {

/// A unit of work a pool runs: an intrusive hook, so that handing a serial queue, a timer or a
/// concurrent queue's callback to a pool never allocates. `run` is called once per post, on a
/// worker thread, and must not throw; the job may post itself again from inside `run`.
struct PoolJob {
    void (*run)(PoolJob* job) noexcept = nullptr;
    PoolJob* nextJob = nullptr;
};

/// A fixed set of named worker threads that run posted jobs in FIFO order.
///
/// Pools are process-lifetime singletons, made (and their threads started) on first use and
/// intentionally never destroyed, so that process exit never races a worker that is still
/// running. Idle workers spin briefly, then sleep on a futex. A post wakes a sleeper only when no
/// worker is spinning: the spinner will take the job, and on a machine with few cores every extra
/// runnable thread takes time from the threads doing the work.
class WorkerPool {
  public:
    /// The pool that runs work of this quality of service.
    static WorkerPool& forQualityOfService(QualityOfService qos);

    WorkerPool(const char* name, unsigned threadCount);
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /// Appends `job` to the pool's queue. Safe from any thread, including a worker of this pool.
    void post(PoolJob* job) noexcept;

    /// Whether jobs are waiting for a worker (a snapshot).
    bool hasQueuedJobs() const noexcept { return queuedCount_.load(std::memory_order_relaxed) > 0; }

  private:
    void workerMain(unsigned index) noexcept;
    PoolJob* take() noexcept;
    void waitForWork() noexcept;
    void wakeOneIfNoneSpinning() noexcept;

    UnfairLock lock_;
    PoolJob* head_ MIRELS_GUARDED_BY(lock_) = nullptr;
    PoolJob* tail_ MIRELS_GUARDED_BY(lock_) = nullptr;
    std::atomic<std::int64_t> queuedCount_{0};
    std::atomic<std::uint32_t> spinnerCount_{0};
    std::atomic<std::uint32_t> sleeperCount_{0};
    std::atomic<std::uint32_t> wakeSequence_{0};
    std::string name_;
};

}  // namespace mirels::detail
