// The HID channel against the virtual camera: pairing by serial, every command's bytes (from
// the wire trace), round trips, refusals, the calibration blobs, board data and the IMU.
#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CameraModel.h"
#include "common/TempDir.h"
#include "common/WireTrace.h"
#include "hid/HID.h"
#include "log/Log.h"
#include "log/TALVOROError.h"
#include "talvoro_vcam.h"

using namespace Talvoro;
using talvoro_test::TempDir;
using talvoro_test::WireTrace;

namespace {

// hid.channel: HID-A on hidraw0/1; HID-B on hidraw2/3 with the firmware keys of CMakeLists.txt.
constexpr const char* kSerial = "HID-B";
const std::string kOut = "hidraw2 > ";
const std::string kIn = "hidraw2 < ";

DeviceInfo camera(const char* serial) {
    DeviceInfo info{};
    std::strncpy(info.serialNo, serial, sizeof info.serialNo - 1);
    return info;
}

std::string request(std::initializer_list<int> bytes) {
    return kOut + WireTrace::hex(bytes, 64);
}

std::string answer(std::initializer_list<int> bytes) {
    return kIn + WireTrace::hex(bytes, 64);
}

class VirtualCamera : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam";
        ASSERT_TRUE(trace.available()) << "run with --trace";
    }
    std::string logText() const {
        return talvoro_test::readFile(logDir.file(Log::getInstance()->fileName()));
    }
    static Result openOn(HID& hid, const char* serial) {
        DeviceInfo info = camera(serial);
        return hid.openHID(&info);
    }
    TempDir logDir{true};
    WireTrace trace;
};

class HidChannel : public VirtualCamera {
  protected:
    void SetUp() override {
        VirtualCamera::SetUp();
        ASSERT_EQ(openOn(hid, kSerial), Ok);
        trace.mark();
    }
    void TearDown() override {
        for (const char* fault : {"hid-nak", "hid-silence"})
            talvoro_vcam::clearFault(kSerial, fault);
    }
    void nak(const char* prefix) {
        ASSERT_TRUE(talvoro_vcam::injectFault(kSerial, (std::string("hid-nak:") + prefix).c_str()));
    }
    HID hid;
};

TEST_F(HidChannel, PairsTheNodesOfTheCameraWithTheSerial) {
    HID other;
    ASSERT_EQ(openOn(other, "HID-A"), Ok);
    trace.mark();
    EXPECT_EQ(other.setCameraMode(1), Ok);
    EXPECT_EQ(trace.lines("hidraw0 > ").size(), 1u);
    EXPECT_TRUE(trace.lines("hidraw2").empty());

    EXPECT_EQ(openOn(other, "NOBODY"), CameraNotOpened);
    EXPECT_EQ(TALVOROError::cErrorNo.load(), CameraNotOpened);
    EXPECT_EQ(other.openHID(nullptr), InvalidValue);
    // The first open's nodes were given up by the failed one.
    EXPECT_EQ(other.setCameraMode(1), HidWriteFail);
}

TEST_F(HidChannel, CommandsFailToWriteBeforeOpenAndAfterClose) {
    HID closed;
    unsigned char value = 7;
    EXPECT_EQ(closed.getSceneMode(&value), HidWriteFail);
    EXPECT_EQ(value, 255);
    EXPECT_EQ(TALVOROError::cErrorNo.load(), HidWriteFail);
    IMUDATAOUTPUT_TypeDef sample{};
    EXPECT_EQ(closed.getIMUValue(&sample), TimeoutError);  // the pause fails on no descriptor
    EXPECT_EQ(hid.closeHID(), CameraNotOpened);            // by design, although closing worked
    EXPECT_EQ(hid.setSceneMode(1), HidWriteFail);
    EXPECT_TRUE(trace.lines().empty());
}

TEST_F(HidChannel, SetCameraModeSendsItsReportAndReadsTheAcknowledgement) {
    ASSERT_EQ(hid.setCameraMode(3), Ok);
    EXPECT_EQ(trace.lines(), (std::vector<std::string>{request({0xB3, 0x02, 0x03}),
                                                       answer({0xB3, 0x02, 0x03, 0, 0, 0, 1})}));
    nak("0x02");
    EXPECT_EQ(hid.setCameraMode(3), SetValueFailed);
    EXPECT_EQ(TALVOROError::cErrorNo.load(), SetValueFailed);
}

struct ByteSetting {
    const char* name;
    int get, set;  // sub-commands
    Result (HID::*read)(unsigned char*);
    Result (HID::*write)(unsigned char);
    unsigned char valid, invalid;  // values the camera takes and refuses
    Result readRefused, writeRefused;
};

// The irregular refusal codes (orientation reads, IMU embedded data writes) are deliberate.
const ByteSetting kByteSettings[] = {
    {"camera mode", 0x01, 0x02, &HID::getCameraMode, &HID::setCameraMode, 3, 9, GetValueFailed,
     SetValueFailed},
    {"anti-flicker", 0x0E, 0x0F, &HID::getAntiFlickerDetection, &HID::setAntiFlickerDetection, 2, 7,
     GetValueFailed, SetValueFailed},
    {"scene mode", 0x12, 0x13, &HID::getSceneMode, &HID::setSceneMode, 1, 5, GetValueFailed,
     SetValueFailed},
    {"special effect", 0x14, 0x15, &HID::getSpecialEffect, &HID::setSpecialEffect, 4, 9,
     GetValueFailed, SetValueFailed},
    {"denoise", 0x16, 0x17, &HID::getDenoise, &HID::setDenoise, 12, 99, GetValueFailed,
     SetValueFailed},
    {"orientation", 0x1C, 0x1D, &HID::getOrientation, &HID::setOrientation, 3, 4, SetValueFailed,
     SetValueFailed},
    {"frame rate", 0x24, 0x25, &HID::getFrameRateCtrl, &HID::setFrameRateCtrl, 60, 0,
     GetValueFailed, SetValueFailed},
    {"IMU embedded data", 0x2A, 0x2B, &HID::getIMUEmbeddedData, &HID::setIMUEmbeddedData, 1, 2,
     GetValueFailed, GetValueFailed},
};

TEST_F(HidChannel, OneByteSettingsRoundTripAndReportRefusals) {
    char hexSub[8];
    for (const auto& s : kByteSettings) {
        SCOPED_TRACE(s.name);
        trace.mark();
        ASSERT_EQ((hid.*s.write)(s.valid), Ok);
        unsigned char value = 0;
        ASSERT_EQ((hid.*s.read)(&value), Ok);
        EXPECT_EQ(value, s.valid);
        EXPECT_EQ(trace.lines(kOut), (std::vector<std::string>{request({0xB3, s.set, s.valid}),
                                                               request({0xB3, s.get})}));

        EXPECT_EQ((hid.*s.write)(s.invalid), s.writeRefused);
        ASSERT_EQ((hid.*s.read)(&value), Ok);
        EXPECT_EQ(value, s.valid);

        std::snprintf(hexSub, sizeof hexSub, "0x%02X", s.get);
        nak(hexSub);
        EXPECT_EQ((hid.*s.read)(&value), s.readRefused);
        EXPECT_EQ(value, 255);  // the preset marks the failure
        std::snprintf(hexSub, sizeof hexSub, "0x%02X", s.set);
        nak(hexSub);
        EXPECT_EQ((hid.*s.write)(s.valid), s.writeRefused);
        EXPECT_EQ(TALVOROError::cErrorNo.load(), s.writeRefused);
        talvoro_vcam::clearFault(kSerial, "hid-nak");
    }
}

TEST_F(HidChannel, FaceAndSmileDetection) {
    ASSERT_EQ(hid.setFaceDetection(1, 0, 1), Ok);
    ASSERT_EQ(hid.setSmileDetection(1, 1), Ok);
    unsigned char a = 0, b = 0, c = 0;
    ASSERT_EQ(hid.getFaceDetection(&a, &b, &c), Ok);
    EXPECT_EQ((std::vector<int>{a, b, c}), (std::vector<int>{1, 0, 1}));
    ASSERT_EQ(hid.getSmileDetection(&a, &b), Ok);
    EXPECT_EQ((std::vector<int>{a, b}), (std::vector<int>{1, 1}));
    EXPECT_EQ(trace.lines(kOut)[0], request({0xB3, 0x1F, 1, 0, 1}));
    EXPECT_EQ(trace.lines(kOut)[1], request({0xB3, 0x21, 1, 0, 1}));  // smile: bytes 2 and 4

    EXPECT_EQ(hid.setFaceDetection(2, 0, 0), SetValueFailed);
    nak("0x1E");
    EXPECT_EQ(hid.getFaceDetection(&a, &b, &c), SetValueFailed);
    EXPECT_EQ((std::vector<int>{a, b, c}), (std::vector<int>{255, 255, 255}));
    nak("0x20");
    EXPECT_EQ(hid.getSmileDetection(&a, &b), GetValueFailed);
    EXPECT_EQ((std::vector<int>{a, b}), (std::vector<int>{255, 255}));
}

TEST_F(HidChannel, ExposureCompensationIsBigEndian) {
    EXPECT_EQ(hid.setExposureCompensation(0x01020304), SetValueFailed);  // beyond the range
    EXPECT_EQ(trace.lines(kOut).at(0), request({0xB3, 0x23, 0x01, 0x02, 0x03, 0x04}));
    ASSERT_EQ(hid.setExposureCompensation(250000), Ok);
    unsigned int value = 0;
    ASSERT_EQ(hid.getExposureCompensation(&value), Ok);
    EXPECT_EQ(value, 250000u);
    nak("0x22");
    EXPECT_EQ(hid.getExposureCompensation(&value), GetValueFailed);
    EXPECT_EQ(value, 0xFFFFFFFFu);
}

TEST_F(HidChannel, AutoExposureRegionSendsCoordinatesOnlyInManualMode) {
    ASSERT_EQ(hid.setAutoExposureROI(2, 640, 480, 639, 0, 4), Ok);
    unsigned char mode = 0, window = 0;
    ASSERT_EQ(hid.getAutoExposureROI(&mode, &window), Ok);
    EXPECT_EQ(mode, 2);
    EXPECT_EQ(window, 4);
    ASSERT_EQ(hid.setAutoExposureROI(1, 640, 480, 639, 0, 4), Ok);
    ASSERT_EQ(hid.getAutoExposureROI(&mode, &window), Ok);
    EXPECT_EQ(mode, 1);
    EXPECT_EQ(window, 255);  // read only in manual mode
    // Degenerate frames: width 1 divides by zero (255), height 0 wraps to a huge extent (0).
    EXPECT_EQ(hid.setAutoExposureROI(2, 1, 0, 5, 5, 3), Ok);
    const auto sent = trace.lines(kOut);
    ASSERT_EQ(sent.size(), 5u);
    EXPECT_EQ(sent[0], request({0xB3, 0x19, 2, 0xFF, 0x00, 4}));
    EXPECT_EQ(sent[2], request({0xB3, 0x19, 1}));
    EXPECT_EQ(sent[4], request({0xB3, 0x19, 2, 0xFF, 0x00, 3}));
    nak("0x18");
    EXPECT_EQ(hid.getAutoExposureROI(&mode, &window), SetValueFailed);
    EXPECT_EQ(mode, 255);
}

TEST_F(HidChannel, SetDefaultRestoresTheCameraSettings) {
    ASSERT_EQ(hid.setDenoise(3), Ok);
    ASSERT_EQ(hid.setDefault(), Ok);
    EXPECT_EQ(trace.lines(kOut).back(), request({0xB3, 0xFF}));
    unsigned char denoise = 0;
    ASSERT_EQ(hid.getDenoise(&denoise), Ok);
    EXPECT_EQ(denoise, 8);
    nak("0xFF");
    EXPECT_EQ(hid.setDefault(), SetValueFailed);
}

TEST_F(HidChannel, UniqueIdComesInTwoHalves) {
    unsigned long id = 0;
    ASSERT_EQ(hid.getUniqueID(&id), Ok);
    EXPECT_EQ(id, 0x0123456789ABCDEFul);
    EXPECT_EQ(trace.lines(kOut),
              (std::vector<std::string>{request({0x41, 0x00}), request({0x41, 0x01})}));
    // A refused second half leaves the output alone.
    nak("4101");
    id = 42;
    EXPECT_EQ(hid.getUniqueID(&id), GetValueFailed);
    EXPECT_EQ(id, 42ul);
}

TEST_F(HidChannel, FirmwareVersion) {
    unsigned char major = 0, minor = 0;
    unsigned short third = 0, fourth = 0;
    ASSERT_EQ(hid.readFirmwareVersion(&major, &minor, &third, &fourth), Ok);
    EXPECT_EQ((std::vector<int>{major, minor, third, fourth}), (std::vector<int>{3, 7, 258, 4097}));
    EXPECT_EQ(trace.lines(kOut), (std::vector<std::string>{request({0x40})}));
    nak("40");
    EXPECT_EQ(hid.readFirmwareVersion(&major, &minor, &third, &fourth), GetValueFailed);
}

TEST_F(HidChannel, BoardTemperaturesAreUnscaled) {
    float base = 0, laser = 0;
    ASSERT_EQ(hid.getBaseBoardTemperatureData(&base), Ok);
    ASSERT_EQ(hid.getLaserBoardTemperatureData(&laser), Ok);
    EXPECT_EQ(base, 41.0f);
    EXPECT_EQ(laser, 52.0f);
    nak("0x29");
    EXPECT_EQ(hid.getLaserBoardTemperatureData(&laser), GetValueFailed);
    EXPECT_EQ(laser, 65535.0f);
}

TEST_F(HidChannel, BoardConfigurationIsAppendedWithoutSeparators) {
    std::string text = "x";
    ASSERT_EQ(hid.getBoardConfigData(&text), Ok);
    EXPECT_EQ(text, "x007");
    EXPECT_EQ(trace.lines(kOut), (std::vector<std::string>{request({0xB3, 0x34})}));
    nak("0x34");
    EXPECT_EQ(hid.getBoardConfigData(&text), GetValueFailed);
    EXPECT_EQ(text, "x007");
}

TEST_F(HidChannel, ReservedOperationsTouchNothing) {
    TALVOROError::cErrorNo = -9;
    int size = 5;
    unsigned char data[4] = {1, 2, 3, 4};
    float t = 1.5f;
    const Result results[] = {hid.getIMUTemperatureData(&t),
                              hid.calibWriteReqExtrinsic(&size),
                              hid.calibWriteExtrinsic(&size, data),
                              hid.calibWriteReqRGBIntrinsic(&size),
                              hid.calibWriteRGBIntrinsic(&size, data),
                              hid.calibWriteReqDepthIntrinsic(&size),
                              hid.calibWriteDepthIntrinsic(&size, data),
                              hid.writeTOFCalibrationData(4, data),
                              hid.readReqTOFCalibrationData(&size),
                              hid.readTOFCalibrationData(4, data),
                              hid.writeTOFPulseTuneSettings47Ohm(4, data),
                              hid.readReqTOFPulseTuneSettings47Ohm(&size),
                              hid.readTOFPulseTuneSettings47Ohm(4, data)};
    for (Result r : results)
        EXPECT_EQ(r, UnknownError);
    EXPECT_EQ(size, 5);
    EXPECT_EQ(t, 1.5f);
    EXPECT_EQ(data[0], 1);
    EXPECT_EQ(TALVOROError::cErrorNo.load(), -9);
    EXPECT_TRUE(trace.lines().empty());
}

// ---- calibration ----

TEST_F(HidChannel, CalibrationBlobsMatchTheCameraOptics) {
    struct Blob {
        uint8_t type;
        Result (HID::*request)(int*);
        Result (HID::*read)(int*, unsigned char*);
        CalibValidFlag flag;  // as the scenario stores it
    } blobs[] = {
        {1, &HID::calibReadReqDepthIntrinsic, &HID::calibReadDepthIntrinsic, Calib_VGA_And_HD},
        {0, &HID::calibReadReqRGBIntrinsic, &HID::calibReadRGBIntrinsic, Calib_VGA_Only},
        {2, &HID::calibReadReqExtrinsic, &HID::calibReadExtrinsic, Calib_HD_Only},
    };
    for (const auto& b : blobs) {
        SCOPED_TRACE(int(b.type));
        CalibValidFlag flag = static_cast<CalibValidFlag>(9);
        ASSERT_EQ(hid.getCalibrationDataValidFlag(b.type, &flag), Ok);
        EXPECT_EQ(flag, b.flag);
        const std::string expected = vcam::model::calibrationYaml(b.type, b.flag);
        trace.mark();
        int size = 0;
        ASSERT_EQ((hid.*b.request)(&size), Ok);
        ASSERT_EQ(size, static_cast<int>(expected.size()));
        std::vector<unsigned char> data(static_cast<std::size_t>(size));
        ASSERT_EQ((hid.*b.read)(&size, data.data()), Ok);
        EXPECT_EQ(std::string(data.begin(), data.end()), expected);
        EXPECT_EQ(expected.rfind("%YAML:1.0", 0), 0u);

        const auto sent = trace.lines(kOut);
        const std::size_t chunks = (expected.size() + 55) / 56;
        ASSERT_EQ(sent.size(), 1 + chunks);
        EXPECT_EQ(sent[0], request({0xB3, 0x09, b.type}));
        EXPECT_EQ(sent[1], request({0xB3, 0x0A, b.type, 0, 0, 0, 1}));
        EXPECT_EQ(sent.back(),
                  request({0xB3, 0x0A, b.type, 0, 0, int(chunks >> 8), int(chunks & 0xFF)}));
    }
}

TEST_F(HidChannel, ReadsStopAtTheCallersSize) {
    int size = 0;
    ASSERT_EQ(hid.calibReadReqDepthIntrinsic(&size), Ok);
    ASSERT_GT(size, 130);
    const std::string blob = vcam::model::calibrationYaml(1, 2);
    // Exactly 130 bytes: three chunks, the third copies 18 bytes and nothing beyond.
    auto data = std::make_unique<unsigned char[]>(130);
    trace.mark();
    int wanted = 130;
    ASSERT_EQ(hid.calibReadDepthIntrinsic(&wanted, data.get()), Ok);
    EXPECT_EQ(std::string(data.get(), data.get() + 130), blob.substr(0, 130));
    EXPECT_EQ(trace.lines(kOut).size(), 3u);
    EXPECT_EQ(wanted, 130);

    trace.mark();
    TALVOROError::cErrorNo = -9;
    int zero = 0;
    EXPECT_EQ(hid.calibReadDepthIntrinsic(&zero, data.get()), 0);
    EXPECT_EQ(TALVOROError::cErrorNo.load(), -9);
    for (int bad : {-1, 65536, 0x7FFFFFFF}) {
        EXPECT_EQ(hid.calibReadDepthIntrinsic(&bad, data.get()), InvalidValue) << bad;
    }
    EXPECT_EQ(hid.calibReadDepthIntrinsic(&wanted, nullptr), InvalidValue);
    EXPECT_EQ(hid.calibReadReqDepthIntrinsic(nullptr), InvalidValue);
    EXPECT_TRUE(trace.lines().empty());
}

TEST_F(HidChannel, ARefusedChunkEndsTheRead) {
    int size = 0;
    ASSERT_EQ(hid.calibReadReqRGBIntrinsic(&size), Ok);
    nak("B30A");
    std::vector<unsigned char> data(static_cast<std::size_t>(size), 0xEE);
    trace.mark();
    EXPECT_EQ(hid.calibReadRGBIntrinsic(&size, data.data()), GetValueFailed);
    EXPECT_EQ(trace.lines(kOut).size(), 1u);
    EXPECT_EQ(data[0], 0xEE);
}

TEST_F(HidChannel, ValidityFlagsCanBeSet) {
    CalibValidFlag flag = Calib_VGA_Only;
    ASSERT_EQ(hid.setCalibrationDataValidFlag(1, Calib_HD_Only), Ok);
    ASSERT_EQ(hid.getCalibrationDataValidFlag(1, &flag), Ok);
    EXPECT_EQ(flag, Calib_HD_Only);
    // A flag outside 0..2 is sent as 0.
    ASSERT_EQ(hid.setCalibrationDataValidFlag(1, static_cast<CalibValidFlag>(7)), Ok);
    EXPECT_EQ(trace.lines(kOut).back(), request({0xB3, 0x33, 1, 0}));
    ASSERT_EQ(hid.getCalibrationDataValidFlag(1, &flag), Ok);
    EXPECT_EQ(flag, Calib_VGA_Only);
    ASSERT_EQ(hid.setCalibrationDataValidFlag(1, Calib_VGA_And_HD), Ok);

    EXPECT_EQ(hid.setCalibrationDataValidFlag(5, Calib_HD_Only), SetValueFailed);  // no blob 5
    EXPECT_EQ(hid.getCalibrationDataValidFlag(5, &flag), GetValueFailed);
    EXPECT_EQ(hid.getCalibrationDataValidFlag(1, nullptr), InvalidValue);
}

// ---- IMU ----

// Polls until a sample arrives; each call pauses about 10 ms.
Result nextSample(HID& hid, IMUDATAOUTPUT_TypeDef* sample) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    Result r;
    do {
        r = hid.getIMUValue(sample);
    } while (r == HidReadFail && std::chrono::steady_clock::now() < deadline);
    return r;
}

TEST_F(HidChannel, ImuConfigurationSelectsTheScales) {
    IMUCONFIG_TypeDef config;
    ASSERT_EQ(hid.getIMUConfig(&config), Ok);
    EXPECT_EQ(config.ACC_SENSITIVITY_CONFIG, 0);
    EXPECT_EQ(hid.accelerometerScale(), double(0.061f));
    EXPECT_EQ(hid.gyroscopeScale(), double(0.00763f));

    const IMUCONFIG_TypeDef wide{1, 7, 1, 5, 3, 4};
    ASSERT_EQ(hid.setIMUConfig(wide), Ok);
    EXPECT_EQ(trace.lines(kOut).back(), request({0xB3, 0x04, 1, 0, 0, 7, 4, 1, 0, 0, 5, 0, 3}));
    EXPECT_EQ(hid.accelerometerScale(), double(0.488f));  // code 1 is the widest range
    EXPECT_EQ(hid.gyroscopeScale(), double(0.0609f));
    ASSERT_EQ(hid.getIMUConfig(&config), Ok);
    EXPECT_EQ(std::memcmp(&config, &wide, sizeof config), 0);

    EXPECT_EQ(hid.setIMUConfig({1, 7, 6, 7, 0, 3}), SetValueFailed);  // no range 6
    EXPECT_EQ(hid.accelerometerScale(), double(0.488f));
    nak("0x03");
    EXPECT_EQ(hid.getIMUConfig(&config), GetValueFailed);
    EXPECT_EQ(config.IMU_MODE, 0xFF);
    EXPECT_EQ(config.GYRO_SENSITIVITY_CONFIG, 0xFF);
}

TEST_F(HidChannel, ImuSamplesFlowWhileCaptureRuns) {
    IMUDATAOUTPUT_TypeDef sample{};
    TALVOROError::cErrorNo = -9;
    EXPECT_EQ(hid.getIMUValue(&sample), HidReadFail);  // idle: nothing to read
    EXPECT_EQ(TALVOROError::cErrorNo.load(), -9);

    ASSERT_EQ(hid.setIMUConfig({1, 7, 1, 7, 2, 3}), Ok);
    IMUDATAINPUT_TypeDef control{1, 0};
    trace.mark();
    ASSERT_EQ(hid.controlIMUCapture(&control), Ok);
    EXPECT_EQ(trace.lines(kOut),
              (std::vector<std::string>{request({0xB3, 0x05, 1}), request({0xB3, 0x06})}));

    ASSERT_EQ(nextSample(hid, &sample), Ok);
    EXPECT_EQ(sample.imuValueCount, 1);
    // The camera at rest: about 1 g along y, and its gyroscope bias.
    const double acc = hid.accelerometerScale(), gyro = hid.gyroscopeScale();
    EXPECT_NEAR(sample.accX, -20.0, acc);
    EXPECT_NEAR(sample.accY, 1000.0, acc);
    EXPECT_NEAR(sample.accZ, 35.0, acc);
    EXPECT_NEAR(sample.gyroX, 1.5, gyro);
    EXPECT_NEAR(sample.gyroY, -0.75, gyro);
    EXPECT_NEAR(sample.gyroZ, 0.25, gyro);

    // Any mode but continuous reports the capture stopped, even when the camera takes it.
    IMUDATAINPUT_TypeDef stop{2, 50};
    EXPECT_EQ(hid.controlIMUCapture(&stop), SetValueFailed);
    EXPECT_EQ(stop.IMU_UPDATE_MODE, 2);
    EXPECT_EQ(stop.IMU_NUM_OF_VALUES, 1);
    // The camera sends faster than one sample per call: only a stopped stream drains.
    int drained = 0;
    while (hid.getIMUValue(&sample) == Ok && drained < 2000)
        ++drained;
    EXPECT_LT(drained, 2000);

    nak("0x05");
    IMUDATAINPUT_TypeDef refused{1, 9};
    EXPECT_EQ(hid.controlIMUCapture(&refused), SetValueFailed);
    EXPECT_EQ(refused.IMU_UPDATE_MODE, 2);
    EXPECT_EQ(refused.IMU_NUM_OF_VALUES, 1);
}

// ---- other cameras ----

using OddCamera = VirtualCamera;

TEST_F(OddCamera, MissingEmptyAndForeignBlobsAndAnOverlongBoardCount) {
    HID hid;
    ASSERT_EQ(openOn(hid, "HID-ODD"), Ok);
    int size = 77;
    EXPECT_EQ(hid.calibReadReqDepthIntrinsic(&size), GetValueFailed);  // no depth blob
    EXPECT_EQ(size, 77);
    CalibValidFlag flag = Calib_HD_Only;
    EXPECT_EQ(hid.getCalibrationDataValidFlag(1, &flag), Ok);
    EXPECT_EQ(flag, Calib_HD_Only);  // the camera's 0xFF is not a flag

    ASSERT_EQ(hid.calibReadReqRGBIntrinsic(&size), Ok);
    EXPECT_EQ(size, 0);
    unsigned char none[1] = {0xEE};
    EXPECT_EQ(hid.calibReadRGBIntrinsic(&size, none), 0);

    ASSERT_EQ(hid.calibReadReqExtrinsic(&size), Ok);
    std::vector<unsigned char> data(static_cast<std::size_t>(size));
    ASSERT_EQ(hid.calibReadExtrinsic(&size, data.data()), Ok);
    EXPECT_NE(std::string(data.begin(), data.end()).rfind("%YAML:1.0", 0), 0u);

    std::string text = "kept";
    EXPECT_EQ(hid.getBoardConfigData(&text), GetValueFailed);  // 61 values cannot fit
    EXPECT_EQ(text, "kept");
}

using NoSerial = VirtualCamera;

TEST_F(NoSerial, NodesWithoutASerialNeverPair) {
    HID hid;
    EXPECT_EQ(openOn(hid, ""), CameraNotOpened);
    EXPECT_EQ(openOn(hid, "NOSER"), CameraNotOpened);
}

using Unplugged = VirtualCamera;

TEST_F(Unplugged, CommandsFailOnceTheCameraIsGone) {
    HID hid;
    ASSERT_EQ(openOn(hid, "HID-GONE"), Ok);
    ASSERT_TRUE(talvoro_vcam::injectFault("HID-GONE", "unplug"));
    unsigned char value = 0;
    EXPECT_EQ(hid.getSceneMode(&value), HidWriteFail);
    EXPECT_EQ(errno, ENODEV);
    IMUDATAOUTPUT_TypeDef sample{};
    EXPECT_EQ(hid.getIMUValue(&sample), HidReadFail);
    // The camera has left the udev tree: nothing pairs with its serial any more.
    HID again;
    EXPECT_EQ(openOn(again, "HID-GONE"), CameraNotOpened);
}

using OpenRefused = VirtualCamera;

TEST_F(OpenRefused, NodesThatCannotBeOpenedAreLoggedAndSkipped) {
    ASSERT_TRUE(talvoro_vcam::injectFault("HID-PERM", "hid-open-fail"));
    HID hid;
    EXPECT_EQ(openOn(hid, "HID-PERM"), CameraNotOpened);
    EXPECT_NE(logText().find("  : \nTalvoroSDK:hid open:\n"), std::string::npos);
    // The cause, and what grants the permission.
    EXPECT_TRUE(std::regex_search(logText(), std::regex("permission denied on /dev/hidraw[0-9]+: "
                                                        "install the udev rule 60-talvoro.rules")))
        << logText();
    ASSERT_TRUE(talvoro_vcam::clearFault("HID-PERM", "hid-open-fail"));
    EXPECT_EQ(openOn(hid, "HID-PERM"), Ok);
}

using Interrupted = VirtualCamera;

TEST_F(Interrupted, CallsInterruptedBySignalsAreRepeated) {
    HID hid;
    ASSERT_EQ(openOn(hid, "HID-EINTR"), Ok);
    trace.mark();
    ASSERT_EQ(hid.setSceneMode(1), Ok);
    unsigned char value = 0;
    ASSERT_EQ(hid.getSceneMode(&value), Ok);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(trace.lines().size(), 4u);  // each report once: the interrupted writes sent nothing
}

using Silence = VirtualCamera;

// The one test that waits out the protocol's 5 s answer timeout.
TEST_F(Silence, AnUnansweredRequestFailsToReadAfterFiveSeconds) {
    HID hid;
    ASSERT_EQ(openOn(hid, "HID-QUIET"), Ok);
    ASSERT_TRUE(talvoro_vcam::injectFault("HID-QUIET", "hid-silence:0x12"));
    unsigned char value = 0;
    trace.mark();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(hid.getSceneMode(&value), HidReadFail);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4900));
    EXPECT_EQ(value, 255);
    EXPECT_EQ(TALVOROError::cErrorNo.load(), HidReadFail);
    EXPECT_EQ(trace.lines().size(), 1u);  // the request, no answer
    // Other commands still get their answers.
    EXPECT_EQ(hid.setSceneMode(1), Ok);
}

}  // namespace
