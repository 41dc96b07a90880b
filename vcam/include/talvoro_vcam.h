/*
 * Control of the virtual camera from a program running under `talvoro-vcam run`.
 *
 * The functions live in the launcher's preload library and are looked up at run time, so a
 * program built with this header runs unchanged with or without the virtual camera.
 */
#ifndef TALVORO_VCAM_H
#define TALVORO_VCAM_H

#include <dlfcn.h>

#include <cstddef>
#include <string>

namespace talvoro_vcam {

template <typename Fn>
inline Fn lookup(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_DEFAULT, name));
}

/* True when this process runs under the virtual camera's launcher. */
inline bool present() {
    return lookup<int (*)()>("talvoro_vcam_camera_count") != nullptr;
}

/* Number of virtual cameras plugged in, or -1 without the virtual camera. */
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

/* Plugs a camera in while the program runs, as `talvoro-vcam ctl plug` does: a camera of the
 * run that was unplugged comes back with new node numbers (and its settings reset); a serial
 * the run does not know becomes a new camera, `options` giving its keys as --camera does
 * ("fps=10,fault=stall"). Returns once udev has announced it and its nodes open; false, with
 * the reason in *error, when that is not possible. */
inline bool plug(const char* serial, const char* options = "", std::string* error = nullptr) {
    auto fn = lookup<int (*)(const char*, const char*, char*, std::size_t)>("talvoro_vcam_plug");
    char reason[256] = "not running under talvoro-vcam";
    const bool done = fn && fn(serial, options, reason, sizeof reason) == 0;
    if (!done && error) *error = reason;
    return done;
}

/* Unplugs a camera while the program runs, as `talvoro-vcam ctl unplug` does: "remove" uevents
 * for its devices, its nodes gone from /dev, and every descriptor of it failing with ENODEV in
 * every process of the run. Returns once that is so. */
inline bool unplug(const char* serial, std::string* error = nullptr) {
    auto fn = lookup<int (*)(const char*, char*, std::size_t)>("talvoro_vcam_unplug");
    char reason[256] = "not running under talvoro-vcam";
    const bool done = fn && fn(serial, reason, sizeof reason) == 0;
    if (!done && error) *error = reason;
    return done;
}

/* The number N of the camera's capture node /dev/videoN (its metadata node, usually N + 1, is
 * in udev), or -1 while it is not plugged in. */
inline int captureNode(const char* serial) {
    auto fn = lookup<int (*)(const char*)>("talvoro_vcam_capture_node");
    return fn ? fn(serial) : -1;
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
