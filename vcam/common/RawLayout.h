// The camera's raw frame layouts: how ToF codes and colour pixels are laid out in the buffers of
// each stream the camera sends (see docs/vcam.md, "Frame layouts").
#ifndef TALVORO_VCAM_RAW_LAYOUT_H
#define TALVORO_VCAM_RAW_LAYOUT_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Scene.h"

namespace vcam::raw {

constexpr int kTofLineBytes = 960;           // 640 pixels of 12 bits
constexpr int kVgaColourLineBytes = 1280;    // 640 UYVY pixels
constexpr int kHdColourLineBytes = 2568;     // 1280 UYVY pixels and one extra 8-byte word
constexpr int kHdExtraWordOffset = 319 * 8;  // where the extra word sits in an HD line
constexpr std::size_t kVgaMultiplexedBytes = 1536000;
constexpr std::size_t kHdMultiplexedBytes = 2770560;
constexpr uint16_t kMaxCode = 4095;  // ToF values are 12-bit

// 12-bit ToF codes of one exposure, row-major 640x480.
struct TofCodes {
    std::vector<uint16_t> depth;  // near range: mm; far range: 2 mm units; 0: no measurement
    std::vector<uint16_t> ir;     // returned light
};

// Quantises an exposure for depth range 0 (near) or 1 (far), with the sensor's noise drawn
// from `seed`. Distances beyond 4095 units and too little returned light give depth 0.
TofCodes quantise(const scene::TofImage& image, int depthRange, uint32_t seed);

// RGB to UYVY (BT.601, limited range), two pixels per four bytes.
std::vector<uint8_t> uyvy(const scene::ColourImage& image);

// 640x960 Y16: 480 row pairs, 640 depth values then 640 IR values, 16-bit little-endian.
std::vector<uint8_t> depthIrRows(const TofCodes& codes);
// 640x480 Y16: the rows of one image (depth only or IR only).
std::vector<uint8_t> rows16(const std::vector<uint16_t>& values);

// 640 12-bit values into 960 bytes: every 3 bytes b0 b1 b2 carry two pixels as b0 = p0 >> 4,
// b1 = p1 >> 4, b2 = (p0 & 15) << 4 | (p1 & 15). Bit 4 of the first pixel is the ToF tag (bit 0
// of the line's first byte) and is set.
void packTofLine(const uint16_t* values, uint8_t* line);

// Multiplexed frame: 480 depth and 480 IR lines interleaved with the colour lines of a 640x480
// (1,536,000 bytes) or 1280x720 (2,770,560 bytes) UYVY image. Colour lines start with bit 0
// clear. Other colour sizes give an empty frame.
std::vector<uint8_t> multiplexed(const TofCodes& codes, const std::vector<uint8_t>& colour,
                                 int colourWidth, int colourHeight);

// Walks a multiplexed frame by its line tags and overwrites the start of the line after the
// 480th IR line with a copy of the first depth line: a 481st depth line. False when the frame
// does not parse or has no room for it.
bool addSurplusDepthLine(uint8_t* frame, std::size_t size, int colourLineBytes);

}  // namespace vcam::raw

#endif
