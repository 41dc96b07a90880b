// The unplug handler: a camera whose stream is lost is closed and removed from the registry,
// on the camera's own capture thread. And the application's notification callback.
#include <string>
#include <tuple>

#include "wrapper/TalvoroWrapper.h"

namespace Talvoro::wrapper {

namespace {

// Tells every registered Device its (possibly new) registry position.
void reindex() {
    std::vector<std::tuple<DevicePtr, unsigned, std::string>> devices;
    {
        Registry& reg = registry();
        std::lock_guard<std::mutex> lock(reg.mutex);
        for (std::size_t i = 0; i < reg.cameras.size(); ++i)
            devices.emplace_back(reg.cameras[i].cam, static_cast<unsigned>(i),
                                 reg.cameras[i].serial());
    }
    for (auto& [device, index, serial] : devices)
        device->setDeviceIndex(index, serial);
}

// `origin` is the Device that reported the event, when known: registry positions may have
// moved since it was told its index.
void onStreamEvent(int event, int index, const TALVORODevice* origin) {
    CaptureThreadScope scope;
    Camera camera;
    {
        Registry& reg = registry();
        std::lock_guard<std::mutex> lock(reg.mutex);
        camera = reg.snapshot(origin ? reg.indexOf(origin) : index);
    }
    if (camera.found) {
        if (event == 1 && camera.cam->isDeviceOpen() == CameraAlreadyOpen) {
            // An application thread opening or closing may be joining this very thread: never
            // wait for it. Unregistered first, so that no new call finds the camera; then
            // closed here unless a call is at work on it (the loss may even have been noticed
            // inside one). Otherwise the release of the objects closes them.
            std::unique_lock<std::timed_mutex> openClose(openCloseMutex(), std::try_to_lock);
            bool idle = false;
            {
                Registry& reg = registry();
                std::lock_guard<std::mutex> lock(reg.mutex);
                const int at = reg.indexOf(camera.cam.get());
                if (at >= 0) {
                    idle = camera.calls->load() == 0;
                    reg.erase(at);
                }
            }
            if (openClose.owns_lock() && idle) closeChannels(camera);
        } else {
            TALVOROError::cErrorNo.store(CameraNotOpened);
            update(camera.cam.get(), [](CameraRecord& r) { r.openState = CameraNotOpened; });
        }
    }
    // Dropped while still marked: this may be the last reference to this thread's own Device.
    camera = Camera{};
    reindex();
}

}  // namespace

DeviceCallback hotplugHandler(TALVORODevice* device) {
    return [device](int event, int index) {
        try {
            onStreamEvent(event, index, device);
        } catch (...) {
            logException("deviceNotiCallBack");
        }
    };
}

void deviceNotiCallBack(int event, int index) {
    onStreamEvent(event, index, nullptr);
}

}  // namespace Talvoro::wrapper

namespace Talvoro {

using namespace wrapper;

extern "C" {

TALVORO_API void RegisterNotificationCallback(DeviceHandle handle,
                                              std::function<void(int, int)> callback) {
    registerApplicationCallback("RegisterNotificationCallback", handle, std::move(callback),
                                &TALVORODevice::registerNotificationCallback);
}

}  // extern "C"

}  // namespace Talvoro
