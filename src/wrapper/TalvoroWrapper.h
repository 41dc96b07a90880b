// The API layer's internals: the camera registry behind the exported functions, handle
// resolution, the per-camera call guard with its data-mode rules, and the boundary every
// exported function runs inside.
//
// Locking. One registry lock guards the camera records. It is held only while they are read
// or changed, never during a udev scan and never while a Device, HID or UVC object is called:
// an application thread in CloseDevice joins a capture thread that may itself be waiting for
// the registry lock in the unplug handler. Calls copy what they need (a Camera) out under the
// lock and work on the copy. A second lock serialises opening and closing (they share the
// calibration files); the unplug handler only tries it, for the same reason.
//
// Lifetime. A capture thread runs inside its Device without holding a reference to it, so the
// last reference to a Device must never be dropped on that thread or while that thread still
// runs in it. Objects the unplug handler erases go to a retired list that the next application
// thread releases; a Device whose last reference would drop on a capture thread anyway is parked
// and deleted later on an application thread. Deleting a Device first closes it, which stops and
// joins its capture thread.
#ifndef TALVORO_WRAPPER_TALVORO_WRAPPER_H
#define TALVORO_WRAPPER_TALVORO_WRAPPER_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "TalvoroSDK.h"
#include "device/TALVORODevice.h"
#include "enumerator/TALVOROEnumerator.h"
#include "hid/TALVOROHID.h"
#include "log/Log.h"
#include "log/TALVOROError.h"
#include "uvc/TALVOROUVC.h"

namespace Talvoro::wrapper {

using DevicePtr = std::shared_ptr<TALVORODevice>;
using HidPtr = std::shared_ptr<TALVOROHID>;
using UvcPtr = std::shared_ptr<TALVOROUVC>;

inline constexpr uint16_t kDefaultDepthRange = 65535;

// The serial of a handle or record, bounded by its array: a caller's array need not be
// terminated.
template <std::size_t N>
std::string serialOf(const char (&serial)[N]) {
    std::size_t n = 0;
    while (n < N && serial[n] != '\0')
        ++n;
    return std::string(serial, n);
}

// One registered camera: its identity, its three objects and its per-camera state. A new
// per-camera field is added here, with its default, and nowhere else.
struct CameraRecord {
    DeviceInfo info{};      // as the enumeration described it at registration
    DeviceHandle handle{};  // the serial, which handles are resolved against
    DevicePtr cam;
    HidPtr hid;
    UvcPtr uvc;
    // Ok while open, CameraNotOpened otherwise.
    int32_t openState = CameraNotOpened;
    uint16_t dataMode = Depth_IR_RGB_VGA_Mode;
    uint16_t depthRange = kDefaultDepthRange;
    // Which calibration matrices the camera holds (CalibrationStore.h).
    uint16_t availableCalibData = 0;
    bool calibParamObtained = false;
    CalibrationParams calibParams{};
    // Application calls at work on this camera (see CallOnCamera); shared by every copy.
    std::shared_ptr<std::atomic<int>> calls = std::make_shared<std::atomic<int>>(0);

    std::string serial() const { return serialOf(handle.serialNo); }
};

// One registry entry as a call sees it: a copy of the record taken under the registry lock,
// with its position at that moment. For a handle that names no camera `found` is false and the
// open state CameraNotOpened.
struct Camera : CameraRecord {
    bool found = false;
    unsigned index = 0;

    bool isOpen() const { return found && openState == Ok; }
};

// A camera the enumeration found: its enumeration index and description.
struct ScannedCamera {
    unsigned enumIndex;
    DeviceInfo info;
};

// Process-wide state of the API layer: one record per registered camera, in registry order (a
// camera's position is its device index). Every member is guarded by `mutex` except the
// enumerator, which is created once and keeps its own state safe: udev scans run outside the
// lock and only their results are merged under it.
struct Registry {
    std::mutex mutex;
    std::unique_ptr<TALVOROEnumerator> enumerate;
    int32_t is_init = NotInitialized;
    int32_t status = NotInitialized;
    std::vector<CameraRecord> cameras;
    // Named by Initialize; nothing reads it (the log names its own file).
    std::string logFileName;
    // Objects erased on a capture thread, released by the next application thread.
    std::vector<std::shared_ptr<void>> retired;
    // Set when something waits in `retired` or among the parked Devices; read without the lock.
    std::atomic<bool> releasePending{false};

    uint32_t maxDeviceCount() const { return static_cast<uint32_t>(cameras.size()); }
    // First entry whose handle / record carries the serial; false leaves *index untouched.
    bool getDevIndex(const DeviceHandle& handle, int* index) const;
    bool getDeviceIndexFromDeviceInfo(const DeviceInfo& info, int* index) const;
    // The entry holding `device`, or -1.
    int indexOf(const TALVORODevice* device) const;
    Camera snapshot(int index) const;
    // When the scan counted more cameras than are registered, registers those of `scanned`
    // that the registration rule admits (Registry.cpp).
    void merge(unsigned scannedCount, const std::vector<ScannedCamera>& scanned);
    // Removes entry `index`; its objects go to `retired`.
    void erase(int index);
    // Removes every entry, logging as it goes; the objects are moved to *released.
    void clear(std::vector<std::shared_ptr<void>>* released);
};

// The registry; it lives until the process ends (the objects in it are released at unload).
Registry& registry();

// Serialises OpenDevice, CloseDevice and DeInitialize.
std::timed_mutex& openCloseMutex();

// Holds openCloseMutex for an exported call. On a capture thread it waits at most
// kCallbackLockWait: the holder may be closing this very camera, joining the thread the caller
// runs on. owns() tells whether the lock was taken.
inline constexpr std::chrono::seconds kCallbackLockWait{2};
class OpenCloseLock {
  public:
    OpenCloseLock();
    bool owns() const { return lock_.owns_lock(); }

  private:
    std::unique_lock<std::timed_mutex> lock_;
};

// A Device for a camera found at enumeration index `index`, deleted safely (see above).
DevicePtr makeDevice(int index);
// Tests only: makes the Device of every camera registered from now on (empty: a Device).
using DeviceFactory = std::function<TALVORODevice*(int index)>;
void setDeviceFactory(DeviceFactory factory);

// Handle resolution under the registry lock.
Camera resolve(const DeviceHandle& handle);
Camera resolveInfo(const DeviceInfo& info);

// An application call at work on a camera, from its resolution (under the registry lock, so
// that the unplug handler, which erases under it, sees every call that found the camera) to
// its end. The unplug handler leaves the closing of a camera with calls at work to the release
// of its objects, which happens on an application thread once they are done.
class CallOnCamera {
  public:
    explicit CallOnCamera(const DeviceHandle& handle);
    ~CallOnCamera();
    CallOnCamera(const CallOnCamera&) = delete;
    CallOnCamera& operator=(const CallOnCamera&) = delete;
    const Camera& camera() const { return camera_; }

  private:
    Camera camera_;
};

// Runs f(record) under the registry lock when `device` is still registered.
template <typename F>
bool update(const TALVORODevice* device, F&& f) {
    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    const int index = reg.indexOf(device);
    if (index < 0) return false;
    f(reg.cameras[static_cast<std::size_t>(index)]);
    return true;
}

// Capture threads. Code that runs on a camera's capture thread (the unplug handler, the
// application's callbacks) is marked, so that nothing released there destroys a Device.
class CaptureThreadScope {
  public:
    CaptureThreadScope();
    ~CaptureThreadScope();
    CaptureThreadScope(const CaptureThreadScope&) = delete;
    CaptureThreadScope& operator=(const CaptureThreadScope&) = delete;
};
bool onCaptureThread();

// Releases retired objects and parked Devices, unless called on a capture thread.
void releaseRetired();

// RegisterFrameCallback and RegisterNotificationCallback: an open camera's Device takes the
// application's callback into `slot`, run marked as capture-thread code and kept from throwing
// into the capture loop (an empty function stays empty); otherwise nothing happens.
void registerApplicationCallback(const char* function, const DeviceHandle& handle,
                                 DeviceCallback callback,
                                 Result (TALVORODevice::*slot)(DeviceCallback));

// The unplug handler registered with every opened Device (it knows its Device, so it finds the
// right entry even when indices have moved).
DeviceCallback hotplugHandler(TALVORODevice* device);
void deviceNotiCallBack(int event, int index);

// In a catch block: logs "<function> failed: <what was caught>" at level 7; never throws.
void logException(const char* function) noexcept;

// The boundary of every exported function: releases what capture threads retired and turns an
// escaping exception into `onFailure` with a level-7 log line.
template <typename R, typename F>
R boundary(const char* function, R onFailure, F&& body) noexcept {
    try {
        releaseRetired();
        return body();
    } catch (...) {
        logException(function);
    }
    TALVOROError::cErrorNo.store(OperationFailed);
    return onFailure;
}

template <typename F>
Result boundary(const char* function, F&& body) noexcept {
    return boundary<Result>(function, OperationFailed, std::forward<F>(body));
}

// Which data modes a control needs.
enum class ModeRule {
    Any,
    ColourStream,  // 4 and above
    ColourOnly,    // 6 and above
    Depth,         // 0 to 5 except 3
    IR,            // 0 to 5 except 2
    Tof,           // 0 to 5
    Mapped,        // 4 and 5
};
bool permits(ModeRule rule, unsigned mode);

// The per-camera call guard: the camera must be registered and open and its data mode must
// satisfy `rule`; then f(camera) runs and its result is returned unchanged.
template <typename F>
Result guarded(const DeviceHandle& handle, ModeRule rule, F&& f) {
    const CallOnCamera call(handle);
    const Camera& camera = call.camera();
    if (!camera.isOpen()) return static_cast<Result>(camera.openState);
    if (!permits(rule, camera.dataMode)) return NotSupportedInDataMode;
    return f(camera);
}

// An exported per-camera call: the boundary around the guard around f.
template <typename F>
Result callCamera(const char* function, const DeviceHandle& handle, ModeRule rule, F&& f) noexcept {
    return boundary(function, [&] { return guarded(handle, rule, f); });
}

// Shared by the exports, the open sequence and the unplug handler.
Result closeCamera(const DeviceHandle& handle);
// Closes the capture device, then the HID and the UVC channel, logging each step. Not the
// reverse of the open order (HID, UVC, capture device): kept as it always was.
void closeChannels(const Camera& camera);
Result getDepthRange(const Camera& camera, uint16_t* range);
Result getDataMode(const Camera& camera, DataMode* mode);

inline void log(int level, const std::string& message) {
    writeLog(level, message);
}

}  // namespace Talvoro::wrapper

#endif
