#include "Images.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "Cli.h"

namespace talvoro_tool {

using namespace Talvoro;

cv::Mat view(const ToFFrame& frame) {
    int type = -1, bytes = 0;
    switch (frame.pixel_format) {
        case PixelFormat_16Bit:
            type = CV_16UC1, bytes = 2;
            break;
        case PixelFormat_BGR:
            type = CV_8UC3, bytes = 3;
            break;
        case PixelFormat_UYVY:
            type = CV_8UC2, bytes = 2;
            break;
        default:
            return cv::Mat();
    }
    const uint64_t size = uint64_t(frame.width) * frame.height * bytes;
    if (!frame.frame_data || size == 0 || size != frame.total_size) return cv::Mat();
    return cv::Mat(frame.height, frame.width, type, frame.frame_data);
}

cv::Mat colourBgr(const ToFFrame& frame) {
    const cv::Mat uyvy = view(frame);
    if (uyvy.empty() || uyvy.type() != CV_8UC2) return cv::Mat();
    cv::Mat bgr;
    cv::cvtColor(uyvy, bgr, cv::COLOR_YUV2BGR_UYVY);
    return bgr;
}

cv::Mat colourMapWithHoles(const cv::Mat& colourMap, const cv::Mat& depth) {
    cv::Mat out = colourMap.clone();
    if (!out.empty() && depth.size() == out.size() && depth.type() == CV_16UC1)
        out.setTo(cv::Scalar::all(0), depth == 0);
    return out;
}

void writePng(const std::string& path, const cv::Mat& image) {
    // Encoded in memory and written here, so that a failure tells its cause and libpng has
    // nothing to print.
    std::vector<uchar> png;
    bool encoded = false;
    try {
        encoded = cv::imencode(".png", image, png);
    } catch (const cv::Exception&) {
    }
    if (!encoded)
        throw ToolError("cannot write '" + path + "': the image cannot be encoded as PNG");
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) {
        const int err = errno;
        throw ToolError("cannot write '" + path + "': " + std::strerror(err));
    }
    int err = 0;
    if (std::fwrite(png.data(), 1, png.size(), f) != png.size()) err = errno;
    if (std::fclose(f) != 0 && !err) err = errno;
    if (err) {
        std::remove(path.c_str());
        throw ToolError("cannot write '" + path + "': " + std::strerror(err));
    }
}

std::vector<std::string> saveImages(const Frames& frames, const std::string& dir) {
    const std::pair<const char*, cv::Mat> images[] = {
        {"depth-colormap.png",
         colourMapWithHoles(view(frames.depth_colormap_frame), view(frames.raw_depth_frame))},
        {"depth.png", view(frames.raw_depth_frame)},
        {"ir.png", view(frames.ir_frame)},
        {"colour.png", colourBgr(frames.rgb_frame)},
    };
    std::vector<std::string> written;
    for (const auto& [name, image] : images) {
        if (image.empty()) continue;
        const std::string path = dir + "/" + name;
        writePng(path, image);
        written.push_back(path);
    }
    return written;
}

}  // namespace talvoro_tool
