// A condition variable that waits for absolute CLOCK_MONOTONIC deadlines, so that frame pacing
// follows the clock the buffers' time stamps use and ignores changes of the wall clock.
#ifndef TALVORO_VCAM_MONOTONIC_COND_H
#define TALVORO_VCAM_MONOTONIC_COND_H

#include <pthread.h>
#include <time.h>

#include <cstdint>
#include <mutex>

namespace vcam {

inline uint64_t monotonicNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

class MonotonicCond {
  public:
    MonotonicCond() {
        pthread_condattr_t attr;
        pthread_condattr_init(&attr);
        pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
        pthread_cond_init(&cond_, &attr);
        pthread_condattr_destroy(&attr);
    }
    ~MonotonicCond() { pthread_cond_destroy(&cond_); }
    MonotonicCond(const MonotonicCond&) = delete;
    MonotonicCond& operator=(const MonotonicCond&) = delete;

    void wait(std::unique_lock<std::mutex>& lock) {
        pthread_cond_wait(&cond_, lock.mutex()->native_handle());
    }
    // Returns early on a notification or a spurious wake-up; callers re-check their condition.
    void waitUntil(std::unique_lock<std::mutex>& lock, uint64_t deadlineNs) {
        timespec ts;
        ts.tv_sec = static_cast<time_t>(deadlineNs / 1000000000u);
        ts.tv_nsec = static_cast<long>(deadlineNs % 1000000000u);
        pthread_cond_timedwait(&cond_, lock.mutex()->native_handle(), &ts);
    }
    void notifyAll() { pthread_cond_broadcast(&cond_); }

  private:
    pthread_cond_t cond_;
};

}  // namespace vcam

#endif
