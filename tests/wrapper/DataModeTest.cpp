// Data modes and depth range: what reaches the camera (wire trace) and what the rules allow.
// wrapper.data_modes: MODE-1 on /dev/video0 and /dev/hidraw0, with a wire trace.
#include "common/WireTrace.h"
#include "wrapper/ApiFixture.h"

namespace apitest {
namespace {

using talvoro_test::WireTrace;

constexpr const char* kCamera = "MODE-1";
const std::string kXuOut = "video0 > XU 3 1 SET_CUR ";
const std::string kHidOut = "hidraw0 > ";

class DataMode : public ApiTest {
  protected:
    void SetUp() override {
        ApiTest::SetUp();
        ASSERT_TRUE(trace.available()) << "run with --trace";
        h = open(kCamera);
        ASSERT_EQ(IsOpened(h), CameraAlreadyOpen);
    }
    // Commands written to the camera since the mark (answers and reads left out).
    std::vector<std::string> sent() const {
        std::vector<std::string> out;
        for (const std::string& line : trace.lines())
            if (line.rfind(kXuOut, 0) == 0 || line.rfind(kHidOut, 0) == 0) out.push_back(line);
        return out;
    }
    bool sentLine(const std::string& line) const {
        for (const std::string& l : trace.lines())
            if (l == line) return true;
        return false;
    }
    Talvoro::DataMode mode() {
        Talvoro::DataMode m = No_Image_Mode;
        EXPECT_EQ(GetDataMode(h, &m), Ok);
        return m;
    }

    WireTrace trace;
    DeviceHandle h{};
};

TEST_F(DataMode, SettingTheCurrentModeSendsNothing) {
    ASSERT_EQ(mode(), Depth_IR_RGB_VGA_Mode);
    trace.mark();
    EXPECT_EQ(SetDataMode(h, Depth_IR_RGB_VGA_Mode), Ok);
    EXPECT_TRUE(trace.lines().empty());
}

TEST_F(DataMode, ModeOneIsRecordedWithoutReprogrammingTheCamera) {
    trace.mark();
    EXPECT_EQ(SetDataMode(h, No_Image_Mode), Ok);
    EXPECT_TRUE(trace.lines().empty());
    // The camera still streams mode 4, but the recorded mode 1 has no images and no colour.
    EXPECT_EQ(mode(), Depth_IR_RGB_VGA_Mode);
    for (FrameType type : {IRFrame, DepthColorMap, RGBFrame, RawDepth})
        EXPECT_TRUE(refuses(h, type)) << type;
    unsigned char orientation = 9;
    EXPECT_EQ(GetOrientation(h, &orientation), NotSupportedInDataMode);
    // Kept as it is: the mode compared with is the camera's, so asking for the mode the camera
    // still streams changes nothing...
    EXPECT_EQ(SetDataMode(h, Depth_IR_RGB_VGA_Mode), Ok);
    EXPECT_EQ(GetOrientation(h, &orientation), NotSupportedInDataMode);
    // ...and a round through another mode brings it back.
    ASSERT_EQ(SetDataMode(h, RGB_VGA_Mode), Ok);
    ASSERT_EQ(SetDataMode(h, Depth_IR_RGB_VGA_Mode), Ok);
    EXPECT_EQ(GetOrientation(h, &orientation), Ok);
}

TEST_F(DataMode, ModeFiveNegotiatesTheHdMultiplexedStream) {
    trace.mark();
    ASSERT_EQ(SetDataMode(h, Depth_IR_RGB_HD_Mode), Ok);
    EXPECT_TRUE(sentLine(kHidOut + WireTrace::hex({0xB3, 0x1D, 0x00}, 64)));  // orientation
    EXPECT_TRUE(sentLine(kXuOut + WireTrace::hex({0x1A, 0, 0, 0, 0, 0, 0, 0})));
    EXPECT_EQ(mode(), Depth_IR_RGB_HD_Mode);
    ToFFrame rgb{};
    ASSERT_TRUE(fetch(h, RGBFrame, &rgb));
    EXPECT_EQ(rgb.width, 1280);
    EXPECT_EQ(rgb.height, 720);
}

TEST_F(DataMode, ARefusedFrameModeKeepsTheRecordedMode) {
    ASSERT_TRUE(talvoro_vcam::injectFault(kCamera, "xu-fail:0x1A"));
    EXPECT_EQ(SetDataMode(h, Depth_IR_Mode), SysCallFail);
    ASSERT_TRUE(talvoro_vcam::clearFault(kCamera, "xu-fail"));
    EXPECT_EQ(mode(), Depth_IR_RGB_VGA_Mode);
    unsigned char orientation = 9;
    EXPECT_EQ(GetOrientation(h, &orientation), Ok);  // still recorded as mode 4
}

TEST_F(DataMode, DepthRangeIsSentOnlyWhenItChangesAndNotWithoutDepth) {
    uint16_t range = 9;
    ASSERT_EQ(GetDepthRange(h, &range), Ok);
    ASSERT_EQ(range, 0);
    trace.mark();
    EXPECT_EQ(SetDepthRange(h, 0), Ok);  // read at open: nothing to send
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(SetDepthRange(h, 2), InvalidValue);
    EXPECT_EQ(SetDepthRange(h, 1), Ok);
    EXPECT_EQ(sent(),
              std::vector<std::string>{kXuOut + WireTrace::hex({0x19, 0, 1, 0, 0, 0, 0, 0})});
    ASSERT_EQ(GetDepthRange(h, &range), Ok);
    EXPECT_EQ(range, 1);

    ASSERT_EQ(SetDataMode(h, RGB_HD_Mode), Ok);
    trace.mark();
    EXPECT_EQ(SetDepthRange(h, 0), NotSupportedInDataMode);
    EXPECT_TRUE(sent().empty());
    ASSERT_EQ(SetDataMode(h, Depth_IR_RGB_VGA_Mode), Ok);
    EXPECT_EQ(SetDepthRange(h, 0), Ok);
}

TEST_F(DataMode, OrientationAndRegionAreReadWithColourButSetOnlyWithColourAlone) {
    unsigned char value = 9, window = 9;
    trace.mark();
    EXPECT_EQ(GetOrientation(h, &value), Ok);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(GetAutoExposureROI(h, &value, &window), Ok);
    EXPECT_EQ(SetOrientation(h, 1), NotSupportedInDataMode);
    EXPECT_EQ(SetAutoExposureROI(h, 2, 640, 480, 320, 240, 4), NotSupportedInDataMode);
    for (const std::string& line : sent()) {
        EXPECT_NE(line.rfind(kHidOut + "B3 1D", 0), 0u) << line;
        EXPECT_NE(line.rfind(kHidOut + "B3 19", 0), 0u) << line;
    }

    ASSERT_EQ(SetDataMode(h, RGB_VGA_Mode), Ok);
    EXPECT_EQ(SetOrientation(h, 1), Ok);
    EXPECT_EQ(GetOrientation(h, &value), Ok);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(SetAutoExposureROI(h, 2, 640, 480, 320, 240, 4), Ok);
    EXPECT_EQ(SetOrientation(h, 0), Ok);

    ASSERT_EQ(SetDataMode(h, IR_Mode), Ok);
    EXPECT_EQ(GetOrientation(h, &value), NotSupportedInDataMode);
}

TEST_F(DataMode, IrGainIsRefusedWithoutIrBeforeItsRangeIsChecked) {
    ASSERT_EQ(SetDataMode(h, Depth_Mode), Ok);
    EXPECT_EQ(SetTOFIRGain(h, 0), NotSupportedInDataMode);
    ASSERT_EQ(SetDataMode(h, Depth_IR_Mode), Ok);
    EXPECT_EQ(SetTOFIRGain(h, 0), InvalidValue);
    EXPECT_EQ(SetTOFIRGain(h, 101), InvalidValue);
    EXPECT_EQ(SetTOFIRGain(h, 100), Ok);
    unsigned short gain = 0;
    EXPECT_EQ(GetTOFIRGain(h, &gain), Ok);
    EXPECT_EQ(gain, 100);
    EXPECT_EQ(GetTOFIRGain(h, nullptr), InvalidValue);
}

}  // namespace
}  // namespace apitest
