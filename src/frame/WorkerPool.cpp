#include "frame/WorkerPool.h"

#include <sched.h>

#include <algorithm>
#include <chrono>
#include <system_error>

namespace Talvoro::frame {

namespace {

std::atomic<unsigned> threadLimit{0};

inline void pause() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

}  // namespace

unsigned availableCores() {
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof set, &set) == 0) return std::max(1, CPU_COUNT(&set));
    return std::max(1u, std::thread::hardware_concurrency());
}

void setThreadLimit(unsigned threads) {
    threadLimit.store(threads, std::memory_order_relaxed);
}

WorkerPool::WorkerPool() : WorkerPool(availableCores() - 1) {}

WorkerPool::WorkerPool(unsigned helpers) : helpers_(helpers) {}

WorkerPool::~WorkerPool() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    for (std::thread& t : threads_)
        t.join();
}

unsigned WorkerPool::threads() const {
    const unsigned all = helpers_ + 1;
    const unsigned limit = threadLimit.load(std::memory_order_relaxed);
    return limit == 0 ? all : std::min(all, limit);
}

void WorkerPool::start() {
    started_ = true;
    try {
        threads_.reserve(helpers_);
        for (unsigned i = 0; i < helpers_; ++i)
            threads_.emplace_back(&WorkerPool::loop, this, i);
    } catch (const std::exception&) {
        // Fewer helpers than asked for: the caller claims their share.
    }
}

void WorkerPool::claim(unsigned slot) {
    for (size_t i; (i = next_.fetch_add(1, std::memory_order_relaxed)) < pieces_;)
        task_(context_, i, slot);
}

void WorkerPool::run(size_t pieces, Task task, void* context) {
    std::lock_guard<std::mutex> call(callMutex_);
    const unsigned helping = threads() - 1;
    if (pieces > 1 && helping > 0 && !started_) start();
    const unsigned running = std::min<unsigned>(helping, unsigned(threads_.size()));
    if (pieces <= 1 || running == 0) {
        for (size_t i = 0; i < pieces; ++i)
            task(context, i, 0);
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        task_ = task;
        context_ = context;
        pieces_ = pieces;
        next_.store(0, std::memory_order_relaxed);
        participants_ = running;
        ++generation_;
    }
    wake_.notify_all();
    claim(0);
    // A helper still at work is finishing its last piece: wait a little on this core before
    // giving the core away and waiting to be woken.
    const auto spinEnd = std::chrono::steady_clock::now() + std::chrono::microseconds(50);
    while (active_.load(std::memory_order_acquire) > 0 &&
           std::chrono::steady_clock::now() < spinEnd) {
        for (int i = 0; i < 16; ++i)
            pause();
    }
    std::unique_lock<std::mutex> lock(mutex_);
    idle_.wait(lock, [this] { return busy_ == 0; });
    // A helper that wakes only now finds no task and sleeps again.
    task_ = nullptr;
}

void WorkerPool::loop(unsigned index) {
    // A batch thread's wake-up never preempts a running thread: with no core free, the caller
    // does the work itself instead of handing its core to a helper.
    sched_param none{};
    sched_setscheduler(0, SCHED_BATCH, &none);
    uint64_t seen = 0;
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        wake_.wait(lock, [&] { return stopping_ || generation_ != seen; });
        if (stopping_) return;
        seen = generation_;
        if (!task_ || index >= participants_) continue;
        ++busy_;
        active_.fetch_add(1, std::memory_order_relaxed);
        lock.unlock();
        claim(index + 1);
        active_.fetch_sub(1, std::memory_order_release);
        lock.lock();
        if (--busy_ == 0) idle_.notify_one();
    }
}

}  // namespace Talvoro::frame
