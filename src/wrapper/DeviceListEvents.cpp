// The device-list monitor. A camera is followed by its capture node: its "add" is the arrival
// and its "remove" the departure. The monitor remembers the
// capture nodes it knows, so that the metadata node, repeated events and cameras present at the
// start announce nothing, and so that a "remove", when sysfs is gone, still names its camera.
#include "wrapper/DeviceListEvents.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

#include "common/SysCall.h"
#include "common/UdevPtr.h"
#include "common/UniqueFd.h"
#include "enumerator/Enumerator.h"
#include "wrapper/TalvoroWrapper.h"

namespace Talvoro::wrapper {

namespace {

// Capture node (/dev/videoN) -> the camera's serial.
using KnownNodes = std::map<std::string, std::string>;

// One run of the monitor thread: stopped by clearing `run` and signalling `wake`.
struct Watch {
    std::atomic<bool> run{true};
    UniqueFd wake;
    UdevPtr udev;
    UdevMonitorPtr monitor;
    KnownNodes known;
};

struct State {
    std::mutex mutex;  // guards every member
    std::shared_ptr<const DeviceListCallback> callback;
    std::shared_ptr<Watch> watch;
    int delivering = 0;  // callbacks under way
    std::condition_variable delivered;
};

State& state() {
    // Never destroyed: a stopped monitor thread may still be winding down at exit.
    static State* instance = new State;
    return *instance;
}

thread_local bool onMonitorThread = false;

// The serial of a camera's capture node, read from sysfs (a node being added, or found by a
// scan); false for any other node.
bool captureNodeSerial(udev_device* video, std::string* serial) {
    udev_device* usb = udev_device_get_parent_with_subsystem_devtype(video, "usb", "usb_device");
    if (!usb) return false;
    const char* vendor = udev_device_get_sysattr_value(usb, "idVendor");
    const char* product = udev_device_get_sysattr_value(usb, "idProduct");
    const char* value = udev_device_get_sysattr_value(usb, "serial");
    if (!vendor || !product || !value || std::strcmp(vendor, kCameraVendorId) != 0 ||
        std::strcmp(product, kCameraProductId) != 0) {
        return false;
    }
    // udev's v4l_id tells capture nodes; without it, uvcvideo's first node is the capture node.
    const char* caps = udev_device_get_property_value(video, "ID_V4L_CAPABILITIES");
    const char* index = udev_device_get_sysattr_value(video, "index");
    const bool capture =
        caps ? std::strstr(caps, ":capture:") != nullptr : index && std::strcmp(index, "0") == 0;
    if (!capture) return false;
    *serial = value;
    return true;
}

KnownNodes scan(udev* context) {
    KnownNodes known;
    UdevEnumeratePtr enumerate(udev_enumerate_new(context));
    if (!enumerate) return known;
    udev_enumerate_add_match_subsystem(enumerate.get(), "video4linux");
    udev_enumerate_scan_devices(enumerate.get());
    udev_list_entry* entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(enumerate.get())) {
        UdevDevicePtr dev(udev_device_new_from_syspath(context, udev_list_entry_get_name(entry)));
        std::string serial;
        const char* node = dev ? udev_device_get_devnode(dev.get()) : nullptr;
        if (node && captureNodeSerial(dev.get(), &serial)) known[node] = serial;
    }
    return known;
}

void deliver(const Watch& watch, DeviceListEvent event, const std::string& serial) {
    State& s = state();
    std::shared_ptr<const DeviceListCallback> callback;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.watch.get() != &watch || !s.callback) return;
        callback = s.callback;
        ++s.delivering;
    }
    try {
        (*callback)(event, serial.c_str());
    } catch (...) {
        log(7,
            "\nTalvoroSDK:the callback given to RegisterDeviceListCallback threw an "
            "exception; ignored");
    }
    std::lock_guard<std::mutex> lock(s.mutex);
    --s.delivering;
    s.delivered.notify_all();
}

// What one uevent means for the device list.
void handle(Watch& watch, udev_device* dev) {
    const char* action = udev_device_get_action(dev);
    const char* node = udev_device_get_devnode(dev);
    if (!action || !node) return;
    if (std::strcmp(action, "add") == 0) {
        std::string serial;
        if (watch.known.count(node) || !captureNodeSerial(dev, &serial)) return;
        watch.known[node] = serial;
        deliver(watch, DeviceArrived, serial);
    } else if (std::strcmp(action, "remove") == 0) {
        const auto it = watch.known.find(node);
        if (it == watch.known.end()) return;
        const std::string serial = it->second;
        watch.known.erase(it);
        deliver(watch, DeviceLeft, serial);
    }
}

void monitorLoop(std::shared_ptr<Watch> watch) {
    onMonitorThread = true;
    pollfd fds[2] = {{udev_monitor_get_fd(watch->monitor.get()), POLLIN, 0},
                     {watch->wake.get(), POLLIN, 0}};
    while (watch->run) {
        if (xpoll(fds, 2, -1) < 0) break;
        if (!watch->run || fds[1].revents) break;
        if (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) break;
        UdevDevicePtr dev(udev_monitor_receive_device(watch->monitor.get()));
        if (dev) handle(*watch, dev.get());
    }
}

// A watch with its monitor receiving, then the scan: a camera plugged in between is both
// found and announced, and the announcement is then recognised as known.
std::shared_ptr<Watch> startWatch() {
    auto watch = std::make_shared<Watch>();
    watch->wake.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    watch->udev.reset(udev_new());
    if (!watch->wake.isValid() || !watch->udev) return nullptr;
    watch->monitor.reset(udev_monitor_new_from_netlink(watch->udev.get(), "udev"));
    if (!watch->monitor ||
        udev_monitor_filter_add_match_subsystem_devtype(watch->monitor.get(), "video4linux",
                                                        nullptr) < 0 ||
        udev_monitor_enable_receiving(watch->monitor.get()) < 0) {
        return nullptr;
    }
    watch->known = scan(watch->udev.get());
    try {
        std::thread(monitorLoop, watch).detach();
    } catch (const std::system_error&) {
        return nullptr;
    }
    return watch;
}

void stopWatch(const std::shared_ptr<Watch>& watch) {
    if (!watch) return;
    watch->run = false;
    const uint64_t one = 1;
    // The thread ends on its own; it holds everything it uses.
    [[maybe_unused]] const ssize_t n = ::write(watch->wake.get(), &one, sizeof one);
}

}  // namespace

Result setDeviceListCallback(DeviceListCallback callback) {
    State& s = state();
    std::unique_lock<std::mutex> lock(s.mutex);
    if (!callback) {
        s.callback.reset();
        stopWatch(s.watch);
        s.watch.reset();
        // A callback under way on another thread finishes first; on the monitor thread the
        // caller is that callback.
        if (!onMonitorThread) s.delivered.wait(lock, [&] { return s.delivering == 0; });
        return Ok;
    }
    auto shared = std::make_shared<const DeviceListCallback>(std::move(callback));
    if (!s.watch) {
        s.watch = startWatch();
        if (!s.watch) return OperationFailed;
    }
    s.callback = std::move(shared);
    return Ok;
}

}  // namespace Talvoro::wrapper

namespace Talvoro {

extern "C" {

TALVORO_API Result RegisterDeviceListCallback(
    std::function<void(DeviceListEvent event, const char* serial)> callback) {
    return wrapper::boundary("RegisterDeviceListCallback",
                             [&] { return wrapper::setDeviceListCallback(std::move(callback)); });
}

}  // extern "C"

}  // namespace Talvoro
