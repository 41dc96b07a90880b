// The ROS 2 messages of `talvoro publish`, filled from what the library hands out. The message
// structures are those idlc generates from idl/*.idl; their strings and sequences point at memory
// the caller keeps (nothing here allocates per message), valid until the message is written.
#ifndef TALVORO_TOOL_PUBLISH_MESSAGES_H
#define TALVORO_TOOL_PUBLISH_MESSAGES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "TalvoroSDK.h"
#include "sensor_msgs.h"
#include "tf2_msgs.h"

namespace talvoro_tool::ros {

// Image encodings (sensor_msgs/image_encodings.hpp).
constexpr const char kDepthEncoding[] = "16UC1";  // millimetres
constexpr const char kIrEncoding[] = "mono16";
constexpr const char kRgbEncoding[] = "rgb8";
constexpr const char kUyvyEncoding[] = "yuv422";  // U Y0 V Y1, as the camera delivers colour

// A ROS time from nanoseconds since the epoch.
builtin_interfaces_msg_dds__Time_ timeOf(uint64_t ns);

void setHeader(std_msgs_msg_dds__Header_* header, uint64_t stampNs, const std::string& frameId);

// Points a byte sequence at `size` bytes the message does not own.
void borrowBytes(dds_sequence_uint8* sequence, const void* data, std::size_t size);

// An image of `height` rows of `step` bytes at `data`, little-endian.
void setImage(sensor_msgs_msg_dds__Image_* image, uint32_t width, uint32_t height,
              const char* encoding, uint32_t step, const void* data);

// What a sensor_msgs/CameraInfo says about an image of width x height taken through a camera
// with these intrinsics: "plumb_bob" distortion (k1, k2, p1, p2, k3; all zero once the image is
// undistorted), k the camera matrix, r the identity (no stereo rectification), p = [k | 0].
struct CameraModel {
    uint32_t width = 0;
    uint32_t height = 0;
    double d[5] = {};
    double k[9] = {};
    double r[9] = {};
    double p[12] = {};
};
CameraModel cameraModel(const Talvoro::CameraIntrinsics& intrinsics, uint32_t width,
                        uint32_t height, bool undistorted);
// The message points into `model`.
void setCameraInfo(sensor_msgs_msg_dds__CameraInfo_* info, CameraModel* model);

// Where the colour camera sits in the depth camera's frame: the inverse of the calibration's
// depth-to-colour transform (which maps depth camera coordinates to colour camera coordinates,
// translation in millimetres), in metres, the rotation as a unit quaternion.
struct Pose {
    double translation[3];
    double rotation[4];  // x, y, z, w
};
Pose colourCameraPose(const Talvoro::StereoExtrinsics& depthToColour);
// Whether the calibration holds a transform at all (an unloaded one is all zero).
bool hasTransform(const Talvoro::StereoExtrinsics& depthToColour);

// The point layout of a cloud: float32 x, y, z (metres) and, with colour, "rgb" as ROS packs it
// (a float32 field whose bits are 0x00RRGGBB).
struct CloudLayout {
    std::vector<sensor_msgs_msg_dds__PointField_> fields;
    uint32_t pointStep = 0;
};
CloudLayout cloudLayout(bool colour);
// Writes `count` points of 16 bytes (x, y, z, rgb) from the library's separate xyz and rgb
// arrays.
void interleaveColour(const float* xyz, const uint8_t* rgb, uint32_t count, uint8_t* out);
// A dense cloud (height 1) of `count` points at `data`; the message points into `layout`.
void setPointCloud(sensor_msgs_msg_dds__PointCloud2_* cloud, CloudLayout* layout, uint32_t count,
                   const void* data);

// An IMU sample (mg, degrees per second) in SI units; there is no orientation estimate, and the
// covariances are unknown.
void setImu(sensor_msgs_msg_dds__Imu_* imu, const Talvoro::IMUDATAOUTPUT_TypeDef& sample);

}  // namespace talvoro_tool::ros

#endif
