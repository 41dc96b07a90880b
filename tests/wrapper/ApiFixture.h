// The public interface under the virtual camera: a fixture that initialises the library in a
// working directory of its own (the calibration files and the log land there) and helpers to
// open cameras, fetch frames and await conditions.
#ifndef TALVORO_TESTS_WRAPPER_API_FIXTURE_H
#define TALVORO_TESTS_WRAPPER_API_FIXTURE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TalvoroSDK.h"
#include "common/TempDir.h"
#include "talvoro_vcam.h"

namespace apitest {

using namespace Talvoro;

// Polls `condition` until it holds or `timeout` passes; generous, for loaded machines.
inline bool waitFor(const std::function<bool()>& condition,
                    std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

inline DeviceHandle handleOf(const std::string& serial) {
    DeviceHandle h{};
    std::strncpy(h.serialNo, serial.c_str(), sizeof h.serialNo - 1);
    return h;
}

// Events a callback received, to be awaited from the test's thread.
class EventLog {
  public:
    std::function<void(int, int)> callback() {
        return [this](int event, int index) {
            std::lock_guard<std::mutex> lock(mutex_);
            events_.emplace_back(event, index);
            cond_.notify_all();
        };
    }
    bool waitFor(int event, int index, std::chrono::seconds timeout = std::chrono::seconds(30)) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, timeout, [&] {
            return std::find(events_.begin(), events_.end(), std::make_pair(event, index)) !=
                   events_.end();
        });
    }
    std::vector<std::pair<int, int>> events() {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.clear();
    }

  private:
    std::mutex mutex_;
    std::condition_variable cond_;
    std::vector<std::pair<int, int>> events_;
};

class ApiTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // These suites run under the launcher only; they must fail, not pass, without it.
        ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam";
        ASSERT_FALSE(dir_.path().empty());
        ASSERT_EQ(Initialize(), Ok);
    }

    void TearDown() override {
        // The camera keeps its format and frame mode for the next test: back to data mode 4.
        for (const DeviceHandle& h : opened_)
            if (IsOpened(h) == CameraAlreadyOpen) SetDataMode(h, Depth_IR_RGB_VGA_Mode);
        EXPECT_EQ(DeInitialize(), Ok);
    }

    DeviceInfo infoOf(const std::string& serial) {
        uint32_t count = 0;
        EXPECT_EQ(GetDeviceCount(&count), Ok);
        std::vector<DeviceInfo> list(count);
        EXPECT_EQ(GetDeviceListInfo(count, list.data()), Ok);
        for (const DeviceInfo& info : list)
            if (serial == info.serialNo) return info;
        ADD_FAILURE() << "no camera " << serial;
        return DeviceInfo{};
    }

    // Opens the camera; the handle names it whether or not that worked (check with IsOpened).
    DeviceHandle open(const std::string& serial) {
        DeviceHandle h{};
        EXPECT_EQ(OpenDevice(infoOf(serial), &h), Ok) << serial;
        EXPECT_STREQ(h.serialNo, serial.c_str());
        opened_.push_back(handleOf(serial));
        return handleOf(serial);
    }

    // Processes frames until one yields the image (a newer capture between fetch and read asks
    // for another round).
    static bool fetch(const DeviceHandle& h, FrameType type, ToFFrame* frame) {
        return waitFor([&] { return GetNextFrame(h) == Ok && GetToFFrame(h, type, frame) == Ok; });
    }

    // Whether the current data mode refuses the image type (a newer capture between fetch and
    // read asks for another round here too).
    static bool refuses(const DeviceHandle& h, FrameType type) {
        ToFFrame frame{};
        return waitFor([&] {
            return GetNextFrame(h) == Ok && GetToFFrame(h, type, &frame) == InvalidFrameType;
        });
    }

    // The log file(s) of this process written into the working directory, concatenated.
    std::string logText() const {
        std::string text;
        for (const auto& entry : std::filesystem::directory_iterator(dir_.path()))
            if (entry.path().filename().string().rfind("Talvoro_Log_", 0) == 0)
                text += talvoro_test::readFile(entry.path().string());
        return text;
    }

    bool exists(const std::string& file) const { return std::filesystem::exists(dir_.file(file)); }

    // An event log for callbacks: it lives as long as the fixture, beyond DeInitialize, since a
    // camera keeps its callbacks until it is unregistered.
    EventLog& newEventLog() { return logs_.emplace_back(); }

    talvoro_test::TempDir dir_{true};
    std::vector<DeviceHandle> opened_;
    std::deque<EventLog> logs_;
};

}  // namespace apitest

#endif
