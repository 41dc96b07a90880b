// RAII owners for libudev objects: each unrefs its object on destruction.
#ifndef TALVORO_COMMON_UDEV_PTR_H
#define TALVORO_COMMON_UDEV_PTR_H

#include <libudev.h>

#include <memory>

namespace Talvoro {

struct UdevUnref {
    void operator()(udev* p) const { udev_unref(p); }
};
struct UdevEnumerateUnref {
    void operator()(udev_enumerate* p) const { udev_enumerate_unref(p); }
};
struct UdevDeviceUnref {
    void operator()(udev_device* p) const { udev_device_unref(p); }
};
struct UdevMonitorUnref {
    void operator()(udev_monitor* p) const { udev_monitor_unref(p); }
};

using UdevPtr = std::unique_ptr<udev, UdevUnref>;
using UdevEnumeratePtr = std::unique_ptr<udev_enumerate, UdevEnumerateUnref>;
// A parent returned by udev_device_get_parent*() is owned by its child and is never wrapped.
using UdevDevicePtr = std::unique_ptr<udev_device, UdevDeviceUnref>;
using UdevMonitorPtr = std::unique_ptr<udev_monitor, UdevMonitorUnref>;

}  // namespace Talvoro

#endif
