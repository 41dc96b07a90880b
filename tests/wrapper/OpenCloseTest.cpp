// Opening and closing cameras, and the answers for cameras that are not open.
// wrapper.lifecycle: LIFE-A on /dev/video0, LIFE-B on /dev/video2.
#include <atomic>

#include "wrapper/ApiFixture.h"

namespace apitest {
namespace {

using OpenClose = ApiTest;

TEST_F(OpenClose, OpeningTwiceRefusesTheSecondAndKeepsStreaming) {
    const DeviceInfo info = infoOf("LIFE-A");
    DeviceHandle h{};
    ASSERT_EQ(OpenDevice(info, &h), Ok);
    opened_.push_back(h);
    EXPECT_STREQ(h.serialNo, "LIFE-A");
    DeviceHandle second{};
    EXPECT_EQ(OpenDevice(info, &second), CameraAlreadyOpen);
    EXPECT_STREQ(second.serialNo, "");
    EXPECT_EQ(IsOpened(h), CameraAlreadyOpen);
    ToFFrame depth{};
    EXPECT_TRUE(fetch(h, RawDepth, &depth));
    EXPECT_EQ(OpenDevice(info, nullptr), InvalidValue);
}

TEST_F(OpenClose, ClosedAndUnknownCamerasAnswerNotOpened) {
    const DeviceHandle b = handleOf("LIFE-B");  // registered, never opened
    EXPECT_EQ(CloseDevice(b), CameraNotOpened);
    EXPECT_EQ(IsOpened(b), CameraNotOpened);

    const DeviceHandle unknown = handleOf("NOT-A-CAMERA");
    EXPECT_EQ(CloseDevice(unknown), CameraNotOpened);
    EXPECT_EQ(IsOpened(unknown), InvalidDeviceIndex);
    DataMode mode = RGB_VGA_Mode;
    EXPECT_EQ(GetDataMode(unknown, &mode), CameraNotOpened);
    EXPECT_EQ(mode, RGB_VGA_Mode);
    EXPECT_EQ(SetTOFExposure(unknown, 100), CameraNotOpened);
    EXPECT_EQ(GetFramesPerSecond(unknown), CameraNotOpened);
    EXPECT_EQ(SetPlanarization(unknown, 1), CameraNotOpened);
    EXPECT_EQ(GetNextFrame(b), CameraNotOpened);
    EXPECT_EQ(SetSceneMode(b, 0), CameraNotOpened);

    DeviceInfo info{};
    std::strcpy(info.serialNo, "NOT-A-CAMERA");
    DeviceHandle h{};
    EXPECT_EQ(OpenDevice(info, &h), InvalidNode);
}

TEST_F(OpenClose, CloseThenOpenAgain) {
    const DeviceHandle a = open("LIFE-A");
    ASSERT_EQ(CloseDevice(a), Ok);
    EXPECT_EQ(IsOpened(a), CameraNotOpened);
    EXPECT_EQ(CloseDevice(a), CameraNotOpened);
    EXPECT_EQ(GetNextFrame(a), CameraNotOpened);
    const DeviceHandle again = open("LIFE-A");
    ToFFrame depth{};
    EXPECT_TRUE(fetch(again, RawDepth, &depth));
    // Every step of the opening is in the log (level 7 passes the default threshold).
    const std::string log = logText();
    EXPECT_NE(log.find("TalvoroSDK:before isValidIndex : "), std::string::npos);
    EXPECT_NE(log.find("TalvoroSDK:info.devicePath : /dev/video0"), std::string::npos);
    EXPECT_NE(log.find("TalvoroSDK:Board Config Data : 2104"), std::string::npos);
    EXPECT_NE(log.find("TalvoroSDK:before closeUVC :"), std::string::npos);
}

TEST_F(OpenClose, AChannelThatCannotOpenLeavesTheCameraClosed) {
    ASSERT_TRUE(talvoro_vcam::injectFault("LIFE-B", "hid-open-fail"));
    const DeviceInfo info = infoOf("LIFE-B");
    DeviceHandle h{};
    EXPECT_EQ(OpenDevice(info, &h), CameraNotOpened);
    EXPECT_EQ(IsOpened(handleOf("LIFE-B")), CameraNotOpened);
    ASSERT_TRUE(talvoro_vcam::clearFault("LIFE-B", "hid-open-fail"));
    // Nothing was left half open: the next attempt opens and streams.
    const DeviceHandle b = open("LIFE-B");
    EXPECT_EQ(IsOpened(b), CameraAlreadyOpen);
    ToFFrame depth{};
    EXPECT_TRUE(fetch(b, RawDepth, &depth));
}

// Kept as it is: the failure after the camera was marked open closes it, yet reports Ok.
TEST_F(OpenClose, AnUnreadableDepthRangeClosesTheCameraYetReportsOk) {
    ASSERT_TRUE(talvoro_vcam::injectFault("LIFE-B", "xu-fail:0x19"));
    const DeviceInfo info = infoOf("LIFE-B");
    DeviceHandle h{};
    EXPECT_EQ(OpenDevice(info, &h), Ok);
    ASSERT_TRUE(talvoro_vcam::clearFault("LIFE-B", "xu-fail"));
    EXPECT_EQ(IsOpened(h), CameraNotOpened);
    EXPECT_NE(logText().find("TalvoroSDK:OpenDevice - GetDepthRange failed "), std::string::npos);
    // The camera counts as open, so the next open first closes what is left, then opens.
    const DeviceHandle b = open("LIFE-B");
    EXPECT_EQ(IsOpened(b), CameraAlreadyOpen);
}

TEST_F(OpenClose, ACallbackClosingWhileTheApplicationClosesDoesNotDeadlock) {
    const DeviceHandle h = open("LIFE-A");
    std::atomic<int> stage{0};
    std::atomic<int> fromCallback{Ok};
    RegisterFrameCallback(h, [&](int, int) {
        int first = 0;
        if (!stage.compare_exchange_strong(first, 1)) return;
        // Once the application thread is inside its CloseDevice (which joins this thread), close
        // as well.
        waitFor([&] { return logText().find("Closedevice index is") != std::string::npos; });
        fromCallback = CloseDevice(h);
        stage = 2;
    });
    ASSERT_TRUE(waitFor([&] { return stage >= 1; }));
    EXPECT_EQ(CloseDevice(h), Ok);
    EXPECT_EQ(stage, 2);
    EXPECT_EQ(fromCallback, OperationFailed);
    EXPECT_EQ(IsOpened(h), CameraNotOpened);
}

}  // namespace
}  // namespace apitest
