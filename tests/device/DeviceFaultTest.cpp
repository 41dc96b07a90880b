// The Device when the camera goes away, stops sending or lies about its buffers.
#include <memory>

#include <gtest/gtest.h>

#include "DeviceTestSupport.h"

using namespace Talvoro;
using namespace devtest;

namespace {

using Unplug = VcamTest;
using Stall = VcamTest;
using Lies = VcamTest;

// device.unplug: GONE-1 on /dev/video0, GONE-2 on /dev/video2, GONE-3 on /dev/video4.
TEST_F(Unplug, NotifiesOnceAndStoppingAfterwardsNeitherStreamsOffNorJoins) {
    talvoro_test::LogCapture log;
    Recorder frames, events;  // the wrapper's events are recorded as 100 + event
    Gate release;
    Device device(0);
    device.setDeviceIndex(2, "GONE-1");
    device.registerFrameCallback(frames.callback());
    device.registerNotificationCallback([&](int event, int index) {
        events.add(event, index);
        release.wait();
    });
    device.registerWrapperNotificationCallback(
        [&](int event, int index) { events.add(100 + event, index); });
    ASSERT_TRUE(device.open(nodeInfo("/dev/video0")));
    ASSERT_TRUE(frames.waitFor(3));

    ASSERT_TRUE(talvoro_vcam::injectFault("GONE-1", "unplug"));
    ASSERT_TRUE(events.waitFor(1));
    // Told apart from a driver failing otherwise.
    EXPECT_EQ(log.count("\nTalvoroSDK:stream lost, VIDIOC_DQBUF: No such device (camera gone)   2"
                        "   GONE-1\n"),
              1u);
    // The acquisition thread is still inside the application's callback. A STREAMOFF would
    // fail on the gone camera (and the stop with it); a join would wait for ever.
    EXPECT_FALSE(device.isStreaming());
    EXPECT_EQ(device.deinitCapture(), 1);
    EXPECT_EQ(device.closeDevice(), 1);
    EXPECT_EQ(device.isDeviceOpen(), CameraNotOpened);
    release.open();
    ASSERT_TRUE(events.waitFor(2));
    EXPECT_FALSE(device.open(nodeInfo("/dev/video0")));
    EXPECT_EQ(events.events(), (std::vector<Event>{{1, 2}, {101, 2}}));
}

TEST_F(Unplug, TheWrapperMayCloseTheDeviceOnTheAcquisitionThread) {
    // No application handler: the empty slot is skipped.
    Recorder closed;
    Device device(1);
    device.registerWrapperNotificationCallback([&](int, int index) {
        const int result = device.closeDevice();
        closed.add(result, index);
        closed.add(device.isDeviceOpen(), index);
    });
    ASSERT_TRUE(device.open(nodeInfo("/dev/video2")));
    ASSERT_EQ(fetchFrame(device), Ok);
    ASSERT_TRUE(talvoro_vcam::injectFault("GONE-2", "unplug"));
    ASSERT_TRUE(closed.waitFor(2));
    EXPECT_EQ(closed.events(), (std::vector<Event>{{1, 1}, {CameraNotOpened, 1}}));
    EXPECT_EQ(device.getframe(), TimeoutError);
}

TEST_F(Unplug, TheDeviceMayBeDestroyedInItsOwnNotification) {
    Gate callableGone;
    Recorder seen;
    auto owned = std::make_unique<Device>(0);
    // Opens the gate when the acquisition thread drops its last copy of the callback.
    std::shared_ptr<Gate> token(&callableGone, [](Gate* gate) { gate->open(); });
    owned->registerWrapperNotificationCallback([&owned, &seen, token](int event, int index) {
        owned.reset();
        seen.add(event, index);
    });
    token.reset();
    ASSERT_TRUE(owned->open(nodeInfo("/dev/video4")));
    ASSERT_TRUE(talvoro_vcam::injectFault("GONE-3", "unplug"));
    ASSERT_TRUE(callableGone.wait());
    EXPECT_EQ(owned, nullptr);
    EXPECT_EQ(seen.events(), (std::vector<Event>{{1, 0}}));
}

// device.stall_*: STALL on /dev/video0. A time-out takes 10 s.
constexpr auto kTimeOut = 40s;

TEST_F(Stall, NotifiesEachTimeOutUntilTheDepthRangeChanges) {
    Recorder notes, frames;
    Device device(0);
    device.setDeviceIndex(5, "STALL");
    device.registerNotificationCallback(notes.callback());
    device.registerFrameCallback(frames.callback());
    ASSERT_TRUE(device.open(nodeInfo("/dev/video0")));
    ASSERT_TRUE(frames.waitFor(2));

    ASSERT_TRUE(talvoro_vcam::injectFault("STALL", "stall"));
    ASSERT_TRUE(notes.waitFor(1, kTimeOut));
    EXPECT_EQ(notes.events()[0], Event(0, 5));
    EXPECT_EQ(log.count("\nTalvoroSDK:select timeout 5   STALL\n"), 1u);

    // Any range, even one the processor ignores, ends the notifications for good.
    EXPECT_EQ(device.updateDepthRange(5), Ok);
    ASSERT_TRUE(eventually([&] { return log.count("select timeout") >= 2; }, kTimeOut));
    EXPECT_EQ(notes.size(), 1u);

    // The loop never gives up by itself.
    const size_t before = frames.size();
    talvoro_vcam::clearFault("STALL", "stall");
    EXPECT_TRUE(frames.waitFor(before + 1));
}

TEST_F(Stall, WithoutNotificationCallbackOnlyLogs) {
    ASSERT_TRUE(talvoro_vcam::injectFault("STALL", "stall"));
    Device device(0);
    ASSERT_TRUE(device.open(nodeInfo("/dev/video0")));
    ASSERT_TRUE(eventually([&] { return log.count("select timeout") >= 1; }, kTimeOut));
    talvoro_vcam::clearFault("STALL", "stall");
    EXPECT_EQ(fetchFrame(device), Ok);
}

// device.lies: LIAR on /dev/video0. Each lie is refused with a code and never makes the
// Device read past a mapping (the sanitizer runs would see it); the camera streams again once
// it tells the truth.
TEST_F(Lies, ImpossibleDriverAnswersAreRefusedWithACode) {
    Device device(0);
    device.setDeviceIndex(0, "LIAR");
    ASSERT_TRUE(device.open(nodeInfo("/dev/video0")));
    ASSERT_EQ(device.initFrame(Depth_IR_RGB_VGA_Mode), Ok);
    ASSERT_EQ(fetchFrame(device), Ok);

    // More bytes used than the buffer holds, an index beyond the buffers.
    for (const char* lie : {"long", "bad-index"}) {
        SCOPED_TRACE(lie);
        ASSERT_TRUE(talvoro_vcam::injectFault("LIAR", lie));
        EXPECT_TRUE(eventually([&] { return device.getframe() == FrameSeparationFailed; }));
        ASSERT_TRUE(talvoro_vcam::clearFault("LIAR", lie));
        // A buffer dequeued under a wrong index is lost to the driver: a restart brings it back.
        ASSERT_EQ(device.setFormat(1280, 600, 1), 1);
        EXPECT_EQ(fetchFrame(device), Ok);
    }
    EXPECT_GE(log.count("impossible buffer from VIDIOC_DQBUF 0   LIAR"), 2u);

    // Buffers of length 0 cannot be mapped: the capture does not start.
    ASSERT_TRUE(talvoro_vcam::injectFault("LIAR", "zero-length"));
    EXPECT_EQ(device.setFormat(1280, 600, 1), 0);
    EXPECT_EQ(log.count("failed mmap(): 0   LIAR"), 1u);
    ASSERT_TRUE(talvoro_vcam::clearFault("LIAR", "zero-length"));

    // A format answer of another size is accepted; its frames are too small to separate.
    ASSERT_TRUE(talvoro_vcam::injectFault("LIAR", "format-size:320x240"));
    ASSERT_EQ(device.setFormat(1280, 600, 1), 1);
    EXPECT_EQ(device.capturedFrameSize(), 320u * 240 * 2);
    EXPECT_EQ(fetchFrame(device), FrameSeparationFailed);
    ASSERT_TRUE(talvoro_vcam::clearFault("LIAR", "format-size"));
    ASSERT_EQ(device.setFormat(1280, 600, 1), 1);
    EXPECT_EQ(fetchFrame(device), Ok);
    device.closeDevice();
}

}  // namespace
