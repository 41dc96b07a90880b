// Entry points for tests and tools that run under the launcher (see talvoro_vcam.h). They are
// looked up with dlsym, so nothing links against the preload.
#include "Camera.h"
#include "Stream.h"
#include "VideoNode.h"
#include "World.h"

extern "C" {

__attribute__((visibility("default"))) int talvoro_vcam_camera_count(void) {
    vcam::World* world = vcam::World::get();
    return world ? static_cast<int>(world->cameras().size()) : -1;
}

// Adds a fault (same text as in a scenario) to the camera with `serial`. 0, or -1 when there is
// no such camera or the text is not a fault.
__attribute__((visibility("default"))) int talvoro_vcam_inject_fault(const char* serial,
                                                                     const char* spec) {
    vcam::World* world = vcam::World::get();
    if (!world || !serial || !spec) return -1;
    auto camera = world->cameraBySerial(serial);
    vcam::FaultSpec fault;
    std::string error;
    if (!camera || !vcam::parseFault(spec, &fault, &error)) return -1;
    camera->addFault(fault);
    // A fault whose frame has passed (an unplug now) takes effect at once.
    if (camera->capture && camera->capture->stream()) camera->capture->stream()->faultAdded(fault);
    return 0;
}

// The wire trace file of this run, or "" when there is none (or no virtual camera).
__attribute__((visibility("default"))) const char* talvoro_vcam_trace_path(void) {
    vcam::World* world = vcam::World::get();
    return world ? world->scenario().trace.c_str() : "";
}

// Removes every fault of that name from the camera. 0, or -1 when there is no such camera.
__attribute__((visibility("default"))) int talvoro_vcam_clear_fault(const char* serial,
                                                                    const char* name) {
    vcam::World* world = vcam::World::get();
    auto camera = world && serial ? world->cameraBySerial(serial) : nullptr;
    if (!camera || !name) return -1;
    camera->clearFault(name);
    return 0;
}

}  // extern "C"
