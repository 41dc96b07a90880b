// The camera registry: parallel per-camera lists, handle resolution and the call guard's rules.
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

// The first record of `list` carrying `serial`.
template <typename Record>
bool firstWithSerial(const std::vector<Record>& list, const std::string& serial, int* index) {
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (serialOf(list[i].serialNo) == serial) {
            *index = static_cast<int>(i);
            return true;
        }
    }
    return false;
}

}  // namespace

bool Registry::getDevIndex(const DeviceHandle& handle, int* index) const {
    return firstWithSerial(devHandleList, serialOf(handle.serialNo), index);
}

bool Registry::getDeviceIndexFromDeviceInfo(const DeviceInfo& info, int* index) const {
    return firstWithSerial(deviceListInfo, serialOf(info.serialNo), index);
}

int Registry::indexOf(const TALVORODevice* device) const {
    for (std::size_t i = 0; i < cam.size(); ++i)
        if (cam[i].get() == device) return static_cast<int>(i);
    return -1;
}

Camera Registry::snapshot(int index) const {
    Camera c;
    if (index < 0 || static_cast<uint32_t>(index) >= maxDeviceCount) return c;
    const auto i = static_cast<std::size_t>(index);
    c.found = true;
    c.index = static_cast<unsigned>(index);
    c.openState = is_opened[i];
    c.dataMode = dataModeVec[i];
    c.depthRange = cDepthRange[i];
    c.calibParamObtained = calibParamObtained[i];
    c.serial = serialOf(devHandleList[i].serialNo);
    c.cam = cam[i];
    c.hid = hid[i];
    c.uvc = uvc[i];
    return c;
}

void Registry::append(const DeviceInfo& info, unsigned enumIndex) {
    // Build everything first, so that a failure leaves every list as it was.
    DevicePtr device = makeDevice(static_cast<int>(enumIndex));
    HidPtr hidChannel = std::make_shared<HID>();
    UvcPtr uvcChannel = std::make_shared<UVC>();
    DeviceHandle handle{};
    std::memcpy(handle.serialNo, info.serialNo, sizeof handle.serialNo);
    handle.serialNo[sizeof handle.serialNo - 1] = '\0';
    const std::size_t n = deviceListInfo.size() + 1;
    deviceListInfo.reserve(n);
    devHandleList.reserve(n);
    cam.reserve(n);
    hid.reserve(n);
    uvc.reserve(n);
    is_opened.reserve(n);
    dataModeVec.reserve(n);
    cDepthRange.reserve(n);
    availableCalibData.reserve(n);
    calibParamObtained.reserve(n);
    devCalibParamsList.reserve(n);

    deviceListInfo.push_back(info);
    cam.push_back(std::move(device));
    hid.push_back(std::move(hidChannel));
    uvc.push_back(std::move(uvcChannel));
    is_opened.push_back(CameraNotOpened);
    availableCalibData.push_back(0);
    calibParamObtained.push_back(false);
    devHandleList.push_back(handle);
    devCalibParamsList.push_back(CalibrationParams{});
    cDepthRange.push_back(kDefaultDepthRange);
    dataModeVec.push_back(Depth_IR_RGB_VGA_Mode);
    ++maxDeviceCount;
}

void Registry::erase(int index) {
    const auto at = static_cast<std::ptrdiff_t>(index);
    retired.push_back(std::move(cam[static_cast<std::size_t>(index)]));
    retired.push_back(std::move(hid[static_cast<std::size_t>(index)]));
    retired.push_back(std::move(uvc[static_cast<std::size_t>(index)]));
    releasePending.store(true);
    deviceListInfo.erase(deviceListInfo.begin() + at);
    cam.erase(cam.begin() + at);
    hid.erase(hid.begin() + at);
    uvc.erase(uvc.begin() + at);
    devHandleList.erase(devHandleList.begin() + at);
    cDepthRange.erase(cDepthRange.begin() + at);
    dataModeVec.erase(dataModeVec.begin() + at);
    availableCalibData.erase(availableCalibData.begin() + at);
    calibParamObtained.erase(calibParamObtained.begin() + at);
    devCalibParamsList.erase(devCalibParamsList.begin() + at);
    is_opened.erase(is_opened.begin() + at);
    --maxDeviceCount;
}

void Registry::clear(std::vector<std::shared_ptr<void>>* released) {
    const std::size_t n = devHandleList.size();
    for (std::size_t k = 0; k < n; ++k) {
        log(3, "\n\nTalvoroSDK: Before cam pop back maxDeviceCount :" +
                   std::to_string(maxDeviceCount) + " cam.size :" + std::to_string(cam.size()));
        released->push_back(std::move(cam.back()));
        cam.pop_back();
        log(3, "\n\nTalvoroSDK: Before hid pop back maxDeviceCount :" +
                   std::to_string(maxDeviceCount) + " hid.size :" + std::to_string(hid.size()));
        released->push_back(std::move(hid.back()));
        hid.pop_back();
        log(3, "\n\nTalvoroSDK: Before uvc pop back maxDeviceCount :" +
                   std::to_string(maxDeviceCount) + " uvc.size :" + std::to_string(uvc.size()));
        released->push_back(std::move(uvc.back()));
        uvc.pop_back();
        deviceListInfo.erase(deviceListInfo.begin());
        devHandleList.erase(devHandleList.begin());
        cDepthRange.erase(cDepthRange.begin());
        dataModeVec.erase(dataModeVec.begin());
        availableCalibData.erase(availableCalibData.begin());
        calibParamObtained.erase(calibParamObtained.begin());
        devCalibParamsList.erase(devCalibParamsList.begin());
        is_opened.erase(is_opened.begin());
        --maxDeviceCount;
    }
}

bool Registry::checkInvariant() const {
    const std::size_t n = maxDeviceCount;
    return deviceListInfo.size() == n && devHandleList.size() == n && cam.size() == n &&
           hid.size() == n && uvc.size() == n && is_opened.size() == n && dataModeVec.size() == n &&
           cDepthRange.size() == n && availableCalibData.size() == n &&
           calibParamObtained.size() == n && devCalibParamsList.size() == n;
}

Camera resolve(const DeviceHandle& handle) {
    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    int index = -1;
    if (!reg.getDevIndex(handle, &index)) return Camera{};
    return reg.snapshot(index);
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

void logException(const char* function, const char* what) {
    log(7, std::string("\nTalvoroSDK:") + function + " failed: " + what);
}

}  // namespace Talvoro::wrapper
