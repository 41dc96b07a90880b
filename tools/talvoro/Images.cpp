#include "Images.h"

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

std::vector<std::string> saveImages(const Frames& frames, const std::string& dir) {
    const std::pair<const char*, cv::Mat> images[] = {
        {"depth-colormap.png", view(frames.depth_colormap_frame)},
        {"depth.png", view(frames.raw_depth_frame)},
        {"ir.png", view(frames.ir_frame)},
        {"colour.png", colourBgr(frames.rgb_frame)},
    };
    std::vector<std::string> written;
    for (const auto& [name, image] : images) {
        if (image.empty()) continue;
        const std::string path = dir + "/" + name;
        bool ok = false;
        try {
            ok = cv::imwrite(path, image);
        } catch (const cv::Exception& e) {
            throw ToolError("cannot write '" + path + "': " + e.what());
        }
        if (!ok) throw ToolError("cannot write '" + path + "'");
        written.push_back(path);
    }
    return written;
}

}  // namespace talvoro_tool
