// The HID channel: the camera's hidraw command and IMU nodes.
#ifndef TALVORO_HID_HID_H
#define TALVORO_HID_HID_H

#include <cstddef>
#include <cstdint>
#include <mutex>

#include "common/ControlNode.h"
#include "common/UniqueFd.h"
#include "hid/TALVOROHID.h"
#include "log/TALVOROError.h"

namespace Talvoro {

class HID : public TALVOROHID {
  public:
    static constexpr std::size_t kReportSize = 64;

    HID() = default;

    Result openHID(DeviceInfo* info) override;
    Result closeHID() override;
    Result setCameraMode(unsigned char mode) override;
    Result getCameraMode(unsigned char* mode) override;
    Result setIMUConfig(IMUCONFIG_TypeDef config) override;
    Result getIMUConfig(IMUCONFIG_TypeDef* config) override;
    Result controlIMUCapture(IMUDATAINPUT_TypeDef* control) override;
    Result getIMUValue(IMUDATAOUTPUT_TypeDef* samples) override;
    Result getBaseBoardTemperatureData(float* temperature) override;
    Result getLaserBoardTemperatureData(float* temperature) override;
    Result getIMUTemperatureData(float* temperature) override;
    Result getAntiFlickerDetection(unsigned char* value) override;
    Result setAntiFlickerDetection(unsigned char value) override;
    Result getSceneMode(unsigned char* value) override;
    Result setSceneMode(unsigned char value) override;
    Result getSpecialEffect(unsigned char* value) override;
    Result setSpecialEffect(unsigned char value) override;
    Result getDenoise(unsigned char* value) override;
    Result setDenoise(unsigned char value) override;
    Result getAutoExposureROI(unsigned char* mode, unsigned char* windowSize) override;
    Result setAutoExposureROI(unsigned char mode, unsigned int frameWidth, unsigned int frameHeight,
                              unsigned int x, unsigned int y, unsigned char windowSize) override;
    Result getOrientation(unsigned char* value) override;
    Result setOrientation(unsigned char value) override;
    Result getFaceDetection(unsigned char* a, unsigned char* b, unsigned char* c) override;
    Result setFaceDetection(unsigned char a, unsigned char b, unsigned char c) override;
    Result getSmileDetection(unsigned char* a, unsigned char* b) override;
    Result setSmileDetection(unsigned char a, unsigned char b) override;
    Result getIMUEmbeddedData(unsigned char* value) override;
    Result setIMUEmbeddedData(unsigned char value) override;
    Result getExposureCompensation(unsigned int* value) override;
    Result setExposureCompensation(unsigned int value) override;
    Result getFrameRateCtrl(unsigned char* value) override;
    Result setFrameRateCtrl(unsigned char value) override;
    Result setDefault() override;
    Result getUniqueID(unsigned long* id) override;
    Result readFirmwareVersion(unsigned char* major, unsigned char* minor, unsigned short* third,
                               unsigned short* fourth) override;
    Result calibWriteReqExtrinsic(int* size) override;
    Result calibWriteExtrinsic(int* size, unsigned char* data) override;
    Result calibWriteReqRGBIntrinsic(int* size) override;
    Result calibWriteRGBIntrinsic(int* size, unsigned char* data) override;
    Result calibWriteReqDepthIntrinsic(int* size) override;
    Result calibWriteDepthIntrinsic(int* size, unsigned char* data) override;
    Result calibReadReqDepthIntrinsic(int* size) override;
    Result calibReadDepthIntrinsic(int* size, unsigned char* data) override;
    Result calibReadReqRGBIntrinsic(int* size) override;
    Result calibReadRGBIntrinsic(int* size, unsigned char* data) override;
    Result calibReadReqExtrinsic(int* size) override;
    Result calibReadExtrinsic(int* size, unsigned char* data) override;
    Result writeTOFCalibrationData(int size, unsigned char* data) override;
    Result readReqTOFCalibrationData(int* size) override;
    Result readTOFCalibrationData(int size, unsigned char* data) override;
    Result writeTOFPulseTuneSettings47Ohm(int size, unsigned char* data) override;
    Result readReqTOFPulseTuneSettings47Ohm(int* size) override;
    Result readTOFPulseTuneSettings47Ohm(int size, unsigned char* data) override;
    Result getBoardConfigData(std::string* text) override;
    Result getCalibrationDataValidFlag(unsigned char type, CalibValidFlag* flag) override;
    Result setCalibrationDataValidFlag(unsigned char type, CalibValidFlag flag) override;

    // Takes over already open command and IMU descriptors instead of finding the nodes with
    // udev, for programs that reach the nodes some other way (tests, the fuzzer).
    void adoptDescriptors(UniqueFd command, UniqueFd imu);

    // The IMU scales that getIMUValue applies.
    double accelerometerScale() const { return accScale_; }
    double gyroscopeScale() const { return gyroScale_; }

  private:
    // Zeroes the answer, request and IMU buffers.
    void _initializeBuffers();
    // Writes the 64-byte request: 1, or -14 (also when fewer bytes were taken).
    Result _sendHidCmd(ControlNode& node);
    // Waits up to 5 s for the node to become readable, then reads one answer: 1, -17 when the
    // wait fails, -15 when the read fails (also after a wait that timed out).
    Result _readHidCmd(ControlNode& node);
    // _sendHidCmd then _readHidCmd on the command node.
    Result _request();
    // True when the answer echoes B3 <sub> and has status 0x01 at `statusByte`.
    bool _accepted(uint8_t sub, std::size_t statusByte = 6) const;

    // One command of the simple family: zeroed buffers, B3 <sub>, `setArgs` fills the request;
    // an accepted answer goes to `readAnswer` (1), a refused one gives `refusal`.
    template <typename SetArgs, typename ReadAnswer>
    Result _command(uint8_t sub, Result refusal, SetArgs setArgs, ReadAnswer readAnswer);
    // A "set" of the simple family with one byte at request byte 2.
    Result _setByte(uint8_t sub, unsigned char value, Result refusal);
    // A "get" of the simple family reading answer byte 2; presets *value to 255.
    Result _getByte(uint8_t sub, unsigned char* value, Result refusal);

    Result _calibReadReq(uint8_t type, int* size);
    Result _calibRead(uint8_t type, int* size, unsigned char* data);
    Result _getTemperature(uint8_t sub, float* temperature);
    // Applies the sensitivity of the configuration's range codes.
    void _applySensitivity(const IMUCONFIG_TypeDef& config);

    uint8_t answer_[kReportSize] = {};
    uint8_t request_[kReportSize] = {};
    uint8_t imuBuffer_[kReportSize] = {};
    ControlNode commandNode_;
    ControlNode imuNode_;

    double accScale_ = 0;
    double gyroScale_ = 0;
    uint16_t imuMode_ = 0;
    uint16_t samplesLeft_ = 0;
    IMUCONFIG_TypeDef imuConfig_{};
    uint8_t imuConfigured_ = 0;
    // Held for the whole of getIMUValue; a plain member, never destroyed while held.
    std::mutex imuMutex_;
};

template <typename SetArgs, typename ReadAnswer>
Result HID::_command(uint8_t sub, Result refusal, SetArgs setArgs, ReadAnswer readAnswer) {
    _initializeBuffers();
    request_[0] = 0xB3;
    request_[1] = sub;
    setArgs();
    const Result r = _request();
    if (r != Ok) return r;
    if (!_accepted(sub)) return setError(refusal);
    readAnswer();
    return setError(Ok);
}

}  // namespace Talvoro

#endif
