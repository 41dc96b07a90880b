// The device-list callback: cameras plugged in and out while the program runs are announced
// once each and in order, and the callback may call back into the library.
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "wrapper/ApiFixture.h"

namespace apitest {
namespace {

using Event = std::pair<DeviceListEvent, std::string>;

// Records the events; `react` runs inside the callback, after the event is recorded.
class ListEvents {
  public:
    std::function<void(DeviceListEvent, const char*)> callback(
        std::function<void(DeviceListEvent, const std::string&)> react = nullptr) {
        return [this, react](DeviceListEvent event, const char* serial) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                events_.emplace_back(event, serial);
            }
            if (react) react(event, serial);
            std::lock_guard<std::mutex> lock(mutex_);
            ++handled_;
            cond_.notify_all();
        };
    }
    // The first n events, once n have been handled (fewer after 30 s).
    std::vector<Event> first(std::size_t n) {
        std::unique_lock<std::mutex> lock(mutex_);
        cond_.wait_for(lock, std::chrono::seconds(30), [&] { return handled_ >= n; });
        return std::vector<Event>(events_.begin(), events_.begin() + std::min(n, events_.size()));
    }
    std::vector<Event> all() {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable cond_;
    std::vector<Event> events_;
    std::size_t handled_ = 0;
};

void plug(const char* serial) {
    std::string error;
    ASSERT_TRUE(talvoro_vcam::plug(serial, "", &error)) << serial << ": " << error;
}

void unplug(const char* serial) {
    std::string error;
    ASSERT_TRUE(talvoro_vcam::unplug(serial, &error)) << serial << ": " << error;
}

using DeviceList = ApiTest;

// wrapper.device_list_events: LIST-A and LIST-B plugged in, LIST-C known but not plugged in.
TEST_F(DeviceList, EventsArriveOnceEachInOrder) {
    ListEvents seen;
    ASSERT_EQ(RegisterDeviceListCallback(seen.callback()), Ok);
    // LIST-A open: its departure is also the unplug its notification callback reports.
    const DeviceHandle a = open("LIST-A");
    unplug("LIST-A");
    plug("LIST-C");
    unplug("LIST-B");
    plug("LIST-A");
    plug("LIST-B");
    unplug("LIST-A");
    // Events come in order: once the marker is there, nothing before it is still on its way.
    plug("LIST-MARK");
    const std::vector<Event> expected = {{DeviceLeft, "LIST-A"},      {DeviceArrived, "LIST-C"},
                                         {DeviceLeft, "LIST-B"},      {DeviceArrived, "LIST-A"},
                                         {DeviceArrived, "LIST-B"},   {DeviceLeft, "LIST-A"},
                                         {DeviceArrived, "LIST-MARK"}};
    EXPECT_EQ(seen.first(expected.size()), expected);
    EXPECT_EQ(seen.all(), expected);
    EXPECT_TRUE(waitFor([&] { return IsOpened(a) == InvalidDeviceIndex; }));
    opened_.clear();

    // Unregistered: nothing more, and a new callback hears only what happens from then on.
    ASSERT_EQ(RegisterDeviceListCallback(nullptr), Ok);
    unplug("LIST-C");
    ListEvents later;
    ASSERT_EQ(RegisterDeviceListCallback(later.callback()), Ok);
    plug("LIST-A");
    EXPECT_EQ(later.first(1), (std::vector<Event>{{DeviceArrived, "LIST-A"}}));
    EXPECT_EQ(seen.all(), expected);
    EXPECT_EQ(RegisterDeviceListCallback(nullptr), Ok);
}

// wrapper.device_list_reentrant: LIST-R.
TEST_F(DeviceList, CallbackCallsBackIntoTheLibrary) {
    std::mutex mutex;
    std::vector<std::string> results;
    auto note = [&](const std::string& what) {
        std::lock_guard<std::mutex> lock(mutex);
        results.push_back(what);
    };
    ListEvents seen;
    auto react = [&](DeviceListEvent event, const std::string& serial) {
        const DeviceHandle h = handleOf(serial);
        uint32_t count = 0;
        const Result counted = GetDeviceCount(&count);
        if (event == DeviceLeft) {
            // Closing a camera that is going away, beside its own unplug handling.
            CloseDevice(h);
            note("left: count " + std::to_string(counted));
            return;
        }
        std::vector<DeviceInfo> list(count);
        const Result listed = count ? GetDeviceListInfo(count, list.data()) : NoDeviceConnected;
        // Opening may or may not work this early; either way it must come back.
        DeviceHandle opened{};
        if (listed == Ok) OpenDevice(list[0], &opened);
        CloseDevice(h);
        note("arrived: count " + std::to_string(counted) + " listed " + std::to_string(listed) +
             " " + (listed == Ok ? list[0].serialNo : "") + " unregister " +
             std::to_string(RegisterDeviceListCallback(nullptr)));
    };
    ASSERT_EQ(RegisterDeviceListCallback(seen.callback(react)), Ok);
    const DeviceHandle h = open("LIST-R");
    unplug("LIST-R");
    ASSERT_EQ(seen.first(1).size(), 1u);
    // Closed by the callback or by the unplug handling (which then unregisters it), whichever
    // came first.
    ASSERT_TRUE(waitFor([&] { return IsOpened(h) != CameraAlreadyOpen; }));
    plug("LIST-R");
    ASSERT_EQ(seen.first(2).size(), 2u);
    // The callback unregistered itself: this departure is not announced.
    unplug("LIST-R");
    plug("LIST-R");
    ListEvents marker;
    ASSERT_EQ(RegisterDeviceListCallback(marker.callback()), Ok);
    unplug("LIST-R");
    ASSERT_EQ(marker.first(1).size(), 1u);
    EXPECT_EQ(RegisterDeviceListCallback(nullptr), Ok);

    EXPECT_EQ(seen.all(), (std::vector<Event>{{DeviceLeft, "LIST-R"}, {DeviceArrived, "LIST-R"}}));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(results, (std::vector<std::string>{"left: count -9",
                                                 "arrived: count 1 listed 1 LIST-R unregister 1"}));
    // Registered again from the callback and closed: unplugging it leaves it so.
    EXPECT_EQ(IsOpened(h), CameraNotOpened);
    opened_.clear();
}

// Fetches frames on a thread of its own until stopped; counts those that came.
class Fetcher {
  public:
    explicit Fetcher(const DeviceHandle& h)
        : thread_([this, h] {
              while (!stop_)
                  if (GetNextFrame(h) == Ok) ++fetched_;
          }) {}
    ~Fetcher() { stop(); }
    void stop() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }
    int fetched() const { return fetched_; }

  private:
    std::atomic<bool> stop_{false};
    std::atomic<int> fetched_{0};
    std::thread thread_;
};

talvoro_vcam::FrameCounters countersOf(const char* serial) {
    talvoro_vcam::FrameCounters c{};
    EXPECT_TRUE(talvoro_vcam::frameCounters(serial, &c)) << serial;
    return c;
}

// wrapper.replug_soak: SOAK-A and SOAK-B at 10 frames/s, SOAK-C. The third camera is unplugged
// and plugged back twenty times while the other two stream: each coming and going is announced
// once, in order, and the two lose no frame to it (the camera drops a frame only when it finds
// no buffer queued, that is when the library's capture thread stalls).
TEST_F(DeviceList, TwoCamerasStreamOnWhileAThirdComesAndGoes) {
    ListEvents seen;
    ASSERT_EQ(RegisterDeviceListCallback(seen.callback()), Ok);
    const DeviceHandle a = open("SOAK-A"), b = open("SOAK-B"), c = open("SOAK-C");
    ASSERT_EQ(SetDataMode(a, Depth_IR_Mode), Ok);
    ASSERT_EQ(SetDataMode(b, Depth_IR_Mode), Ok);
    Fetcher fetchA(a), fetchB(b);
    ASSERT_TRUE(waitFor([&] { return fetchA.fetched() > 0 && fetchB.fetched() > 0; }));
    const auto beforeA = countersOf("SOAK-A"), beforeB = countersOf("SOAK-B");

    std::vector<Event> expected;
    for (int cycle = 0; cycle < 20; ++cycle) {
        unplug("SOAK-C");
        expected.emplace_back(DeviceLeft, "SOAK-C");
        ASSERT_EQ(seen.first(expected.size()), expected) << "cycle " << cycle;
        plug("SOAK-C");
        expected.emplace_back(DeviceArrived, "SOAK-C");
        ASSERT_EQ(seen.first(expected.size()), expected) << "cycle " << cycle;
        // A frame of each of the other two in every cycle: they stream all along.
        const int a0 = fetchA.fetched(), b0 = fetchB.fetched();
        ASSERT_TRUE(waitFor([&] { return fetchA.fetched() > a0 && fetchB.fetched() > b0; }));
    }
    // Open when it was first unplugged: closed and unregistered by the unplug handling.
    EXPECT_TRUE(waitFor([&] { return IsOpened(c) == InvalidDeviceIndex; }));
    const auto afterA = countersOf("SOAK-A"), afterB = countersOf("SOAK-B");
    fetchA.stop();
    fetchB.stop();

    EXPECT_EQ(seen.all(), expected);
    EXPECT_EQ(afterA.dropped, beforeA.dropped);
    EXPECT_EQ(afterB.dropped, beforeB.dropped);
    EXPECT_EQ(IsOpened(a), CameraAlreadyOpen);
    EXPECT_EQ(IsOpened(b), CameraAlreadyOpen);
    EXPECT_EQ(RegisterDeviceListCallback(nullptr), Ok);
}

// wrapper.replug_reopen: REOPEN-1 alone. Unplugged while open, plugged back, found by a rescan
// and opened again, it streams again, every time.
TEST_F(DeviceList, ReopenedAfterReplugItStreamsAgain) {
    for (int cycle = 0; cycle < 3; ++cycle) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        const DeviceHandle h = open("REOPEN-1");
        ToFFrame depth{};
        ASSERT_TRUE(fetch(h, RawDepth, &depth));
        unplug("REOPEN-1");
        ASSERT_TRUE(waitFor([&] { return IsOpened(h) == InvalidDeviceIndex; }));
        opened_.clear();
        plug("REOPEN-1");
        uint32_t count = 0;
        ASSERT_TRUE(waitFor([&] { return GetDeviceCount(&count) == Ok && count == 1; }));
    }
    const DeviceHandle h = open("REOPEN-1");
    ToFFrame depth{};
    EXPECT_TRUE(fetch(h, RawDepth, &depth));
}

}  // namespace
}  // namespace apitest
