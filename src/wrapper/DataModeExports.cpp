// Exported data mode and depth range: the camera's frame mode, the negotiated video format and
// the frame processor kept in step.
#include <string>

#include "wrapper/TalvoroWrapper.h"

namespace Talvoro {

using namespace wrapper;

namespace {

// Capture format codes of the Device.
constexpr unsigned kColourFormat = 0;  // UYVY
constexpr unsigned kTofFormat = 1;     // Y16

struct ModeFormat {
    DataMode mode;
    unsigned width;
    unsigned height;
    unsigned format;
    unsigned short frameFirst;  // setTOFFrameMode arguments
    unsigned short frameSecond;
};

// Data modes with a camera programming; mode 1 has none. The width 1443 of mode 5 is what the
// camera's multiplexed HD stream needs.
constexpr ModeFormat kModes[] = {
    {Depth_IR_Mode, 640, 960, kTofFormat, 1, 0},
    {Depth_Mode, 640, 480, kTofFormat, 1, 2},
    {IR_Mode, 640, 480, kTofFormat, 1, 3},
    {Depth_IR_RGB_VGA_Mode, 1280, 600, kTofFormat, 0, 0},
    {Depth_IR_RGB_HD_Mode, 1443, 960, kTofFormat, 0, 0},
    {RGB_VGA_Mode, 640, 480, kColourFormat, 2, 0},
    {RGB_HD_Mode, 1280, 720, kColourFormat, 2, 0},
    {RGB_FullHD_Mode, 1920, 1080, kColourFormat, 2, 0},
    {RGB_1200p_Mode, 1920, 1200, kColourFormat, 2, 0},
};

const ModeFormat* programmingOf(unsigned mode) {
    for (const ModeFormat& m : kModes)
        if (m.mode == mode) return &m;
    return nullptr;
}

Result setDataMode(const Camera& camera, DataMode mode) {
    DataMode current = static_cast<DataMode>(camera.dataMode);
    // Past the call guard the camera is open: its open state is Ok, which is the answer both
    // when the current mode cannot be read and when the switch is done.
    if (getDataMode(camera, &current) != Ok) return Ok;
    log(3, "\nTalvoroSDK:Current Datamode: " + std::to_string(current));
    if (mode == current) return Ok;

    if (const ModeFormat* m = programmingOf(mode)) {
        if (mode == Depth_IR_RGB_VGA_Mode || mode == Depth_IR_RGB_HD_Mode) {
            if (camera.uvc->setUVCControl(9, 0) != Ok)
                log(7, "\nTalvoroSDK:Setting RGB Exposure mode to Auto failed");
            if (camera.hid->setOrientation(0) != Ok)
                log(7, "\nTalvoroSDK:Setting Orientstion to normal failed");
        }
        const Result frameMode = camera.uvc->setTOFFrameMode(m->frameFirst, m->frameSecond);
        {
            Registry& reg = registry();
            std::lock_guard<std::mutex> lock(reg.mutex);
            reg.status = frameMode;
        }
        if (frameMode != Ok) return frameMode;
        if (!camera.cam->setFormat(m->width, m->height, m->format)) return SysCallFail;
    }
    update(camera.cam.get(), [mode](CameraRecord& r) { r.dataMode = mode; });
    camera.cam->initFrame(mode);
    return Ok;
}

Result setDepthRange(const Camera& camera, uint16_t range) {
    if (camera.dataMode > 5) return NotSupportedInDataMode;
    if (range == camera.depthRange) return Ok;
    const Result result = camera.uvc->setDepthRange(range);
    if (result != Ok) return result;
    update(camera.cam.get(), [range](CameraRecord& r) { r.depthRange = range; });
    camera.cam->updateDepthRange(range);
    return Ok;
}

}  // namespace

namespace wrapper {

Result getDataMode(const Camera& camera, DataMode* mode) {
    unsigned width = 0, height = 0, format = ~0u;
    if (camera.cam->getFormat(&width, &height, &format) != 1) {
        log(3, "\nTalvoroSDK:getFormat failed in GetDatamode");
        return OperationFailed;
    }
    log(3, "\nTalvoroSDK:format : " + std::to_string(format));
    if (format == kColourFormat) {
        for (const ModeFormat& m : kModes)
            if (m.format == kColourFormat && m.width == width && m.height == height) *mode = m.mode;
    } else if (format == kTofFormat) {
        if (width == 1280 && height == 600) {
            *mode = Depth_IR_RGB_VGA_Mode;
        } else if (width == 1443 && height == 960) {
            *mode = Depth_IR_RGB_HD_Mode;
        } else {
            // The ToF-only modes share their sizes: the camera's frame mode tells them apart.
            unsigned short cameraMode = 0, frameMode = 0;
            const Result result = camera.uvc->getTOFFrameMode(&cameraMode, &frameMode);
            if (result != Ok) return result;
            log(3, "\nTalvoroSDK:frame_mode : " + std::to_string(frameMode));
            log(3, "\nTalvoroSDK:cam_mode : " + std::to_string(cameraMode));
            *mode = static_cast<DataMode>(frameMode);
            update(camera.cam.get(), [frameMode](CameraRecord& r) { r.dataMode = frameMode; });
        }
    }
    return Ok;
}

Result getDepthRange(const Camera& camera, uint16_t* range) {
    return camera.uvc->getDepthRange(range);
}

}  // namespace wrapper

extern "C" {

TALVORO_API Result SetDataMode(DeviceHandle handle, DataMode mode) {
    return callCamera("SetDataMode", handle, ModeRule::Any,
                      [&](const Camera& c) { return setDataMode(c, mode); });
}

TALVORO_API Result GetDataMode(DeviceHandle handle, DataMode* mode) {
    return callCamera("GetDataMode", handle, ModeRule::Any,
                      [&](const Camera& c) { return mode ? getDataMode(c, mode) : InvalidValue; });
}

TALVORO_API Result SetDepthRange(DeviceHandle handle, uint16_t range) {
    return callCamera("SetDepthRange", handle, ModeRule::Any,
                      [&](const Camera& c) { return setDepthRange(c, range); });
}

TALVORO_API Result GetDepthRange(DeviceHandle handle, uint16_t* range) {
    return callCamera("GetDepthRange", handle, ModeRule::Any,
                      [&](const Camera& c) { return getDepthRange(c, range); });
}

}  // extern "C"

}  // namespace Talvoro
