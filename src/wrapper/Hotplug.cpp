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
        for (std::size_t i = 0; i < reg.devHandleList.size(); ++i)
            devices.emplace_back(reg.cam[i], static_cast<unsigned>(i),
                                 serialOf(reg.devHandleList[i].serialNo));
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
            // wait for it. Whoever holds the lock closes, or the release of the objects does.
            std::unique_lock<std::timed_mutex> openClose(openCloseMutex(), std::try_to_lock);
            if (openClose.owns_lock()) closeChannels(camera);
            Registry& reg = registry();
            std::lock_guard<std::mutex> lock(reg.mutex);
            const int at = reg.indexOf(camera.cam.get());
            if (at >= 0) reg.erase(at);
        } else {
            TALVOROError::cErrorNo.store(CameraNotOpened);
            update(camera.cam.get(),
                   [](Registry& reg, std::size_t i) { reg.is_opened[i] = CameraNotOpened; });
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
        } catch (const std::exception& e) {
            logException("deviceNotiCallBack", e.what());
        } catch (...) {
            logException("deviceNotiCallBack", "unknown exception");
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
