#include "PointCloud.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#include "Cli.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};

}  // namespace

int fetchCloud(const DeviceHandle& camera, bool colour, const cv::Mat& fallback,
               std::vector<CloudPoint>* points, PointCloudFrame* frame, std::size_t* coloured) {
    // Organized: point i is pixel i, which finds its colour in the fallback image.
    const uint32_t flags = PointCloud_Organized | (colour ? uint32_t(PointCloud_Colored) : 0u);
    PointCloudInfo info{};
    int result = GetPointCloud(camera, flags, nullptr, nullptr, 0, &info);
    if (result != Ok && result != InvalidValue) return result;
    std::vector<float> xyz(std::size_t(info.count) * 3);
    std::vector<uint8_t> rgb(colour ? xyz.size() : 0);
    result =
        GetPointCloud(camera, flags, xyz.data(), colour ? rgb.data() : nullptr, info.count, &info);
    if (result != Ok) return result;
    const bool byPixel =
        fallback.type() == CV_8UC3 && fallback.cols == info.width && fallback.rows == info.height;
    points->clear();
    *coloured = 0;
    for (uint32_t i = 0; i < info.count; ++i) {
        const float* p = &xyz[3 * std::size_t(i)];
        if (std::isnan(p[2])) continue;
        CloudPoint point{p[0] * 1000.0f, p[1] * 1000.0f, p[2] * 1000.0f, 128, 128, 128};
        const uint8_t* c = colour ? &rgb[3 * std::size_t(i)] : nullptr;
        // Black: the colour camera does not see the point.
        if (c && (c[0] || c[1] || c[2])) {
            point.red = c[0], point.green = c[1], point.blue = c[2];
            ++*coloured;
        } else if (byPixel) {
            const cv::Vec3b bgr = fallback.at<cv::Vec3b>(int(i / info.width), int(i % info.width));
            point.red = bgr[2], point.green = bgr[1], point.blue = bgr[0];
        }
        points->push_back(point);
    }
    *frame = info.frame;
    return Ok;
}

std::string plyBytes(const std::vector<CloudPoint>& points,
                     const std::vector<std::string>& comments) {
    std::string ply = "ply\nformat binary_little_endian 1.0\n";
    for (const std::string& c : comments)
        ply += "comment " + c + "\n";
    ply += "element vertex " + std::to_string(points.size()) +
           "\nproperty float x\nproperty float y\nproperty float z\n"
           "property uchar red\nproperty uchar green\nproperty uchar blue\nend_header\n";
    // 15 bytes a vertex, packed; x86-64 is little-endian like the format.
    const std::size_t header = ply.size();
    ply.resize(header + points.size() * 15);
    for (std::size_t i = 0; i < points.size(); ++i) {
        const CloudPoint& p = points[i];
        const float metres[3] = {p.x / 1000.0f, p.y / 1000.0f, p.z / 1000.0f};
        char* out = &ply[header + i * 15];
        std::memcpy(out, metres, sizeof metres);
        out[12] = static_cast<char>(p.red), out[13] = static_cast<char>(p.green);
        out[14] = static_cast<char>(p.blue);
    }
    return ply;
}

void writePly(const std::string& path, const std::vector<CloudPoint>& points,
              const std::vector<std::string>& comments) {
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "wb"));
    if (!file) {
        const int err = errno;
        throw ToolError("cannot write '" + path + "': " + std::strerror(err));
    }
    const std::string ply = plyBytes(points, comments);
    bool ok = std::fwrite(ply.data(), 1, ply.size(), file.get()) == ply.size();
    ok = std::fclose(file.release()) == 0 && ok;
    if (!ok) {
        const int err = errno;
        throw ToolError("cannot write '" + path + "': " + std::strerror(err));
    }
}

}  // namespace talvoro_tool
