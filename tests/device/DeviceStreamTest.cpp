// The Device streaming from the virtual camera: open and close, formats of every data mode,
// fetching frames, callbacks, buffer counts, partial frames, the frame rate and a lossless run.
#include <chrono>
#include <memory>

#include <gtest/gtest.h>

#include "DeviceTestSupport.h"
#include "log/TALVOROError.h"

using namespace Talvoro;
using namespace devtest;

namespace {

// device.stream: --camera serial=DEV-A,video=0 (metadata node /dev/video1)
constexpr const char* kSerial = "DEV-A";
constexpr const char* kNode = "/dev/video0";

class Stream : public VcamTest {
  protected:
    void TearDown() override {
        for (const char* fault : {"stall", "short", "eintr"})
            talvoro_vcam::clearFault(kSerial, fault);
        // The next test finds the camera as it starts: multiplexed 1280x600.
        talvoro_vcam::setFrameMode(kSerial, 0, 0);
        Device restore(0);
        if (restore.open(nodeInfo(kNode))) restore.setFormat(1280, 600, 1);
        restore.closeDevice();
    }
};

TEST_F(Stream, OpensStreamsAndClosesRepeatedly) {
    Recorder frames;  // outlives the device, whose thread calls it
    Device device(0);
    ASSERT_EQ(device.setDeviceIndex(7, "SEVEN"), Ok);
    ASSERT_EQ(device.registerFrameCallback(frames.callback()), Ok);
    for (int cycle = 0; cycle < 3; ++cycle) {
        ASSERT_TRUE(device.open(nodeInfo(kNode))) << cycle;
        EXPECT_EQ(device.isDeviceOpen(), CameraAlreadyOpen);
        EXPECT_TRUE(device.isStreaming());
        EXPECT_EQ(device.grantedBuffers(), 3u);
        EXPECT_EQ(device.capturedFrameSize(), 1280u * 600 * 2);
        EXPECT_TRUE(device.processor().hasHistory());
        ASSERT_TRUE(frames.waitFor(frames.size() + 3));
        device.setTOFIRGain(50);

        EXPECT_EQ(device.closeDevice(), 1);
        EXPECT_EQ(device.isDeviceOpen(), CameraNotOpened);
        EXPECT_FALSE(device.isStreaming());
        EXPECT_FALSE(device.processor().hasHistory());
        EXPECT_EQ(device.processor().settings().irGain, 16);
    }
    for (const Event& e : frames.events())
        ASSERT_EQ(e, Event(1, 7));
    EXPECT_EQ(
        log.count("\nTalvoroSDK:memory allocation for the index : MAX_V4L_BUFFERS 7   SEVEN\n"),
        3u);
}

TEST_F(Stream, OpenFailuresLogAndLeaveTheNodeToClose) {
    Device device(0);
    device.setDeviceIndex(4, "LBL");
    EXPECT_FALSE(device.open(nodeInfo("/dev/video9")));
    EXPECT_EQ(device.isDeviceOpen(), CameraNotOpened);
    EXPECT_EQ(log.count("\nTalvoroSDK:VIDEOIO(Device:4): can't open camera by index    LBL\n"), 1u);

    EXPECT_FALSE(device.open(nodeInfo("/dev/video1")));  // the metadata node
    EXPECT_NE(log.text().find("\nTalvoroSDK:VIDEOIO(Device:4): not supported - device is unable "
                              "to capture video (missing V4L2_CAP_VIDEO_CAPTURE)    LBL\n"),
              std::string::npos);
    EXPECT_EQ(device.isDeviceOpen(), CameraAlreadyOpen);  // until closed
    device.closeDevice();
    EXPECT_EQ(device.isDeviceOpen(), CameraNotOpened);
}

struct ModeFormat {
    DataMode mode;
    unsigned width, height, code;
    unsigned first, second;  // the camera's frame mode
};

TEST_F(Stream, NegotiatesAndProcessesTheFormatOfEveryDataMode) {
    const ModeFormat table[] = {{Depth_IR_Mode, 640, 960, 1, 1, 0},
                                {Depth_Mode, 640, 480, 1, 1, 2},
                                {IR_Mode, 640, 480, 1, 1, 3},
                                {Depth_IR_RGB_VGA_Mode, 1280, 600, 1, 0, 0},
                                {Depth_IR_RGB_HD_Mode, 1443, 960, 1, 0, 0},
                                {RGB_VGA_Mode, 640, 480, 0, 2, 0},
                                {RGB_HD_Mode, 1280, 720, 0, 2, 0},
                                {RGB_FullHD_Mode, 1920, 1080, 0, 2, 0},
                                {RGB_1200p_Mode, 1920, 1200, 0, 2, 0}};
    Device device(0);
    ASSERT_TRUE(device.open(nodeInfo(kNode)));
    for (const ModeFormat& m : table) {
        SCOPED_TRACE(m.mode);
        ASSERT_TRUE(talvoro_vcam::setFrameMode(kSerial, m.first, m.second));
        ASSERT_EQ(device.setFormat(m.width, m.height, m.code), 1);
        unsigned w = 0, h = 0, code = 9;
        ASSERT_EQ(device.getFormat(&w, &h, &code), 1);
        EXPECT_EQ(std::tuple(w, h, code), std::tuple(m.width, m.height, m.code));
        EXPECT_EQ(device.capturedFrameSize(), uint64_t(m.width) * m.height * 2);
        ASSERT_EQ(device.initFrame(m.mode), Ok);
        ASSERT_EQ(fetchFrame(device), Ok);

        ToFFrame f{};
        if (m.mode >= 4) {
            ASSERT_NE(device.getToFFrame(RGBFrame, &f), InvalidFrameType);
            EXPECT_EQ(f.width, m.mode == 4 || m.mode == 6 ? 640 : m.width == 1443 ? 1280 : m.width);
        }
        if (m.mode <= 5 && m.mode != IR_Mode) {
            ASSERT_NE(device.getToFFrame(RawDepth, &f), InvalidFrameType);
            ASSERT_EQ(f.height, 480);
            // The back wall, 2.4 m straight ahead, measured in the processed image.
            const uint16_t centre = reinterpret_cast<uint16_t*>(f.frame_data)[240 * 640 + 320];
            EXPECT_GT(centre, 2000);
            EXPECT_LT(centre, 2800);
        }
    }
}

TEST_F(Stream, FormatChangesKeepTheDriversSizeButNeedItsPixelFormat) {
    Device device(0);
    ASSERT_TRUE(device.open(nodeInfo(kNode)));
    // After an open the format field holds a code, not a FourCC; the driver substitutes its
    // own format for it, and the change fails with capture stopped.
    EXPECT_EQ(device.setFormat(1280, 600, 2), 0);
    EXPECT_FALSE(device.isStreaming());
    EXPECT_EQ(device.isDeviceOpen(), CameraAlreadyOpen);
    // A size the camera lacks: the driver's nearest size is accepted.
    EXPECT_EQ(device.setFormat(800, 600, 1), 1);
    unsigned w = 0, h = 0, code = 9;
    ASSERT_EQ(device.getFormat(&w, &h, &code), 1);
    EXPECT_NE(w, 800u);
    EXPECT_EQ(code, 1u);
    EXPECT_TRUE(device.isStreaming());
}

TEST_F(Stream, PartialFramesAreDroppedSilently) {
    ASSERT_TRUE(talvoro_vcam::injectFault(kSerial, "short:1"));
    Recorder frames;  // outlives the device, whose thread calls it
    Device device(0);
    device.registerFrameCallback(frames.callback());
    const auto before = counters(kSerial);
    ASSERT_TRUE(device.open(nodeInfo(kNode)));
    ASSERT_TRUE(eventually([&] { return counters(kSerial).dequeued >= before.dequeued + 5; }));
    EXPECT_EQ(frames.size(), 0u);
    EXPECT_EQ(device.processedFrames(), 0u);

    talvoro_vcam::clearFault(kSerial, "short");
    EXPECT_TRUE(frames.waitFor(1));
}

TEST_F(Stream, PollingTimesOutOnlyBeforeTheFirstFrame) {
    ASSERT_TRUE(talvoro_vcam::injectFault(kSerial, "stall"));
    // Frames filled but never dequeued before earlier streams stopped.
    const auto unfetched = [] {
        const auto c = counters(kSerial);
        return c.produced - c.dequeued;
    };
    const auto leftOver = unfetched();
    const auto dequeuedBefore = counters(kSerial).dequeued;
    Device device(0);
    ASSERT_TRUE(device.open(nodeInfo(kNode)));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(device.getframe(), TimeoutError);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 195ms);

    talvoro_vcam::clearFault(kSerial, "stall");
    ASSERT_EQ(fetchFrame(device), Ok);
    ASSERT_TRUE(talvoro_vcam::injectFault(kSerial, "stall"));
    // A frame the camera began to fill before the stall may still complete: let two of its
    // frame times pass before taking stock.
    const auto stalledAt = counters(kSerial).elapsed;
    ASSERT_TRUE(eventually([&] { return counters(kSerial).elapsed >= stalledAt + 2; }));
    ASSERT_TRUE(eventually([&] { return unfetched() == leftOver; }));
    // The camera counts a frame when it is dequeued, before the Device has copied it: wait
    // until every dequeued frame is copied and the thread waits in its next round.
    ASSERT_TRUE(eventually([&] {
        return device.acquisitionRounds() == counters(kSerial).dequeued - dequeuedBefore + 1;
    }));
    // The last frame is processed again, and counted once.
    EXPECT_EQ(device.getframe(), Ok);
    const uint32_t counted = device.processedFrames();
    EXPECT_EQ(device.getframe(), Ok);
    EXPECT_EQ(device.processedFrames(), counted);
    EXPECT_EQ(TALVOROError::cErrorNo.load(), Ok);
}

TEST_F(Stream, WithAFrameCallbackFetchingNeverWaits) {
    // No frame ever arrives: a polling fetch would time out, this one processes the empty copy.
    ASSERT_TRUE(talvoro_vcam::injectFault(kSerial, "stall"));
    Device device(0);
    device.registerFrameCallback([](int, int) {});
    ASSERT_TRUE(device.open(nodeInfo(kNode)));
    EXPECT_EQ(device.getframe(), Ok);
    EXPECT_EQ(device.processedFrames(), 0u);
}

TEST_F(Stream, SurvivesInterruptedSystemCalls) {
    ASSERT_TRUE(talvoro_vcam::injectFault(kSerial, "eintr"));
    Device device(0);
    ASSERT_TRUE(device.open(nodeInfo(kNode)));
    ASSERT_EQ(fetchFrame(device), Ok);
    EXPECT_EQ(device.setFormat(640, 960, 1), 1);
    EXPECT_EQ(device.closeDevice(), 1);
    EXPECT_TRUE(device.open(nodeInfo(kNode)));
}

TEST_F(Stream, AFrameCallbackMayChangeTheFormatOrDestroyTheDevice) {
    // The format change stops the run from its own acquisition thread, which cannot join itself.
    Recorder frames;  // outlives the device, whose thread calls it
    Device device(0);
    device.registerFrameCallback([&](int event, int index) {
        if (frames.size() == 2) device.setFormat(640, 960, 1);
        frames.add(event, index);
    });
    ASSERT_TRUE(device.open(nodeInfo(kNode)));
    ASSERT_TRUE(frames.waitFor(6));
    unsigned w = 0, h = 0, code = 9;
    device.getFormat(&w, &h, &code);
    EXPECT_EQ(h, 960u);
    EXPECT_EQ(device.closeDevice(), 1);

    // The destructor run by the callback detaches the thread, which then leaves it alone.
    Gate destroyed;
    auto owned = std::make_unique<Device>(0);
    owned->registerFrameCallback([&](int, int) {
        owned.reset();
        destroyed.open();
    });
    ASSERT_TRUE(owned->open(nodeInfo(kNode)));
    EXPECT_TRUE(destroyed.wait());
}

// device.ladder_*: the driver grants a fixed number of buffers (fault reqbufs:N), 10 frames/s.
class Ladder : public VcamTest {
  protected:
    // Blocks in the first frame callback and counts the buffers the camera fills meanwhile: it
    // fills every queued buffer, then its next frame time finds none and is dropped. The
    // application's dequeues stand still while it is blocked, so at the first drop every frame
    // produced and not dequeued sits in a queued buffer, however soon after the re-queue the
    // camera's next frame came.
    unsigned queueDepth() {
        Gate entered, release;
        talvoro_vcam::FrameCounters atBlock{};
        bool first = true;
        device.registerFrameCallback([&](int, int) {
            if (!first) return;
            first = false;
            atBlock = counters(kSerial);
            entered.open();
            release.wait();
        });
        EXPECT_TRUE(device.open(nodeInfo(kNode)));
        EXPECT_TRUE(entered.wait());
        EXPECT_TRUE(eventually([&] { return counters(kSerial).dropped > atBlock.dropped; }));
        const auto filled = counters(kSerial).produced - atBlock.dequeued;
        release.open();
        device.closeDevice();
        return static_cast<unsigned>(filled);
    }
    Device device{0};
};

TEST_F(Ladder, TwoOfThreeGrantedFallsBackToTwo) {
    EXPECT_EQ(queueDepth(), 2u);
    EXPECT_EQ(device.grantedBuffers(), 2u);
    EXPECT_EQ(
        log.count("\nTalvoroSDK:Insufficient buffer memory -- decreasing buffers: 3   0   \n"), 1u);
    EXPECT_EQ(log.count("decreasing buffers: 2"), 0u);
}

TEST_F(Ladder, MoreThanAskedAreAllMappedAndQueued) {
    EXPECT_EQ(queueDepth(), 5u);
    EXPECT_EQ(device.grantedBuffers(), 5u);
    EXPECT_EQ(log.count("decreasing buffers"), 0u);
}

// device.lossless: 30 frames/s; the application fetches every frame it is told of.
TEST_F(Stream, LosesNoFrameOfThreeHundredWhileTheApplicationKeepsUp) {
    Recorder frames;  // outlives the device, whose thread calls it
    Device device(0);
    device.registerFrameCallback(frames.callback());
    const auto before = counters(kSerial);
    ASSERT_TRUE(device.open(nodeInfo(kNode)));
    for (size_t fetched = 0; fetched < 300; ++fetched) {
        ASSERT_TRUE(frames.waitFor(fetched + 1));
        ASSERT_EQ(device.getframe(), Ok);
    }
    const auto at300 = counters(kSerial);
    device.closeDevice();
    const auto after = counters(kSerial);
    EXPECT_EQ(at300.dropped, before.dropped);
    EXPECT_EQ(after.dequeued - before.dequeued, frames.size());
    EXPECT_GE(frames.size(), 300u);
}

// device.rate: 15 frames/s, fetched as fast as they come. The first reading comes after a
// second of frames: the estimate that follows counts only the frames processed since.
TEST_F(Stream, EstimatesTheCamerasFrameRate) {
    Device device(0);
    ASSERT_TRUE(device.open(nodeInfo(kNode)));
    ASSERT_TRUE(eventually([&] {
        device.getframe();
        return device.processedFrames() >= 15;
    }));
    ASSERT_EQ(device.getFramesPerSecond(), 0u);
    unsigned first = 0, last = 0;
    const auto end = std::chrono::steady_clock::now() + 3s;
    while (std::chrono::steady_clock::now() < end) {
        device.getframe();
        last = device.getFramesPerSecond();
        if (first == 0) first = last;
    }
    EXPECT_NEAR(first, 15.0, 1.5);
    EXPECT_NEAR(last, 15.0, 1.5);
}

}  // namespace
