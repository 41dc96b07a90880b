// A plausible calibration of the camera (both sets), shared by the frame tests and benchmarks.
#ifndef TALVORO_TESTS_FRAME_SAMPLE_CALIBRATION_H
#define TALVORO_TESTS_FRAME_SAMPLE_CALIBRATION_H

#include <opencv2/calib3d.hpp>

#include "frame/TalvoroFrame.h"

namespace talvoro_sample {

struct Calibration {
    cv::Mat depthK, depthD, rgbK, rgbD, extrinsic;  // extrinsic translation in millimetres
};

// The VGA set (colour 640x480) or the HD set (colour 1280x720); distortions scaled.
inline Calibration calibration(bool hd, double distortionScale = 1.0) {
    Calibration c;
    c.depthK = (cv::Mat_<double>(3, 3) << 524.7, 0, 318.2, 0, 525.9, 243.6, 0, 0, 1);
    c.depthD = (cv::Mat_<double>(1, 5) << -0.12, 0.05, 0.001, -0.0005, -0.01) * distortionScale;
    c.rgbK = hd ? (cv::Mat_<double>(3, 3) << 1012.3, 0, 641.7, 0, 1010.9, 357.2, 0, 0, 1)
                : (cv::Mat_<double>(3, 3) << 603.1, 0, 322.4, 0, 602.2, 238.9, 0, 0, 1);
    c.rgbD = (cv::Mat_<double>(5, 1) << 0.05, -0.1, 0.0004, 0.0003, 0.02) * distortionScale;
    cv::Mat rotation;
    cv::Rodrigues(cv::Vec3d(0.01, -0.02, 0.005), rotation);
    c.extrinsic = cv::Mat::eye(4, 4, CV_64F);
    rotation.copyTo(c.extrinsic(cv::Rect(0, 0, 3, 3)));
    c.extrinsic.at<double>(0, 3) = 25.3;
    c.extrinsic.at<double>(1, 3) = -1.2;
    c.extrinsic.at<double>(2, 3) = 3.1;
    return c;
}

// The extrinsic with its translation in metres, as cv::rgbd::registerDepth wants it.
inline cv::Mat metres(const cv::Mat& extrinsic) {
    cv::Mat m = extrinsic.clone();
    for (int i = 0; i < 3; ++i)
        m.at<double>(i, 3) /= 1000.0;
    return m;
}

inline void load(Talvoro::TalvoroFrame& f, bool hd, const Calibration& c, uint16_t mask) {
    f.getCalibrationData(hd, mask, c.depthK, c.depthD, c.rgbK, c.rgbD, c.extrinsic, cv::Mat());
}

// Both sets, marked complete.
inline void loadBoth(Talvoro::TalvoroFrame& f) {
    load(f, false, calibration(false), 0xFFF);
    load(f, true, calibration(true), 0xFFF);
}

}  // namespace talvoro_sample

#endif
