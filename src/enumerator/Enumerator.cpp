#include "enumerator/Enumerator.h"

#include <linux/videodev2.h>

#include <bitset>
#include <cstdio>
#include <cstring>

#include "common/SysCall.h"
#include "common/UdevPtr.h"
#include "common/UniqueFd.h"
#include "log/TALVOROError.h"

namespace Talvoro {

namespace {

constexpr std::size_t kDevVideoPrefixLength = 10;  // strlen("/dev/video")

// Copies `src` into `dst` (capacity `size`, NUL included). An over-long or missing source is
// refused rather than truncated: a cut serial or path would name another camera.
bool copyField(char* dst, std::size_t size, const char* src) {
    if (!src) return false;
    const std::size_t len = std::strlen(src);
    if (len >= size) return false;
    std::memcpy(dst, src, len + 1);
    return true;
}

}  // namespace

Result Enumerator::isInitialized() {
    // Bit 31 alone decides, so a camera on /dev/video31 reads as not initialised.
    return setError((mask_.load() & 0x80000000u) ? NotInitialized : NotDeInitialized);
}

Result Enumerator::deInitialize() {
    mask_.store(kNotInitialized);
    return setError(Ok);
}

Result Enumerator::isValidNode(std::string devicePath) {
    UniqueFd fd(openNode(devicePath.c_str()));
    if (!fd.isValid()) return setError(CameraNotOpened);
    v4l2_capability cap{};
    if (XIOCTL(fd.get(), VIDIOC_QUERYCAP, &cap) == -1) return setError(SysCallFail);
    fd.reset();
    // The camera's metadata node differs from its capture node by this one bit.
    if (cap.device_caps & V4L2_CAP_META_CAPTURE) return setError(InvalidNode);
    return setError(Ok);
}

Result Enumerator::initialize() {
    UdevPtr udev(udev_new());
    if (!udev) return setError(NotInitialized);

    UdevEnumeratePtr enumerate(udev_enumerate_new(udev.get()));
    if (!enumerate) return setError(NotInitialized);
    udev_enumerate_add_match_subsystem(enumerate.get(), "video4linux");
    udev_enumerate_scan_devices(enumerate.get());

    uint32_t mask = 0;
    int nodeNumber = 0;
    udev_list_entry* entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(enumerate.get())) {
        UdevDevicePtr dev(
            udev_device_new_from_syspath(udev.get(), udev_list_entry_get_name(entry)));
        if (!dev) continue;
        const char* devnode = udev_device_get_devnode(dev.get());
        if (!devnode || isValidNode(devnode) != Ok) continue;

        udev_device* usb =
            udev_device_get_parent_with_subsystem_devtype(dev.get(), "usb", "usb_device");
        if (!usb) {
            // A capture node that is not on USB makes the whole enumeration fail.
            mask_.store(kNotInitialized);
            return setError(NotInitialized);
        }
        const char* vendor = udev_device_get_sysattr_value(usb, "idVendor");
        const char* product = udev_device_get_sysattr_value(usb, "idProduct");
        if (!vendor || !product || std::strcmp(vendor, kCameraVendorId) != 0 ||
            std::strcmp(product, kCameraProductId) != 0) {
            continue;
        }
        // An unparsable number reuses the previous match's number.
        if (std::strlen(devnode) > kDevVideoPrefixLength) {
            std::sscanf(devnode + kDevVideoPrefixLength, "%d", &nodeNumber);
        }
        mask |= 1u << (static_cast<unsigned>(nodeNumber) & 31u);
    }
    mask_.store(mask);
    return setError(Ok);
}

Result Enumerator::getDeviceCount(unsigned int* count) {
    initialize();  // every count re-enumerates; its result is deliberately not looked at
    *count = 0;
    const uint32_t mask = mask_.load();
    if (mask == 0) return setError(NoDeviceConnected);
    *count = static_cast<unsigned int>(std::bitset<32>(mask).count());
    return setError(Ok);
}

Result Enumerator::isValidIndex(unsigned int index) {
    unsigned int count = 0;
    if (getDeviceCount(&count) == NoDeviceConnected) return setError(NoDeviceConnected);
    // Strictly "count < index": an index equal to the count is accepted on purpose.
    if (count < index) return setError(InvalidDeviceIndex);
    return setError(Ok);
}

unsigned int Enumerator::getDevNodeNumber(unsigned int* inOut) {
    // Only /dev/video0..15 are walked; a higher node counts but is never found here.
    const uint32_t mask = mask_.load();
    unsigned int seen = 0;
    for (unsigned int bit = 0; bit < 16; ++bit) {
        if (!(mask & (1u << bit))) continue;
        if (seen == *inOut) {
            *inOut = bit;
            return bit;
        }
        ++seen;
    }
    return seen;
}

Result Enumerator::getDeviceInfo(unsigned int index, DeviceInfo* info) {
    if (isValidIndex(index) < 0) return setError(InvalidDeviceIndex);

    unsigned int node = index;
    getDevNodeNumber(&node);
    const std::string sysname = "video" + std::to_string(node);

    UdevPtr udev(udev_new());
    if (!udev) return setError(OperationFailed);
    UdevDevicePtr video(
        udev_device_new_from_subsystem_sysname(udev.get(), "video4linux", sysname.c_str()));
    if (!video) return setError(OperationFailed);
    udev_device* usb =
        udev_device_get_parent_with_subsystem_devtype(video.get(), "usb", "usb_device");
    if (!usb) return setError(OperationFailed);

    // Filled into a copy so that a failure leaves the caller's record as it was.
    DeviceInfo filled{};
    if (!copyField(filled.deviceName, sizeof filled.deviceName,
                   udev_device_get_sysattr_value(usb, "product")) ||
        !copyField(filled.vid, sizeof filled.vid, udev_device_get_sysattr_value(usb, "idVendor")) ||
        !copyField(filled.pid, sizeof filled.pid,
                   udev_device_get_sysattr_value(usb, "idProduct")) ||
        !copyField(filled.devicePath, sizeof filled.devicePath,
                   udev_device_get_devnode(video.get())) ||
        !copyField(filled.serialNo, sizeof filled.serialNo,
                   udev_device_get_sysattr_value(usb, "serial"))) {
        return setError(OperationFailed);
    }
    *info = filled;
    return setError(Ok);
}

Result Enumerator::getDeviceListInfo(unsigned int count, DeviceInfo* list) {
    for (unsigned int i = 0; i < count; ++i) {
        if (getDeviceInfo(i, &list[i]) < 0) return OperationFailed;  // cErrorNo left as is
    }
    return setError(Ok);
}

Result Enumerator::getSDKVersion(unsigned char* major, unsigned char* minor,
                                 unsigned short* patch) {
    *major = TALVORO_SDK_VERSION_MAJOR;
    *minor = TALVORO_SDK_VERSION_MINOR;
    *patch = TALVORO_SDK_VERSION_PATCH;
    return Ok;
}

}  // namespace Talvoro
