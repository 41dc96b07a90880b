#include "BenchInputs.h"

#include <random>

namespace bench {

cv::Mat depthScene() {
    cv::Mat depth(480, 640, CV_16UC1);
    std::mt19937 rng(7);
    std::normal_distribution<double> noise(0, 6);
    for (int r = 0; r < 480; ++r) {
        for (int c = 0; c < 640; ++c) {
            double v = 1800 + 2.5 * c + 0.8 * r;
            if (r > 120 && r < 300 && c > 200 && c < 380) v = 950 + 0.3 * r;
            if (r > 380 && c < 100) v = 0;
            depth.at<uint16_t>(r, c) = v ? uint16_t(std::max(0.0, v + noise(rng))) : 0;
        }
    }
    return depth;
}

namespace {

void put16(std::vector<uint8_t>& b, uint16_t v) {
    b.push_back(uint8_t(v));
    b.push_back(uint8_t(v >> 8));
}

void put12(std::vector<uint8_t>& b, const uint16_t* row) {
    for (int c = 0; c < 640; c += 2) {
        const uint16_t p0 = uint16_t(c == 0 ? row[c] | 0x10 : row[c]) & 0xFFF,
                       p1 = row[c + 1] & 0xFFF;
        b.push_back(uint8_t(p0 >> 4));
        b.push_back(uint8_t(p1 >> 4));
        b.push_back(uint8_t((p0 & 0xF) << 4 | (p1 & 0xF)));
    }
}

}  // namespace

std::vector<uint8_t> rawFrame(int mode) {
    const cv::Mat depth = depthScene();
    cv::Mat ir = depth / 4;
    std::vector<uint8_t> b;
    if (mode == 0 || mode == 2) {
        for (int r = 0; r < 480; ++r) {
            for (int c = 0; c < 640; ++c)
                put16(b, depth.at<uint16_t>(r, c));
            if (mode == 0)
                for (int c = 0; c < 640; ++c)
                    put16(b, ir.at<uint16_t>(r, c));
        }
        return b;
    }
    // Far-range units keep the scene within 12 bits.
    const cv::Mat half = depth / 2;
    const size_t colourBytes = mode == 5 ? 2568 : 1280;
    const int colourLines = mode == 5 ? 720 : 480;
    for (int r = 0; r < colourLines; ++r) {
        for (size_t i = 0; i < colourBytes; ++i)
            b.push_back(uint8_t((i * 5 + r) & 0xFE));
        if (r < 480) {
            put12(b, half.ptr<uint16_t>(r));
            put12(b, ir.ptr<uint16_t>(r));
        }
    }
    return b;
}

}  // namespace bench
