#include "WorkerPool.h"

#include <pthread.h>

#include <algorithm>
#include <thread>

#include "Futex.h"

namespace mirels::detail {

namespace {

// How long an idle worker keeps looking for work before it sleeps. Waking a sleeping thread costs
// a system call on the posting side and several microseconds of latency; a short spin absorbs
// the gaps of a producer that posts steadily.
constexpr int idleSpinCount = 500;

unsigned hardwareThreads() {
    return std::max(1U, std::thread::hardware_concurrency());
}

}  // namespace

WorkerPool& WorkerPool::forQualityOfService(QualityOfService qos) {
    // Never destroyed: workers may still be running when the process exits.
    switch (qos) {
        case QualityOfService::userInteractive:
        case QualityOfService::userInitiated:
        case QualityOfService::standard: {
            static WorkerPool* high = new WorkerPool("high", std::max(2U, hardwareThreads()));
            return *high;
        }
        case QualityOfService::utility:
        case QualityOfService::background:
            break;
    }
    static WorkerPool* low = new WorkerPool("low", std::max(2U, hardwareThreads() / 2));
    return *low;
}

WorkerPool::WorkerPool(const char* name, unsigned threadCount) : name_(name) {
    for (unsigned index = 0; index < threadCount; ++index) {
        std::thread([this, index] { workerMain(index); }).detach();
    }
}

void WorkerPool::post(PoolJob* job) noexcept {
    job->nextJob = nullptr;
    {
        UnfairLockGuard guard(lock_);
        if (tail_ == nullptr) {
            head_ = job;
        } else {
            tail_->nextJob = job;
        }
        tail_ = job;
    }
    // Sequentially consistent on both sides: a worker that stops spinning or goes to sleep
    // changes its count and then reads the queued count, so either it sees this job or we see
    // that it has stopped spinning and is (about to be) asleep.
    queuedCount_.fetch_add(1, std::memory_order_seq_cst);
    wakeOneIfNoneSpinning();
}

void WorkerPool::wakeOneIfNoneSpinning() noexcept {
    if (spinnerCount_.load(std::memory_order_seq_cst) == 0 &&
        sleeperCount_.load(std::memory_order_seq_cst) != 0) {
        wakeSequence_.fetch_add(1, std::memory_order_release);
        futexWake(wakeSequence_, 1);
    }
}

PoolJob* WorkerPool::take() noexcept {
    if (queuedCount_.load(std::memory_order_relaxed) <= 0) return nullptr;
    PoolJob* job = nullptr;
    {
        UnfairLockGuard guard(lock_);
        job = head_;
        if (job == nullptr) return nullptr;
        head_ = job->nextJob;
        if (head_ == nullptr) tail_ = nullptr;
    }
    queuedCount_.fetch_sub(1, std::memory_order_relaxed);
    return job;
}

void WorkerPool::waitForWork() noexcept {
    spinnerCount_.fetch_add(1, std::memory_order_seq_cst);
    for (int spin = 0; spin < idleSpinCount; ++spin) {
        if (queuedCount_.load(std::memory_order_relaxed) > 0) {
            spinnerCount_.fetch_sub(1, std::memory_order_seq_cst);
            return;
        }
        cpuRelax();
    }
    std::uint32_t sequence = wakeSequence_.load(std::memory_order_acquire);
    sleeperCount_.fetch_add(1, std::memory_order_seq_cst);
    spinnerCount_.fetch_sub(1, std::memory_order_seq_cst);
    if (queuedCount_.load(std::memory_order_seq_cst) <= 0) futexWait(wakeSequence_, sequence);
    sleeperCount_.fetch_sub(1, std::memory_order_seq_cst);
}

void WorkerPool::workerMain(unsigned index) noexcept {
    // Linux limits thread names to 15 characters: "mirels.high.0", "mirels.low.1".
    std::string threadName = "mirels." + name_ + "." + std::to_string(index);
    threadName.resize(std::min<std::size_t>(threadName.size(), 15));
    pthread_setname_np(pthread_self(), threadName.c_str());
    for (;;) {
        if (PoolJob* job = take()) {
            // Posts made while this worker was spinning woke nobody, counting on it; if more than
            // the one it took are waiting, pass the wake-up on.
            if (hasQueuedJobs()) wakeOneIfNoneSpinning();
            job->run(job);
        } else {
            waitForWork();
        }
    }
}

}  // namespace mirels::detail
