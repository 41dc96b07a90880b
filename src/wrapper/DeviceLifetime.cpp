// Lifetime of the per-camera objects: Devices are deleted only on application threads, after
// their capture thread has been stopped and joined; what capture threads retire waits for the
// next application thread; everything left is released when the library is unloaded.
#include <new>
#include <utility>

#include "device/Device.h"
#include "wrapper/TalvoroWrapper.h"

namespace Talvoro::wrapper {

namespace {

thread_local int captureDepth = 0;

// Devices whose last reference went away on a capture thread.
struct Parked {
    std::mutex mutex;
    std::vector<TALVORODevice*> devices;
};

Parked& parked() {
    static Parked* instance = new Parked;
    return *instance;
}

void destroy(TALVORODevice* device) noexcept {
    // Closing stops streaming and joins the capture thread, so nothing runs in the Device when
    // it is deleted. A Device that is closed already only resets its settings.
    try {
        device->closeDevice();
    } catch (...) {
        logCaughtException("closeDevice before deleting the Device");
    }
    delete device;
}

struct DeviceDeleter {
    void operator()(TALVORODevice* device) const noexcept {
        if (!onCaptureThread()) {
            destroy(device);
            return;
        }
        // This thread may be the Device's own capture thread: keep it for an application
        // thread. Without memory to remember it, leaking is the only safe choice.
        try {
            Parked& p = parked();
            std::lock_guard<std::mutex> lock(p.mutex);
            p.devices.push_back(device);
            registry().releasePending.store(true);
        } catch (...) {
            logCaughtException("parking a Device released on its capture thread; leaked");
        }
    }
};

// Releases everything the registry holds when the library is unloaded (or the process exits)
// while cameras are still registered or retired.
struct UnloadCleanup {
    ~UnloadCleanup() {
        if (onCaptureThread()) return;  // exit() called from a callback: leave it all
        std::vector<std::shared_ptr<void>> objects;
        {
            Registry& reg = registry();
            std::lock_guard<std::mutex> lock(reg.mutex);
            for (CameraRecord& c : reg.cameras) {
                objects.push_back(std::move(c.cam));
                objects.push_back(std::move(c.hid));
                objects.push_back(std::move(c.uvc));
            }
            for (auto& r : reg.retired)
                objects.push_back(std::move(r));
            reg.retired.clear();
            reg.cameras.clear();
            reg.releasePending.store(true);
        }
        objects.clear();
        releaseRetired();
    }
} unloadCleanup;

}  // namespace

CaptureThreadScope::CaptureThreadScope() {
    ++captureDepth;
}

CaptureThreadScope::~CaptureThreadScope() {
    --captureDepth;
}

bool onCaptureThread() {
    return captureDepth > 0;
}

namespace {

DeviceFactory& factory() {
    static DeviceFactory* instance = new DeviceFactory;
    return *instance;
}

}  // namespace

void setDeviceFactory(DeviceFactory f) {
    std::lock_guard<std::mutex> lock(registry().mutex);
    factory() = std::move(f);
}

// Called with the registry lock held.
DevicePtr makeDevice(int index) {
    TALVORODevice* device = factory() ? factory()(index) : new Device(index);
    // Should the control block fail to allocate, shared_ptr hands the Device to the deleter.
    return DevicePtr(device, DeviceDeleter{});
}

void releaseRetired() {
    Registry& reg = registry();
    if (onCaptureThread() || !reg.releasePending.load()) return;
    std::vector<std::shared_ptr<void>> objects;
    std::vector<TALVORODevice*> devices;
    {
        std::lock_guard<std::mutex> lock(reg.mutex);
        reg.releasePending.store(false);
        objects.swap(reg.retired);
    }
    {
        Parked& p = parked();
        std::lock_guard<std::mutex> lock(p.mutex);
        devices.swap(p.devices);
    }
    objects.clear();
    for (TALVORODevice* device : devices)
        destroy(device);
}

void registerApplicationCallback(const char* function, const DeviceHandle& handle,
                                 DeviceCallback callback,
                                 Result (TALVORODevice::*slot)(DeviceCallback)) {
    boundary<int>(function, 0, [&] {
        const Camera camera = resolve(handle);
        if (!camera.isOpen()) return 0;
        DeviceCallback wrapped;
        if (callback)
            wrapped = [inner = std::move(callback), function](int event, int index) {
                CaptureThreadScope scope;
                try {
                    inner(event, index);
                } catch (...) {
                    // An exception would end the capture thread, and with it the process.
                    logCaughtException(function, "(the application's callback threw; ignored)");
                }
            };
        ((*camera.cam).*slot)(std::move(wrapped));
        return 0;
    });
}

}  // namespace Talvoro::wrapper
