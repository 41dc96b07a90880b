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

/* Adds a fault to the camera with `serial` while the program runs; `spec` has the scenario
 * file's syntax (e.g. "stall", "unplug@10", "hid-nak:0x13"). False when not possible. */
inline bool injectFault(const char* serial, const char* spec) {
    auto fn = lookup<int (*)(const char*, const char*)>("talvoro_vcam_inject_fault");
    return fn && fn(serial, spec) == 0;
}

/* Removes every fault called `name` from the camera. */
inline bool clearFault(const char* serial, const char* name) {
    auto fn = lookup<int (*)(const char*, const char*)>("talvoro_vcam_clear_fault");
    return fn && fn(serial, name) == 0;
}

/* The wire trace file of this run (see docs/vcam.md), or "" when there is none. */
inline const char* tracePath() {
    auto fn = lookup<const char* (*)()>("talvoro_vcam_trace_path");
    return fn ? fn() : "";
}

}  // namespace talvoro_vcam

#endif
