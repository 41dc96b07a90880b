// The threads that share one step of a frame: the calling thread and a few helper threads kept
// between calls, so a parallel step costs neither thread creation nor allocation. The step is
// cut into pieces that each thread claims in turn; the caller works too and takes whatever no
// helper has taken, so a step never waits for a helper that did not get a core. Helpers are
// batch threads, whose wake-up never preempts a running thread: with only one core free the
// work simply runs on the calling thread.
#ifndef TALVORO_FRAME_WORKER_POOL_H
#define TALVORO_FRAME_WORKER_POOL_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace Talvoro::frame {

// The cores this process may run on (its CPU affinity), at least 1.
unsigned availableCores();

// Caps the threads (caller included) of every call of every pool; 0 lifts the cap. Process-wide;
// tests and benchmarks compare thread counts with it.
void setThreadLimit(unsigned threads);

class WorkerPool {
  public:
    // slot: the running thread's number, below slots(): the caller is 0.
    using Task = void (*)(void* context, size_t piece, unsigned slot);

    // helpers: threads besides the caller; by default one per available core but the caller's.
    WorkerPool();
    explicit WorkerPool(unsigned helpers);
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // Threads a call uses now: the caller and the helpers, within the limit.
    unsigned threads() const;
    // Slot numbers a task may be given (per-thread work memory): the caller and every helper.
    unsigned slots() const { return helpers_ + 1; }

    // How many pieces to cut a step into: one when the caller works alone, else a few per
    // thread, so that a thread that starts late still finds its share.
    size_t pieces() const { return threads() > 1 ? 4 * size_t(threads()) : 1; }

    // Runs task(context, i, slot) for every i below pieces, on the caller and the helpers, and
    // returns when all are done. The helpers start at the first call; if they cannot be started the
    // caller does everything. Calls from several threads take turns.
    void run(size_t pieces, Task task, void* context);

    // Runs body(begin, end, slot) over [0, n) cut into `pieces` contiguous ranges of about equal
    // size.
    template <class Body>
    void forEach(size_t n, size_t pieces, Body body) {
        if (pieces > n) pieces = n;
        if (pieces <= 1) {
            if (n > 0) body(size_t(0), n, 0u);
            return;
        }
        struct Job {
            Body* body;
            size_t n, pieces;
        } job{&body, n, pieces};
        run(
            pieces,
            [](void* context, size_t i, unsigned slot) {
                const Job& j = *static_cast<Job*>(context);
                (*j.body)(j.n * i / j.pieces, j.n * (i + 1) / j.pieces, slot);
            },
            &job);
    }

  private:
    void start();
    void loop(unsigned index);
    void claim(unsigned slot);

    const unsigned helpers_;
    std::vector<std::thread> threads_;
    bool started_ = false;
    std::mutex callMutex_;  // one call at a time

    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable idle_;
    uint64_t generation_ = 0;
    unsigned participants_ = 0;  // helpers that may join the current call
    unsigned busy_ = 0;          // helpers inside the current call
    bool stopping_ = false;
    Task task_ = nullptr;  // null between calls
    void* context_ = nullptr;
    size_t pieces_ = 0;
    std::atomic<size_t> next_{0};
    std::atomic<unsigned> active_{0};  // helpers inside the current call, read without the lock
};

}  // namespace Talvoro::frame

#endif
