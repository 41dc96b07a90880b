// Exported frame access and the frame callback.
#include "wrapper/TalvoroWrapper.h"

namespace Talvoro {

using namespace wrapper;

extern "C" {

TALVORO_API Result GetNextFrame(DeviceHandle handle) {
    return callCamera("GetNextFrame", handle, ModeRule::Any,
                      [&](const Camera& c) { return c.cam->getframe(); });
}

TALVORO_API Result GetToFFrame(DeviceHandle handle, FrameType type, ToFFrame* frame) {
    return callCamera("GetToFFrame", handle, ModeRule::Any, [&](const Camera& c) {
        return frame ? c.cam->getToFFrame(type, frame) : InvalidValue;
    });
}

TALVORO_API Result GetFrames(DeviceHandle handle, Frames* frames) {
    return callCamera("GetFrames", handle, ModeRule::Any, [&](const Camera& c) {
        return frames ? c.cam->getFrames(frames) : InvalidValue;
    });
}

TALVORO_API int GetFramesPerSecond(DeviceHandle handle) {
    return boundary<int>("GetFramesPerSecond", OperationFailed, [&]() -> int {
        const Camera camera = resolve(handle);
        if (!camera.isOpen()) return camera.openState;
        return static_cast<int>(camera.cam->getFramesPerSecond());
    });
}

TALVORO_API Result GetRawFrame(DeviceHandle handle, uint8_t* buffer, uint32_t capacity,
                               RawFrameInfo* info) {
    return callCamera("GetRawFrame", handle, ModeRule::Any, [&](const Camera& c) {
        if (!info) return InvalidValue;
        const Result result = c.cam->getRawFrame(buffer, capacity, info);
        if (result == Ok || result == InvalidValue)
            info->data_mode = static_cast<DataMode>(c.dataMode);
        return result;
    });
}

TALVORO_API void RegisterFrameCallback(DeviceHandle handle,
                                       std::function<void(int, int)> callback) {
    registerApplicationCallback("RegisterFrameCallback", handle, std::move(callback),
                                &TALVORODevice::registerFrameCallback);
}

}  // extern "C"

}  // namespace Talvoro
