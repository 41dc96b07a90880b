// Planarization, undistortion and RGB-D registration, against OpenCV where it defines them.
#include <gtest/gtest.h>

#include <opencv2/calib3d.hpp>
#include <opencv2/rgbd.hpp>

#include "FrameTestSupport.h"
#include "SampleCalibration.h"
#include "frame/Cpu.h"

using namespace talvoro_test;
using Talvoro::TalvoroFrame;
using Talvoro::frame::Isa;
using Talvoro::frame::setIsaLimit;
using talvoro_sample::calibration;
using talvoro_sample::Calibration;
using talvoro_sample::load;
using talvoro_sample::metres;

namespace {

// A tilted wall with a box in front of it and holes.
int sceneDepth(int r, int c) {
    if (r > 300 && r < 360 && c > 150 && c < 260) return 0;
    if (r > 100 && r < 250 && c > 350 && c < 500) return 900 + r;
    return 1500 + c * 3 + r;
}

}  // namespace

TEST(Planarization, ScalesDepthByTheCosineOfTheViewingAngle) {
    TalvoroFrame f;
    f.createThetaMat();
    EXPECT_EQ(f.settings().avgX, 320);
    EXPECT_NEAR(f.image(Image::Theta).at<double>(240, 320), 0.99999976, 1e-8);
    EXPECT_NEAR(f.image(Image::Theta).at<double>(0, 0), 0.62190, 1e-5);
    f.setPlanarization(1);
    ASSERT_EQ(process(f, 2, image16([](int r, int) { return r == 1 ? 0 : 1000; })), 1);
    EXPECT_EQ(at16(f.image(Image::Depth), 240, 320), 999);  // truncated
    EXPECT_EQ(at16(f.image(Image::Depth), 0, 0), 621);
    EXPECT_EQ(at16(f.image(Image::Depth), 1, 0), 0);
    f.setPlanarization(0);
    ASSERT_EQ(process(f, 2, image16([](int, int) { return 1000; })), 1);
    EXPECT_EQ(at16(f.image(Image::Depth), 0, 0), 1000);
}

TEST(Planarization, UsesTheCalibratedPrincipalPointAndLogsTheModel) {
    LogCapture log;
    TalvoroFrame f;
    Calibration c = calibration(false);
    c.depthK.at<double>(0, 2) = 300;
    c.depthK.at<double>(1, 2) = 200;
    load(f, false, c, 0x3F);
    f.createThetaMat();
    EXPECT_DOUBLE_EQ(f.image(Image::Theta).at<double>(200, 300),
                     std::cos(TalvoroFrame::thetaCoeff3));
    f.setPlanarization(1);
    EXPECT_TRUE(f.settings().processingFlags & TalvoroFrame::kPlanarization);
    EXPECT_EQ(log.count("\nTalvoroSDK:    1<<48:281474976710656    tofis_pitch:560.000000"), 1u);
    EXPECT_EQ(log.count("\nTalvoroSDK:    k0:-0.003942,     k1:0.010284,     k2:0.398053,     "
                        "k3:0.000690"),
              1u);
}

TEST(Undistortion, MatchesCvUndistort) {
    Talvoro::frame::WorkerPool alone(0), four(3);
    cv::Mat depth(480, 640, CV_16UC1);
    cv::randu(depth, 0, 65536);
    depth(cv::Rect(100, 100, 200, 100)).setTo(0);
    for (double scale : {1.0, 3.0}) {
        for (int n : {4, 5, 8}) {
            const Calibration c = calibration(false, scale);
            cv::Mat d = cv::Mat::zeros(1, n, CV_64F);
            for (int i = 0; i < std::min(n, 5); ++i)
                d.at<double>(i) = c.depthD.at<double>(i);
            if (n == 8) d.at<double>(5) = 0.01;
            cv::Mat k32;
            c.depthK.convertTo(k32, CV_32F);
            Talvoro::frame::UndistortMap map;
            ASSERT_TRUE(map.build(k32, d, depth.size()));
            cv::Mat expected;
            cv::undistort(depth, expected, k32, d, k32);
            for (Isa level : {Isa::Scalar, Isa::Avx2, Isa::Avx512}) {  // scalar and gathering paths
                setIsaLimit(level);
                for (Talvoro::frame::WorkerPool* pool : {&alone, &four}) {
                    cv::Mat ours(depth.size(), CV_16UC1);
                    ASSERT_TRUE(map.apply(depth, ours, *pool));
                    EXPECT_EQ(cv::norm(ours, expected, cv::NORM_INF), 0)
                        << n << " " << scale << " threads " << pool->threads();
                }
            }
        }
    }
    Talvoro::frame::UndistortMap bad;
    EXPECT_FALSE(bad.build(calibration(false).depthK, cv::Mat::zeros(1, 3, CV_64F), depth.size()));
    EXPECT_FALSE(bad.build(cv::Mat::eye(2, 2, CV_64F), cv::Mat(), depth.size()));
}

TEST(Undistortion, PipelineUsesTheVgaCalibration) {
    TalvoroFrame f;
    const Calibration c = calibration(false);
    load(f, false, c, 0x3F);
    f.setProcessingFlags(TalvoroFrame::kUndistortion, true);
    const Bytes raw = image16(sceneDepth);
    ASSERT_EQ(process(f, 2, raw), 1);
    cv::Mat input(480, 640, CV_16UC1, const_cast<uint8_t*>(raw.data())), expected;
    cv::undistort(input, expected, c.depthK, c.depthD, c.depthK);
    EXPECT_EQ(cv::norm(f.image(Image::Depth), expected, cv::NORM_INF), 0);
}

// Flying pixels are removed before undistortion in mode 2 and after it in mode 0.
TEST(Undistortion, FlyingPixelsComeBeforeItOnlyInModeTwo) {
    const Calibration c = calibration(false);
    const auto run = [&](uint32_t flags, int mode, const cv::Mat& depth) {
        TalvoroFrame f;
        load(f, false, c, 0x3F);
        f.setProcessingFlags(flags, true);
        const auto value = [&](int r, int col) { return int(depth.at<uint16_t>(r, col)); };
        const Bytes raw = mode == 0 ? rowPairs(value, [](int, int) { return 0; }) : image16(value);
        EXPECT_EQ(process(f, mode, raw), 1);
        return f.image(Image::Depth).clone();
    };
    cv::Mat scene(480, 640, CV_16UC1);
    for (int r = 0; r < 480; ++r)
        for (int col = 0; col < 640; ++col)
            scene.at<uint16_t>(r, col) = uint16_t(sceneDepth(r, col));
    const uint32_t undistort = TalvoroFrame::kUndistortion, fly = TalvoroFrame::kFlyingPixel;
    const cv::Mat flyFirst = run(undistort, 2, run(fly, 2, scene));
    const cv::Mat undistortFirst = run(fly, 2, run(undistort, 2, scene));
    ASSERT_GT(cv::norm(flyFirst, undistortFirst, cv::NORM_INF), 0);  // the order shows
    EXPECT_EQ(cv::norm(run(undistort | fly, 2, scene), flyFirst, cv::NORM_INF), 0);
    EXPECT_EQ(cv::norm(run(undistort | fly, 0, scene), undistortFirst, cv::NORM_INF), 0);
}

// The scalar, AVX2 and AVX-512 paths at every thread count; the holes land on the principal
// point in order.
TEST(Registration, MatchesCvRegisterDepth) {
    Talvoro::frame::WorkerPool alone(0), pair(1), four(3);
    cv::Mat depth(480, 640, CV_16UC1);
    for (int r = 0; r < 480; ++r)
        for (int c = 0; c < 640; ++c)
            depth.at<uint16_t>(r, c) = uint16_t(sceneDepth(r, c));
    for (bool hd : {false, true}) {
        for (int variant = 0; variant < 4; ++variant) {
            const Calibration c = calibration(hd);
            cv::Mat rgbD;  // none, zeros, five coefficients, fourteen with a tilted sensor
            if (variant == 1) rgbD = cv::Mat::zeros(1, 5, CV_64F);
            if (variant == 2) rgbD = c.rgbD;
            if (variant == 3) {
                rgbD = cv::Mat::zeros(14, 1, CV_32F);
                rgbD.at<float>(0) = 0.04f;
                rgbD.at<float>(5) = 0.01f;
                rgbD.at<float>(8) = 0.001f;
                rgbD.at<float>(12) = 0.02f;
                rgbD.at<float>(13) = -0.01f;
            }
            const cv::Size size = hd ? cv::Size(1280, 720) : cv::Size(640, 480);
            Talvoro::frame::DepthRegistration registration;
            ASSERT_TRUE(registration.configure(c.depthK, c.rgbK, rgbD, metres(c.extrinsic), size));
            cv::Mat expected;
            cv::rgbd::registerDepth(c.depthK, c.rgbK, rgbD, metres(c.extrinsic), depth, size,
                                    expected, true);
            EXPECT_GT(cv::countNonZero(expected), int(size.area() / 4));
            for (Isa level : {Isa::Scalar, Isa::Avx2, Isa::Avx512}) {
                setIsaLimit(level);
                for (Talvoro::frame::WorkerPool* pool : {&alone, &pair, &four}) {
                    cv::Mat ours(size, CV_16UC1, cv::Scalar(7));
                    ASSERT_TRUE(registration.apply(depth, ours, *pool));
                    EXPECT_EQ(cv::norm(ours, expected, cv::NORM_INF), 0)
                        << hd << " " << variant << " isa " << int(level) << " threads "
                        << pool->threads();
                }
            }
        }
    }
}

TEST(Registration, Mode4PublishesDepthInTheColourGeometry) {
    TalvoroFrame f;
    const Calibration c = calibration(false);
    load(f, false, c, 0x3F);
    f.setProcessingFlags(TalvoroFrame::kRgbdMapping, true);
    f.updateDepthRange(1);
    const auto depth = [](int r, int c) {
        return c == 0 ? 0x10 | (r & 0xF) << 6 : sceneDepth(r, c) & 0xFFF;
    };
    ASSERT_EQ(process(f, 4, multiplexed(false, depth, [](int, int) { return 0x10; })), 1);
    cv::Mat input(480, 640, CV_16UC1), undistorted, expected;
    for (int r = 0; r < 480; ++r)
        for (int col = 0; col < 640; ++col)
            input.at<uint16_t>(r, col) = uint16_t(depth(r, col));
    cv::undistort(input, undistorted, c.depthK, c.depthD, c.depthK);
    cv::rgbd::registerDepth(c.depthK, c.rgbK, c.rgbD, metres(c.extrinsic), undistorted * 2.0,
                            cv::Size(640, 480), expected, true);
    EXPECT_EQ(cv::norm(f.image(Image::Depth), expected, cv::NORM_INF), 0);
    EXPECT_EQ(cv::norm(f.image(Image::Registered), expected, cv::NORM_INF), 0);
}

TEST(Registration, Mode5PublishesHdDepthAndColourMap) {
    TalvoroFrame f;
    const Calibration vga = calibration(false), hd = calibration(true);
    load(f, false, vga, 0xFFF);
    load(f, true, hd, 0xFFF);
    f.setProcessingFlags(TalvoroFrame::kRgbdMapping, true);
    f.updateColorMap(0, 4000, 2);
    f.stampCapture(5);
    const auto depth = [](int r, int c) { return c == 0 ? 0x10 : sceneDepth(r, c) & 0xFFF; };
    ASSERT_EQ(process(f, 5, multiplexed(true, depth, depth)), 1);
    Talvoro::ToFFrame raw{}, colours{};
    ASSERT_EQ(f.getToFFrame(Talvoro::RawDepth, &raw), 1);
    ASSERT_EQ(f.getToFFrame(Talvoro::DepthColorMap, &colours), 1);
    EXPECT_EQ(raw.width, 1280);
    EXPECT_EQ(raw.height, 720);
    EXPECT_EQ(colours.width, 1280);
    EXPECT_EQ(raw.frame_data, f.image(Image::Registered).data);
    EXPECT_EQ(at16(f.image(Image::Depth), 200, 200), depth(200, 200));  // stays unregistered
    cv::Mat input(480, 640, CV_16UC1), undistorted, expected;
    for (int r = 0; r < 480; ++r)
        for (int c = 0; c < 640; ++c)
            input.at<uint16_t>(r, c) = uint16_t(depth(r, c));
    cv::undistort(input, undistorted, hd.depthK, hd.depthD, hd.depthK);
    cv::rgbd::registerDepth(hd.depthK, hd.rgbK, hd.rgbD, metres(hd.extrinsic), undistorted,
                            cv::Size(1280, 720), expected, true);
    EXPECT_EQ(cv::norm(f.image(Image::Registered), expected, cv::NORM_INF), 0);
}

TEST(Registration, UnusableCalibrationIsLoggedNotFatal) {
    LogCapture log;
    TalvoroFrame f;
    Calibration c = calibration(true);
    c.rgbD = cv::Mat();
    load(f, true, c, 0xFC0);
    EXPECT_EQ(log.count("\nTalvoroSDK:gDepthDistortion.empty()"), 1u);
    f.setProcessingFlags(TalvoroFrame::kRgbdMapping, true);
    const auto depth = [](int, int c) { return c == 0 ? 0x10 : 1000; };
    ASSERT_EQ(process(f, 5, multiplexed(true, depth, depth)), 1);
    EXPECT_EQ(log.count("Input mat is empty 0   "), 1u);

    c = calibration(false);
    c.extrinsic = cv::Mat::eye(3, 3, CV_64F);  // not a 4x4 transform
    load(f, false, c, 0x3F);
    ASSERT_EQ(process(f, 4, multiplexed(false, depth, depth)), 1);
    EXPECT_EQ(log.count("registerDepthFailed0   "), 1u);
    EXPECT_EQ(at16(f.image(Image::Depth), 100, 100), 1000);
}
