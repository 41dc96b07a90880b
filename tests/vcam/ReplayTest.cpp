// Replay: a camera plays a recording instead of the synthetic scene. The outer tests write a
// recording and run this binary's inner suite under the launcher with a camera replaying it.
#include <linux/limits.h>
#include <sys/wait.h>

#include <cstdlib>
#include <cstring>

#include "RawDecode.h"
#include "RecordingSamples.h"
#include "VideoDevice.h"
#include "common/TempDir.h"
#include "hid/HID.h"

using namespace vcamtest;

namespace {

constexpr const char* kRecordingEnv = "TALVORO_TEST_RECORDING";

std::string selfPath() {
    char buf[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
    return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : "";
}

int exitCode(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Replay, ACameraPlaysItsRecording) {
    talvoro_test::TempDir dir;
    const std::string path = dir.file("replay.tlvrec");
    vcam::rec::RecordingWriter w;
    std::string error;
    ASSERT_TRUE(w.open(path, &error)) << error;
    ASSERT_TRUE(w.writeCalibration({1, 0, "%YAML:1.0\nrecorded: 1\n"}));
    for (uint8_t i = 0; i < 3; ++i) {
        const auto data = pattern(1536000, i);
        ASSERT_TRUE(
            w.writeFrame(frameInfo(V4L2_PIX_FMT_Y16, 1280, 600, 0, 0), data.data(), data.size()));
    }
    const auto colour = pattern(614400, 9), shortDepth = pattern(1000, 7);
    ASSERT_TRUE(
        w.writeFrame(frameInfo(V4L2_PIX_FMT_UYVY, 640, 480, 2, 0), colour.data(), colour.size()));
    ASSERT_TRUE(w.writeFrame(frameInfo(V4L2_PIX_FMT_Y16, 640, 480, 1, 2), shortDepth.data(),
                             shortDepth.size()));
    ASSERT_TRUE(w.close(&error)) << error;

    ::setenv(kRecordingEnv, path.c_str(), 1);
    const std::string command = std::string(TALVORO_VCAM_LAUNCHER) +
                                " run --camera serial=REPLAY,video=0,replay=" + path + " -- " +
                                selfPath() +
                                " --gtest_also_run_disabled_tests"
                                " --gtest_filter=DISABLED_ReplayUnderLauncher.*";
    EXPECT_EQ(exitCode(std::system(command.c_str())), 0);
    ::unsetenv(kRecordingEnv);
}

TEST(Replay, TheLauncherRefusesARecordingItCannotRead) {
    talvoro_test::TempDir dir;
    std::ofstream(dir.file("bogus")) << "not a recording";
    for (const std::string& file : {dir.file("missing"), dir.file("bogus")}) {
        const std::string command = std::string(TALVORO_VCAM_LAUNCHER) +
                                    " run --camera replay=" + file + " -- true 2> /dev/null";
        EXPECT_EQ(exitCode(std::system(command.c_str())), 2) << file;
    }
}

// Run by Replay.ACameraPlaysItsRecording only.
TEST(DISABLED_ReplayUnderLauncher, PlaysRecordedFramesForMatchingStreams) {
    ASSERT_TRUE(talvoro_vcam::present());
    const char* path = std::getenv(kRecordingEnv);
    ASSERT_NE(path, nullptr);
    vcam::rec::RecordingReader rec;
    std::string error;
    ASSERT_TRUE(rec.open(path, &error)) << error;

    VideoDevice dev("/dev/video0");
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 1280, 600), 0);
    dev.start(3);
    // The three multiplexed frames in turn, then from the start again.
    for (std::size_t i : {0, 1, 2, 0})
        EXPECT_EQ(dev.grab(), recordedFrame(rec, i)) << i;
    dev.stop();

    // Colour format: the recorded colour frame, whatever the frame mode.
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_UYVY, 640, 480), 0);
    dev.start(2);
    EXPECT_EQ(dev.grab(), recordedFrame(rec, 3));
    dev.stop();

    // A recorded short frame stays short.
    ASSERT_TRUE(talvoro_vcam::setFrameMode("REPLAY", 1, 2));
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 640, 480), 0);
    dev.start(2);
    EXPECT_EQ(dev.grab(), recordedFrame(rec, 4));
    dev.stop();

    // Nothing recorded for depth and IR: the synthetic scene stands in.
    ASSERT_TRUE(talvoro_vcam::setFrameMode("REPLAY", 1, 0));
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 640, 960), 0);
    dev.start(2);
    const std::vector<uint8_t> synthetic = dev.grab();
    dev.stop();
    ASSERT_EQ(synthetic.size(), 1228800u);
    Image16 depth, ir;
    decodeRowPairs(synthetic, &depth, &ir);
    EXPECT_NEAR(depth.at(kWallRow, kWallCol), radialToPlaneZ(kWallCol, kWallRow, 2400), 30);
}

// Run by Replay.ACameraPlaysItsRecording only: the HID side serves the recorded calibration, and
// holds no blob the recording lacks.
TEST(DISABLED_ReplayUnderLauncher, ServesTheRecordedCalibration) {
    ASSERT_TRUE(talvoro_vcam::present());
    Talvoro::DeviceInfo info{};
    std::strcpy(info.serialNo, "REPLAY");
    Talvoro::HID hid;
    ASSERT_EQ(hid.openHID(&info), Talvoro::Ok);
    int size = 0;
    ASSERT_EQ(hid.calibReadReqDepthIntrinsic(&size), Talvoro::Ok);
    const std::string recorded = "%YAML:1.0\nrecorded: 1\n";
    ASSERT_EQ(size, static_cast<int>(recorded.size()));
    std::string data(recorded.size(), '\0');
    ASSERT_EQ(hid.calibReadDepthIntrinsic(&size, reinterpret_cast<unsigned char*>(&data[0])),
              Talvoro::Ok);
    EXPECT_EQ(data, recorded);
    Talvoro::CalibValidFlag flag = Talvoro::Calib_VGA_And_HD;
    EXPECT_EQ(hid.getCalibrationDataValidFlag(1, &flag), Talvoro::Ok);
    EXPECT_EQ(flag, Talvoro::Calib_VGA_Only);
    EXPECT_EQ(hid.calibReadReqRGBIntrinsic(&size), Talvoro::GetValueFailed);
    hid.closeHID();
}

}  // namespace
