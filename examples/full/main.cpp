// A fuller TalvoroSDK program: up to two cameras at once, each driven by a thread of its own,
// with frame and notification callbacks, a round through every data mode and a tour of the
// controls.
//
//   talvoro-full [CAMERAS]    (default 2)
#include <TalvoroSDK.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace Talvoro;

namespace {

std::mutex outputMutex;

template <typename... Args>
void say(const char* format, Args... args) {
    std::lock_guard<std::mutex> lock(outputMutex);
    std::printf(format, args...);
    std::fflush(stdout);
}

// Frames announced by the frame callbacks, per device index. The callbacks run on the cameras'
// capture threads: they only count and wake the waiting camera thread.
struct FrameCounter {
    std::mutex mutex;
    std::condition_variable cond;
    std::vector<unsigned> frames = std::vector<unsigned>(8, 0);

    void onFrame(int event, int index) {
        if (event != 1 || index < 0 || index >= 8) return;
        std::lock_guard<std::mutex> lock(mutex);
        ++frames[static_cast<std::size_t>(index)];
        cond.notify_all();
    }
    unsigned seen(int index) {
        std::lock_guard<std::mutex> lock(mutex);
        return frames[static_cast<std::size_t>(index)];
    }
    bool waitBeyond(int index, unsigned count) {
        std::unique_lock<std::mutex> lock(mutex);
        return cond.wait_for(lock, std::chrono::seconds(10),
                             [&] { return frames[static_cast<std::size_t>(index)] > count; });
    }
} counter;

std::string size(const ToFFrame& f) {
    return f.frame_data ? std::to_string(f.width) + "x" + std::to_string(f.height) : "-";
}

struct Camera {
    DeviceInfo info;
    DeviceHandle handle;
    int index;  // registry position, as the callbacks report it
    bool ok = true;
};

void check(Camera& c, const char* what, Result result) {
    if (result == Ok) return;
    say("%s: %s failed: %d\n", c.info.serialNo, what, int(result));
    c.ok = false;
}

// The mode tour: switch, wait for two frames of the new mode, fetch them all at once.
void tourModes(Camera& c) {
    for (int m = 0; m <= 9; ++m) {
        const DataMode mode = static_cast<DataMode>(m);
        check(c, "SetDataMode", SetDataMode(c.handle, mode));
        if (mode == No_Image_Mode) {
            say("%s mode 1: no image\n", c.info.serialNo);
            continue;
        }
        const unsigned before = counter.seen(c.index);
        if (!counter.waitBeyond(c.index, before + 1)) {
            say("%s mode %d: no frames\n", c.info.serialNo, m);
            c.ok = false;
            continue;
        }
        Frames frames{};
        Result result = OperationFailed;
        for (int attempt = 0; attempt < 20 && result != Ok; ++attempt) {
            // With a frame callback GetNextFrame does not wait; a newer frame between the two
            // calls (TimeoutError) asks for another round.
            if (GetNextFrame(c.handle) == Ok) result = GetFrames(c.handle, &frames);
        }
        check(c, "GetFrames", result);
        say("%s mode %d: rgb %s ir %s depth %s colormap %s\n", c.info.serialNo, m,
            size(frames.rgb_frame).c_str(), size(frames.ir_frame).c_str(),
            size(frames.raw_depth_frame).c_str(), size(frames.depth_colormap_frame).c_str());
    }
}

void tourControls(Camera& c) {
    check(c, "SetDataMode", SetDataMode(c.handle, Depth_IR_RGB_VGA_Mode));

    unsigned short exposure = 0;
    check(c, "SetTOFExposure", SetTOFExposure(c.handle, 250));
    check(c, "GetTOFExposure", GetTOFExposure(c.handle, &exposure));
    uint16_t range = 0;
    check(c, "GetDepthRange", GetDepthRange(c.handle, &range));
    UVCProp brightness{};
    check(c, "GetUVCControl", GetUVCControl(c.handle, 0, &brightness));
    unsigned char scene = 0;
    check(c, "SetSceneMode", SetSceneMode(c.handle, 0));
    check(c, "GetSceneMode", GetSceneMode(c.handle, &scene));
    float base = 0, laser = 0;
    check(c, "GetBaseBoardTemperatureData", GetBaseBoardTemperatureData(c.handle, &base));
    check(c, "GetLaserBoardTemperatureData", GetLaserBoardTemperatureData(c.handle, &laser));
    unsigned long id = 0;
    check(c, "GetUniqueID", GetUniqueID(c.handle, &id));
    say("%s controls: exposure %u, depth range %u, brightness %d (%d..%d), scene %u, "
        "temperatures %.0f/%.0f, id %016lx\n",
        c.info.serialNo, unsigned(exposure), unsigned(range), brightness.cur_value,
        brightness.min_value, brightness.max_value, unsigned(scene), base, laser, id);

    CalibrationParams calibration{};
    if (GetDeviceCalibrationParams(c.handle, &calibration) == Ok)
        say("%s calibration: depth fx %.2f, colour fx %.2f, baseline %.1f mm\n", c.info.serialNo,
            calibration.depth.fx, calibration.rgb.fx, calibration.extrinsic.translation[0]);

    // Processing: filters, planarization, mapping onto colour, a colour map and averages.
    check(c, "SetFilterType", SetFilterType(c.handle, 0, true));
    check(c, "SetPlanarization", SetPlanarization(c.handle, 1));
    check(c, "SetRGBDMapping", SetRGBDMapping(c.handle, 1));
    check(c, "UpdateColorMap", UpdateColorMap(c.handle, 500, 4000, 2));
    check(c, "SetAvgRegion", SetAvgRegion(c.handle, AvgRegion_Center));
    const unsigned before = counter.seen(c.index);
    counter.waitBeyond(c.index, before + 1);
    check(c, "GetNextFrame", GetNextFrame(c.handle));
    int depth = 0, depthSpread = 0, ir = 0, irSpread = 0;
    check(c, "GetDepthIRValues", GetDepthIRValues(c.handle, &depth, &depthSpread, &ir, &irSpread));
    say("%s averages: depth %d mm (spread %d)\n", c.info.serialNo, depth, depthSpread);

    // The rate of processed frames: two readings a while apart (the first starts the count).
    GetFramesPerSecond(c.handle);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    while (std::chrono::steady_clock::now() < end) {
        counter.waitBeyond(c.index, counter.seen(c.index));
        GetNextFrame(c.handle);
    }
    say("%s: %d frames per second\n", c.info.serialNo, GetFramesPerSecond(c.handle));
}

void drive(Camera* c) {
    tourModes(*c);
    tourControls(*c);
}

}  // namespace

int main(int argc, char** argv) {
    const unsigned wanted = argc > 1 ? unsigned(std::atoi(argv[1])) : 2;
    if (Initialize() != Ok) {
        std::fprintf(stderr, "full: cannot initialise the library\n");
        return 1;
    }
    uint8_t major = 0, minor = 0;
    uint16_t patch = 0;
    GetSDKVersion(&major, &minor, &patch);
    uint32_t count = 0;
    GetDeviceCount(&count);
    std::vector<DeviceInfo> list(count);
    if (count == 0 || GetDeviceListInfo(count, list.data()) != Ok) {
        std::printf("full: no camera connected\n");
        DeInitialize();
        return 1;
    }
    say("TalvoroSDK %u.%u.%u, %u cameras\n", unsigned(major), unsigned(minor), unsigned(patch),
        unsigned(count));

    std::vector<Camera> cameras;
    for (unsigned i = 0; i < count && cameras.size() < wanted; ++i) {
        Camera c{list[i], DeviceHandle{}, int(i)};
        if (OpenDevice(c.info, &c.handle) != Ok || IsOpened(c.handle) != CameraAlreadyOpen) {
            say("%s: cannot open\n", c.info.serialNo);
            continue;
        }
        // Registered before anything can go wrong; both run on the camera's capture thread.
        RegisterFrameCallback(c.handle,
                              [](int event, int index) { counter.onFrame(event, index); });
        RegisterNotificationCallback(c.handle, [](int event, int index) {
            say("notification: %s on camera %d\n", event == 1 ? "stream lost" : "time-out", index);
        });
        cameras.push_back(c);
    }

    std::vector<std::thread> threads;
    for (Camera& c : cameras)
        threads.emplace_back(drive, &c);
    for (std::thread& t : threads)
        t.join();

    bool ok = !cameras.empty();
    for (Camera& c : cameras) {
        ok = ok && c.ok;
        CloseDevice(c.handle);
    }
    DeInitialize();
    std::printf(ok ? "full: ok\n" : "full: failed\n");
    return ok ? 0 : 1;
}
