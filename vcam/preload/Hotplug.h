// The camera's presence in the testbed's sysfs and /dev trees ($UMOCKDEV_DIR), which every
// process of a launcher run shares.
#ifndef TALVORO_VCAM_HOTPLUG_H
#define TALVORO_VCAM_HOTPLUG_H

#include "Scenario.h"

namespace vcam {

// Removes the camera's USB device with everything below it (its video4linux and hidraw
// devices), the class, bus and device-number links to them, and its /dev entries, so that udev
// scans no longer find it.
void removeFromTestbed(const CameraSpec& camera);

// False once a process of this run has unplugged the camera.
bool presentInTestbed(const CameraSpec& camera);

}  // namespace vcam

#endif
