// Calibration blobs and their validity flags, board configuration and temperatures, and the
// reserved operations.
#include <cstring>

#include "hid/HID.h"
#include "hid/HIDReports.h"

namespace Talvoro {

using hidreport::be16;

namespace {

constexpr uint8_t kCalibSize = 0x09;
constexpr uint8_t kCalibChunk = 0x0A;
constexpr uint8_t kBaseTemperature = 0x28;
constexpr uint8_t kLaserTemperature = 0x29;
constexpr uint8_t kGetCalibFlag = 0x32;
constexpr uint8_t kSetCalibFlag = 0x33;
constexpr uint8_t kBoardConfig = 0x34;

// Blob types.
constexpr uint8_t kRgbIntrinsic = 0;
constexpr uint8_t kDepthIntrinsic = 1;
constexpr uint8_t kExtrinsic = 2;

constexpr int kChunkSize = 56;
// The chunk arithmetic takes the size as 16 bits.
constexpr int kMaxBlobSize = 0xFFFF;

}  // namespace

Result HID::_calibReadReq(uint8_t type, int* size) {
    if (!size) return setError(InvalidValue);
    _initializeBuffers();
    request_[0] = 0xB3;
    request_[1] = kCalibSize;
    request_[2] = type;
    const Result r = _request();
    if (r != Ok) return r;
    // The size answer is told by its sub-command and byte 15; byte 0 is not looked at.
    if (answer_[1] != kCalibSize || answer_[15] != 0x01) return setError(GetValueFailed);
    *size = be16(answer_ + 7);
    return setError(Ok);
}

Result HID::_calibRead(uint8_t type, int* size, unsigned char* data) {
    if (!size) return setError(InvalidValue);
    const int bytes = *size;
    if (bytes == 0) return static_cast<Result>(0);  // nothing to read: 0, and nothing is sent
    if (bytes < 0 || bytes > kMaxBlobSize || !data) return setError(InvalidValue);

    const int chunks = (bytes + kChunkSize - 1) / kChunkSize;
    Result r = Ok;
    // The buffers keep what the size request left; each chunk rewrites its own bytes only.
    for (int k = 1; k <= chunks; ++k) {
        request_[0] = 0xB3;
        request_[1] = kCalibChunk;
        request_[2] = type;
        request_[5] = static_cast<uint8_t>(k >> 8);
        request_[6] = static_cast<uint8_t>(k & 0xFF);
        r = _request();
        if (r != Ok) continue;  // a lost chunk is skipped; the last one's code is returned
        if (answer_[1] != kCalibChunk || answer_[7] != 0x01) return setError(GetValueFailed);
        const std::size_t n = hidreport::chunkBytes(static_cast<std::size_t>(bytes), k);
        std::memcpy(data + (k - 1) * kChunkSize, answer_ + 8, n);
    }
    return r;
}

Result HID::calibReadReqDepthIntrinsic(int* size) {
    return _calibReadReq(kDepthIntrinsic, size);
}

Result HID::calibReadDepthIntrinsic(int* size, unsigned char* data) {
    return _calibRead(kDepthIntrinsic, size, data);
}

Result HID::calibReadReqRGBIntrinsic(int* size) {
    return _calibReadReq(kRgbIntrinsic, size);
}

Result HID::calibReadRGBIntrinsic(int* size, unsigned char* data) {
    return _calibRead(kRgbIntrinsic, size, data);
}

Result HID::calibReadReqExtrinsic(int* size) {
    return _calibReadReq(kExtrinsic, size);
}

Result HID::calibReadExtrinsic(int* size, unsigned char* data) {
    return _calibRead(kExtrinsic, size, data);
}

Result HID::getCalibrationDataValidFlag(unsigned char type, CalibValidFlag* flag) {
    if (!flag) return setError(InvalidValue);
    _initializeBuffers();
    request_[0] = 0xB3;
    request_[1] = kGetCalibFlag;
    request_[2] = type;
    const Result r = _request();
    if (r != Ok) return r;
    if (answer_[0] != 0xB3 || answer_[1] != kGetCalibFlag) return setError(GetValueFailed);
    if (answer_[3] <= Calib_VGA_And_HD) *flag = static_cast<CalibValidFlag>(answer_[3]);
    return setError(Ok);
}

Result HID::setCalibrationDataValidFlag(unsigned char type, CalibValidFlag flag) {
    _initializeBuffers();
    request_[0] = 0xB3;
    request_[1] = kSetCalibFlag;
    request_[2] = type;
    request_[3] = flag <= Calib_VGA_And_HD ? flag : 0;
    const Result r = _request();
    if (r != Ok) return r;
    if (answer_[0] != 0xB3 || answer_[1] != kSetCalibFlag) return setError(SetValueFailed);
    return setError(Ok);
}

Result HID::getBoardConfigData(std::string* text) {
    if (!text) return setError(InvalidValue);
    _initializeBuffers();
    request_[0] = 0xB3;
    request_[1] = kBoardConfig;
    const Result r = _request();
    if (r != Ok) return r;
    if (answer_[0] != 0xB3 || answer_[1] != kBoardConfig || answer_[31] != 0x01 ||
        !hidreport::appendBoardConfig(answer_, sizeof answer_, text))
        return setError(GetValueFailed);
    return setError(Ok);
}

Result HID::_getTemperature(uint8_t sub, float* temperature) {
    if (!temperature) return setError(InvalidValue);
    *temperature = 65535.0f;
    return _command(
        sub, GetValueFailed, [] {}, [&] { *temperature = be16(answer_ + 2); });
}

Result HID::getBaseBoardTemperatureData(float* temperature) {
    return _getTemperature(kBaseTemperature, temperature);
}

Result HID::getLaserBoardTemperatureData(float* temperature) {
    return _getTemperature(kLaserTemperature, temperature);
}

// Reserved operations: nothing is sent and nothing is touched.
Result HID::getIMUTemperatureData(float*) {
    return UnknownError;
}
Result HID::calibWriteReqExtrinsic(int*) {
    return UnknownError;
}
Result HID::calibWriteExtrinsic(int*, unsigned char*) {
    return UnknownError;
}
Result HID::calibWriteReqRGBIntrinsic(int*) {
    return UnknownError;
}
Result HID::calibWriteRGBIntrinsic(int*, unsigned char*) {
    return UnknownError;
}
Result HID::calibWriteReqDepthIntrinsic(int*) {
    return UnknownError;
}
Result HID::calibWriteDepthIntrinsic(int*, unsigned char*) {
    return UnknownError;
}
Result HID::writeTOFCalibrationData(int, unsigned char*) {
    return UnknownError;
}
Result HID::readReqTOFCalibrationData(int*) {
    return UnknownError;
}
Result HID::readTOFCalibrationData(int, unsigned char*) {
    return UnknownError;
}
Result HID::writeTOFPulseTuneSettings47Ohm(int, unsigned char*) {
    return UnknownError;
}
Result HID::readReqTOFPulseTuneSettings47Ohm(int*) {
    return UnknownError;
}
Result HID::readTOFPulseTuneSettings47Ohm(int, unsigned char*) {
    return UnknownError;
}

}  // namespace Talvoro
