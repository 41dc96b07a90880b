// The camera registry: one record per camera, handle resolution, the registration rule and the
// call guard's rules.
#include <cstring>
#include <string>

#include "enumerator/Enumerator.h"
#include "hid/HID.h"
#include "uvc/UVC.h"
#include "wrapper/TalvoroWrapper.h"

namespace Talvoro::wrapper {

Registry& registry() {
    // Never destroyed: capture threads may still look at it while the process exits. What it
    // holds is released at unload (DeviceLifetime.cpp).
    static Registry* instance = [] {
        auto* reg = new Registry;
        reg->enumerate = std::make_unique<Enumerator>();
        return reg;
    }();
    return *instance;
}

std::timed_mutex& openCloseMutex() {
    static std::timed_mutex* mutex = new std::timed_mutex;
    return *mutex;
}

OpenCloseLock::OpenCloseLock() : lock_(openCloseMutex(), std::defer_lock) {
    if (onCaptureThread())
        lock_.try_lock_for(kCallbackLockWait);
    else
        lock_.lock();
}

namespace {

// The first record carrying `serial`. A record's handle is its DeviceInfo's serial, so handles
// and records resolve alike.
bool firstWithSerial(const std::vector<CameraRecord>& cameras, const std::string& serial,
                     int* index) {
    for (std::size_t i = 0; i < cameras.size(); ++i) {
        if (cameras[i].serial() == serial) {
            *index = static_cast<int>(i);
            return true;
        }
    }
    return false;
}

}  // namespace

bool Registry::getDevIndex(const DeviceHandle& handle, int* index) const {
    return firstWithSerial(cameras, serialOf(handle.serialNo), index);
}

bool Registry::getDeviceIndexFromDeviceInfo(const DeviceInfo& info, int* index) const {
    return firstWithSerial(cameras, serialOf(info.serialNo), index);
}

int Registry::indexOf(const TALVORODevice* device) const {
    for (std::size_t i = 0; i < cameras.size(); ++i)
        if (cameras[i].cam.get() == device) return static_cast<int>(i);
    return -1;
}

Camera Registry::snapshot(int index) const {
    Camera c;
    if (index < 0 || static_cast<std::size_t>(index) >= cameras.size()) return c;
    static_cast<CameraRecord&>(c) = cameras[static_cast<std::size_t>(index)];
    c.found = true;
    c.index = static_cast<unsigned>(index);
    return c;
}

namespace {

// The registration rule, kept as it has always been: a scanned camera is appended unless its
// serial equals that of every registered camera. With one camera registered that admits exactly
// the new ones; with more, a known camera comes in again (its second entry is never reached:
// handles resolve to the first). Pinned by Registration.KnownCameraComesInAgainBesideTwo.
bool admits(const std::vector<CameraRecord>& cameras, const std::string& serial) {
    if (cameras.empty()) return true;
    for (const CameraRecord& known : cameras)
        if (known.serial() != serial) return true;
    return false;
}

}  // namespace

void Registry::merge(unsigned scannedCount, const std::vector<ScannedCamera>& scanned) {
    // Cameras that vanished are removed only by the unplug handler.
    if (scannedCount <= cameras.size() || scannedCount < 1) return;
    for (const ScannedCamera& s : scanned) {
        if (!admits(cameras, serialOf(s.info.serialNo))) continue;
        // Built first, so that a failure leaves the registry as it was.
        CameraRecord record;
        record.info = s.info;
        std::memcpy(record.handle.serialNo, s.info.serialNo, sizeof record.handle.serialNo);
        record.handle.serialNo[sizeof record.handle.serialNo - 1] = '\0';
        record.cam = makeDevice(static_cast<int>(s.enumIndex));
        record.hid = std::make_shared<HID>();
        record.uvc = std::make_shared<UVC>();
        cameras.push_back(std::move(record));
    }
}

void Registry::erase(int index) {
    auto at = cameras.begin() + index;
    retired.push_back(std::move(at->cam));
    retired.push_back(std::move(at->hid));
    retired.push_back(std::move(at->uvc));
    releasePending.store(true);
    cameras.erase(at);
}

void Registry::clear(std::vector<std::shared_ptr<void>>* released) {
    while (!cameras.empty()) {
        CameraRecord& last = cameras.back();
        // The objects were once kept in lists of their own, popped in turn; the lines say so.
        const std::string count = std::to_string(cameras.size());
        std::pair<const char*, std::shared_ptr<void>> objects[] = {{"cam", std::move(last.cam)},
                                                                   {"hid", std::move(last.hid)},
                                                                   {"uvc", std::move(last.uvc)}};
        for (auto& [name, object] : objects) {
            log(3, std::string("\n\nTalvoroSDK: Before ") + name +
                       " pop back maxDeviceCount :" + count + " " + name + ".size :" + count);
            released->push_back(std::move(object));
        }
        cameras.pop_back();
    }
}

Camera resolve(const DeviceHandle& handle) {
    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    int index = -1;
    if (!reg.getDevIndex(handle, &index)) return Camera{};
    return reg.snapshot(index);
}

CallOnCamera::CallOnCamera(const DeviceHandle& handle) {
    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    int index = -1;
    if (!reg.getDevIndex(handle, &index)) return;
    camera_ = reg.snapshot(index);
    ++*camera_.calls;
}

CallOnCamera::~CallOnCamera() {
    if (camera_.found) --*camera_.calls;
}

Camera resolveInfo(const DeviceInfo& info) {
    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    int index = -1;
    if (!reg.getDeviceIndexFromDeviceInfo(info, &index)) return Camera{};
    return reg.snapshot(index);
}

bool permits(ModeRule rule, unsigned mode) {
    switch (rule) {
        case ModeRule::Any:
            return true;
        case ModeRule::ColourStream:
            return mode >= 4;
        case ModeRule::ColourOnly:
            return mode >= 6;
        case ModeRule::Depth:
            return mode <= 5 && mode != 3;
        case ModeRule::IR:
            return mode <= 5 && mode != 2;
        case ModeRule::Tof:
            return mode <= 5;
        case ModeRule::Mapped:
            return mode == 4 || mode == 5;
    }
    return false;
}

void logException(const char* function) noexcept {
    try {
        logCaughtException((std::string(function) + " failed").c_str());
    } catch (...) {
        logCaughtException(function);
    }
}

}  // namespace Talvoro::wrapper
