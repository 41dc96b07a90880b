// Exported camera controls: time-of-flight settings and standard controls over UVC, the
// camera's own commands, IMU and board data over HID.
#include "wrapper/TalvoroWrapper.h"

namespace Talvoro {

using namespace wrapper;

extern "C" {

/* ---- Time-of-flight (UVC extension unit) ---- */

TALVORO_API Result SetTOFExposure(DeviceHandle handle, unsigned short exposure) {
    return callCamera("SetTOFExposure", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.uvc->setTOFExposure(exposure); });
}

TALVORO_API Result GetTOFExposure(DeviceHandle handle, unsigned short* exposure) {
    return callCamera("GetTOFExposure", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.uvc->getTOFExposure(exposure); });
}

TALVORO_API Result SetTOFCoring(DeviceHandle handle, unsigned short coring) {
    return callCamera("SetTOFCoring", handle, ModeRule::Depth,
                      [&](const Camera& c) { return c.uvc->setTOFCoring(coring); });
}

TALVORO_API Result GetTOFCoring(DeviceHandle handle, unsigned short* coring) {
    return callCamera("GetTOFCoring", handle, ModeRule::Depth,
                      [&](const Camera& c) { return c.uvc->getTOFCoring(coring); });
}

TALVORO_API Result GetPulseConfig(DeviceHandle handle, unsigned short* a, unsigned short* b,
                                  unsigned short* c, unsigned short* d, unsigned short* e,
                                  unsigned short* f) {
    return callCamera("GetPulseConfig", handle, ModeRule::Any, [&](const Camera& camera) {
        return camera.uvc->getPulseConfig(a, b, c, d, e, f);
    });
}

TALVORO_API Result SetPulseConfig(DeviceHandle handle, unsigned short a, unsigned short b,
                                  unsigned short c, unsigned short d, unsigned short e,
                                  unsigned short f) {
    return callCamera("SetPulseConfig", handle, ModeRule::Any, [&](const Camera& camera) {
        return camera.uvc->setPulseConfig(a, b, c, d, e, f);
    });
}

// Raw sensor register access stays disabled: only the camera's open state is answered.
TALVORO_API Result SetADIRegister(DeviceHandle handle, unsigned short, unsigned short) {
    return callCamera("SetADIRegister", handle, ModeRule::Any, [](const Camera&) { return Ok; });
}

TALVORO_API Result GetADIRegister(DeviceHandle handle, unsigned short, unsigned short*) {
    return callCamera("GetADIRegister", handle, ModeRule::Any, [](const Camera&) { return Ok; });
}

/* ---- Standard colour controls (UVC) ---- */

TALVORO_API Result GetUVCControl(DeviceHandle handle, unsigned int controlId, UVCProp* prop) {
    return callCamera("GetUVCControl", handle, ModeRule::ColourStream, [&](const Camera& c) {
        return setError(c.uvc->getUVCControl(controlId, prop) == Ok ? Ok : GetValueFailed);
    });
}

TALVORO_API Result SetUVCControl(DeviceHandle handle, unsigned int controlId, int value) {
    return callCamera("SetUVCControl", handle, ModeRule::ColourStream, [&](const Camera& c) {
        return setError(c.uvc->setUVCControl(controlId, value) == Ok ? Ok : SetValueFailed);
    });
}

/* ---- Colour controls (HID) ---- */

TALVORO_API Result GetAntiFlickerDetection(DeviceHandle handle, unsigned char* value) {
    return callCamera("GetAntiFlickerDetection", handle, ModeRule::ColourStream,
                      [&](const Camera& c) { return c.hid->getAntiFlickerDetection(value); });
}

TALVORO_API Result SetAntiFlickerDetection(DeviceHandle handle, unsigned char value) {
    return callCamera("SetAntiFlickerDetection", handle, ModeRule::ColourStream,
                      [&](const Camera& c) { return c.hid->setAntiFlickerDetection(value); });
}

TALVORO_API Result GetSceneMode(DeviceHandle handle, unsigned char* value) {
    return callCamera("GetSceneMode", handle, ModeRule::ColourStream,
                      [&](const Camera& c) { return c.hid->getSceneMode(value); });
}

TALVORO_API Result SetSceneMode(DeviceHandle handle, unsigned char value) {
    return callCamera("SetSceneMode", handle, ModeRule::ColourStream,
                      [&](const Camera& c) { return c.hid->setSceneMode(value); });
}

TALVORO_API Result GetSpecialEffect(DeviceHandle handle, unsigned char* value) {
    return callCamera("GetSpecialEffect", handle, ModeRule::ColourStream,
                      [&](const Camera& c) { return c.hid->getSpecialEffect(value); });
}

TALVORO_API Result SetSpecialEffect(DeviceHandle handle, unsigned char value) {
    return callCamera("SetSpecialEffect", handle, ModeRule::ColourStream,
                      [&](const Camera& c) { return c.hid->setSpecialEffect(value); });
}

TALVORO_API Result GetDenoise(DeviceHandle handle, unsigned char* value) {
    return callCamera("GetDenoise", handle, ModeRule::ColourStream,
                      [&](const Camera& c) { return c.hid->getDenoise(value); });
}

TALVORO_API Result SetDenoise(DeviceHandle handle, unsigned char value) {
    return callCamera("SetDenoise", handle, ModeRule::ColourStream,
                      [&](const Camera& c) { return c.hid->setDenoise(value); });
}

// Reading the region and the orientation is allowed with any colour stream, changing them only
// in the colour-only modes.
TALVORO_API Result GetAutoExposureROI(DeviceHandle handle, unsigned char* mode,
                                      unsigned char* window) {
    return callCamera("GetAutoExposureROI", handle, ModeRule::ColourStream,
                      [&](const Camera& c) { return c.hid->getAutoExposureROI(mode, window); });
}

TALVORO_API Result SetAutoExposureROI(DeviceHandle handle, unsigned char mode,
                                      unsigned int frameWidth, unsigned int frameHeight,
                                      unsigned int x, unsigned int y, unsigned char window) {
    return callCamera("SetAutoExposureROI", handle, ModeRule::ColourOnly, [&](const Camera& c) {
        return c.hid->setAutoExposureROI(mode, frameWidth, frameHeight, x, y, window);
    });
}

TALVORO_API Result GetOrientation(DeviceHandle handle, unsigned char* value) {
    return callCamera("GetOrientation", handle, ModeRule::ColourStream,
                      [&](const Camera& c) { return c.hid->getOrientation(value); });
}

TALVORO_API Result SetOrientation(DeviceHandle handle, unsigned char value) {
    return callCamera("SetOrientation", handle, ModeRule::ColourOnly,
                      [&](const Camera& c) { return c.hid->setOrientation(value); });
}

TALVORO_API Result GetFaceDetection(DeviceHandle handle, unsigned char* detect,
                                    unsigned char* embed, unsigned char* overlay) {
    return callCamera("GetFaceDetection", handle, ModeRule::ColourStream, [&](const Camera& c) {
        return c.hid->getFaceDetection(detect, embed, overlay);
    });
}

TALVORO_API Result SetFaceDetection(DeviceHandle handle, unsigned char detect, unsigned char embed,
                                    unsigned char overlay) {
    return callCamera("SetFaceDetection", handle, ModeRule::ColourStream, [&](const Camera& c) {
        return c.hid->setFaceDetection(detect, embed, overlay);
    });
}

TALVORO_API Result GetSmileDetection(DeviceHandle handle, unsigned char* detect,
                                     unsigned char* embed) {
    return callCamera("GetSmileDetection", handle, ModeRule::ColourStream,
                      [&](const Camera& c) { return c.hid->getSmileDetection(detect, embed); });
}

TALVORO_API Result SetSmileDetection(DeviceHandle handle, unsigned char detect,
                                     unsigned char embed) {
    return callCamera("SetSmileDetection", handle, ModeRule::ColourStream,
                      [&](const Camera& c) { return c.hid->setSmileDetection(detect, embed); });
}

TALVORO_API Result GetExposureCompensation(DeviceHandle handle, unsigned int* value) {
    return callCamera("GetExposureCompensation", handle, ModeRule::ColourStream,
                      [&](const Camera& c) { return c.hid->getExposureCompensation(value); });
}

TALVORO_API Result SetExposureCompensation(DeviceHandle handle, unsigned int value) {
    return callCamera("SetExposureCompensation", handle, ModeRule::ColourStream,
                      [&](const Camera& c) { return c.hid->setExposureCompensation(value); });
}

TALVORO_API Result GetFrameRateCtrl(DeviceHandle handle, unsigned char* value) {
    return callCamera("GetFrameRateCtrl", handle, ModeRule::ColourStream,
                      [&](const Camera& c) { return c.hid->getFrameRateCtrl(value); });
}

TALVORO_API Result SetFrameRateCtrl(DeviceHandle handle, unsigned char value) {
    return callCamera("SetFrameRateCtrl", handle, ModeRule::ColourStream,
                      [&](const Camera& c) { return c.hid->setFrameRateCtrl(value); });
}

/* ---- Camera, IMU and board (HID) ---- */

TALVORO_API Result SetDefault(DeviceHandle handle) {
    return callCamera("SetDefault", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.hid->setDefault(); });
}

TALVORO_API Result GetUniqueID(DeviceHandle handle, unsigned long* id) {
    return callCamera("GetUniqueID", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.hid->getUniqueID(id); });
}

TALVORO_API Result GetIMUEmbeddedData(DeviceHandle handle, unsigned char* value) {
    return callCamera("GetIMUEmbeddedData", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.hid->getIMUEmbeddedData(value); });
}

TALVORO_API Result SetIMUEmbeddedData(DeviceHandle handle, unsigned char value) {
    return callCamera("SetIMUEmbeddedData", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.hid->setIMUEmbeddedData(value); });
}

TALVORO_API Result SetIMUConfig(DeviceHandle handle, IMUCONFIG_TypeDef config) {
    return callCamera("SetIMUConfig", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.hid->setIMUConfig(config); });
}

TALVORO_API Result GetIMUConfig(DeviceHandle handle, IMUCONFIG_TypeDef* config) {
    return callCamera("GetIMUConfig", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.hid->getIMUConfig(config); });
}

TALVORO_API Result ControlIMUCapture(DeviceHandle handle, IMUDATAINPUT_TypeDef* control) {
    return callCamera("ControlIMUCapture", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.hid->controlIMUCapture(control); });
}

TALVORO_API Result GetIMUValue(DeviceHandle handle, IMUDATAOUTPUT_TypeDef* samples) {
    return callCamera("GetIMUValue", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.hid->getIMUValue(samples); });
}

TALVORO_API Result GetBaseBoardTemperatureData(DeviceHandle handle, float* temperature) {
    return callCamera("GetBaseBoardTemperatureData", handle, ModeRule::Any, [&](const Camera& c) {
        return c.hid->getBaseBoardTemperatureData(temperature);
    });
}

TALVORO_API Result GetLaserBoardTemperatureData(DeviceHandle handle, float* temperature) {
    return callCamera("GetLaserBoardTemperatureData", handle, ModeRule::Any, [&](const Camera& c) {
        return c.hid->getLaserBoardTemperatureData(temperature);
    });
}

}  // extern "C"

}  // namespace Talvoro
