// One callback slot of a Device: filled once, never replaced, called from the acquisition
// thread while application threads may register.
#ifndef TALVORO_DEVICE_CALLBACK_SLOT_H
#define TALVORO_DEVICE_CALLBACK_SLOT_H

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

#include "TalvoroSDK.h"
#include "log/Log.h"

namespace Talvoro {

class CallbackSlot {
  public:
    using Callback = std::function<void(int, int)>;

    // Ok, or FrameCallbackRegistrationFailed when the slot already holds a callable (kept).
    // An empty function is accepted and leaves the slot empty.
    Result set(Callback callback) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (filled_.load(std::memory_order_relaxed)) return FrameCallbackRegistrationFailed;
        if (!callback) return Ok;
        callable_ = std::make_shared<const Callback>(std::move(callback));
        filled_.store(true, std::memory_order_release);
        return Ok;
    }

    bool empty() const { return !filled_.load(std::memory_order_acquire); }

    // The callable, shared, so that it outlives its slot if the owner is destroyed inside the
    // call; null when the slot is empty. Once filled the pointer never changes, so readers need
    // no lock.
    std::shared_ptr<const Callback> get() const {
        return filled_.load(std::memory_order_acquire) ? callable_ : nullptr;
    }

  private:
    std::mutex mutex_;  // serialises registrations
    std::atomic<bool> filled_{false};
    std::shared_ptr<const Callback> callable_;
};

// Calls `callback` if there is one. Nothing a callback throws reaches the acquisition thread's
// top, where it would end the process.
inline void invoke(const std::shared_ptr<const CallbackSlot::Callback>& callback, int event,
                   int index) {
    if (!callback) return;
    try {
        (*callback)(event, index);
    } catch (...) {
        logCaughtException("a callback threw; ignored");
    }
}

}  // namespace Talvoro

#endif
