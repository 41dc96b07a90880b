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

/* Sets the camera's frame mode as extension-unit command 0x1A would (first 0 multiplexed, 1 ToF
 * only with second 0 depth and IR / 2 depth / 3 IR, 2 colour only). The stream follows it from
 * the next frame on. */
inline bool setFrameMode(const char* serial, unsigned first, unsigned second) {
    auto fn = lookup<int (*)(const char*, unsigned, unsigned)>("talvoro_vcam_set_frame_mode");
    return fn && fn(serial, first, second) == 0;
}

/* Sets the camera's depth range: 0 near (millimetres), 1 far (2 mm units). */
inline bool setDepthRange(const char* serial, unsigned range) {
    auto fn = lookup<int (*)(const char*, unsigned)>("talvoro_vcam_set_depth_range");
    return fn && fn(serial, range) == 0;
}

struct FrameCounters {
    unsigned long long produced; /* frames filled into a queued buffer */
    unsigned long long dequeued; /* frames the program dequeued */
    unsigned long long dropped;  /* frame times that found no queued buffer */
    unsigned long long elapsed;  /* frame times while streaming: the camera's frame number */
};

/* The camera's frame counters in this process (they count across stream restarts). */
inline bool frameCounters(const char* serial, FrameCounters* counters) {
    auto fn = lookup<int (*)(const char*, unsigned long long*)>("talvoro_vcam_frame_counters");
    unsigned long long v[4];
    if (!fn || fn(serial, v) != 0) return false;
    *counters = {v[0], v[1], v[2], v[3]};
    return true;
}

}  // namespace talvoro_vcam

#endif
