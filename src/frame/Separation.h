// Raw frame layouts: 16-bit images, 12-bit packed ToF lines and the multiplexed RGB-D frame.
#ifndef TALVORO_FRAME_SEPARATION_H
#define TALVORO_FRAME_SEPARATION_H

#include <cstddef>
#include <cstdint>

#include <opencv2/core.hpp>

namespace Talvoro::frame {

constexpr int kWidth = 640;  // depth and IR images
constexpr int kHeight = 480;
constexpr size_t kImageBytes = size_t(kWidth) * kHeight * 2;  // 614,400
constexpr size_t kTofLineBytes = 960;                         // 640 pixels of 12 bits

// Unpacks `pixels` (even) 12-bit values, two from every three bytes b0 b1 b2:
// (b0 << 4) | (b2 >> 4) and (b1 << 4) | (b2 & 0x0F).
void unpack12(const uint8_t* src, uint16_t* dst, size_t pixels);
void unpack12Scalar(const uint8_t* src, uint16_t* dst, size_t pixels);

// unpack12 into raw and, unless gained is null, min(raw * gain, 65535) into gained.
void unpack12WithGain(const uint8_t* src, uint16_t* raw, uint16_t* gained, size_t pixels,
                      uint16_t gain);

// gained[i] = min(raw[i] * gain, 65535). gained may equal raw.
void applyGain(const uint16_t* raw, uint16_t* gained, size_t n, uint16_t gain);
void applyGainScalar(const uint16_t* raw, uint16_t* gained, size_t n, uint16_t gain);

// Reads n little-endian 16-bit values from src (any alignment) into raw, and their gained
// values into gained.
void copyWithGain(const uint8_t* src, uint16_t* raw, uint16_t* gained, size_t n, uint16_t gain);

// data[i] = min(2 * data[i], 65535): OpenCV's saturating multiplication by 2.0.
void doubleSaturated(uint16_t* data, size_t n);

// Mode 0: 480 row pairs of 640 depth values then 640 IR values. src holds kImageBytes * 2.
void separateRowPairs(const uint8_t* src, cv::Mat& depth, cv::Mat& rawIr, cv::Mat& ir,
                      uint16_t gain);

// Modes 4 and 5: lines tagged by bit 0 of their first byte (1 ToF, 0 colour), ToF lines
// alternating depth and IR starting with depth.
struct MultiplexedLayout {
    size_t frameBytes;    // bytes a complete frame holds; reading stops there
    size_t rgbLineBytes;  // 1,280 (mode 4) or 2,568 (mode 5)
    int rgbLineCount;     // 480 or 720
    bool dropWord319;     // mode 5: bytes 2,552-2,559 of each colour line are not image data
};

// Walks the lines of `buf` into consecutive rows of depth (480x640 16-bit), rawIr and ir
// (the same, ir gained) and rgb (rgbLineCount rows of 2-byte pixels). Returns 1, or -18 when
// the frame is malformed: shorter than frameBytes, a line running past frameBytes, or more
// lines of one kind than the images hold. Rows written before the fault stay written.
int separateMultiplexed(const uint8_t* buf, size_t available, const MultiplexedLayout& layout,
                        cv::Mat& depth, cv::Mat& rawIr, cv::Mat& ir, cv::Mat& rgb, uint16_t gain);

}  // namespace Talvoro::frame

#endif
