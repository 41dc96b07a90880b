#include "DataModes.h"

namespace talvoro_tool {

namespace {

constexpr ModeInfo kModes[kDataModes] = {
    {"depth-ir", "depth and IR, 640x480", true, true, false, kFourccY16, 640, 960, 1, 0},
    {"no-image", "no image (the camera streams on as it was)", false, false, false, 0, 0, 0, 0, 0},
    {"depth", "depth only, 640x480", true, false, false, kFourccY16, 640, 480, 1, 2},
    {"ir", "IR only, 640x480", false, true, false, kFourccY16, 640, 480, 1, 3},
    {"depth-ir-rgb-vga", "depth, IR and colour 640x480", true, true, true, kFourccY16, 1280, 600, 0,
     0},
    {"depth-ir-rgb-hd", "depth, IR and colour 1280x720", true, true, true, kFourccY16, 1443, 960, 0,
     0},
    {"rgb-vga", "colour only, 640x480", false, false, true, kFourccUyvy, 640, 480, 2, 0},
    {"rgb-hd", "colour only, 1280x720", false, false, true, kFourccUyvy, 1280, 720, 2, 0},
    {"rgb-fullhd", "colour only, 1920x1080", false, false, true, kFourccUyvy, 1920, 1080, 2, 0},
    {"rgb-1200p", "colour only, 1920x1200", false, false, true, kFourccUyvy, 1920, 1200, 2, 0},
};

}  // namespace

const ModeInfo& modeInfo(int mode) {
    return kModes[mode >= 0 && mode < kDataModes ? mode : 1];
}

int dataModeOf(uint32_t fourcc, uint16_t width, uint16_t height, uint16_t frameModeFirst,
               uint8_t frameModeSecond) {
    for (int mode = 0; mode < kDataModes; ++mode) {
        const ModeInfo& m = kModes[mode];
        if (m.fourcc == 0 || m.fourcc != fourcc || m.width != width || m.height != height) continue;
        // Colour: the size alone tells the mode; the camera's frame mode is (2, any).
        if (fourcc == kFourccUyvy ||
            (m.frameModeFirst == frameModeFirst && m.frameModeSecond == frameModeSecond))
            return mode;
    }
    return -1;
}

uint32_t rawFrameBytes(int mode) {
    const ModeInfo& m = modeInfo(mode);
    return 2u * m.width * m.height;
}

}  // namespace talvoro_tool
