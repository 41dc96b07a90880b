// Pixel rays of the point cloud for every lens model OpenCV projects with: each point lands back
// on its pixel.
#include <gtest/gtest.h>

#include <opencv2/calib3d.hpp>

#include <cmath>

#include "frame/PointCloud.h"

namespace {

using Talvoro::frame::CameraCalibration;
using Talvoro::frame::PixelRays;

TEST(PixelRays, EveryPointProjectsBackOntoItsPixel) {
    // A lens as strong as the depth camera's, then with rational, thin-prism and tilt terms,
    // and a pinhole.
    const std::vector<std::vector<double>> models = {
        {-0.317, 0.134, 0.0004, -0.0003, -0.028},
        {0.1, -0.05, 0.001, 0.002, 0.01, 0.05, -0.02, 0.003},
        {-0.2, 0.05, 0.001, -0.001, 0.0, 0.0, 0.0, 0.0, 0.002, -0.001, 0.001, 0.0005},
        {-0.2, 0.05, 0.001, -0.001, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.01, -0.02},
        {}};
    const cv::Mat k = (cv::Mat_<double>(3, 3) << 525, 0, 318.2, 0, 523, 241.7, 0, 0, 1);
    cv::Mat depth(480, 640, CV_16UC1);
    for (int r = 0; r < 480; ++r)
        for (int c = 0; c < 640; ++c)
            depth.at<uint16_t>(r, c) = uint16_t((r * 7 + c) % 50 == 0 ? 0 : 500 + r + c);
    const int expectedHoles = 640 * 480 - cv::countNonZero(depth);
    for (const std::vector<double>& d : models) {
        CameraCalibration camera;
        ASSERT_TRUE(CameraCalibration::read(k, d.empty() ? cv::Mat() : cv::Mat(d), &camera));
        PixelRays rays;
        rays.prepare(camera, depth.size(), false);
        std::vector<float> xyz(640 * 480 * 3);
        ASSERT_EQ(rays.deproject(depth, false, true, xyz.data()), 640u * 480u);

        std::vector<cv::Point3d> points;
        for (std::size_t i = 0; i < xyz.size(); i += 3)
            points.emplace_back(xyz[i], xyz[i + 1], xyz[i + 2]);
        std::vector<cv::Point2d> uv;
        cv::projectPoints(points, cv::Vec3d(), cv::Vec3d(), k, d, uv);
        int off = 0, wrongLength = 0, holes = 0;
        for (int i = 0; i < 640 * 480; ++i) {
            const uint16_t value = depth.at<uint16_t>(i / 640, i % 640);
            if (value == 0) {
                holes += std::isnan(points[i].x) && std::isnan(points[i].z);
                continue;
            }
            off += std::hypot(uv[i].x - i % 640, uv[i].y - i / 640) > 1e-3;
            wrongLength += std::abs(cv::norm(points[i]) * 1000 - value) > 1e-3 * value;
        }
        EXPECT_EQ(off, 0) << d.size() << " coefficients";
        EXPECT_EQ(wrongLength, 0) << d.size() << " coefficients";
        EXPECT_EQ(holes, expectedHoles);
    }
}

TEST(PixelRays, RefuseCalibrationsThatCannotProject) {
    CameraCalibration camera;
    const cv::Mat k = (cv::Mat_<double>(3, 3) << 525, 0, 320, 0, 523, 240, 0, 0, 1);
    EXPECT_FALSE(CameraCalibration::read(cv::Mat(), cv::Mat(), &camera));
    EXPECT_FALSE(CameraCalibration::read(cv::Mat::eye(3, 3, CV_64F) * 0, cv::Mat(), &camera));
    EXPECT_FALSE(CameraCalibration::read(k, cv::Mat::zeros(1, 6, CV_64F), &camera));
    EXPECT_FALSE(CameraCalibration::read(cv::Mat::eye(3, 3, CV_8U), cv::Mat(), &camera));
    EXPECT_TRUE(CameraCalibration::read(k, cv::Mat::zeros(5, 1, CV_32F), &camera));
}

}  // namespace
