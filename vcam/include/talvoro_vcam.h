/*
 * Control of the virtual camera from a program running under `talvoro-vcam run`.
 *
 * The functions live in the launcher's preload library and are looked up at run time, so a
 * program built with this header runs unchanged with or without the virtual camera.
 */
#ifndef TALVORO_VCAM_H
#define TALVORO_VCAM_H

#include <dlfcn.h>

namespace talvoro_vcam {

template <typename Fn>
inline Fn lookup(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_DEFAULT, name));
}

/* True when this process runs under the virtual camera's launcher. */
inline bool present() {
    return lookup<int (*)()>("talvoro_vcam_camera_count") != nullptr;
}

/* Number of virtual cameras in the scenario, or -1 without the virtual camera. */
inline int cameraCount() {
    auto fn = lookup<int (*)()>("talvoro_vcam_camera_count");
    return fn ? fn() : -1;
}

}  // namespace talvoro_vcam

#endif
