// Entry points for tests and tools that run under the launcher (see talvoro_vcam.h). They are
// looked up with dlsym, so nothing links against the preload.
#include "World.h"

extern "C" {

__attribute__((visibility("default"))) int talvoro_vcam_camera_count(void) {
    vcam::World* world = vcam::World::get();
    return world ? static_cast<int>(world->cameras().size()) : -1;
}

}  // extern "C"
