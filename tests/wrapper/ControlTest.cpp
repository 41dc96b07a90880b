// Control entry points: each reaches its channel behind the guard and its data-mode rule.
// wrapper.data_modes: MODE-1 on /dev/video0 and /dev/hidraw0, with a wire trace; MODE-SPARE
// registered but never opened.
#include "common/WireTrace.h"
#include "wrapper/ApiFixture.h"

namespace apitest {
namespace {

class Controls : public ApiTest {
  protected:
    void SetUp() override {
        ApiTest::SetUp();
        ASSERT_TRUE(trace.available()) << "run with --trace";
        h = open("MODE-1");
    }
    void TearDown() override {
        if (IsOpened(h) == CameraAlreadyOpen) {
            EXPECT_EQ(SetDefault(h), Ok);
        }
        ApiTest::TearDown();
    }
    talvoro_test::WireTrace trace;
    DeviceHandle h{};
};

TEST_F(Controls, SensorRegisterAccessAnswersOnlyTheOpenState) {
    trace.mark();
    EXPECT_EQ(SetADIRegister(h, 0x0123, 0xBEEF), Ok);
    unsigned short value = 0x5A5A;
    EXPECT_EQ(GetADIRegister(h, 0x0123, &value), Ok);
    EXPECT_EQ(value, 0x5A5A);
    EXPECT_TRUE(trace.lines().empty());
    EXPECT_EQ(SetADIRegister(handleOf("MODE-SPARE"), 1, 2), CameraNotOpened);
}

TEST_F(Controls, EachControlReachesItsChannelInTheModesItNeeds) {
    // Extension unit, any mode; the exposure bound follows the range read at open.
    EXPECT_EQ(SetTOFExposure(h, 300), Ok);
    unsigned short exposure = 0;
    EXPECT_EQ(GetTOFExposure(h, &exposure), Ok);
    EXPECT_EQ(exposure, 300);
    EXPECT_EQ(SetTOFExposure(h, 381), InvalidValue);
    // Standard colour controls: refusals are reported as such.
    UVCProp prop{};
    ASSERT_EQ(GetUVCControl(h, 0, &prop), Ok);
    EXPECT_EQ(prop.control_id, 0);
    EXPECT_EQ(prop.max_value, 64);
    EXPECT_EQ(GetUVCControl(h, 11, &prop), GetValueFailed);
    EXPECT_EQ(SetUVCControl(h, 0, 1000), SetValueFailed);
    // HID: a value round trip, and a value the camera refuses.
    unsigned char scene = 9;
    EXPECT_EQ(SetSceneMode(h, 1), Ok);
    EXPECT_EQ(GetSceneMode(h, &scene), Ok);
    EXPECT_EQ(scene, 1);
    EXPECT_EQ(SetSceneMode(h, 7), SetValueFailed);
    float base = 0;
    EXPECT_EQ(GetBaseBoardTemperatureData(h, &base), Ok);
    EXPECT_EQ(base, 38.0f);
    // The Device: its own range checks, and the one answer that is not passed on.
    EXPECT_EQ(UpdateAvgXandY(h, 3, 10), OperationFailed);
    EXPECT_EQ(SetFilterType(h, 7, true), Ok);
    std::vector<DepthPtr> positions{{320, 240}};
    EXPECT_EQ(SetPositions(h, &positions, 0), Ok);
    EXPECT_EQ(SetPositions(h, nullptr, 0), InvalidValue);

    ASSERT_EQ(SetDataMode(h, Depth_Mode), Ok);
    EXPECT_EQ(GetSceneMode(h, &scene), NotSupportedInDataMode);
    EXPECT_EQ(GetUVCControl(h, 0, &prop), NotSupportedInDataMode);
    EXPECT_EQ(SetRGBDMapping(h, 1), NotSupportedInDataMode);
    EXPECT_EQ(SetAvgIRDisplay(h, 1), NotSupportedInDataMode);
    EXPECT_EQ(SetTOFCoring(h, 16), Ok);
    EXPECT_EQ(GetBaseBoardTemperatureData(h, &base), Ok);
    ASSERT_EQ(SetDataMode(h, RGB_VGA_Mode), Ok);
    EXPECT_EQ(SetTOFCoring(h, 16), NotSupportedInDataMode);
    int d = 0, ds = 0, ir = 0, irs = 0;
    EXPECT_EQ(GetDepthIRValues(h, &d, &ds, &ir, &irs), NotSupportedInDataMode);
    EXPECT_EQ(SetPlanarization(h, 1), NotSupportedInDataMode);
    EXPECT_EQ(SetAvgRegion(h, AvgRegion_Center), Ok);  // no rule
}

TEST_F(Controls, PlanarizationReachesARegisteredCameraThatIsNotOpen) {
    ASSERT_EQ(SetLogLevel(0), Ok);
    EXPECT_EQ(SetPlanarization(handleOf("MODE-SPARE"), 1), Ok);
    ASSERT_EQ(SetLogLevel(2), Ok);
    EXPECT_NE(logText().find("1<<48:281474976710656"), std::string::npos);
    EXPECT_EQ(SetPlanarization(handleOf("NOT-A-CAMERA"), 1), CameraNotOpened);
}

}  // namespace
}  // namespace apitest
