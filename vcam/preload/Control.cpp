// Entry points for tests and tools that run under the launcher (see talvoro_vcam.h). They are
// looked up with dlsym, so nothing links against the preload.
#include <algorithm>
#include <cstring>

#include "Camera.h"
#include "RunState.h"
#include "Stream.h"
#include "VideoNode.h"
#include "World.h"

namespace {

void copyMessage(const std::string& message, char* out, std::size_t size) {
    if (!out || size == 0) return;
    const std::size_t n = std::min(message.size(), size - 1);
    std::memcpy(out, message.data(), n);
    out[n] = '\0';
}

// Sends a plug or unplug to the launcher and, once it is done, brings this process up to date.
int askLauncher(const std::string& message, char* error, std::size_t size) {
    vcam::World* world = vcam::World::get();
    std::string answer = "not running under talvoro-vcam";
    const bool done = world && vcam::run::request(message, &answer) && answer == "ok";
    if (world) world->sync();
    copyMessage(done ? "" : answer, error, size);
    return done ? 0 : -1;
}

}  // namespace

extern "C" {

// The number of cameras plugged in, or -1 without the launcher.
__attribute__((visibility("default"))) int talvoro_vcam_camera_count(void) {
    vcam::World* world = vcam::World::get();
    return world ? world->pluggedCount() : -1;
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
    return world ? world->tracePath().c_str() : "";
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

// Plugs the camera with `serial` in (`options`: camera keys "k=v,k=v" for a camera the run does
// not know yet). 0 once it is plugged in, or -1 with the reason in `error`.
__attribute__((visibility("default"))) int talvoro_vcam_plug(const char* serial,
                                                             const char* options, char* error,
                                                             std::size_t size) {
    if (!serial) return -1;
    return askLauncher(std::string("plug\n") + serial + "\n" + (options ? options : ""), error,
                       size);
}

// Unplugs the camera with `serial`. 0 once it is gone, or -1 with the reason in `error`.
__attribute__((visibility("default"))) int talvoro_vcam_unplug(const char* serial, char* error,
                                                               std::size_t size) {
    if (!serial) return -1;
    return askLauncher(std::string("unplug\n") + serial, error, size);
}

// The number N of the camera's capture node /dev/videoN, or -1 while it is not plugged in.
__attribute__((visibility("default"))) int talvoro_vcam_capture_node(const char* serial) {
    vcam::World* world = vcam::World::get();
    auto camera = world && serial ? world->cameraBySerial(serial) : nullptr;
    return camera && !camera->state.unplugged ? camera->spec().video : -1;
}

}  // extern "C"
