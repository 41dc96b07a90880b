// The smallest TalvoroSDK program: list the cameras, open the first, stream depth and print the
// distance at the centre of the image.
//
//   talvoro-minimal [FRAMES]    (default 10)
#include <TalvoroSDK.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

using namespace Talvoro;

int main(int argc, char** argv) {
    const int frames = argc > 1 ? std::atoi(argv[1]) : 10;

    if (Initialize() != Ok) {
        std::fprintf(stderr, "minimal: cannot initialise the library\n");
        return 1;
    }
    uint32_t count = 0;
    if (GetDeviceCount(&count) != Ok || count == 0) {
        std::printf("minimal: no camera connected\n");
        DeInitialize();
        return 1;
    }
    std::vector<DeviceInfo> cameras(count);
    if (GetDeviceListInfo(count, cameras.data()) != Ok) {
        std::fprintf(stderr, "minimal: cannot list the cameras\n");
        DeInitialize();
        return 1;
    }
    for (const DeviceInfo& c : cameras)
        std::printf("camera %s (%s) on %s\n", c.serialNo, c.deviceName, c.devicePath);

    DeviceHandle camera{};
    if (OpenDevice(cameras[0], &camera) != Ok || IsOpened(camera) != CameraAlreadyOpen) {
        std::fprintf(stderr, "minimal: cannot open %s\n", cameras[0].serialNo);
        DeInitialize();
        return 1;
    }
    // Depth comes with every mode up to 5 except IR only; otherwise switch to depth alone.
    DataMode mode = Depth_Mode;
    if (GetDataMode(camera, &mode) != Ok || mode == No_Image_Mode || mode == IR_Mode ||
        mode > Depth_IR_RGB_HD_Mode)
        SetDataMode(camera, Depth_Mode);

    int shown = 0;
    for (int attempts = 0; shown < frames && attempts < 50 * frames + 100; ++attempts) {
        // Waits up to 200 ms for a new frame, then processes it.
        if (GetNextFrame(camera) != Ok) continue;
        ToFFrame depth{};
        if (GetToFFrame(camera, RawDepth, &depth) != Ok) continue;  // a newer frame came in
        uint16_t mm = 0;
        const std::size_t centre = (std::size_t(depth.height) / 2 * depth.width + depth.width / 2);
        std::memcpy(&mm, depth.frame_data + 2 * centre, sizeof mm);
        std::printf("centre distance: %u mm\n", unsigned(mm));
        ++shown;
    }

    CloseDevice(camera);
    DeInitialize();
    return shown == frames ? 0 : 1;
}
