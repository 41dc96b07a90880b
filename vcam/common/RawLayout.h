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

// The sensor noise of one frame: a key from the camera's seed and the frame's number, from
// which every pixel's noise follows, so that the same seed gives the same frames.
uint32_t noiseKey(uint32_t seed, uint64_t frame);

// Quantises an exposure for depth range 0 (near) or 1 (far), with the noise of `key`: depth
// with a standard deviation of 1 + 0.0012 d + 400 / IR millimetres, IR with 2 + 1 % of its
// value + 0.002 d (d in millimetres): both grow with the distance. Distances beyond 4095 units and
// too little returned light give depth 0.
void quantise(const scene::TofImage& image, int depthRange, uint32_t key, TofCodes* out);

// RGB to UYVY (BT.601, limited range), two pixels per four bytes.
std::vector<uint8_t> uyvy(const scene::ColourImage& image);
inline void uyvyPair(const uint8_t a[3], const uint8_t b[3], uint8_t out[4]) {
    // BT.601 in 16-bit fixed point: Y = 16 + (65.481 R + 128.553 G + 24.966 B) / 255, and U, V
    // of the pair's mean colour. RGB never leaves the limited range, so nothing needs clamping.
    auto y = [](const uint8_t* p) {
        return static_cast<uint8_t>(
            (16829 * p[0] + 33039 * p[1] + 6416 * p[2] + (16 << 16) + 32768) >> 16);
    };
    const int r = a[0] + b[0], g = a[1] + b[1], bl = a[2] + b[2];  // twice the mean
    out[0] = static_cast<uint8_t>((-9714 * r - 19070 * g + 28784 * bl + (256 << 16) + 65536) >> 17);
    out[1] = y(a);
    out[2] = static_cast<uint8_t>((28784 * r - 24103 * g - 4681 * bl + (256 << 16) + 65536) >> 17);
    out[3] = y(b);
}

// The frame layouts write into `out`, whose storage is reused from frame to frame.
// 640x960 Y16: 480 row pairs, 640 depth values then 640 IR values, 16-bit little-endian.
void depthIrRows(const TofCodes& codes, std::vector<uint8_t>* out);
// 640x480 Y16: the rows of one image (depth only or IR only).
void rows16(const std::vector<uint16_t>& values, std::vector<uint8_t>* out);

// 640 12-bit values into 960 bytes: every 3 bytes b0 b1 b2 carry two pixels as b0 = p0 >> 4,
// b1 = p1 >> 4, b2 = (p0 & 15) << 4 | (p1 & 15). Bit 4 of the first pixel is the ToF tag (bit 0
// of the line's first byte) and is set.
void packTofLine(const uint16_t* values, uint8_t* line);

// Multiplexed frame: 480 depth and 480 IR lines interleaved with the colour lines of a 640x480
// (1,536,000 bytes) or 1280x720 (2,770,560 bytes) UYVY image. Colour lines start with bit 0
// clear. Other colour sizes give an empty frame.
void multiplexed(const TofCodes& codes, const std::vector<uint8_t>& colour, int colourWidth,
                 int colourHeight, std::vector<uint8_t>* out);

// Walks a multiplexed frame by its line tags and overwrites the start of the line after the
// 480th IR line with a copy of the first depth line: a 481st depth line. False when the frame
// does not parse or has no room for it.
bool addSurplusDepthLine(uint8_t* frame, std::size_t size, int colourLineBytes);

}  // namespace vcam::raw

#endif
