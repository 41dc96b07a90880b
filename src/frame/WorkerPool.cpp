#include "frame/WorkerPool.h"

#include <system_error>

namespace Talvoro::frame {

WorkerPool::WorkerPool(unsigned workers) : workers_(workers) {}

WorkerPool::~WorkerPool() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    for (std::thread& t : threads_)
        t.join();
}

void WorkerPool::start() {
    started_ = true;
    try {
        threads_.reserve(workers_);
        for (unsigned i = 0; i < workers_; ++i)
            threads_.emplace_back(&WorkerPool::loop, this, i);
    } catch (const std::exception&) {
        // Fewer threads than workers: run() does the work of the missing ones itself.
    }
}

void WorkerPool::run(Task task, void* context) {
    if (!started_) start();
    const unsigned running = unsigned(threads_.size());
    if (running > 0) {
        std::unique_lock<std::mutex> lock(mutex_);
        task_ = task;
        context_ = context;
        pending_ = running;
        ++generation_;
        lock.unlock();
        wake_.notify_all();
    }
    for (unsigned i = running; i < workers_; ++i)
        task(context, i);
    if (running > 0) {
        std::unique_lock<std::mutex> lock(mutex_);
        finished_.wait(lock, [this] { return pending_ == 0; });
    }
}

void WorkerPool::loop(unsigned index) {
    uint64_t seen = 0;
    for (;;) {
        Task task;
        void* context;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            wake_.wait(lock, [&] { return stopping_ || generation_ != seen; });
            if (stopping_) return;
            seen = generation_;
            task = task_;
            context = context_;
        }
        task(context, index);
        std::lock_guard<std::mutex> lock(mutex_);
        if (--pending_ == 0) finished_.notify_one();
    }
}

}  // namespace Talvoro::frame
