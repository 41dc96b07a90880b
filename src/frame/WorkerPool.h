// A fixed set of worker threads that run one task per worker and are kept between calls, so a
// per-frame parallel step costs neither thread creation nor allocation.
#ifndef TALVORO_FRAME_WORKER_POOL_H
#define TALVORO_FRAME_WORKER_POOL_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace Talvoro::frame {

class WorkerPool {
  public:
    using Task = void (*)(void* context, unsigned index);

    explicit WorkerPool(unsigned workers);
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    unsigned size() const { return workers_; }

    // Runs task(context, i) for every i below size(), one per worker, and returns when all have
    // finished. The workers start at the first call. If they cannot be started the tasks run on
    // the calling thread instead: the results are the same.
    void run(Task task, void* context);

    // Runs body(begin, end) over [0, n) cut into size() contiguous pieces, one per worker.
    template <class Body>
    void split(size_t n, Body body) {
        struct Job {
            Body* body;
            size_t n;
            unsigned pieces;
        } job{&body, n, workers_};
        run(
            [](void* context, unsigned i) {
                const Job& j = *static_cast<Job*>(context);
                (*j.body)(j.n * i / j.pieces, j.n * (i + 1) / j.pieces);
            },
            &job);
    }

  private:
    void start();
    void loop(unsigned index);

    const unsigned workers_;
    std::vector<std::thread> threads_;
    bool started_ = false;

    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable finished_;
    uint64_t generation_ = 0;
    unsigned pending_ = 0;
    bool stopping_ = false;
    Task task_ = nullptr;
    void* context_ = nullptr;
};

}  // namespace Talvoro::frame

#endif
