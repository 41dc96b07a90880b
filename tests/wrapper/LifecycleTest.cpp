// Library lifecycle and the camera list.
// wrapper.lifecycle: LIFE-A on /dev/video0, LIFE-B on /dev/video2. wrapper.no_camera: none.
#include "wrapper/ApiFixture.h"

namespace apitest {
namespace {

using Lifecycle = ApiTest;

TEST(NotInitialized, QueriesRefuseAndDeInitializeIsANoOp) {
    ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam";
    talvoro_test::TempDir dir(true);
    EXPECT_EQ(DeInitialize(), Ok);
    DeviceInfo info{};
    EXPECT_EQ(GetDeviceInfo(0, &info), NotInitialized);
    EXPECT_EQ(GetDeviceListInfo(1, &info), NotInitialized);
    // Nothing is registered, so no record names a camera.
    std::strcpy(info.serialNo, "LIFE-A");
    DeviceHandle h{};
    EXPECT_EQ(OpenDevice(info, &h), InvalidNode);
    EXPECT_EQ(IsOpened(handleOf("LIFE-A")), InvalidDeviceIndex);
    EXPECT_EQ(DeInitialize(), Ok);
}

TEST_F(Lifecycle, InitializeTwiceKeepsTheRegistryAndOpenCameras) {
    const DeviceHandle a = open("LIFE-A");
    EXPECT_EQ(Initialize(), Ok);
    EXPECT_EQ(IsOpened(a), CameraAlreadyOpen);
    EXPECT_EQ(IsOpened(handleOf("LIFE-B")), CameraNotOpened);
    ASSERT_TRUE(waitFor([&] { return GetNextFrame(a) == Ok; }));
}

TEST_F(Lifecycle, ListsTheCamerasInNodeOrder) {
    uint32_t count = 0;
    ASSERT_EQ(GetDeviceCount(&count), Ok);
    ASSERT_EQ(count, 2u);
    DeviceInfo list[2];
    ASSERT_EQ(GetDeviceListInfo(2, list), Ok);
    EXPECT_STREQ(list[1].serialNo, "LIFE-B");
    EXPECT_STREQ(list[1].devicePath, "/dev/video2");
    DeviceInfo info{}, three[3];
    EXPECT_EQ(GetDeviceListInfo(3, three), InvalidDeviceIndex);
    EXPECT_EQ(GetDeviceInfo(3, &info), InvalidDeviceIndex);
    // An index equal to the count passes the check and is answered by the enumeration itself.
    EXPECT_NE(GetDeviceInfo(2, &info), InvalidDeviceIndex);

    EXPECT_EQ(GetDeviceCount(nullptr), InvalidValue);
    EXPECT_EQ(GetDeviceInfo(0, nullptr), InvalidValue);
    EXPECT_EQ(GetDeviceListInfo(2, nullptr), InvalidValue);
}

TEST_F(Lifecycle, DeInitializeClosesAndForgetsEveryCamera) {
    const DeviceHandle a = open("LIFE-A");
    EventLog& frames = newEventLog();
    RegisterFrameCallback(a, frames.callback());
    ASSERT_TRUE(frames.waitFor(1, 0));
    ASSERT_EQ(DeInitialize(), Ok);
    EXPECT_EQ(IsOpened(a), InvalidDeviceIndex);
    EXPECT_EQ(CloseDevice(a), CameraNotOpened);
    DeviceInfo info{};
    EXPECT_EQ(GetDeviceInfo(0, &info), NotInitialized);

    // The video node was given back: a new registration opens and streams it again.
    ASSERT_EQ(Initialize(), Ok);
    opened_.clear();
    const DeviceHandle again = open("LIFE-A");
    EXPECT_EQ(IsOpened(again), CameraAlreadyOpen);
    ToFFrame depth{};
    EXPECT_TRUE(fetch(again, RawDepth, &depth));
}

TEST(NoCamera, ListQueriesReportNoCamera) {
    ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam";
    talvoro_test::TempDir dir(true);
    ASSERT_EQ(Initialize(), Ok);
    uint32_t count = 7;
    EXPECT_EQ(GetDeviceCount(&count), NoDeviceConnected);
    DeviceInfo info{};
    EXPECT_EQ(GetDeviceListInfo(1, &info), NoDeviceConnected);
    EXPECT_EQ(GetDeviceInfo(0, &info), NoDeviceConnected);
    EXPECT_EQ(DeInitialize(), Ok);
}

}  // namespace
}  // namespace apitest
