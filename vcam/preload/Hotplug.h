// Unplugging a camera from inside a process of the run: the unplug fault, and the plug and
// unplug entry points of talvoro_vcam.h.
#ifndef TALVORO_VCAM_HOTPLUG_H
#define TALVORO_VCAM_HOTPLUG_H

namespace vcam {

class Camera;

// Unplugs the camera as its cable would be pulled: the launcher takes it out of the run (out of
// sysfs and /dev, "remove" uevents, every process's nodes fail), then this process's
// descriptors fail at once, whether or not the launcher could be reached.
void unplugCamera(Camera& camera);

}  // namespace vcam

#endif
