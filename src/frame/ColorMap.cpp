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

void applyColorTable(const cv::Mat& src, cv::Mat& dst, const uint32_t* table) {
    dst.create(src.size(), CV_8UC3);
    if (src.cols == 0) return;
    for (int r = 0; r < src.rows; ++r) {
        const uint8_t* in = src.ptr<uint8_t>(r);
        uint8_t* out = dst.ptr<uint8_t>(r);
        // Four bytes per pixel, the fourth overwritten by the next pixel; the row's last pixel
        // gets exactly three, so nothing is written past the row.
        const int last = src.cols - 1;
        for (int c = 0; c < last; ++c)
            std::memcpy(out + 3 * c, &table[in[c]], 4);
        const uint32_t colour = table[in[last]];
        std::memcpy(out + 3 * last, &colour, 3);
    }
}

}  // namespace Talvoro::frame
