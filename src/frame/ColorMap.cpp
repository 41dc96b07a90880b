#include "frame/ColorMap.h"

#include <cstring>

#include <opencv2/imgproc.hpp>

namespace Talvoro::frame {

namespace {

struct Tables {
    uint8_t bgr[kColorMapCount][256 * 3];
    Tables() {
        cv::Mat ramp(1, 256, CV_8UC1);
        for (int v = 0; v < 256; ++v)
            ramp.at<uint8_t>(0, v) = uint8_t(v);
        for (int type = 0; type < kColorMapCount; ++type) {
            cv::Mat coloured;
            cv::applyColorMap(ramp, coloured, type);
            std::memcpy(bgr[type], coloured.ptr(), sizeof bgr[type]);
        }
    }
};

}  // namespace

const uint8_t* colorMapTable(int type) {
    static const Tables tables;
    return type >= 0 && type < kColorMapCount ? tables.bgr[type] : nullptr;
}

void applyColorTable(const cv::Mat& src, cv::Mat& dst, const uint8_t* table) {
    dst.create(src.size(), CV_8UC3);
    for (int r = 0; r < src.rows; ++r) {
        const uint8_t* in = src.ptr<uint8_t>(r);
        uint8_t* out = dst.ptr<uint8_t>(r);
        for (int c = 0; c < src.cols; ++c, out += 3) {
            const uint8_t* colour = table + 3 * in[c];
            out[0] = colour[0];
            out[1] = colour[1];
            out[2] = colour[2];
        }
    }
}

}  // namespace Talvoro::frame
