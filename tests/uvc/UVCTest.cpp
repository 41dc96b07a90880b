// The UVC channel against the virtual camera: extension-unit commands byte for byte (from the
// wire trace), validation, round trips, failures, and the standard controls.
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/TempDir.h"
#include "common/WireTrace.h"
#include "log/Log.h"
#include "log/TALVOROError.h"
#include "talvoro_vcam.h"
#include "uvc/UVC.h"

using namespace Talvoro;
using talvoro_test::TempDir;
using talvoro_test::WireTrace;

namespace {

constexpr const char* kSerial = "UVC-ONE";  // capture node /dev/video2, metadata /dev/video3

DeviceInfo nodeInfo(const std::string& path) {
    DeviceInfo info{};
    std::strncpy(info.devicePath, path.c_str(), sizeof info.devicePath - 1);
    return info;
}

class UVCChannel : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam";
        ASSERT_TRUE(trace.available()) << "run with --trace";
        ASSERT_EQ(uvc.setDepthRange(0), Ok);  // a known range for the exposure bound
        trace.mark();
    }
    void TearDown() override {
        for (const char* fault : {"xu-fail", "eintr"})
            talvoro_vcam::clearFault(kSerial, fault);
    }
    std::string logText() const {
        return talvoro_test::readFile(logDir.file(Log::getInstance()->fileName()));
    }
    static Result open(UVC& u, const std::string& path = "/dev/video2") {
        return u._openUVC(nodeInfo(path));
    }

    TempDir logDir{true};
    UVC uvc;
    bool opened = open(uvc) == Ok;
    WireTrace trace;
};

TEST_F(UVCChannel, OpensOnlyTheCaptureNode) {
    EXPECT_TRUE(opened);
    UVC meta;
    EXPECT_EQ(open(meta, "/dev/video3"), UVCOpenFailed);
    EXPECT_EQ(TALVOROError::cErrorNo.load(), UVCOpenFailed);
    // The missing ")" after "Device" belongs to the text.
    EXPECT_NE(logText().find("  : \nTalvoroSDK:VIDEOIO(Device:/dev/video3): not supported - "
                             "device is unable to capture video (missing "
                             "V4L2_CAP_VIDEO_CAPTURE)\n"),
              std::string::npos)
        << logText();
    // A node that cannot be opened fails the same way and logs nothing.
    const std::string before = logText();
    UVC missing;
    EXPECT_EQ(open(missing, "/dev/video9"), UVCOpenFailed);
    EXPECT_EQ(logText(), before);
    // A path that fills the whole field without a terminator is read within the field only.
    DeviceInfo unterminated;
    std::memset(unterminated.devicePath, 'x', sizeof unterminated.devicePath);
    EXPECT_EQ(missing._openUVC(unterminated), UVCOpenFailed);
}

TEST_F(UVCChannel, CommandsGoOutAsTheirExactBytes) {
    struct Case {
        const char* what;
        std::function<Result()> send;
        std::string bytes;
    } cases[] = {
        {"frame mode", [&] { return uvc.setTOFFrameMode(1, 0x0102); }, "1A 00 01 00 02 00 00 00"},
        {"sensor register", [&] { return uvc.setADIRegister(0x0123, 0xBEEF); },
         "08 00 23 01 EF BE 00 00"},
        {"depth range", [&] { return uvc.setDepthRange(1); }, "19 00 01 00 00 00 00 00"},
        {"exposure", [&] { return uvc.setTOFExposure(850); }, "05 00 52 03 00 00 00 00"},
        {"coring", [&] { return uvc.setTOFCoring(0x0234); }, "03 00 34 02 00 00 00 00"},
    };
    for (const auto& c : cases) {
        trace.mark();
        EXPECT_EQ(c.send(), Ok) << c.what;
        EXPECT_EQ(trace.lines(), (std::vector<std::string>{
                                     "video2 > XU 3 1 GET_LEN",
                                     "video2 < XU 3 1 GET_LEN 08 00",
                                     "video2 > XU 3 1 SET_CUR " + c.bytes,
                                 }))
            << c.what;
    }
}

TEST_F(UVCChannel, ReadsSendTheCommandToTheAnswerSelectorFirst) {
    ASSERT_EQ(uvc.setADIRegister(0x0123, 0xBEEF), Ok);
    trace.mark();
    unsigned short value = 0;
    ASSERT_EQ(uvc.getADIRegister(0x0123, &value), Ok);
    EXPECT_EQ(value, 0xBEEF);
    const auto lines = trace.lines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0], "video2 > XU 3 2 GET_LEN");
    EXPECT_EQ(lines[1], "video2 < XU 3 2 GET_LEN 10 00");  // selector 2 is 16 bytes long
    EXPECT_EQ(lines[2], "video2 > XU 3 2 SET_CUR " + WireTrace::hex({0x08, 0, 0x23, 0x01}, 16));
    EXPECT_EQ(lines[3], "video2 > XU 3 2 GET_CUR");
    EXPECT_EQ(lines[4], "video2 < XU 3 2 GET_CUR " + WireTrace::hex({0xEF, 0xBE}, 16));
}

TEST_F(UVCChannel, ValidationFailsBeforeAnythingIsSent) {
    TALVOROError::cErrorNo = 0;
    EXPECT_EQ(uvc.setDepthRange(2), InvalidValue);
    EXPECT_EQ(TALVOROError::cErrorNo.load(), InvalidValue);
    EXPECT_EQ(uvc.cachedDepthRange(), 0);
    EXPECT_EQ(uvc.setTOFExposure(381), InvalidValue);  // near range: at most 380
    EXPECT_EQ(uvc.setTOFCoring(0), InvalidValue);
    EXPECT_TRUE(trace.lines().empty());

    EXPECT_EQ(uvc.setTOFExposure(0), Ok);
    EXPECT_EQ(uvc.setTOFExposure(380), Ok);
    ASSERT_EQ(uvc.setDepthRange(1), Ok);
    EXPECT_EQ(uvc.setTOFExposure(850), Ok);
    trace.mark();
    EXPECT_EQ(uvc.setTOFExposure(851), InvalidValue);
    EXPECT_TRUE(trace.lines().empty());
}

TEST_F(UVCChannel, SetThenGetRoundTrips) {
    unsigned short a = 0, b = 0;
    ASSERT_EQ(uvc.setDepthRange(1), Ok);
    ASSERT_EQ(uvc.getDepthRange(&a), Ok);
    EXPECT_EQ(a, 1);
    ASSERT_EQ(uvc.setTOFExposure(777), Ok);
    ASSERT_EQ(uvc.getTOFExposure(&a), Ok);
    EXPECT_EQ(a, 777);
    ASSERT_EQ(uvc.setTOFCoring(4000), Ok);
    ASSERT_EQ(uvc.getTOFCoring(&a), Ok);
    EXPECT_EQ(a, 4000);
    for (auto [first, second] : {std::pair{1, 3}, {2, 0}, {1, 0x0102}, {0, 0}}) {
        ASSERT_EQ(uvc.setTOFFrameMode(first, second), Ok);
        ASSERT_EQ(uvc.getTOFFrameMode(&a, &b), Ok);
        EXPECT_EQ(a, first);
        EXPECT_EQ(b, second & 0xFF);  // only the low byte travels
    }
    EXPECT_EQ(TALVOROError::cErrorNo.load(), Ok);
}

// The exposure bound follows what this object last set or read, not the camera.
TEST_F(UVCChannel, ExposureBoundFollowsTheCachedRange) {
    UVC other;
    ASSERT_EQ(open(other), Ok);
    ASSERT_EQ(other.setDepthRange(1), Ok);
    EXPECT_EQ(uvc.setTOFExposure(850), InvalidValue);  // still cached: near range
    unsigned short range = 0;
    ASSERT_EQ(uvc.getDepthRange(&range), Ok);
    EXPECT_EQ(uvc.setTOFExposure(850), Ok);

    ASSERT_EQ(other.setDepthRange(0), Ok);
    // Passed here, refused by the camera, which is back in the near range.
    EXPECT_EQ(uvc.setTOFExposure(850), SysCallFail);
    unsigned short exposure = 0;
    ASSERT_EQ(uvc.getTOFExposure(&exposure), Ok);
    EXPECT_LE(exposure, 380);
}

TEST_F(UVCChannel, CameraRefusalsAndFailingQueriesGiveSysCallFail) {
    EXPECT_EQ(uvc.setTOFFrameMode(1, 7), SysCallFail);  // not a frame mode of this camera
    EXPECT_EQ(TALVOROError::cErrorNo.load(), SysCallFail);

    ASSERT_TRUE(talvoro_vcam::injectFault(kSerial, "xu-fail:get_len"));
    trace.mark();
    EXPECT_EQ(uvc.setTOFCoring(9), SysCallFail);
    EXPECT_EQ(trace.lines(),
              (std::vector<std::string>{"video2 > XU 3 1 GET_LEN", "video2 ! XU 3 1 GET_LEN EIO"}));
    talvoro_vcam::clearFault(kSerial, "xu-fail");

    // Only the exposure command fails; its answer cannot be read either.
    ASSERT_TRUE(talvoro_vcam::injectFault(kSerial, "xu-fail:0x05"));
    EXPECT_EQ(uvc.setTOFExposure(100), SysCallFail);
    unsigned short value = 4242;
    EXPECT_EQ(uvc.getTOFExposure(&value), SysCallFail);
    EXPECT_EQ(value, 4242);
    EXPECT_EQ(uvc.setTOFCoring(9), Ok);
    talvoro_vcam::clearFault(kSerial, "xu-fail");

    ASSERT_TRUE(talvoro_vcam::injectFault(kSerial, "xu-fail:get_cur"));
    EXPECT_EQ(uvc.getTOFCoring(&value), SysCallFail);
    EXPECT_EQ(value, 4242);
    unsigned short second = 77;
    EXPECT_EQ(uvc.getTOFFrameMode(&value, &second), SysCallFail);
    EXPECT_EQ(second, 77);
}

TEST_F(UVCChannel, ControlIoctlsInterruptedBySignalsAreRepeated) {
    ASSERT_TRUE(talvoro_vcam::injectFault(kSerial, "eintr"));
    unsigned short value = 0;
    ASSERT_EQ(uvc.setTOFCoring(33), Ok);
    ASSERT_EQ(uvc.getTOFCoring(&value), Ok);
    EXPECT_EQ(value, 33);
    UVCProp prop{};
    EXPECT_EQ(uvc.getUVCControl(0, &prop), Ok);
}

TEST_F(UVCChannel, PulseConfigIsReserved) {
    unsigned short v[6] = {1, 2, 3, 4, 5, 6};
    TALVOROError::cErrorNo = -9;
    EXPECT_EQ(uvc.getPulseConfig(&v[0], &v[1], &v[2], &v[3], &v[4], &v[5]), Ok);
    EXPECT_EQ(uvc.setPulseConfig(9, 9, 9, 9, 9, 9), Ok);
    EXPECT_EQ((std::vector<unsigned short>(v, v + 6)),
              (std::vector<unsigned short>{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(TALVOROError::cErrorNo.load(), -9);
    EXPECT_TRUE(trace.lines().empty());
}

TEST_F(UVCChannel, AClosedChannelFails) {
    EXPECT_EQ(uvc.closeUVC(), Ok);
    EXPECT_EQ(uvc.closeUVC(), Ok);
    unsigned short value = 0;
    EXPECT_EQ(uvc.setTOFCoring(3), SysCallFail);
    EXPECT_EQ(uvc.getTOFCoring(&value), SysCallFail);
    EXPECT_EQ(uvc.getDepthRange(nullptr), InvalidValue);

    UVCProp prop{};
    EXPECT_EQ(uvc.getUVCControl(0, &prop), GetValueFailed);
    EXPECT_EQ(uvc.setUVCControl(0, 1), SetValueFailed);
    const std::string log = logText();
    EXPECT_NE(log.find("  : \nTalvoroSDK:VIDEOIO(Device):Could not obtain specifics of capture "
                       "window (VIDIOC_G_CTRL): errno=\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("  : \nTalvoroSDK:VIDEOIO(Device):Could not set specifics of capture "
                       "window (VIDIOC_S_CTRL): errno=\n"),
              std::string::npos)
        << log;
    EXPECT_TRUE(trace.lines().empty());
}

// ---- standard controls ----

const uint32_t kIds[11] = {V4L2_CID_BRIGHTNESS,
                           V4L2_CID_CONTRAST,
                           V4L2_CID_SATURATION,
                           V4L2_CID_AUTO_WHITE_BALANCE,
                           V4L2_CID_GAMMA,
                           V4L2_CID_GAIN,
                           V4L2_CID_POWER_LINE_FREQUENCY,
                           V4L2_CID_WHITE_BALANCE_TEMPERATURE,
                           V4L2_CID_SHARPNESS,
                           V4L2_CID_EXPOSURE_AUTO,
                           V4L2_CID_EXPOSURE_ABSOLUTE};

// The driver's view of a control, read on a descriptor of our own.
struct DriverControl {
    v4l2_queryctrl query{};
    int32_t value = 0;
};

DriverControl driverControl(uint32_t id) {
    DriverControl c;
    const int fd = ::open("/dev/video2", O_RDWR | O_NONBLOCK);
    c.query.id = id;
    v4l2_control ctrl{id, 0};
    EXPECT_EQ(::ioctl(fd, VIDIOC_QUERYCTRL, &c.query), 0);
    EXPECT_EQ(::ioctl(fd, VIDIOC_G_CTRL, &ctrl), 0);
    ::close(fd);
    c.value = ctrl.value;
    return c;
}

TEST_F(UVCChannel, ControlIndicesMapToTheirV4l2Controls) {
    for (unsigned index = 0; index < 11; ++index) {
        const bool currentOnly = index == 3 || index == 9;
        UVCProp prop{-1, -2, -3, -4, -5, -6};
        ASSERT_EQ(uvc.getUVCControl(index, &prop), Ok) << index;
        const DriverControl d = driverControl(kIds[index]);
        EXPECT_EQ(prop.control_id, static_cast<int>(index));  // the index, not the V4L2 ID
        EXPECT_EQ(prop.cur_value, d.value) << index;
        if (currentOnly) {
            EXPECT_EQ(prop.min_value, -2) << index;
            EXPECT_EQ(prop.max_value, -3) << index;
            EXPECT_EQ(prop.step, -5) << index;
            EXPECT_EQ(prop.default_value, -6) << index;
        } else {
            EXPECT_EQ(prop.min_value, d.query.minimum) << index;
            EXPECT_EQ(prop.max_value, d.query.maximum) << index;
            EXPECT_EQ(prop.step, d.query.step) << index;
            EXPECT_EQ(prop.default_value, d.query.default_value) << index;
        }
    }
}

TEST_F(UVCChannel, ControlsSetAndReadBack) {
    ASSERT_EQ(uvc.setUVCControl(9, V4L2_EXPOSURE_MANUAL), Ok);
    UVCProp prop{};
    ASSERT_EQ(uvc.getUVCControl(9, &prop), Ok);
    EXPECT_EQ(prop.cur_value, V4L2_EXPOSURE_MANUAL);
    ASSERT_EQ(uvc.setUVCControl(4, 200), Ok);
    ASSERT_EQ(uvc.getUVCControl(4, &prop), Ok);
    EXPECT_EQ(prop.cur_value, 200);
    EXPECT_EQ(driverControl(V4L2_CID_GAMMA).value, 200);
    // The driver refuses a value outside the control's range.
    EXPECT_EQ(uvc.setUVCControl(4, 9999), SetValueFailed);
    EXPECT_EQ(TALVOROError::cErrorNo.load(), SetValueFailed);
    EXPECT_EQ(driverControl(V4L2_CID_GAMMA).value, 200);
    ASSERT_EQ(uvc.setUVCControl(9, V4L2_EXPOSURE_AUTO), Ok);
}

TEST_F(UVCChannel, IndicesOfElevenOrMoreNeverReachAControl) {
    int32_t before[11];
    for (int i = 0; i < 11; ++i)
        before[i] = driverControl(kIds[i]).value;
    for (unsigned index : {11u, 12u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        EXPECT_EQ(uvc.setUVCControl(index, 3), SetValueFailed);
        UVCProp prop{};
        EXPECT_EQ(uvc.getUVCControl(index, &prop), GetValueFailed);
        EXPECT_EQ(static_cast<unsigned>(prop.control_id), index);
    }
    for (int i = 0; i < 11; ++i)
        EXPECT_EQ(driverControl(kIds[i]).value, before[i]) << i;
    EXPECT_NE(logText().find("(VIDIOC_S_CTRL): errno="), std::string::npos);
}

// ---- settings kept across processes ----

TEST_F(UVCChannel, TheCameraKeepsItsSettingsForTheNextProcess) {
    ASSERT_EQ(uvc.setTOFCoring(1234), Ok);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        execl("/proc/self/exe", "uvc_tests", "--gtest_also_run_disabled_tests",
              "--gtest_filter=SecondProcess.DISABLED_ReadsTheCoring", nullptr);
        _exit(127);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

// Run only by the test above, in a process of its own.
TEST(SecondProcess, DISABLED_ReadsTheCoring) {
    UVC uvc;
    ASSERT_EQ(uvc._openUVC(nodeInfo("/dev/video2")), Ok);
    unsigned short coring = 0;
    ASSERT_EQ(uvc.getTOFCoring(&coring), Ok);
    EXPECT_EQ(coring, 1234);
}

// ---- answer selectors shorter and longer than a command ----

class AnswerLength : public ::testing::TestWithParam<int> {};

TEST_P(AnswerLength, CommandsAndAnswersFitTheCameraSLength) {
    ASSERT_TRUE(talvoro_vcam::present());
    const std::size_t length = static_cast<std::size_t>(GetParam());
    UVC uvc;
    ASSERT_EQ(uvc._openUVC(nodeInfo("/dev/video2")), Ok);
    WireTrace trace;
    unsigned short value = 0;
    ASSERT_EQ(uvc.setTOFCoring(0x0321), Ok);
    ASSERT_EQ(uvc.getTOFCoring(&value), Ok);
    EXPECT_EQ(value, 0x0321);
    const auto sent = trace.lines("video2 > XU 3 2 SET_CUR ");
    ASSERT_EQ(sent.size(), 1u);
    // The command is cut or padded to the control's length.
    EXPECT_EQ(sent[0], "video2 > XU 3 2 SET_CUR " +
                           (length < 8 ? std::string("03 00") : WireTrace::hex({0x03}, length)));

    unsigned short first = 0, second = 99;
    ASSERT_EQ(uvc.setTOFFrameMode(1, 3), Ok);
    ASSERT_EQ(uvc.getTOFFrameMode(&first, &second), Ok);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, length > 2 ? 3 : 0);  // a 2-byte answer carries no second value
}

INSTANTIATE_TEST_SUITE_P(Short, AnswerLength, ::testing::Values(2));
INSTANTIATE_TEST_SUITE_P(Long, AnswerLength, ::testing::Values(300));

}  // namespace
