// Entry points for tests and tools that drive a camera's stream (see talvoro_vcam.h): the frame
// mode and depth range without the extension unit, and the frame counters.
#include "Camera.h"
#include "Stream.h"
#include "VideoNode.h"
#include "World.h"

namespace {

std::shared_ptr<vcam::Camera> cameraBySerial(const char* serial) {
    vcam::World* world = vcam::World::get();
    return world && serial ? world->cameraBySerial(serial) : nullptr;
}

}  // namespace

extern "C" {

// Sets the frame mode as extension-unit command 0x1A does. 0, or -1 without such a camera.
__attribute__((visibility("default"))) int talvoro_vcam_set_frame_mode(const char* serial,
                                                                       unsigned first,
                                                                       unsigned second) {
    auto camera = cameraBySerial(serial);
    if (!camera) return -1;
    camera->state.frameModeFirst = static_cast<uint16_t>(first);
    camera->state.frameModeSecond = static_cast<uint8_t>(second);
    return 0;
}

// Sets the depth range (0 near, 1 far). 0, or -1 without such a camera.
__attribute__((visibility("default"))) int talvoro_vcam_set_depth_range(const char* serial,
                                                                        unsigned range) {
    auto camera = cameraBySerial(serial);
    if (!camera) return -1;
    camera->state.depthRange = static_cast<uint16_t>(range);
    return 0;
}

// Fills values[0..3] with frames produced, dequeued, dropped and elapsed frame times. 0, or -1
// without such a camera.
__attribute__((visibility("default"))) int talvoro_vcam_frame_counters(const char* serial,
                                                                       unsigned long long* values) {
    auto camera = cameraBySerial(serial);
    if (!camera || !values || !camera->capture || !camera->capture->stream()) return -1;
    const vcam::FrameCounters c = camera->capture->stream()->counters();
    values[0] = c.produced;
    values[1] = c.dequeued;
    values[2] = c.dropped;
    values[3] = c.elapsed;
    return 0;
}

}  // extern "C"
