// The point cloud for every lens model OpenCV projects with: each point lands back on its pixel,
// and takes the colour the colour camera sees there.
#include <gtest/gtest.h>

#include <opencv2/calib3d.hpp>

#include <cmath>
#include <cstring>

#include "frame/PointCloud.h"

namespace {

using Talvoro::frame::CameraCalibration;
using Talvoro::frame::PixelRays;

// A lens as strong as the depth camera's, then with rational, thin-prism and tilt terms, and a
// pinhole.
const std::vector<std::vector<double>> models = {
    {-0.317, 0.134, 0.0004, -0.0003, -0.028},
    {0.1, -0.05, 0.001, 0.002, 0.01, 0.05, -0.02, 0.003},
    {-0.2, 0.05, 0.001, -0.001, 0.0, 0.0, 0.0, 0.0, 0.002, -0.001, 0.001, 0.0005},
    {-0.2, 0.05, 0.001, -0.001, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.01, -0.02},
    {}};

TEST(PixelRays, EveryPointProjectsBackOntoItsPixel) {
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

// The colours of a cloud's points are those cv::projectPoints finds, for every lens model, with
// points behind the colour camera, outside its image and not a number black.
TEST(ColourByProjection, SameColoursAsProjectPointsInEveryLensModel) {
    const cv::Mat k = (cv::Mat_<double>(3, 3) << 920.5, 0, 641.3, 0, 918.25, 358.9, 0, 0, 1);
    Talvoro::frame::RigidTransform toColour;
    cv::Rodrigues(cv::Vec3d(0.01, -0.02, 0.005), toColour.rotation);
    toColour.translation = cv::Vec3d(0.025, -0.001, 0.002);
    cv::Mat rgb(720, 1280, CV_8UC3);
    cv::randu(rgb, 0, 256);
    cv::RNG rng(7);
    std::vector<float> xyz;
    for (int i = 0; i < 20000; ++i) {
        const double z = rng.uniform(-0.2, 4.0);
        xyz.insert(xyz.end(),
                   {float(rng.uniform(-1.5, 1.5) * z), float(rng.uniform(-1., 1.) * z), float(z)});
    }
    xyz.insert(xyz.end(), {NAN, NAN, NAN, 0.f, 0.f, 0.f, 1e-30f, 1e-30f, 1e-30f});
    const uint32_t count = uint32_t(xyz.size() / 3);
    for (const std::vector<double>& d : models) {
        CameraCalibration colour;
        ASSERT_TRUE(CameraCalibration::read(k, d.empty() ? cv::Mat() : cv::Mat(d), &colour));
        std::vector<uint8_t> got(3 * count, 1);
        Talvoro::frame::colourByProjection(xyz.data(), count, colour, toColour, rgb, got.data());

        std::vector<cv::Point3f> seen;
        for (uint32_t i = 0; i < count; ++i) {
            const cv::Vec3d q =
                toColour.rotation * cv::Vec3d(xyz[3 * i], xyz[3 * i + 1], xyz[3 * i + 2]) +
                toColour.translation;
            seen.emplace_back(float(q[0]), float(q[1]), float(q[2]));
        }
        std::vector<cv::Point2f> uv;
        cv::projectPoints(seen, cv::Vec3d(), cv::Vec3d(), k, d, uv);
        int differ = 0, coloured = 0;
        for (uint32_t i = 0; i < count; ++i) {
            uint8_t want[3] = {0, 0, 0};
            const float u = std::round(uv[i].x), v = std::round(uv[i].y);
            if (seen[i].z > 0 && u >= 0 && v >= 0 && u < 1280 && v < 720) {
                std::memcpy(want, rgb.ptr<uint8_t>(int(v)) + 3 * int(u), 3);
                ++coloured;
            }
            differ += std::memcmp(want, &got[3 * i], 3) != 0;
        }
        EXPECT_EQ(differ, 0) << d.size() << " coefficients";
        EXPECT_GT(coloured, 2000) << d.size() << " coefficients";
    }
}
