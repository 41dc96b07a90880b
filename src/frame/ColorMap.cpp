#include "frame/ColorMap.h"

#include <cstring>

#include <opencv2/imgproc.hpp>

namespace Talvoro::frame {

namespace {

struct Tables {
    uint32_t bgr[kColorMapCount][256];
    Tables() {
        cv::Mat ramp(1, 256, CV_8UC1);
        for (int v = 0; v < 256; ++v)
            ramp.at<uint8_t>(0, v) = uint8_t(v);
        for (int type = 0; type < kColorMapCount; ++type) {
            cv::Mat coloured;
            cv::applyColorMap(ramp, coloured, type);
            for (int v = 0; v < 256; ++v) {
                const cv::Vec3b c = coloured.at<cv::Vec3b>(0, v);
                bgr[type][v] = uint32_t(c[0]) | uint32_t(c[1]) << 8 | uint32_t(c[2]) << 16;
            }
        }
    }
};

}  // namespace

const uint32_t* colorMapTable(int type) {
    static const Tables tables;
    return type >= 0 && type < kColorMapCount ? tables.bgr[type] : nullptr;
}

namespace {

// Four bytes per pixel, the fourth overwritten by the next pixel; the row's last pixel gets
// exactly three, so nothing is written past the row. (Gathering eight colours at a time is no
// faster on the processors measured.)
template <class Index>
inline void colourPixels(uint8_t* out, int width, const uint32_t* colours, Index index) {
    if (width <= 0) return;
    const int last = width - 1;
    for (int c = 0; c < last; ++c)
        std::memcpy(out + 3 * c, &colours[index(c)], 4);
    std::memcpy(out + 3 * last, &colours[index(last)], 3);
}

}  // namespace

void colourRow(const uint8_t* in, uint8_t* out, int width, const uint32_t* table) {
    colourPixels(out, width, table, [in](int c) { return in[c]; });
}

MaskedColours::MaskedColours(const uint32_t* table) {
    std::memcpy(entry, table, 256 * sizeof(uint32_t));
    entry[0] = 0;
    std::memset(entry + 256, 0, 256 * sizeof(uint32_t));
}

void colourRowMasked(const uint8_t* in, const uint8_t* mask, uint8_t* out, int width,
                     const MaskedColours& colours) {
    colourPixels(out, width, colours.entry,
                 [in, mask](int c) { return in[c] | unsigned(mask[c] == 255) << 8; });
}

void applyColorTable(const cv::Mat& src, cv::Mat& dst, const uint32_t* table, WorkerPool& pool) {
    dst.create(src.size(), CV_8UC3);
    pool.forEach(size_t(src.rows), pool.pieces(), [&](size_t begin, size_t end, unsigned) {
        for (size_t r = begin; r < end; ++r)
            colourRow(src.ptr<uint8_t>(int(r)), dst.ptr<uint8_t>(int(r)), src.cols, table);
    });
}

}  // namespace Talvoro::frame
