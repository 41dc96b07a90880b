#include "SystemScan.h"

#include <fcntl.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "TalvoroSDK.h"
#include "common/UdevPtr.h"
#include "common/UniqueFd.h"
#include "common/SysCall.h"

namespace talvoro_tool {

using Talvoro::UdevDevicePtr;
using Talvoro::UdevEnumeratePtr;
using Talvoro::UdevPtr;

const char kUdevRuleHint[] =
    "install the udev rule 60-talvoro.rules (see the README) and plug the camera in again, or "
    "join the plugdev group";

namespace {

constexpr char kVendor[] = "7e91";
constexpr char kProduct[] = "a05c";
constexpr std::size_t kFieldLimit = sizeof(Talvoro::DeviceInfo::serialNo) - 1;

std::optional<std::string> attribute(udev_device* device, const char* name) {
    const char* value = udev_device_get_sysattr_value(device, name);
    if (!value) return std::nullopt;
    return std::string(value);
}

// uvcvideo numbers a USB interface's video nodes: 0 is the capture node, 1 the metadata node.
// Where there is no such attribute the node is asked itself.
bool isCaptureNode(udev_device* device, const char* devnode) {
    if (const std::optional<std::string> index = attribute(device, "index")) return *index == "0";
    Talvoro::UniqueFd fd(::open(devnode, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    v4l2_capability caps{};
    if (!fd.isValid() || XIOCTL(fd.get(), VIDIOC_QUERYCAP, &caps) != 0) return false;
    const uint32_t device_caps =
        caps.capabilities & V4L2_CAP_DEVICE_CAPS ? caps.device_caps : caps.capabilities;
    return (device_caps & V4L2_CAP_VIDEO_CAPTURE) && !(device_caps & V4L2_CAP_META_CAPTURE);
}

int nodeNumber(const char* devnode) {
    const char* digits = devnode + std::strlen("/dev/video");
    if (std::strncmp(devnode, "/dev/video", 10) != 0 || !*digits) return -1;
    return std::atoi(digits);
}

// The hidraw nodes whose USB device has this serial number.
std::vector<std::string> hidrawNodes(udev* u, const std::string& serial) {
    std::vector<std::string> nodes;
    UdevEnumeratePtr list(udev_enumerate_new(u));
    if (!list) return nodes;
    udev_enumerate_add_match_subsystem(list.get(), "hidraw");
    udev_enumerate_scan_devices(list.get());
    udev_list_entry* entry;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(list.get())) {
        UdevDevicePtr device(udev_device_new_from_syspath(u, udev_list_entry_get_name(entry)));
        if (!device) continue;
        udev_device* usb =
            udev_device_get_parent_with_subsystem_devtype(device.get(), "usb", "usb_device");
        const char* devnode = udev_device_get_devnode(device.get());
        if (usb && devnode && attribute(usb, "serial") == serial) nodes.push_back(devnode);
    }
    return nodes;
}

// Whether opening `path` for reading and writing is refused for lack of permission.
bool permissionDenied(const std::string& path) {
    Talvoro::UniqueFd fd(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    return !fd.isValid() && (errno == EACCES || errno == EPERM);
}

}  // namespace

SystemScan scanSystem() {
    SystemScan scan;
    UdevPtr u(udev_new());
    if (!u) return scan;
    UdevEnumeratePtr list(udev_enumerate_new(u.get()));
    if (!list) return scan;
    udev_enumerate_add_match_subsystem(list.get(), "video4linux");
    udev_enumerate_scan_devices(list.get());
    udev_list_entry* entry;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(list.get())) {
        UdevDevicePtr device(
            udev_device_new_from_syspath(u.get(), udev_list_entry_get_name(entry)));
        const char* devnode = device ? udev_device_get_devnode(device.get()) : nullptr;
        if (!devnode || !isCaptureNode(device.get(), devnode)) continue;
        udev_device* usb =
            udev_device_get_parent_with_subsystem_devtype(device.get(), "usb", "usb_device");
        if (!usb) {
            scan.platformNodes.push_back(devnode);
            continue;
        }
        if (attribute(usb, "idVendor") != kVendor || attribute(usb, "idProduct") != kProduct)
            continue;
        CameraNode camera;
        camera.number = nodeNumber(devnode);
        camera.devnode = devnode;
        camera.serial = attribute(usb, "serial");
        camera.product = attribute(usb, "product");
        if (camera.serial) camera.hidraw = hidrawNodes(u.get(), *camera.serial);
        scan.cameras.push_back(std::move(camera));
    }
    std::sort(scan.cameras.begin(), scan.cameras.end(),
              [](const CameraNode& a, const CameraNode& b) { return a.number < b.number; });
    return scan;
}

std::string cameraProblem(const CameraNode& camera) {
    const std::string where = "camera on " + camera.devnode + ": ";
    if (camera.number > 15) return where + "node numbers above 15 are not supported";
    if (!camera.serial) return where + "its USB device has no serial number";
    if (camera.serial->size() > kFieldLimit)
        return where + "its USB serial number is longer than " + std::to_string(kFieldLimit) +
               " characters";
    if (!camera.product) return where + "its USB device has no product name";
    if (camera.product->size() > kFieldLimit)
        return where + "its USB product name is longer than " + std::to_string(kFieldLimit) +
               " characters";
    return "";
}

std::string permissionProblem(const CameraNode& camera) {
    std::vector<std::string> nodes = {camera.devnode};
    nodes.insert(nodes.end(), camera.hidraw.begin(), camera.hidraw.end());
    for (const std::string& node : nodes)
        if (permissionDenied(node)) return "permission denied on " + node;
    return "";
}

}  // namespace talvoro_tool
