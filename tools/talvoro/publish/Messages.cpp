#include "Messages.h"

#include <cmath>
#include <cstring>

namespace talvoro_tool::ros {

using namespace Talvoro;

builtin_interfaces_msg_dds__Time_ timeOf(uint64_t ns) {
    builtin_interfaces_msg_dds__Time_ t;
    t.sec = static_cast<int32_t>(ns / 1000000000u);
    t.nanosec = static_cast<uint32_t>(ns % 1000000000u);
    return t;
}

void setHeader(std_msgs_msg_dds__Header_* header, uint64_t stampNs, const std::string& frameId) {
    header->stamp = timeOf(stampNs);
    // The writer only reads the string.
    header->frame_id = const_cast<char*>(frameId.c_str());
}

void borrowBytes(dds_sequence_uint8* sequence, const void* data, std::size_t size) {
    sequence->_maximum = sequence->_length = static_cast<uint32_t>(size);
    sequence->_buffer = static_cast<uint8_t*>(const_cast<void*>(data));
    sequence->_release = false;
}

void setImage(sensor_msgs_msg_dds__Image_* image, uint32_t width, uint32_t height,
              const char* encoding, uint32_t step, const void* data) {
    image->width = width;
    image->height = height;
    image->encoding = const_cast<char*>(encoding);
    image->is_bigendian = 0;
    image->step = step;
    borrowBytes(&image->data, data, std::size_t(step) * height);
}

CameraModel cameraModel(const CameraIntrinsics& in, uint32_t width, uint32_t height,
                        bool undistorted) {
    CameraModel m;
    m.width = width;
    m.height = height;
    if (!undistorted) std::memcpy(m.d, in.distortion, sizeof m.d);
    const double k[9] = {in.fx, 0, in.cx, 0, in.fy, in.cy, 0, 0, 1};
    std::memcpy(m.k, k, sizeof k);
    m.r[0] = m.r[4] = m.r[8] = 1;
    for (int row = 0; row < 3; ++row)
        for (int col = 0; col < 3; ++col)
            m.p[row * 4 + col] = k[row * 3 + col];
    return m;
}

void setCameraInfo(sensor_msgs_msg_dds__CameraInfo_* info, CameraModel* model) {
    info->width = model->width;
    info->height = model->height;
    info->distortion_model = const_cast<char*>("plumb_bob");
    info->d._maximum = info->d._length = 5;
    info->d._buffer = model->d;
    info->d._release = false;
    std::memcpy(info->k, model->k, sizeof info->k);
    std::memcpy(info->r, model->r, sizeof info->r);
    std::memcpy(info->p, model->p, sizeof info->p);
    info->binning_x = info->binning_y = 0;
    info->roi = sensor_msgs_msg_dds__RegionOfInterest_{0, 0, 0, 0, false};
}

bool hasTransform(const StereoExtrinsics& e) {
    for (const double v : e.rotation)
        if (v != 0) return true;
    return false;
}

Pose colourCameraPose(const StereoExtrinsics& e) {
    const double* r = e.rotation;
    // The inverse rotation is the transpose; the colour camera's origin is -R^T t.
    const double m[9] = {r[0], r[3], r[6], r[1], r[4], r[7], r[2], r[5], r[8]};
    Pose pose{};
    for (int i = 0; i < 3; ++i)
        pose.translation[i] = -(m[i * 3] * e.translation[0] + m[i * 3 + 1] * e.translation[1] +
                                m[i * 3 + 2] * e.translation[2]) /
                              1000.0;
    // Rotation matrix to quaternion, from the largest of the four candidates for stability.
    double x, y, z, w;
    const double trace = m[0] + m[4] + m[8];
    if (trace > 0) {
        const double s = 2 * std::sqrt(trace + 1);
        w = s / 4, x = (m[7] - m[5]) / s, y = (m[2] - m[6]) / s, z = (m[3] - m[1]) / s;
    } else if (m[0] > m[4] && m[0] > m[8]) {
        const double s = 2 * std::sqrt(1 + m[0] - m[4] - m[8]);
        w = (m[7] - m[5]) / s, x = s / 4, y = (m[1] + m[3]) / s, z = (m[2] + m[6]) / s;
    } else if (m[4] > m[8]) {
        const double s = 2 * std::sqrt(1 + m[4] - m[0] - m[8]);
        w = (m[2] - m[6]) / s, x = (m[1] + m[3]) / s, y = s / 4, z = (m[5] + m[7]) / s;
    } else {
        const double s = 2 * std::sqrt(1 + m[8] - m[0] - m[4]);
        w = (m[3] - m[1]) / s, x = (m[2] + m[6]) / s, y = (m[5] + m[7]) / s, z = s / 4;
    }
    // A calibrated rotation is only nearly orthonormal.
    const double norm = std::sqrt(x * x + y * y + z * z + w * w);
    pose.rotation[0] = x / norm, pose.rotation[1] = y / norm, pose.rotation[2] = z / norm;
    pose.rotation[3] = w / norm;
    return pose;
}

CloudLayout cloudLayout(bool colour) {
    CloudLayout layout;
    const char* names[] = {"x", "y", "z", "rgb"};
    const int fields = colour ? 4 : 3;
    for (int i = 0; i < fields; ++i)
        layout.fields.push_back({const_cast<char*>(names[i]), uint32_t(4 * i),
                                 sensor_msgs_msg_dds__PointField_Constants_FLOAT32, 1});
    layout.pointStep = 4 * fields;
    return layout;
}

void interleaveColour(const float* xyz, const uint8_t* rgb, uint32_t count, uint8_t* out) {
    for (uint32_t i = 0; i < count; ++i, xyz += 3, rgb += 3, out += 16) {
        std::memcpy(out, xyz, 12);
        // 0x00RRGGBB, little-endian.
        out[12] = rgb[2], out[13] = rgb[1], out[14] = rgb[0], out[15] = 0;
    }
}

void setPointCloud(sensor_msgs_msg_dds__PointCloud2_* cloud, CloudLayout* layout, uint32_t count,
                   const void* data) {
    cloud->height = 1;
    cloud->width = count;
    cloud->fields._maximum = cloud->fields._length = static_cast<uint32_t>(layout->fields.size());
    cloud->fields._buffer = layout->fields.data();
    cloud->fields._release = false;
    cloud->is_bigendian = false;
    cloud->point_step = layout->pointStep;
    cloud->row_step = layout->pointStep * count;
    borrowBytes(&cloud->data, data, std::size_t(cloud->row_step));
    // Only measured pixels become points.
    cloud->is_dense = true;
}

void setImu(sensor_msgs_msg_dds__Imu_* imu, const IMUDATAOUTPUT_TypeDef& sample) {
    constexpr double kMetresPerSecondSquaredPerMg = 9.80665e-3;
    constexpr double kRadiansPerDegree = M_PI / 180.0;
    imu->orientation = geometry_msgs_msg_dds__Quaternion_{0, 0, 0, 1};
    std::memset(imu->orientation_covariance, 0, sizeof imu->orientation_covariance);
    imu->orientation_covariance[0] = -1;
    imu->angular_velocity = {sample.gyroX * kRadiansPerDegree, sample.gyroY * kRadiansPerDegree,
                             sample.gyroZ * kRadiansPerDegree};
    std::memset(imu->angular_velocity_covariance, 0, sizeof imu->angular_velocity_covariance);
    imu->linear_acceleration = {sample.accX * kMetresPerSecondSquaredPerMg,
                                sample.accY * kMetresPerSecondSquaredPerMg,
                                sample.accZ * kMetresPerSecondSquaredPerMg};
    std::memset(imu->linear_acceleration_covariance, 0, sizeof imu->linear_acceleration_covariance);
}

}  // namespace talvoro_tool::ros
