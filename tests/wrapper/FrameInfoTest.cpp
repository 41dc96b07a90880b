// The frame-time and point-cloud extension: the published frame's sequence number and time
// stamps, and its depth turned into points, checked against the calibration the camera serves.
// wrapper.frame_info: INFO-1.
#include <opencv2/calib3d.hpp>

#include <cmath>
#include <ctime>

#include "vcam/RawDecode.h"
#include "wrapper/ApiFixture.h"

namespace apitest {
namespace {

uint64_t clockNs(clockid_t clock) {
    timespec t{};
    clock_gettime(clock, &t);
    return uint64_t(t.tv_sec) * 1000000000u + uint64_t(t.tv_nsec);
}

class FrameTime : public ApiTest {
  protected:
    void SetUp() override {
        ApiTest::SetUp();
        h = open("INFO-1");
    }
    DeviceHandle h{};
};

TEST_F(FrameTime, DescribesThePublishedFrame) {
    FrameInfo info{};
    EXPECT_EQ(GetFrameInfo(handleOf("NO-SUCH"), &info), CameraNotOpened);
    EXPECT_EQ(GetFrameInfo(h, nullptr), InvalidValue);
    EXPECT_EQ(GetFrameInfo(h, &info), TimeoutError);  // nothing processed yet

    // The raw frame before and after the fetch is the same: the fetch processed that frame.
    std::vector<uint8_t> raw(1536000);
    RawFrameInfo before{}, after{};
    ASSERT_TRUE(waitFor([&] {
        return GetRawFrame(h, raw.data(), 1536000, &before) == Ok && GetNextFrame(h) == Ok &&
               GetRawFrame(h, raw.data(), 1536000, &after) == Ok &&
               after.sequence == before.sequence;
    }));
    ASSERT_EQ(GetFrameInfo(h, &info), Ok);
    EXPECT_EQ(info.sequence, before.sequence);
    EXPECT_EQ(info.time_stamp_ns, before.time_stamp_ns);
    EXPECT_EQ(info.data_mode, Depth_IR_RGB_VGA_Mode);
    // The same instant on the wall clock: the clocks' offset, and a capture moments ago.
    const int64_t offset = int64_t(clockNs(CLOCK_REALTIME) - clockNs(CLOCK_MONOTONIC));
    EXPECT_LT(std::llabs(int64_t(info.wall_time_ns - info.time_stamp_ns) - offset), 5000000);
    EXPECT_LT(clockNs(CLOCK_REALTIME) - info.wall_time_ns, 5000000000u);

    // Later frames come later; fetching no new frame publishes the same one again.
    FrameInfo next{};
    ASSERT_TRUE(waitFor([&] {
        return GetNextFrame(h) == Ok && GetFrameInfo(h, &next) == Ok &&
               next.sequence > info.sequence;
    }));
    EXPECT_GT(next.time_stamp_ns, info.time_stamp_ns);

    // A new data mode forgets the frame until one of its own is processed.
    ASSERT_EQ(SetDataMode(h, Depth_Mode), Ok);
    EXPECT_EQ(GetFrameInfo(h, &info), TimeoutError);
    ASSERT_TRUE(waitFor([&] { return GetNextFrame(h) == Ok && GetFrameInfo(h, &info) == Ok; }));
    EXPECT_EQ(info.data_mode, Depth_Mode);

    ASSERT_EQ(CloseDevice(h), Ok);
    EXPECT_EQ(GetFrameInfo(h, &info), CameraNotOpened);
}

// One cloud with the images it was made from.
struct Cloud {
    PointCloudInfo info{};
    std::vector<float> xyz;
    std::vector<uint8_t> rgb;
    std::vector<uint16_t> depth;  // the published depth image
    cv::Mat colour;               // the colour image (UYVY), if any
};

class PointClouds : public ApiTest {
  protected:
    void SetUp() override {
        ApiTest::SetUp();
        h = open("INFO-1");
        ASSERT_EQ(GetDeviceCalibrationParams(h, &calibration), Ok);
    }

    // Fetches a frame and its cloud; a capture between the steps asks for another round.
    Cloud cloud(uint32_t flags) {
        Cloud c;
        c.xyz.resize(1280 * 720 * 3);
        c.rgb.resize(1280 * 720 * 3);
        ToFFrame depth{}, colour{};
        const bool colored = flags & PointCloud_Colored;
        EXPECT_TRUE(waitFor([&] {
            return GetNextFrame(h) == Ok &&
                   GetPointCloud(h, flags, c.xyz.data(), c.rgb.data(), 1280 * 720, &c.info) == Ok &&
                   GetToFFrame(h, RawDepth, &depth) == Ok &&
                   (!colored || GetToFFrame(h, RGBFrame, &colour) == Ok);
        }));
        const uint16_t* d = reinterpret_cast<const uint16_t*>(depth.frame_data);
        c.depth.assign(d, d + std::size_t(depth.width) * depth.height);
        EXPECT_EQ(c.info.width, depth.width);
        EXPECT_EQ(c.info.height, depth.height);
        if (colored)
            cv::Mat(colour.height, colour.width, CV_8UC2, colour.frame_data).copyTo(c.colour);
        return c;
    }

    // Checks every 37th pixel with depth: the point projects back onto its pixel through
    // `camera` (with its distortion unless `pinhole`), and its z (or its distance, unless
    // `alongAxis`) is the pixel's depth. Returns the pixels checked.
    int expectOnPixels(const Cloud& c, const CameraIntrinsics& camera, bool pinhole, bool alongAxis,
                       bool organized) {
        const cv::Matx33d k(camera.fx, 0, camera.cx, 0, camera.fy, camera.cy, 0, 0, 1);
        const std::vector<double> d =
            pinhole ? std::vector<double>()
                    : std::vector<double>(camera.distortion, camera.distortion + 5);
        int checked = 0, point = -1;
        for (int i = 0; i < int(c.depth.size()); ++i) {
            if (c.depth[i] == 0 && !organized) continue;
            ++point;
            const float* p = &c.xyz[3 * std::size_t(point)];
            if (c.depth[i] == 0) {
                EXPECT_TRUE(std::isnan(p[0]) && std::isnan(p[1]) && std::isnan(p[2])) << i;
                continue;
            }
            if (i % 37 != 0) continue;
            ++checked;
            std::vector<cv::Point2d> uv;
            cv::projectPoints(std::vector<cv::Point3d>{{p[0], p[1], p[2]}}, cv::Vec3d(),
                              cv::Vec3d(), k, d, uv);
            EXPECT_NEAR(uv[0].x, i % c.info.width, 0.02) << "pixel " << i;
            EXPECT_NEAR(uv[0].y, i / c.info.width, 0.02) << "pixel " << i;
            const double length =
                alongAxis ? p[2] : std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
            EXPECT_NEAR(length * 1000.0, c.depth[i], 0.01) << "pixel " << i;
        }
        EXPECT_EQ(point + 1, int(c.info.count));
        return checked;
    }

    CalibrationParams calibration{};
    DeviceHandle h{};
};

vcamtest::Rgb colourOf(const cv::Mat& uyvy, int x, int y) {
    return vcamtest::uyvyPixel(uyvy.ptr<uint8_t>(y), x);
}

bool sameColour(const uint8_t* rgb, const vcamtest::Rgb& c) {
    auto near = [](uint8_t got, double want) {
        return std::abs(got - std::clamp(want, 0.0, 255.0)) <= 2.5;
    };
    return near(rgb[0], c.r) && near(rgb[1], c.g) && near(rgb[2], c.b);
}

TEST_F(PointClouds, RefuseWhatTheyCannotMake) {
    PointCloudInfo info{};
    std::vector<float> xyz(640 * 480 * 3, 7.0f);
    EXPECT_EQ(GetPointCloud(h, 0, xyz.data(), nullptr, 640 * 480, &info), TimeoutError);
    EXPECT_EQ(GetPointCloud(h, 0, xyz.data(), nullptr, 640 * 480, nullptr), InvalidValue);
    EXPECT_EQ(GetPointCloud(h, 0, nullptr, nullptr, 1, &info), InvalidValue);
    EXPECT_EQ(GetPointCloud(h, PointCloud_Colored, xyz.data(), nullptr, 1, &info), InvalidValue);
    EXPECT_EQ(GetPointCloud(h, 8, xyz.data(), nullptr, 1, &info), InvalidValue);

    // A capacity too small writes nothing and tells the count; a null buffer of none asks.
    ASSERT_TRUE(waitFor([&] {
        return GetNextFrame(h) == Ok &&
               GetPointCloud(h, PointCloud_Organized, nullptr, nullptr, 0, &info) == InvalidValue;
    }));
    EXPECT_EQ(info.count, 640u * 480u);
    EXPECT_EQ(GetPointCloud(h, PointCloud_Organized, xyz.data(), nullptr, 640 * 480 - 1, &info),
              InvalidValue);
    EXPECT_EQ(xyz.front(), 7.0f);

    ASSERT_EQ(SetDataMode(h, IR_Mode), Ok);
    EXPECT_EQ(GetPointCloud(h, 0, xyz.data(), nullptr, 640 * 480, &info), NotSupportedInDataMode);
    ASSERT_EQ(SetDataMode(h, Depth_Mode), Ok);
    std::vector<uint8_t> rgb(640 * 480 * 3);
    EXPECT_EQ(GetPointCloud(h, PointCloud_Colored, xyz.data(), rgb.data(), 640 * 480, &info),
              NotSupportedInDataMode);
}

TEST_F(PointClouds, UndistortedPlanarizedDepthIsZThroughThePinholeModel) {
    ASSERT_EQ(SetDataMode(h, Depth_Mode), Ok);
    ASSERT_EQ(SetPlanarization(h, 1), Ok);
    ASSERT_EQ(SetUnDistortion(h, 1), Ok);
    const Cloud c = cloud(PointCloud_Organized);
    EXPECT_EQ(c.info.frame, PointCloud_DepthCamera);
    EXPECT_EQ(c.info.count, 640u * 480u);
    EXPECT_GT(expectOnPixels(c, calibration.depth, true, true, true), 5000);
}

TEST_F(PointClouds, RawDepthFollowsTheLensAndTakesTheColourCamerasColour) {
    const Cloud c = cloud(PointCloud_Colored);
    EXPECT_EQ(c.info.frame, PointCloud_DepthCamera);
    EXPECT_LT(c.info.count, 640u * 480u);  // the doorway has no depth
    EXPECT_GT(expectOnPixels(c, calibration.depth, false, false, false), 5000);

    // Each point has the colour of the colour pixel it projects onto.
    const CameraIntrinsics& rgb = calibration.rgb;
    const cv::Matx33d k(rgb.fx, 0, rgb.cx, 0, rgb.fy, rgb.cy, 0, 0, 1);
    const cv::Matx33d r(calibration.extrinsic.rotation);
    const cv::Vec3d t(calibration.extrinsic.translation[0] / 1000.0,
                      calibration.extrinsic.translation[1] / 1000.0,
                      calibration.extrinsic.translation[2] / 1000.0);
    int seen = 0, same = 0;
    for (uint32_t i = 0; i < c.info.count; i += 101) {
        const cv::Vec3d p = r * cv::Vec3d(c.xyz[3 * i], c.xyz[3 * i + 1], c.xyz[3 * i + 2]) + t;
        std::vector<cv::Point2d> uv;
        cv::projectPoints(std::vector<cv::Point3d>{{p[0], p[1], p[2]}}, cv::Vec3d(), cv::Vec3d(), k,
                          std::vector<double>(rgb.distortion, rgb.distortion + 5), uv);
        const int x = int(std::lround(uv[0].x)), y = int(std::lround(uv[0].y));
        if (x < 0 || y < 0 || x >= 640 || y >= 480) continue;
        ++seen;
        same += sameColour(&c.rgb[3 * i], colourOf(c.colour, x, y));
    }
    EXPECT_GT(seen, 1000);
    // A projection on a pixel's border may round the other way.
    EXPECT_GT(same, seen * 98 / 100);
}

TEST_F(PointClouds, RegisteredDepthIsInTheColourCamera) {
    ASSERT_EQ(SetRGBDMapping(h, 1), Ok);
    const Cloud c = cloud(PointCloud_Colored | PointCloud_Organized);
    EXPECT_EQ(c.info.frame, PointCloud_ColorCamera);
    EXPECT_GT(expectOnPixels(c, calibration.rgb, false, true, true), 2000);
    int differ = 0;
    for (int i = 0; i < 640 * 480; i += 7) {
        const uint8_t* got = &c.rgb[3 * std::size_t(i)];
        if (c.depth[i] == 0)
            differ += got[0] || got[1] || got[2];
        else
            differ += !sameColour(got, colourOf(c.colour, i % 640, i / 640));
    }
    EXPECT_EQ(differ, 0);

    ASSERT_EQ(SetDataMode(h, Depth_IR_RGB_HD_Mode), Ok);
    const Cloud hd = cloud(0);
    EXPECT_EQ(hd.info.frame, PointCloud_ColorCamera);
    EXPECT_EQ(hd.info.width, 1280);
    EXPECT_GT(expectOnPixels(hd, calibration.hd_rgb, false, true, false), 2000);
}

}  // namespace
}  // namespace apitest
