// The calibration read from the camera at open: the three files, the parameters and the sets
// that the validity flags select.
// wrapper.calibration: CAL-BOTH (both sets), CAL-HD (HD keys only), CAL-VGA (plain keys only),
// CAL-NOHDR-D / CAL-NOHDR-X (depth / extrinsic block without "%YAML:1.0"), CAL-MISSING (no
// colour block), CAL-HUGE / CAL-BAD-FOCAL (depth block with enormous matrices / NaN and zero
// focal lengths).
#include <cstddef>
#include <fstream>

#include "CameraModel.h"
#include "wrapper/ApiFixture.h"

namespace apitest {
namespace {

using Calibration = ApiTest;
namespace model = vcam::model;

constexpr int kColourBlob = 0, kDepthBlob = 1, kExtrinsicBlob = 2;

void expectIntrinsics(const CameraIntrinsics& got, const model::Intrinsics& want) {
    EXPECT_NEAR(got.fx, want.fx, 1e-9 * want.fx);
    EXPECT_NEAR(got.fy, want.fy, 1e-9 * want.fy);
    EXPECT_NEAR(got.cx, want.cx, 1e-9 * want.cx);
    EXPECT_NEAR(got.cy, want.cy, 1e-9 * want.cy);
    for (int i = 0; i < 5; ++i)
        EXPECT_NEAR(got.distortion[i], want.dist[i], 1e-12) << i;
}

void expectExtrinsics(const StereoExtrinsics& got) {
    const model::Extrinsics want = model::extrinsics();
    for (int i = 0; i < 9; ++i)
        EXPECT_NEAR(got.rotation[i], want.R[i], 1e-12) << i;
    for (int i = 0; i < 3; ++i)
        EXPECT_NEAR(got.translation[i], want.T[i], 1e-9) << i;
}

bool allZero(const void* p, std::size_t n) {
    const auto* bytes = static_cast<const unsigned char*>(p);
    return std::all_of(bytes, bytes + n, [](unsigned char b) { return b == 0; });
}

TEST_F(Calibration, BothSetsAreStoredParsedAndHandedOver) {
    const DeviceHandle h = open("CAL-BOTH");
    EXPECT_EQ(talvoro_test::readFile("depth_intrinsic.yml"), model::calibrationYaml(kDepthBlob, 2));
    EXPECT_EQ(talvoro_test::readFile("rgb_intrinsic.yml"), model::calibrationYaml(kColourBlob, 2));
    EXPECT_EQ(talvoro_test::readFile("stereo_extrinsic.yml"),
              model::calibrationYaml(kExtrinsicBlob, 2));

    CalibrationParams p{};
    ASSERT_EQ(GetDeviceCalibrationParams(h, &p), Ok);
    expectIntrinsics(p.depth, model::depthIntrinsics());
    expectIntrinsics(p.rgb, model::colourIntrinsics(640, 480));
    expectIntrinsics(p.hd_depth, model::depthIntrinsics());
    expectIntrinsics(p.hd_rgb, model::colourIntrinsics(1280, 720));
    expectExtrinsics(p.extrinsic);
    expectExtrinsics(p.hd_extrinsic);
    EXPECT_EQ(GetDeviceCalibrationParams(h, nullptr), InvalidValue);
    EXPECT_EQ(ReadTOFCalibrationData(h, 0, nullptr), UnknownError);  // reserved

    // The Device has both sets: undistortion and mapping can be switched on.
    EXPECT_EQ(SetUnDistortion(h, 1), Ok);
    EXPECT_EQ(SetRGBDMapping(h, 1), Ok);
    const std::string log = logText();
    EXPECT_NE(log.find("TalvoroSDK:depth_intrinsic_flag : 2"), std::string::npos);
    EXPECT_NE(log.find("TalvoroSDK:stereo_extrinsic_flag : 2"), std::string::npos);
}

TEST_F(Calibration, TheValidityFlagsSelectThePlainOrTheHdKeys) {
    const DeviceHandle hd = open("CAL-HD");  // flags 1
    CalibrationParams p{};
    ASSERT_EQ(GetDeviceCalibrationParams(hd, &p), Ok);
    expectIntrinsics(p.hd_depth, model::depthIntrinsics());
    expectIntrinsics(p.hd_rgb, model::colourIntrinsics(1280, 720));
    expectExtrinsics(p.hd_extrinsic);
    EXPECT_TRUE(allZero(&p.depth, offsetof(CalibrationParams, hd_depth)));
    EXPECT_TRUE(allZero(&p.extrinsic, sizeof p.extrinsic));
    EXPECT_EQ(SetUnDistortion(hd, 1), CalibrationDataNotFound);  // needs the plain set

    const DeviceHandle vga = open("CAL-VGA");  // flags 0
    p = CalibrationParams{};
    ASSERT_EQ(GetDeviceCalibrationParams(vga, &p), Ok);
    expectIntrinsics(p.depth, model::depthIntrinsics());
    expectIntrinsics(p.rgb, model::colourIntrinsics(640, 480));
    expectExtrinsics(p.extrinsic);
    EXPECT_TRUE(allZero(&p.hd_depth, 2 * sizeof p.hd_depth));
    EXPECT_TRUE(allZero(&p.hd_extrinsic, sizeof p.hd_extrinsic));
    EXPECT_EQ(SetUnDistortion(vga, 1), Ok);
}

TEST_F(Calibration, ABlockWithoutTheYamlHeaderIsWrittenThenRefused) {
    const DeviceHandle h = open("CAL-NOHDR-D");
    const std::string written = talvoro_test::readFile("depth_intrinsic.yml");
    EXPECT_EQ(written.rfind("# Talvoro calibration\n", 0), 0u);
    EXPECT_NE(written.find("SCCM_D"), std::string::npos);
    EXPECT_FALSE(exists("rgb_intrinsic.yml"));  // the loading ended at the depth block
    EXPECT_NE(logText().find("TalvoroSDK:depth_intrinsic.yml not in supported format"),
              std::string::npos);
    CalibrationParams p{};
    EXPECT_EQ(GetDeviceCalibrationParams(h, &p), CalibrationDataNotFound);
    EXPECT_EQ(SetUnDistortion(h, 1), CalibrationDataNotFound);
    // The camera works all the same.
    ToFFrame depth{};
    EXPECT_TRUE(fetch(h, RawDepth, &depth));
}

TEST_F(Calibration, AnExtrinsicBlockWithoutTheYamlHeaderIsNotWritten) {
    const DeviceHandle h = open("CAL-NOHDR-X");
    EXPECT_TRUE(exists("depth_intrinsic.yml"));
    EXPECT_TRUE(exists("rgb_intrinsic.yml"));
    EXPECT_FALSE(exists("stereo_extrinsic.yml"));
    EXPECT_NE(logText().find("TalvoroSDK:stereo_extrinsic.yml file not in supported format"),
              std::string::npos);
    CalibrationParams p{};
    EXPECT_EQ(GetDeviceCalibrationParams(h, &p), CalibrationDataNotFound);
}

TEST_F(Calibration, AMissingBlockEndsTheLoadingButNotTheOpen) {
    const DeviceHandle h = open("CAL-MISSING");
    EXPECT_TRUE(exists("depth_intrinsic.yml"));
    EXPECT_FALSE(exists("rgb_intrinsic.yml"));
    const std::string log = logText();
    EXPECT_NE(log.find("TalvoroSDK:rgb_intrinsic_flag : -1"), std::string::npos);
    EXPECT_NE(log.find("TalvoroSDK:calib read req RGB intrinsic failed"), std::string::npos);
    CalibrationParams p{};
    EXPECT_EQ(GetDeviceCalibrationParams(h, &p), CalibrationDataNotFound);
    EXPECT_EQ(IsOpened(h), CameraAlreadyOpen);
}

// A matrix the checks refuse counts as missing: the log says why, neither set reaches the
// Device, and the camera streams all the same.
TEST_F(Calibration, EnormousOrUnusableMatricesAreReportedMissing) {
    const struct {
        const char* serial;
        const char* plainReason;
        const char* hdReason;
    } cases[] = {
        {"CAL-HUGE", "SCCM_D refused: size out of bounds", "SCCM_D_HD refused: size out of bounds"},
        {"CAL-BAD-FOCAL", "SCCM_D refused: value not finite",
         "SCCM_D_HD refused: focal length below one pixel"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.serial);
        const DeviceHandle h = open(c.serial);
        const std::string log = logText();
        EXPECT_NE(log.find(std::string("TalvoroSDK:") + c.plainReason), std::string::npos);
        EXPECT_NE(log.find(std::string("TalvoroSDK:") + c.hdReason), std::string::npos);
        EXPECT_NE(log.find("TalvoroSDK:depth_intrinsic data not found"), std::string::npos);
        EXPECT_NE(log.find("TalvoroSDK:hd_depth_intrinsic data not found"), std::string::npos);
        CalibrationParams p{};
        EXPECT_EQ(GetDeviceCalibrationParams(h, &p), Ok);
        EXPECT_TRUE(allZero(&p, sizeof p));
        EXPECT_EQ(SetUnDistortion(h, 1), CalibrationDataNotFound);
        EXPECT_EQ(SetRGBDMapping(h, 1), CalibrationDataNotFound);
        ToFFrame depth{};
        EXPECT_TRUE(fetch(h, RawDepth, &depth));
        ASSERT_EQ(CloseDevice(h), Ok);
    }
}

// A block OpenCV's reader would never finish is not handed to it: the open returns, the file is
// reported not found and the loading ends there, as for any block that cannot be parsed.
TEST_F(Calibration, ABlockOpenCvCannotFinishIsRefusedBeforeParsing) {
    const DeviceHandle h = open("CAL-UNENDING");
    const std::string log = logText();
    EXPECT_NE(
        log.find("TalvoroSDK:rgb_intrinsic.yml refused: line 3: indentation that opens no map"),
        std::string::npos);
    EXPECT_NE(log.find("TalvoroSDK:rgb_intrinsic.yml is not found, please make sure the file is in "
                       "directory"),
              std::string::npos);
    EXPECT_FALSE(exists("stereo_extrinsic.yml"));  // the loading ended at the colour block
    CalibrationParams p{};
    EXPECT_EQ(GetDeviceCalibrationParams(h, &p), CalibrationDataNotFound);
    ToFFrame depth{};
    EXPECT_TRUE(fetch(h, RawDepth, &depth));
    ASSERT_EQ(CloseDevice(h), Ok);
}

TEST_F(Calibration, ReadAgainAtTheNextOpenOverwritingStaleFiles) {
    {
        std::ofstream stale("depth_intrinsic.yml");
        stale << "%YAML:1.0\nSCCM_D: stale\n";
    }
    const DeviceHandle h = open("CAL-BOTH");
    EXPECT_EQ(talvoro_test::readFile("depth_intrinsic.yml"), model::calibrationYaml(kDepthBlob, 2));
    ASSERT_EQ(CloseDevice(h), Ok);
    CalibrationParams p{};
    EXPECT_EQ(GetDeviceCalibrationParams(h, &p), CameraNotOpened);
    for (const char* f : {"depth_intrinsic.yml", "rgb_intrinsic.yml", "stereo_extrinsic.yml"})
        std::filesystem::remove(f);
    open("CAL-BOTH");
    EXPECT_TRUE(exists("depth_intrinsic.yml"));
    EXPECT_TRUE(exists("rgb_intrinsic.yml"));
    EXPECT_TRUE(exists("stereo_extrinsic.yml"));
    EXPECT_EQ(GetDeviceCalibrationParams(h, &p), Ok);
}

}  // namespace
}  // namespace apitest
