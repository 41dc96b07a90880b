// The flying-pixel test: a pixel whose mean difference to its eight neighbours exceeds a limit
// that grows with its depth is removed (set to 0).
#ifndef TALVORO_FRAME_FLYING_PIXEL_FILTER_H
#define TALVORO_FRAME_FLYING_PIXEL_FILTER_H

#include <cstddef>
#include <cstdint>

namespace Talvoro::frame {

// Depth-dependent limit: (p - depthLow) / slope + thresholdLow, integer division truncating
// toward zero.
struct FlyingPixelLimit {
    int depthLow;
    int slope;  // never 0
    int thresholdLow;
};

// slope = (depthHigh - depthLow) / (thresholdHigh - thresholdLow), the divisor taken as 1 when
// the thresholds are equal. A slope of 0 (depth span narrower than the threshold span) would
// divide by zero; it is taken as 1.
FlyingPixelLimit flyingPixelLimit(int depthLow, int depthHigh, int thresholdLow, int thresholdHigh);

// Tests the pixels of rows [rowBegin, rowEnd) and columns [colBegin, colEnd) of src, which must
// all have their eight neighbours inside the image; writes p or 0 to the same place in dst.
// Strides are in pixels.
void flyingPixelRows(const uint16_t* src, ptrdiff_t srcStride, uint16_t* dst, ptrdiff_t dstStride,
                     int rowBegin, int rowEnd, int colBegin, int colEnd,
                     const FlyingPixelLimit& limit);
void flyingPixelRowsScalar(const uint16_t* src, ptrdiff_t srcStride, uint16_t* dst,
                           ptrdiff_t dstStride, int rowBegin, int rowEnd, int colBegin, int colEnd,
                           const FlyingPixelLimit& limit);

}  // namespace Talvoro::frame

#endif
