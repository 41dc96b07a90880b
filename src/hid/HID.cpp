// Finding the camera's hidraw nodes, and the one-request, one-answer protocol on them.
#include "hid/HID.h"

#include <linux/hidraw.h>
#include <poll.h>

#include <chrono>
#include <cstring>
#include <string>

#include "common/SysCall.h"
#include "common/UdevPtr.h"
#include "log/Log.h"

namespace Talvoro {

namespace {

constexpr int kCommandDescriptorSize = 29;
constexpr int kAnswerTimeoutMs = 5000;

// Waits until `fd` is readable or `timeoutMs` passed; a signal does not cut the wait short.
// Returns poll's result: > 0 readable, 0 timed out, -1 failed.
int waitReadable(int fd, int timeoutMs) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    pollfd p{fd, POLLIN, 0};
    return sysCall("poll", [&] {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        return ::poll(&p, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
    });
}

}  // namespace

Result HID::openHID(DeviceInfo* info) {
    if (!info) return setError(InvalidValue);
    UdevPtr udev(udev_new());
    if (!udev) return setError(NotInitialized);
    UdevEnumeratePtr enumerate(udev_enumerate_new(udev.get()));
    if (!enumerate) return setError(NotInitialized);
    udev_enumerate_add_match_subsystem(enumerate.get(), "hidraw");
    udev_enumerate_scan_devices(enumerate.get());
    commandNode_.close();
    imuNode_.close();

    const std::string serial(info->serialNo, strnlen(info->serialNo, sizeof info->serialNo));
    udev_list_entry* entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(enumerate.get())) {
        UdevDevicePtr dev(
            udev_device_new_from_syspath(udev.get(), udev_list_entry_get_name(entry)));
        if (!dev) continue;
        udev_device* usb =
            udev_device_get_parent_with_subsystem_devtype(dev.get(), "usb", "usb_device");
        const char* nodeSerial = usb ? udev_device_get_sysattr_value(usb, "serial") : nullptr;
        // The serial number is the only key pairing a hidraw node with the camera.
        if (!nodeSerial || serial != nodeSerial) continue;
        const char* devnode = udev_device_get_devnode(dev.get());
        UniqueFd fd(devnode ? openNode(devnode) : -1);
        if (!fd.isValid()) {
            const int error = errno;
            writeLog(7, "\nTalvoroSDK:hid open:");
            logPermissionDenied(devnode ? devnode : "", error);
            continue;
        }
        int descriptorSize = 0;
        if (XIOCTL(fd.get(), HIDIOCGRDESCSIZE, &descriptorSize) == -1) continue;
        (descriptorSize == kCommandDescriptorSize ? commandNode_ : imuNode_).adopt(std::move(fd));
        if (commandNode_.isOpen() && imuNode_.isOpen()) return setError(Ok);
    }
    return setError(CameraNotOpened);
}

Result HID::closeHID() {
    // Closed descriptors are forgotten, so a later command fails to write instead of writing
    // to whatever file reuses the number.
    commandNode_.close();
    imuNode_.close();
    return setError(CameraNotOpened);
}

void HID::adoptDescriptors(UniqueFd command, UniqueFd imu) {
    commandNode_.adopt(std::move(command));
    imuNode_.adopt(std::move(imu));
}

void HID::_initializeBuffers() {
    std::memset(answer_, 0, sizeof answer_);
    std::memset(request_, 0, sizeof request_);
    std::memset(imuBuffer_, 0, sizeof imuBuffer_);
}

Result HID::_sendHidCmd(ControlNode& node) {
    // A report is written whole or not at all; a part of one is no request.
    if (node.write(request_, sizeof request_) != static_cast<ssize_t>(sizeof request_))
        return setError(HidWriteFail);
    return setError(Ok);
}

Result HID::_readHidCmd(ControlNode& node) {
    // A wait that times out is no error of its own: the read below then finds nothing.
    if (waitReadable(node.fd(), kAnswerTimeoutMs) < 0) return setError(TimeoutError);
    if (node.read(answer_, sizeof answer_) < 0) return setError(HidReadFail);
    return setError(Ok);
}

Result HID::_request() {
    const Result sent = _sendHidCmd(commandNode_);
    if (sent != Ok) return sent;
    return _readHidCmd(commandNode_);
}

bool HID::_accepted(uint8_t sub, std::size_t statusByte) const {
    return answer_[0] == 0xB3 && answer_[1] == sub && answer_[statusByte] == 0x01;
}

}  // namespace Talvoro
