// Unplugging: the lost camera is closed and unregistered on its own capture thread, the
// cameras after it move up, and application threads calling meanwhile are not disturbed.
// Each test has a launcher run of its own (an unplugged camera stays unplugged).
#include <atomic>
#include <thread>

#include "wrapper/ApiFixture.h"

namespace apitest {
namespace {

using Hotplug = ApiTest;

// wrapper.unplug_second_of_three: HP-1, HP-2, HP-3 on /dev/video0, 2, 4.
TEST_F(Hotplug, SecondOfThree) {
    const DeviceHandle h1 = open("HP-1"), h2 = open("HP-2"), h3 = open("HP-3");
    EventLog &notes1 = newEventLog(), &notes2 = newEventLog(), &notes3 = newEventLog();
    EventLog& frames3 = newEventLog();
    RegisterNotificationCallback(h1, notes1.callback());
    RegisterNotificationCallback(h2, notes2.callback());
    RegisterNotificationCallback(h3, notes3.callback());
    RegisterFrameCallback(h3, frames3.callback());
    ASSERT_TRUE(frames3.waitFor(1, 2));

    ASSERT_TRUE(talvoro_vcam::injectFault("HP-2", "unplug"));
    ASSERT_TRUE(notes2.waitFor(1, 1));
    ASSERT_TRUE(waitFor([&] { return IsOpened(h2) == InvalidDeviceIndex; }));
    EXPECT_EQ(CloseDevice(h2), CameraNotOpened);
    EXPECT_EQ(GetNextFrame(h2), CameraNotOpened);

    // The third camera is now second: its handle still resolves and its Device was told.
    EXPECT_EQ(IsOpened(h1), CameraAlreadyOpen);
    EXPECT_EQ(IsOpened(h3), CameraAlreadyOpen);
    frames3.clear();
    ASSERT_TRUE(frames3.waitFor(1, 1));
    ToFFrame depth{};
    EXPECT_TRUE(fetch(h3, RawDepth, &depth));
    EXPECT_TRUE(fetch(h1, RawDepth, &depth));
    EXPECT_TRUE(notes1.events().empty());
    EXPECT_TRUE(notes3.events().empty());

    // The registry is down to two; a rescan finds the same two and registers nothing.
    uint32_t count = 0;
    ASSERT_EQ(GetDeviceCount(&count), Ok);
    EXPECT_EQ(count, 2u);
    DeviceInfo list[2];
    ASSERT_EQ(GetDeviceListInfo(2, list), Ok);
    EXPECT_STREQ(list[1].serialNo, "HP-3");
    EXPECT_EQ(CloseDevice(h3), Ok);
}

// wrapper.unplug_without_callback: HP-QUIET alone.
TEST_F(Hotplug, WithoutApplicationCallback) {
    const DeviceHandle h = open("HP-QUIET");
    ASSERT_TRUE(waitFor([&] { return GetNextFrame(h) == Ok; }));
    ASSERT_TRUE(talvoro_vcam::injectFault("HP-QUIET", "unplug"));
    ASSERT_TRUE(waitFor([&] { return IsOpened(h) == InvalidDeviceIndex; }));
    uint32_t count = 5;
    EXPECT_EQ(GetDeviceCount(&count), NoDeviceConnected);
}

// wrapper.unplug_under_load: HP-GONE on /dev/video0 and HP-STAYS on /dev/video2.
TEST_F(Hotplug, WhileOtherThreadsCall) {
    const DeviceHandle gone = open("HP-GONE"), stays = open("HP-STAYS");
    std::atomic<bool> stop{false};
    std::atomic<int> framesAfter{0};
    std::atomic<bool> erased{false};
    std::thread frames([&] {
        ToFFrame f{};
        while (!stop) {
            if (GetNextFrame(stays) == Ok && GetToFFrame(stays, RawDepth, &f) == Ok && erased)
                ++framesAfter;
            Talvoro::DataMode mode;
            GetDataMode(stays, &mode);
        }
    });
    std::thread registry([&] {
        while (!stop) {
            IsOpened(gone);
            IsOpened(stays);
            SetPlanarization(gone, 0);
            GetFramesPerSecond(stays);
        }
    });
    const bool injected = talvoro_vcam::injectFault("HP-GONE", "unplug");
    const bool unregistered =
        injected && waitFor([&] { return IsOpened(gone) == InvalidDeviceIndex; });
    erased = true;
    const bool kept = waitFor([&] { return framesAfter >= 10; });
    stop = true;
    frames.join();
    registry.join();
    ASSERT_TRUE(unregistered);
    EXPECT_TRUE(kept);
    EXPECT_EQ(IsOpened(stays), CameraAlreadyOpen);
    // The rescan comes after: run beside the unplug, its directory descriptors and the log's
    // files reuse each other's numbers, which the thread checker under the virtual camera's
    // preloads takes for a race.
    uint32_t count = 0;
    EXPECT_EQ(GetDeviceCount(&count), Ok);
    EXPECT_EQ(count, 1u);
}

}  // namespace
}  // namespace apitest
