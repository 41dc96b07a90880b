// Exported frame-processing settings, kept by the camera's Device.
#include "wrapper/TalvoroWrapper.h"

namespace Talvoro {

using namespace wrapper;

extern "C" {

TALVORO_API Result SetTOFIRGain(DeviceHandle handle, unsigned short gain) {
    return callCamera("SetTOFIRGain", handle, ModeRule::IR,
                      [&](const Camera& c) { return c.cam->setTOFIRGain(gain); });
}

TALVORO_API Result GetTOFIRGain(DeviceHandle handle, unsigned short* gain) {
    return callCamera("GetTOFIRGain", handle, ModeRule::IR, [&](const Camera& c) {
        return gain ? c.cam->getTOFIRGain(gain) : InvalidValue;
    });
}

TALVORO_API Result SetAvgRegion(DeviceHandle handle, AvgRegion region) {
    return callCamera("SetAvgRegion", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.cam->setAvgRegion(region); });
}

TALVORO_API Result UpdateAvgXandY(DeviceHandle handle, int width, int height) {
    return callCamera("UpdateAvgXandY", handle, ModeRule::Tof,
                      [&](const Camera& c) { return c.cam->updateAvgXandY(width, height); });
}

TALVORO_API Result SetAvgIRDisplay(DeviceHandle handle, unsigned char on) {
    return callCamera("SetAvgIRDisplay", handle, ModeRule::IR,
                      [&](const Camera& c) { return c.cam->setAvgIRDisplay(on); });
}

TALVORO_API Result GetDepthIRValues(DeviceHandle handle, int* depthAverage, int* depthSpread,
                                    int* irMean, int* irSpread) {
    return callCamera("GetDepthIRValues", handle, ModeRule::Tof, [&](const Camera& c) {
        if (!depthAverage || !depthSpread || !irMean || !irSpread) return InvalidValue;
        return c.cam->getDepthIRValues(depthAverage, depthSpread, irMean, irSpread);
    });
}

TALVORO_API Result SetDepthPos(DeviceHandle handle, DepthPtr position) {
    return callCamera("SetDepthPos", handle, ModeRule::Depth,
                      [&](const Camera& c) { return c.cam->setDepthPos(position); });
}

TALVORO_API Result SetCursorColor(DeviceHandle handle, int color) {
    return callCamera("SetCursorColor", handle, ModeRule::Depth,
                      [&](const Camera& c) { return c.cam->setCursorColor(color); });
}

TALVORO_API Result SetPositions(DeviceHandle handle, std::vector<DepthPtr>* positions,
                                unsigned char unused) {
    return callCamera("SetPositions", handle, ModeRule::Any, [&](const Camera& c) {
        return positions ? c.cam->setPositions(*positions, unused) : InvalidValue;
    });
}

// Once the camera and the mode allow it the switch is reported done, whatever the Device
// answered (an unknown filter type changes nothing).
TALVORO_API Result SetFilterType(DeviceHandle handle, int type, bool on) {
    return callCamera("SetFilterType", handle, ModeRule::Depth, [&](const Camera& c) {
        c.cam->setFilterType(type, on);
        return Ok;
    });
}

TALVORO_API Result SetFlyingPixelFilter(DeviceHandle handle, int on) {
    return callCamera("SetFlyingPixelFilter", handle, ModeRule::Depth,
                      [&](const Camera& c) { return c.cam->setFlyingPixelFilter(on); });
}

// Gated by the data mode alone: a registered camera that is not open takes the setting too.
TALVORO_API Result SetPlanarization(DeviceHandle handle, int on) {
    return boundary("SetPlanarization", [&] {
        const Camera camera = resolve(handle);
        if (!camera.found) return CameraNotOpened;
        if (!permits(ModeRule::Depth, camera.dataMode)) return NotSupportedInDataMode;
        return camera.cam->setPlanarization(on);
    });
}

TALVORO_API Result SetUnDistortion(DeviceHandle handle, int on) {
    return callCamera("SetUnDistortion", handle, ModeRule::Depth,
                      [&](const Camera& c) { return c.cam->setUnDistortion(on); });
}

TALVORO_API Result SetRGBDMapping(DeviceHandle handle, int on) {
    return callCamera("SetRGBDMapping", handle, ModeRule::Mapped,
                      [&](const Camera& c) { return c.cam->setRGBDMapping(on); });
}

TALVORO_API Result UpdateColorMap(DeviceHandle handle, int min, int max, int colormap) {
    return callCamera("UpdateColorMap", handle, ModeRule::Tof,
                      [&](const Camera& c) { return c.cam->updateColorMap(min, max, colormap); });
}

}  // extern "C"

}  // namespace Talvoro
