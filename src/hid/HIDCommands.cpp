// The simple command family, the unique ID and the firmware version.
#include "hid/HID.h"
#include "hid/HIDReports.h"

namespace Talvoro {

using hidreport::be16;
using hidreport::be32;

namespace {

// Sub-commands of the camera-control class 0xB3.
constexpr uint8_t kGetCameraMode = 0x01, kSetCameraMode = 0x02;
constexpr uint8_t kGetAntiFlicker = 0x0E, kSetAntiFlicker = 0x0F;
constexpr uint8_t kGetSceneMode = 0x12, kSetSceneMode = 0x13;
constexpr uint8_t kGetSpecialEffect = 0x14, kSetSpecialEffect = 0x15;
constexpr uint8_t kGetDenoise = 0x16, kSetDenoise = 0x17;
constexpr uint8_t kGetAutoExposureRoi = 0x18, kSetAutoExposureRoi = 0x19;
constexpr uint8_t kGetOrientation = 0x1C, kSetOrientation = 0x1D;
constexpr uint8_t kGetFaceDetection = 0x1E, kSetFaceDetection = 0x1F;
constexpr uint8_t kGetSmileDetection = 0x20, kSetSmileDetection = 0x21;
constexpr uint8_t kGetExposureCompensation = 0x22, kSetExposureCompensation = 0x23;
constexpr uint8_t kGetFrameRate = 0x24, kSetFrameRate = 0x25;
constexpr uint8_t kGetImuEmbedded = 0x2A, kSetImuEmbedded = 0x2B;
constexpr uint8_t kSetDefault = 0xFF;

constexpr uint8_t kVersionClass = 0x40;
constexpr uint8_t kUniqueIdClass = 0x41;

constexpr uint8_t kManualRoiMode = 2;

}  // namespace

Result HID::_setByte(uint8_t sub, unsigned char value, Result refusal) {
    return _command(
        sub, refusal, [&] { request_[2] = value; }, [] {});
}

Result HID::_getByte(uint8_t sub, unsigned char* value, Result refusal) {
    if (!value) return setError(InvalidValue);
    *value = 0xFF;
    return _command(
        sub, refusal, [] {}, [&] { *value = answer_[2]; });
}

Result HID::setCameraMode(unsigned char mode) {
    return _setByte(kSetCameraMode, mode, SetValueFailed);
}

Result HID::getCameraMode(unsigned char* mode) {
    return _getByte(kGetCameraMode, mode, GetValueFailed);
}

Result HID::getAntiFlickerDetection(unsigned char* value) {
    return _getByte(kGetAntiFlicker, value, GetValueFailed);
}

Result HID::setAntiFlickerDetection(unsigned char value) {
    return _setByte(kSetAntiFlicker, value, SetValueFailed);
}

Result HID::getSceneMode(unsigned char* value) {
    return _getByte(kGetSceneMode, value, GetValueFailed);
}

Result HID::setSceneMode(unsigned char value) {
    return _setByte(kSetSceneMode, value, SetValueFailed);
}

Result HID::getSpecialEffect(unsigned char* value) {
    return _getByte(kGetSpecialEffect, value, GetValueFailed);
}

Result HID::setSpecialEffect(unsigned char value) {
    return _setByte(kSetSpecialEffect, value, SetValueFailed);
}

Result HID::getDenoise(unsigned char* value) {
    return _getByte(kGetDenoise, value, GetValueFailed);
}

Result HID::setDenoise(unsigned char value) {
    return _setByte(kSetDenoise, value, SetValueFailed);
}

Result HID::getAutoExposureROI(unsigned char* mode, unsigned char* windowSize) {
    if (!mode || !windowSize) return setError(InvalidValue);
    *mode = 0xFF;
    *windowSize = 0xFF;
    return _command(
        kGetAutoExposureRoi, SetValueFailed, [] {},
        [&] {
            *mode = answer_[2];
            if (*mode == kManualRoiMode) *windowSize = answer_[5];
        });
}

Result HID::setAutoExposureROI(unsigned char mode, unsigned int frameWidth,
                               unsigned int frameHeight, unsigned int x, unsigned int y,
                               unsigned char windowSize) {
    return _command(
        kSetAutoExposureRoi, SetValueFailed,
        [&] {
            request_[2] = mode;
            if (mode != kManualRoiMode) return;
            request_[3] = hidreport::scaledPosition(x, frameWidth);
            request_[4] = hidreport::scaledPosition(y, frameHeight);
            request_[5] = windowSize;
        },
        [] {});
}

Result HID::getOrientation(unsigned char* value) {
    return _getByte(kGetOrientation, value, SetValueFailed);
}

Result HID::setOrientation(unsigned char value) {
    return _setByte(kSetOrientation, value, SetValueFailed);
}

Result HID::getFaceDetection(unsigned char* a, unsigned char* b, unsigned char* c) {
    if (!a || !b || !c) return setError(InvalidValue);
    *a = *b = *c = 0xFF;
    return _command(
        kGetFaceDetection, SetValueFailed, [] {},
        [&] {
            *a = answer_[2];
            *b = answer_[3];
            *c = answer_[4];
        });
}

Result HID::setFaceDetection(unsigned char a, unsigned char b, unsigned char c) {
    return _command(
        kSetFaceDetection, SetValueFailed,
        [&] {
            request_[2] = a;
            request_[3] = b;
            request_[4] = c;
        },
        [] {});
}

Result HID::getSmileDetection(unsigned char* a, unsigned char* b) {
    if (!a || !b) return setError(InvalidValue);
    *a = *b = 0xFF;
    return _command(
        kGetSmileDetection, GetValueFailed, [] {},
        [&] {
            *a = answer_[2];
            *b = answer_[4];
        });
}

Result HID::setSmileDetection(unsigned char a, unsigned char b) {
    return _command(
        kSetSmileDetection, SetValueFailed,
        [&] {
            request_[2] = a;
            request_[4] = b;
        },
        [] {});
}

Result HID::getIMUEmbeddedData(unsigned char* value) {
    return _getByte(kGetImuEmbedded, value, GetValueFailed);
}

Result HID::setIMUEmbeddedData(unsigned char value) {
    return _setByte(kSetImuEmbedded, value, GetValueFailed);
}

Result HID::getExposureCompensation(unsigned int* value) {
    if (!value) return setError(InvalidValue);
    *value = 0xFFFFFFFFu;
    return _command(
        kGetExposureCompensation, GetValueFailed, [] {}, [&] { *value = be32(answer_ + 2); });
}

Result HID::setExposureCompensation(unsigned int value) {
    return _command(
        kSetExposureCompensation, SetValueFailed,
        [&] {
            for (int i = 0; i < 4; ++i)
                request_[2 + i] = static_cast<uint8_t>(value >> (24 - 8 * i));
        },
        [] {});
}

Result HID::getFrameRateCtrl(unsigned char* value) {
    return _getByte(kGetFrameRate, value, GetValueFailed);
}

Result HID::setFrameRateCtrl(unsigned char value) {
    return _setByte(kSetFrameRate, value, SetValueFailed);
}

Result HID::setDefault() {
    return _command(
        kSetDefault, SetValueFailed, [] {}, [] {});
}

Result HID::getUniqueID(unsigned long* id) {
    if (!id) return setError(InvalidValue);
    uint32_t half[2] = {};
    bool accepted = true;
    for (uint8_t part = 0; part < 2; ++part) {
        _initializeBuffers();
        request_[0] = kUniqueIdClass;
        request_[1] = part;
        const Result r = _request();
        if (r != Ok) return r;
        accepted = accepted && answer_[0] == kUniqueIdClass;
        // 41 00 carries the high half in bytes 1-4, 41 01 the low half in bytes 2-5.
        half[part] = be32(answer_ + 1 + part);
    }
    if (!accepted) return setError(GetValueFailed);
    *id = (static_cast<unsigned long>(half[0]) << 32) | half[1];
    return setError(Ok);
}

Result HID::readFirmwareVersion(unsigned char* major, unsigned char* minor, unsigned short* third,
                                unsigned short* fourth) {
    if (!major || !minor || !third || !fourth) return setError(InvalidValue);
    _initializeBuffers();
    request_[0] = kVersionClass;
    const Result r = _request();
    if (r != Ok) return r;
    if (answer_[0] != kVersionClass) return setError(GetValueFailed);
    *major = answer_[1];
    *minor = answer_[2];
    *third = be16(answer_ + 3);
    *fourth = be16(answer_ + 5);
    return setError(Ok);
}

}  // namespace Talvoro
