// Exported OpenDevice, CloseDevice and IsOpened.
#include <algorithm>
#include <cstring>
#include <string>

#include "common/SysCall.h"
#include "wrapper/CalibrationStore.h"
#include "wrapper/TalvoroWrapper.h"

namespace Talvoro {

using namespace wrapper;

namespace {

void logStep(const std::string& message) {
    log(7, "\nTalvoroSDK:" + message);
}

// A failure's code, and the system call behind it when there was one: " -14 (write: ...)".
std::string failureText(Result result) {
    const std::string call = lastSysCallFailure().describe();
    return " " + std::to_string(result) + (call.empty() ? "" : " (" + call + ")");
}

void logBoardConfig(const Camera& camera) {
    std::string text;
    clearSysCallFailure();
    const Result result = camera.hid->getBoardConfigData(&text);
    if (result == Ok)
        logStep("Board Config Data : " + text);
    else
        logStep("Board Config Data could not be read" + failureText(result));
}

void setOpenState(const Camera& camera, int32_t state) {
    update(camera.cam.get(), [state](CameraRecord& r) { r.openState = state; });
}

// Opens the channels of a camera that is known, closed and connected (HID, UVC, capture
// device), then reads its depth range and data mode and loads its calibration. A failure
// after the camera was marked open closes it yet answers what closing answered (Ok): kept on
// purpose, pinned by OpenClose.AnUnreadableDepthRangeClosesTheCameraYetReportsOk.
Result openChannels(const Camera& camera, DeviceInfo& info, const DeviceHandle& local,
                    DeviceHandle* handle) {
    // Whatever happens, the path out of a failure is the same: close, record what closing
    // answered, log the board configuration, and answer that.
    bool markedOpen = false;
    auto fail = [&] {
        const Result closed = closeCamera(local);
        setOpenState(camera, closed);
        logBoardConfig(camera);
        if (!markedOpen) {
            // Closing a camera that was never marked open does nothing; release what this
            // attempt opened, so that the next one starts from a closed camera.
            camera.cam->closeDevice();
            camera.hid->closeHID();
            camera.uvc->closeUVC();
        }
        return closed;
    };

    if (camera.hid->openHID(&info) < 0) return fail();
    if (camera.uvc->_openUVC(info) < 0) return fail();
    // The unplug handler is registered before streaming starts, so that no lost stream finds
    // the slot empty; it identifies its camera by Device, not by index.
    camera.cam->registerWrapperNotificationCallback(hotplugHandler(camera.cam.get()));
    if (!camera.cam->open(info)) return fail();
    camera.cam->setDeviceIndex(camera.index, camera.serial());
    if (camera.cam->isDeviceOpen() == CameraNotOpened) return fail();

    *handle = local;
    setOpenState(camera, Ok);
    markedOpen = true;

    uint16_t range = camera.depthRange;
    if (getDepthRange(camera, &range) < 0) {
        logStep("OpenDevice - GetDepthRange failed ");
        return fail();
    }
    logStep("OpenDevice - GetDepthRange success ");
    update(camera.cam.get(), [range](CameraRecord& r) { r.depthRange = range; });
    camera.cam->updateDepthRange(range);

    DataMode mode = static_cast<DataMode>(camera.dataMode);
    clearSysCallFailure();
    const Result modeResult = getDataMode(camera, &mode);
    if (modeResult < 0) {
        logStep("OpenDevice - GetDataMode failed" + failureText(modeResult));
        return fail();
    }
    logStep("OpenDevice - GetDataMode success ");
    update(camera.cam.get(), [mode](CameraRecord& r) { r.dataMode = mode; });
    camera.cam->initFrame(mode);

    if (!camera.calibParamObtained) loadCalibration(camera, local);
    camera.cam->createThetaMat();
    logBoardConfig(camera);
    return Ok;
}

}  // namespace

namespace wrapper {

void closeChannels(const Camera& camera) {
    log(7, "\nTalvoroSDK:Closedevice index is  :" + std::to_string(camera.index));
    log(7, "\nTalvoroSDK:before closeCAM :");
    camera.cam->closeDevice();
    log(7, "\nTalvoroSDK:before closeHID :");
    camera.hid->closeHID();
    log(7, "\nTalvoroSDK:before closeUVC :");
    camera.uvc->closeUVC();
}

Result closeCamera(const DeviceHandle& handle) {
    const Camera camera = resolve(handle);
    if (!camera.found) return CameraNotOpened;
    if (camera.openState != Ok) return static_cast<Result>(camera.openState);
    if (camera.cam->isDeviceOpen() == CameraAlreadyOpen) {
        closeChannels(camera);
        update(camera.cam.get(), [](CameraRecord& r) {
            r.calibParamObtained = false;
            r.openState = CameraNotOpened;
        });
        return Ok;
    }
    TALVOROError::cErrorNo.store(CameraNotOpened);
    setOpenState(camera, CameraNotOpened);
    return CameraNotOpened;
}

}  // namespace wrapper

extern "C" {

TALVORO_API Result OpenDevice(DeviceInfo info, DeviceHandle* handle) {
    return boundary("OpenDevice", [&] {
        if (!handle) return InvalidValue;
        const OpenCloseLock openClose;
        if (!openClose.owns()) return OperationFailed;
        logStep("before getDeviceIndexFromDeviceInfo : ");
        const Camera camera = resolveInfo(info);
        if (!camera.found) return InvalidNode;
        logStep("before isDeviceOpen : ");
        if (camera.cam->isDeviceOpen() == CameraAlreadyOpen) return CameraAlreadyOpen;
        Registry& reg = registry();
        {
            std::lock_guard<std::mutex> lock(reg.mutex);
            if (reg.is_init == NotInitialized) return NotInitialized;
        }
        logStep("before isValidIndex : ");
        const Result valid = reg.enumerate->isValidIndex(camera.index);  // rescans: not locked
        {
            std::lock_guard<std::mutex> lock(reg.mutex);
            reg.status = valid;
        }
        if (valid != Ok) return valid;
        logStep("before strcpy : ");
        DeviceHandle local{};
        const std::string serial = serialOf(info.serialNo);
        std::memcpy(local.serialNo, serial.data(),
                    std::min(serial.size(), sizeof local.serialNo - 1));
        logStep("before CloseDevice : ");
        closeCamera(local);
        info.deviceName[sizeof info.deviceName - 1] = '\0';
        info.vid[sizeof info.vid - 1] = '\0';
        info.pid[sizeof info.pid - 1] = '\0';
        info.devicePath[sizeof info.devicePath - 1] = '\0';
        info.serialNo[sizeof info.serialNo - 1] = '\0';
        logStep(std::string("info.deviceName : ") + info.deviceName);
        logStep(std::string("info.vid : ") + info.vid);
        logStep(std::string("info.pid : ") + info.pid);
        logStep(std::string("info.devicePath : ") + info.devicePath);
        return openChannels(camera, info, local, handle);
    });
}

TALVORO_API Result CloseDevice(DeviceHandle handle) {
    return boundary("CloseDevice", [&] {
        const OpenCloseLock openClose;
        if (!openClose.owns()) return OperationFailed;
        return closeCamera(handle);
    });
}

TALVORO_API Result IsOpened(DeviceHandle handle) {
    return boundary("IsOpened", [&] {
        const Camera camera = resolve(handle);
        if (!camera.found) {
            TALVOROError::cErrorNo.store(InvalidDeviceIndex);
            return InvalidDeviceIndex;
        }
        log(1, "\nTalvoroSDK:IsOpened index : " + std::to_string(camera.index));
        return camera.cam->isDeviceOpen();
    });
}

}  // extern "C"

}  // namespace Talvoro
