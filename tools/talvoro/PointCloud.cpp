#include "PointCloud.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#include <opencv2/calib3d.hpp>

#include "Cli.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

cv::Mat cameraMatrix(const CameraIntrinsics& in) {
    return (cv::Mat_<double>(3, 3) << in.fx, 0, in.cx, 0, in.fy, in.cy, 0, 0, 1);
}

cv::Mat distortion(const CameraIntrinsics& in) {
    return cv::Mat(1, 5, CV_64F, const_cast<double*>(in.distortion)).clone();
}

// The normalised image coordinates (x/z, y/z) of every pixel's ray, row by row.
cv::Mat pixelRays(int width, int height, const CameraIntrinsics& camera, bool undistorted) {
    cv::Mat pixels(1, width * height, CV_64FC2);
    auto* p = pixels.ptr<cv::Vec2d>();
    for (int v = 0; v < height; ++v)
        for (int u = 0; u < width; ++u)
            p[v * width + u] = cv::Vec2d(u, v);
    cv::Mat rays;
    if (undistorted) {
        rays.create(pixels.size(), CV_64FC2);
        auto* r = rays.ptr<cv::Vec2d>();
        for (int i = 0; i < width * height; ++i)
            r[i] = cv::Vec2d((p[i][0] - camera.cx) / camera.fx, (p[i][1] - camera.cy) / camera.fy);
    } else {
        // The lens bends strongly towards the corners: iterate to convergence, not 5 times.
        cv::undistortPoints(
            pixels, rays, cameraMatrix(camera), distortion(camera), cv::noArray(), cv::noArray(),
            cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 100, 1e-10));
    }
    return rays;
}

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};

}  // namespace

std::vector<CloudPoint> backProject(const cv::Mat& depth, const CameraIntrinsics& camera,
                                    DepthGeometry geometry, const cv::Mat& pixelColours) {
    CV_Assert(depth.type() == CV_16UC1);
    const bool coloured = !pixelColours.empty() && pixelColours.type() == CV_8UC3 &&
                          pixelColours.size() == depth.size();
    const cv::Mat rays = pixelRays(depth.cols, depth.rows, camera, geometry.undistorted);
    const auto* ray = rays.ptr<cv::Vec2d>();
    std::vector<CloudPoint> points;
    points.reserve(static_cast<std::size_t>(depth.total()));
    for (int v = 0; v < depth.rows; ++v) {
        const uint16_t* row = depth.ptr<uint16_t>(v);
        for (int u = 0; u < depth.cols; ++u) {
            if (row[u] == 0) continue;
            const cv::Vec2d r = ray[v * depth.cols + u];
            // A planarized value is z itself; a radial one is the length along the ray.
            const double scale =
                geometry.planarized ? row[u] : row[u] / std::sqrt(r[0] * r[0] + r[1] * r[1] + 1);
            CloudPoint p{static_cast<float>(r[0] * scale),
                         static_cast<float>(r[1] * scale),
                         static_cast<float>(scale),
                         128,
                         128,
                         128};
            if (coloured) {
                const cv::Vec3b bgr = pixelColours.at<cv::Vec3b>(v, u);
                p.red = bgr[2], p.green = bgr[1], p.blue = bgr[0];
            }
            points.push_back(p);
        }
    }
    return points;
}

std::size_t colourFromCamera(std::vector<CloudPoint>* points, const cv::Mat& bgr,
                             const CameraIntrinsics& colour,
                             const StereoExtrinsics& depthToColour) {
    if (points->empty() || bgr.empty() || colour.fx == 0) return 0;
    cv::Mat xyz(static_cast<int>(points->size()), 1, CV_64FC3);
    for (std::size_t i = 0; i < points->size(); ++i) {
        const CloudPoint& p = (*points)[i];
        xyz.at<cv::Vec3d>(static_cast<int>(i)) = cv::Vec3d(p.x, p.y, p.z);
    }
    const cv::Mat rotation(3, 3, CV_64F, const_cast<double*>(depthToColour.rotation));
    cv::Mat rvec;
    cv::Rodrigues(rotation, rvec);
    const cv::Mat tvec(3, 1, CV_64F, const_cast<double*>(depthToColour.translation));
    std::vector<cv::Point2d> uv;
    cv::projectPoints(xyz, rvec, tvec, cameraMatrix(colour), distortion(colour), uv);

    std::size_t count = 0;
    for (std::size_t i = 0; i < uv.size(); ++i) {
        CloudPoint& p = (*points)[i];
        // Behind the colour camera a projection means nothing.
        const double* R = depthToColour.rotation;
        if (R[6] * p.x + R[7] * p.y + R[8] * p.z + depthToColour.translation[2] <= 0) continue;
        const int u = static_cast<int>(std::lround(uv[i].x));
        const int v = static_cast<int>(std::lround(uv[i].y));
        if (u < 0 || v < 0 || u >= bgr.cols || v >= bgr.rows) continue;
        const cv::Vec3b c = bgr.at<cv::Vec3b>(v, u);
        p.red = c[2], p.green = c[1], p.blue = c[0];
        ++count;
    }
    return count;
}

void writePly(const std::string& path, const std::vector<CloudPoint>& points,
              const std::vector<std::string>& comments) {
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "wb"));
    if (!file) {
        const int err = errno;
        throw ToolError("cannot write '" + path + "': " + std::strerror(err));
    }
    std::string header = "ply\nformat binary_little_endian 1.0\n";
    for (const std::string& c : comments)
        header += "comment " + c + "\n";
    header += "element vertex " + std::to_string(points.size()) +
              "\nproperty float x\nproperty float y\nproperty float z\n"
              "property uchar red\nproperty uchar green\nproperty uchar blue\nend_header\n";
    bool ok = std::fwrite(header.data(), 1, header.size(), file.get()) == header.size();

    // 15 bytes a vertex, packed; x86-64 is little-endian like the format.
    std::vector<unsigned char> body(points.size() * 15);
    for (std::size_t i = 0; i < points.size(); ++i) {
        const CloudPoint& p = points[i];
        const float metres[3] = {p.x / 1000.0f, p.y / 1000.0f, p.z / 1000.0f};
        unsigned char* out = &body[i * 15];
        std::memcpy(out, metres, sizeof metres);
        out[12] = p.red, out[13] = p.green, out[14] = p.blue;
    }
    ok = ok && std::fwrite(body.data(), 1, body.size(), file.get()) == body.size();
    ok = std::fclose(file.release()) == 0 && ok;
    if (!ok) {
        const int err = errno;
        throw ToolError("cannot write '" + path + "': " + std::strerror(err));
    }
}

}  // namespace talvoro_tool
