// The ROS 2 side of talvoro publish without a camera: names as ROS accepts them, camera info from
// intrinsics, the colour camera's pose from the calibration's transform, and the point layout.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "Cli.h"
#include "Messages.h"
#include "RosNames.h"

namespace talvoro_tool {
namespace {

TEST(RosNames, SerialsBecomeValidTokensAndNamespacesAreChecked) {
    EXPECT_EQ(rosToken("TLV0000001"), "TLV0000001");
    EXPECT_EQ(rosToken("LAB-1.a"), "LAB_1_a");
    EXPECT_EQ(rosToken("a--b__c"), "a_b_c");
    EXPECT_EQ(rosToken("0042"), "sn0042");
    EXPECT_EQ(rosToken(""), "no_serial");

    EXPECT_EQ(rosNamespace("/talvoro"), "/talvoro");
    EXPECT_EQ(rosNamespace("robot/front/"), "/robot/front");
    EXPECT_EQ(rosNamespace("/"), "/");
    for (const char* bad : {"/a//b", "/1st", "/a-b", "/a__b"})
        EXPECT_THROW(rosNamespace(bad), ToolError) << bad;

    EXPECT_EQ(ddsTopicName("/talvoro", "TLV1", "depth/image_raw"),
              "rt/talvoro/TLV1/depth/image_raw");
    EXPECT_EQ(ddsTopicName("/", "TLV1", "imu"), "rt/TLV1/imu");
    EXPECT_EQ(rosTypeName("sensor_msgs::msg::dds_::PointCloud2_"), "sensor_msgs/msg/PointCloud2");
    EXPECT_EQ(frameId("TLV1", "color"), "talvoro_TLV1_color");
}

TEST(CameraInfo, CarriesTheIntrinsicsAsPlumbBob) {
    const Talvoro::CameraIntrinsics in{
        440.5, 441.5, 321.25, 239.75, {-0.1, 0.02, 0.001, -0.002, 0.003}};
    ros::CameraModel model = ros::cameraModel(in, 640, 480, false);
    sensor_msgs_msg_dds__CameraInfo_ info{};
    ros::setCameraInfo(&info, &model);
    EXPECT_STREQ(info.distortion_model, "plumb_bob");
    EXPECT_EQ(info.width, 640u);
    EXPECT_EQ(info.height, 480u);
    ASSERT_EQ(info.d._length, 5u);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(info.d._buffer[i], in.distortion[i]);
    const double k[9] = {440.5, 0, 321.25, 0, 441.5, 239.75, 0, 0, 1};
    const double r[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const double p[12] = {440.5, 0, 321.25, 0, 0, 441.5, 239.75, 0, 0, 0, 1, 0};
    EXPECT_EQ(std::memcmp(info.k, k, sizeof k), 0);
    EXPECT_EQ(std::memcmp(info.r, r, sizeof r), 0);
    EXPECT_EQ(std::memcmp(info.p, p, sizeof p), 0);

    // An undistorted image has no distortion left to describe.
    model = ros::cameraModel(in, 640, 480, true);
    for (const double d : model.d)
        EXPECT_EQ(d, 0);
    EXPECT_EQ(std::memcmp(model.k, k, sizeof k), 0);
}

// The rotation matrix of a unit quaternion (x, y, z, w), row-major.
void matrixOf(const double q[4], double m[9]) {
    const double x = q[0], y = q[1], z = q[2], w = q[3];
    const double r[9] = {1 - 2 * (y * y + z * z), 2 * (x * y - z * w),     2 * (x * z + y * w),
                         2 * (x * y + z * w),     1 - 2 * (x * x + z * z), 2 * (y * z - x * w),
                         2 * (x * z - y * w),     2 * (y * z + x * w),     1 - 2 * (x * x + y * y)};
    std::memcpy(m, r, sizeof r);
}

TEST(StaticTransform, PlacesTheColourCameraInTheDepthCameraFrame) {
    // Depth-to-colour transforms: x_colour = R x_depth + t (millimetres). The pose of the colour
    // camera in the depth frame is the inverse: rotation R^T, origin -R^T t (metres).
    const double c = std::cos(0.3), s = std::sin(0.3);
    const Talvoro::StereoExtrinsics cases[] = {
        {{1, 0, 0, 0, 1, 0, 0, 0, 1}, {-25, 0, 0}},     // beside it: 25 mm to the right
        {{c, -s, 0, s, c, 0, 0, 0, 1}, {10, -20, 30}},  // turned about z
        {{-1, 0, 0, 0, 1, 0, 0, 0, -1}, {5, 0, 0}},     // half a turn about y (trace -1)
        {{1, 0, 0, 0, -1, 0, 0, 0, -1}, {0, 0, 7}},     // half a turn about x
    };
    for (const Talvoro::StereoExtrinsics& e : cases) {
        const ros::Pose pose = ros::colourCameraPose(e);
        const double* q = pose.rotation;
        EXPECT_NEAR(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3], 1, 1e-12);
        double m[9];
        matrixOf(q, m);
        for (int row = 0; row < 3; ++row) {
            double origin = 0;
            for (int col = 0; col < 3; ++col) {
                EXPECT_NEAR(m[row * 3 + col], e.rotation[col * 3 + row], 1e-12);
                origin -= e.rotation[col * 3 + row] * e.translation[col] / 1000;
            }
            EXPECT_NEAR(pose.translation[row], origin, 1e-12);
        }
    }
    EXPECT_NEAR(ros::colourCameraPose(cases[0]).translation[0], 0.025, 1e-12);
    EXPECT_FALSE(ros::hasTransform(Talvoro::StereoExtrinsics{}));
}

TEST(PointCloud, FloatXyzAndRgbPackedAsRosDoes) {
    const ros::CloudLayout plain = ros::cloudLayout(false);
    ros::CloudLayout coloured = ros::cloudLayout(true);
    EXPECT_EQ(plain.pointStep, 12u);
    ASSERT_EQ(plain.fields.size(), 3u);
    EXPECT_EQ(coloured.pointStep, 16u);
    ASSERT_EQ(coloured.fields.size(), 4u);
    const char* names[] = {"x", "y", "z", "rgb"};
    for (uint32_t i = 0; i < 4; ++i) {
        EXPECT_STREQ(coloured.fields[i].name, names[i]);
        EXPECT_EQ(coloured.fields[i].offset, 4 * i);
        EXPECT_EQ(coloured.fields[i].datatype, 7);  // FLOAT32
        EXPECT_EQ(coloured.fields[i].count, 1u);
    }

    const float xyz[6] = {0.5f, -0.25f, 2.0f, 1, 2, 3};
    const uint8_t rgb[6] = {0x12, 0x34, 0x56, 255, 0, 1};
    uint8_t packed[32];
    ros::interleaveColour(xyz, rgb, 2, packed);
    float point[3];
    std::memcpy(point, packed + 16, sizeof point);
    EXPECT_EQ(point[2], 3.0f);
    uint32_t colour0, colour1;
    std::memcpy(&colour0, packed + 12, 4);
    std::memcpy(&colour1, packed + 28, 4);
    EXPECT_EQ(colour0, 0x123456u);
    EXPECT_EQ(colour1, 0xFF0001u);

    sensor_msgs_msg_dds__PointCloud2_ cloud{};
    ros::setPointCloud(&cloud, &coloured, 2, packed);
    EXPECT_EQ(cloud.height, 1u);
    EXPECT_EQ(cloud.width, 2u);
    EXPECT_EQ(cloud.row_step, 32u);
    EXPECT_EQ(cloud.data._length, 32u);
    EXPECT_EQ(cloud.fields._length, 4u);
    EXPECT_TRUE(cloud.is_dense);
    EXPECT_FALSE(cloud.is_bigendian);
}

}  // namespace
}  // namespace talvoro_tool
