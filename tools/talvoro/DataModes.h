// The ten data modes as the tool presents them, and the capture format each one streams in: the
// raw-frame extension reports only the data mode, and a recording needs the format and the
// camera's frame mode beside each frame (see GetRawFrame in the public header).
#ifndef TALVORO_TOOL_DATA_MODES_H
#define TALVORO_TOOL_DATA_MODES_H

#include <cstdint>

#include "TalvoroSDK.h"

namespace talvoro_tool {

struct ModeInfo {
    const char* name;         // as `talvoro set SERIAL data-mode` takes it
    const char* description;  // for `talvoro info`
    bool depth;
    bool ir;
    bool colour;
    // The capture format: V4L2 FourCC, size, and the frame mode the camera is programmed with.
    // Mode 1 has none (fourcc 0).
    uint32_t fourcc;
    uint16_t width;
    uint16_t height;
    uint16_t frameModeFirst;
    uint8_t frameModeSecond;
};

constexpr int kDataModes = 10;
constexpr uint32_t kFourccY16 = 0x20363159;   // "Y16 "
constexpr uint32_t kFourccUyvy = 0x59565955;  // "UYVY"

// The mode's row; every value of DataMode 0 to 9 has one.
const ModeInfo& modeInfo(int mode);
// The raw frame size of the mode's capture format (0 for mode 1).
uint32_t rawFrameBytes(int mode);
// The data mode whose frames have this capture format and frame mode; -1 for none.
int dataModeOf(uint32_t fourcc, uint16_t width, uint16_t height, uint16_t frameModeFirst,
               uint8_t frameModeSecond);

}  // namespace talvoro_tool

#endif
