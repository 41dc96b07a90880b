// Helpers of the capture device's tests: callback recorders, awaiting conditions, the virtual
// camera's frame counters.
#ifndef TALVORO_TESTS_DEVICE_TEST_SUPPORT_H
#define TALVORO_TESTS_DEVICE_TEST_SUPPORT_H

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "device/Device.h"
#include "frame/FrameTestSupport.h"
#include "talvoro_vcam.h"

namespace devtest {

using namespace std::chrono_literals;
using Event = std::pair<int, int>;  // (event code, device index)

// Generous: the suites share two cores with other builds, and sanitizers slow them down.
constexpr auto kPatience = 30s;

inline Talvoro::DeviceInfo nodeInfo(const std::string& path) {
    Talvoro::DeviceInfo info{};
    std::strncpy(info.devicePath, path.c_str(), sizeof info.devicePath - 1);
    return info;
}

// Polls `condition` until it holds or `timeout` passes; for states only polling can see (the
// virtual camera's counters, the log file).
template <class Condition>
bool eventually(Condition condition, std::chrono::milliseconds timeout = kPatience) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

// Records the (event, index) pairs a callback receives, from any thread.
class Recorder {
  public:
    Talvoro::DeviceCallback callback() {
        return [this](int event, int index) { add(event, index); };
    }
    // Notifies under the lock: a waiter that returns may destroy the recorder at once.
    void add(int event, int index) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.emplace_back(event, index);
        changed_.notify_all();
    }
    std::vector<Event> events() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    size_t size() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_.size();
    }
    // Waits until at least `count` events arrived.
    bool waitFor(size_t count, std::chrono::milliseconds timeout = kPatience) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return events_.size() >= count; });
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Event> events_;
};

// A one-shot gate a callback can wait at.
class Gate {
  public:
    void open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        cond_.notify_all();
    }
    bool wait(std::chrono::milliseconds timeout = kPatience) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, timeout, [&] { return open_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable cond_;
    bool open_ = false;
};

inline talvoro_vcam::FrameCounters counters(const char* serial) {
    talvoro_vcam::FrameCounters c{};
    EXPECT_TRUE(talvoro_vcam::frameCounters(serial, &c)) << serial;
    return c;
}

// Fetches frames until one is processed (1) or `tries` fetches failed; the last result.
inline Talvoro::Result fetchFrame(Talvoro::Device& device, int tries = 100) {
    Talvoro::Result r = Talvoro::TimeoutError;
    for (int i = 0; i < tries && r != Talvoro::Ok; ++i)
        r = device.getframe();
    return r;
}

class VcamTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // These suites run under the launcher only; they must fail, not pass, without it.
        ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam";
    }
    // Level 7 lines of every capture start land in the working directory: a fresh one.
    talvoro_test::LogCapture log;
};

}  // namespace devtest

#endif
