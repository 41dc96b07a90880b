// OpenCV's colour maps as lookup tables, computed once per process, so that colouring a frame
// needs neither cv::applyColorMap's per-call allocations nor its three-channel conversion.
#ifndef TALVORO_FRAME_COLOR_MAP_H
#define TALVORO_FRAME_COLOR_MAP_H

#include <cstdint>

#include <opencv2/core.hpp>

#include "frame/WorkerPool.h"

namespace Talvoro::frame {

constexpr int kColorMapCount = 22;  // OpenCV's COLORMAP_AUTUMN (0) to COLORMAP_DEEPGREEN (21)

// The 256 colours of colour map `type` (0..21) exactly as cv::applyColorMap gives them to the
// grey values 0..255: blue, green and red in bytes 0, 1 and 2 of each entry. Null for any other
// number.
const uint32_t* colorMapTable(int type);

// dst (CV_8UC3, src's size, reallocated only when it does not fit) = table colours of src
// (CV_8UC1), in row bands on the pool.
void applyColorTable(const cv::Mat& src, cv::Mat& dst, const uint32_t* table, WorkerPool& pool);

// One row: out (3 bytes per pixel) = the table colours of in.
void colourRow(const uint8_t* in, uint8_t* out, int width, const uint32_t* table);

// A table's colours for rows with a mask: entry g (below 256) is the colour of grey g, but
// black for grey 0; entries from 256 on are black.
struct MaskedColours {
    explicit MaskedColours(const uint32_t* table);
    uint32_t entry[512];
};

// One row: out = the colours of in, black where in is 0 or mask is 255.
void colourRowMasked(const uint8_t* in, const uint8_t* mask, uint8_t* out, int width,
                     const MaskedColours& colours);

}  // namespace Talvoro::frame

#endif
