#include "BenchInputs.h"

#include <random>

#include <opencv2/calib3d.hpp>

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

Calibration calibration(bool hd) {
    Calibration c;
    c.depthK = (cv::Mat_<double>(3, 3) << 524.7, 0, 318.2, 0, 525.9, 243.6, 0, 0, 1);
    c.depthD = (cv::Mat_<double>(1, 5) << -0.12, 0.05, 0.001, -0.0005, -0.01);
    c.rgbK = hd ? (cv::Mat_<double>(3, 3) << 1012.3, 0, 641.7, 0, 1010.9, 357.2, 0, 0, 1)
                : (cv::Mat_<double>(3, 3) << 603.1, 0, 322.4, 0, 602.2, 238.9, 0, 0, 1);
    c.rgbD = (cv::Mat_<double>(1, 5) << 0.05, -0.1, 0.0004, 0.0003, 0.02);
    cv::Mat rotation;
    cv::Rodrigues(cv::Vec3d(0.01, -0.02, 0.005), rotation);
    c.extrinsic = cv::Mat::eye(4, 4, CV_64F);
    rotation.copyTo(c.extrinsic(cv::Rect(0, 0, 3, 3)));
    c.extrinsic.at<double>(0, 3) = 25.3;
    c.extrinsic.at<double>(1, 3) = -1.2;
    c.extrinsic.at<double>(2, 3) = 3.1;
    c.extrinsicMetres = c.extrinsic.clone();
    for (int i = 0; i < 3; ++i)
        c.extrinsicMetres.at<double>(i, 3) /= 1000.0;
    return c;
}

void loadCalibration(Talvoro::TalvoroFrame& f) {
    for (bool hd : {false, true}) {
        const Calibration c = calibration(hd);
        f.getCalibrationData(hd, 0xFFF, c.depthK, c.depthD, c.rgbK, c.rgbD, c.extrinsic, cv::Mat());
    }
}

namespace {
std::vector<Ratio>& ratioList() {
    static std::vector<Ratio> list;
    return list;
}
}  // namespace

void addRatio(const Ratio& ratio) {
    ratioList().push_back(ratio);
}
const std::vector<Ratio>& ratios() {
    return ratioList();
}

}  // namespace bench
