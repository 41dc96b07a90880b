// Exported calibration block access and the calibration read at open.
#include "wrapper/TalvoroWrapper.h"

namespace Talvoro {

using namespace wrapper;

extern "C" {

TALVORO_API Result GetCalibrationDataValidFlag(DeviceHandle handle, uint8_t type,
                                               CalibValidFlag* flag) {
    return callCamera("GetCalibrationDataValidFlag", handle, ModeRule::Any, [&](const Camera& c) {
        return c.hid->getCalibrationDataValidFlag(type, flag);
    });
}

TALVORO_API Result CalibReadReqDepthIntrinsic(DeviceHandle handle, int* size) {
    return callCamera("CalibReadReqDepthIntrinsic", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.hid->calibReadReqDepthIntrinsic(size); });
}

TALVORO_API Result CalibReadDepthIntrinsic(DeviceHandle handle, int* size, unsigned char* data) {
    return callCamera("CalibReadDepthIntrinsic", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.hid->calibReadDepthIntrinsic(size, data); });
}

TALVORO_API Result CalibReadReqRGBIntrinsic(DeviceHandle handle, int* size) {
    return callCamera("CalibReadReqRGBIntrinsic", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.hid->calibReadReqRGBIntrinsic(size); });
}

TALVORO_API Result CalibReadRGBIntrinsic(DeviceHandle handle, int* size, unsigned char* data) {
    return callCamera("CalibReadRGBIntrinsic", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.hid->calibReadRGBIntrinsic(size, data); });
}

TALVORO_API Result CalibReadReqExtrinsic(DeviceHandle handle, int* size) {
    return callCamera("CalibReadReqExtrinsic", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.hid->calibReadReqExtrinsic(size); });
}

TALVORO_API Result CalibReadExtrinsic(DeviceHandle handle, int* size, unsigned char* data) {
    return callCamera("CalibReadExtrinsic", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.hid->calibReadExtrinsic(size, data); });
}

TALVORO_API Result ReadReqTOFCalibrationData(DeviceHandle handle, int* size) {
    return callCamera("ReadReqTOFCalibrationData", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.hid->readReqTOFCalibrationData(size); });
}

TALVORO_API Result ReadTOFCalibrationData(DeviceHandle handle, int size, unsigned char* data) {
    return callCamera("ReadTOFCalibrationData", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.hid->readTOFCalibrationData(size, data); });
}

TALVORO_API Result WriteTOFCalibrationData(DeviceHandle handle, int size, unsigned char* data) {
    return callCamera("WriteTOFCalibrationData", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.hid->writeTOFCalibrationData(size, data); });
}

TALVORO_API Result ReadReqTOFPulseTuneSettings47Ohm(DeviceHandle handle, int* size) {
    return callCamera(
        "ReadReqTOFPulseTuneSettings47Ohm", handle, ModeRule::Any,
        [&](const Camera& c) { return c.hid->readReqTOFPulseTuneSettings47Ohm(size); });
}

TALVORO_API Result ReadTOFPulseTuneSettings47Ohm(DeviceHandle handle, int size,
                                                 unsigned char* data) {
    return callCamera("ReadTOFPulseTuneSettings47Ohm", handle, ModeRule::Any, [&](const Camera& c) {
        return c.hid->readTOFPulseTuneSettings47Ohm(size, data);
    });
}

TALVORO_API Result WriteTOFPulseTuneSettings47Ohm(DeviceHandle handle, int size,
                                                  unsigned char* data) {
    return callCamera(
        "WriteTOFPulseTuneSettings47Ohm", handle, ModeRule::Any,
        [&](const Camera& c) { return c.hid->writeTOFPulseTuneSettings47Ohm(size, data); });
}

TALVORO_API Result GetDeviceCalibrationParams(DeviceHandle handle, CalibrationParams* params) {
    return boundary("GetDeviceCalibrationParams", [&] {
        if (!params) return InvalidValue;
        const Camera camera = resolve(handle);
        if (!camera.isOpen()) return static_cast<Result>(camera.openState);
        if (!camera.calibParamObtained) return CalibrationDataNotFound;
        *params = camera.calibParams;
        return Ok;
    });
}

}  // extern "C"

}  // namespace Talvoro
