// TalvoroFrame: handing images out, and the region averages drawn onto the colour map.
#include <cmath>
#include <cstdio>

#include <opencv2/imgproc.hpp>

#include "frame/FrameLog.h"
#include "frame/LabelText.h"
#include "frame/TalvoroFrame.h"
#include "log/Log.h"
#include "log/TALVOROError.h"

namespace Talvoro {

namespace {

void describe(ToFFrame* out, const cv::Mat& image, uint8_t format, int64_t time) {
    out->frame_data = image.data;
    out->width = uint16_t(image.cols);
    out->height = uint16_t(image.rows);
    out->pixel_format = format;
    out->total_size = uint32_t(image.total() * image.elemSize());
    out->time_stamp = uint64_t(time);
}

// floor(sqrt(n)), exact for every 64-bit n.
uint64_t integerSqrt(uint64_t n) {
    uint64_t r = uint64_t(std::sqrt(double(n)));
    while (r > 0 && r * r > n)
        --r;
    while ((r + 1) * (r + 1) <= n)
        ++r;
    return r;
}

}  // namespace

int TalvoroFrame::getToFFrame(FrameType type, ToFFrame* frame) {
    if (timestamp != captureTimestamp) return TimeoutError;
    {
        std::lock_guard<std::mutex> lock(frameMutex);
        if (frame::logPasses(1))
            writeLog(1, "\nTalvoroSDK:Inside getToFFrame in TOFFrame " + _tag());
        const int mode = dataMode;
        const bool tof = mode == 0 || mode == 4 || mode == 5;
        const cv::Mat* image = nullptr;
        uint8_t format = PixelFormat_16Bit;
        bool valid = true;
        switch (type) {
            case IRFrame:
                valid = tof || mode == 3;
                image = &irFrame;
                break;
            case DepthColorMap:
                valid = tof || mode == 2;
                image = &depthcolormap;
                format = PixelFormat_BGR;
                break;
            case RGBFrame:
                valid = mode >= 4 && mode <= 9;
                image = &rgbFrame;
                format = PixelFormat_UYVY;
                break;
            case RawDepth: {
                valid = tof || mode == 2;
                const Settings s = settings();
                image = _usesRegisteredDepth(mode, s.processingFlags, s.calibValidFlags)
                            ? &registeredDepth
                            : &depthFrame;
                break;
            }
            default:
                break;  // no image, and no error either
        }
        if (!valid) return setError(InvalidFrameType);
        if (image && frame) describe(frame, *image, format, timestamp);
    }
    if (timestamp != captureTimestamp) return TimeoutError;
    return setError(Ok);
}

void TalvoroFrame::fillFrames(Frames* frames) {
    if (!frames) return;
    *frames = Frames{};
    const Settings s = settings();
    std::lock_guard<std::mutex> lock(frameMutex);
    const int mode = dataMode;
    const int64_t time = timestamp;
    const bool depthModes = mode >= 0 && mode <= 5;
    if (depthModes && mode != 3) {
        describe(&frames->depth_colormap_frame, depthcolormap, PixelFormat_BGR, time);
        const bool registered = _usesRegisteredDepth(mode, s.processingFlags, s.calibValidFlags);
        describe(&frames->raw_depth_frame, registered ? registeredDepth : depthFrame,
                 PixelFormat_16Bit, time);
    }
    if (mode >= 4) describe(&frames->rgb_frame, rgbFrame, PixelFormat_UYVY, time);
    if (depthModes && mode != 2) describe(&frames->ir_frame, irFrame, PixelFormat_16Bit, time);
}

void TalvoroFrame::_placeAverageWindow(const FrameSettings& s) {
    const uint32_t regions = s.avgRegionMode;
    if (regions == 0) return;
    const cv::Size size = _averagingSize(s.mode, s.processingFlags);
    int x = s.avgX, y = s.avgY;
    const bool moved = regions & 3;
    if (regions & 1) {
        x = size.width / 2;
        y = size.height / 2;
    } else if (regions & 2) {
        if (x < 0 || y < 0) return;
        const int hw = s.avgWindowWidth / 2, hh = s.avgWindowHeight / 2;
        // In 64 bits: the point may be anywhere up to INT32_MAX.
        x = int64_t(x) + hw < size.width ? std::max(x, hw) : size.width - hw;
        y = int64_t(y) + hh < size.height ? std::max(y, hh) : size.height - hh;
    }
    bool due = false;
    _change([&](Settings& live) {
        if (moved) {
            live.avgX = x;
            live.avgY = y;
        }
        due = (live.processingFlags & kAverageDue) && x >= 0 && y >= 0;
        if (due) live.processingFlags &= ~kAverageDue;
    });
    if (due) {
        std::lock_guard<std::mutex> lock(frameMutex);
        _calculateAvgDepthIR(x, y, true, s);
    }
}

void TalvoroFrame::_calculateAvgDepthIR(int x, int y, bool draw, const Settings& s) {
    const int mode = dataMode;
    const uint32_t flags = s.processingFlags;
    const cv::Size size = _averagingSize(mode, flags);
    const int W = size.width, H = size.height;
    if (unsigned(x) > unsigned(W - 1) || unsigned(y) > unsigned(H - 1)) return;

    const int ww = s.avgWindowWidth, wh = s.avgWindowHeight, hw = ww / 2, hh = wh / 2;
    int left = x < hw ? 0 : x - hw;
    int top = y < hh ? 0 : y - hh;
    // The label goes below the window, or above it near the bottom edge.
    const int ty = top + wh + 35 < H ? top + wh + 15 : top - 30;
    const int tx = W - left > 75 ? left : W - 75;
    if (x > W - hw) left = W - hw;
    if (y > H - hh) top = H - hh;
    const cv::Rect window(left, top, ww, wh);
    const bool canDraw = draw && depthcolormap.type() == CV_8UC3 && !depthcolormap.empty();
    const cv::Scalar colour(s.cursorColor[0], s.cursorColor[1], s.cursorColor[2], s.cursorColor[3]);
    char text[32];

    if (mode == 0 || mode == 1 || mode == 2 || mode == 4 || mode == 5) {
        const cv::Mat& depth =
            _usesRegisteredDepth(mode, flags, s.calibValidFlags) ? registeredDepth : depthFrame;
        // Pixels of the window beyond the image do not exist: they are neither valid nor
        // counted in the spread.
        const cv::Rect inside = window & cv::Rect(0, 0, depth.cols, depth.rows);
        uint64_t sum = 0, count = 0;
        for (int r = inside.y; r < inside.y + inside.height; ++r) {
            const uint16_t* row = depth.ptr<uint16_t>(r);
            for (int c = inside.x; c < inside.x + inside.width; ++c) {
                if (row[c] >= 1 && row[c] <= 65534) {
                    sum += row[c];
                    ++count;
                }
            }
        }
        const uint64_t quarter = (uint64_t(ww) * uint64_t(wh)) >> 2;
        const bool enough = count > 0 && count >= quarter;
        const uint64_t mean = enough ? sum / count : 0;
        averageResults.avgDepth = mean;
        if (frame::logPasses(3)) writeLog(3, "\nTalvoroSDK:Avg depth value : " + _tag());
        // Zeros enter the spread's sum but not its count: intended.
        uint64_t squares = 0;
        for (int r = inside.y; r < inside.y + inside.height; ++r) {
            const uint16_t* row = depth.ptr<uint16_t>(r);
            for (int c = inside.x; c < inside.x + inside.width; ++c) {
                if (row[c] == 65535) continue;
                const int64_t d = int64_t(mean) - row[c];
                squares += uint64_t(d * d);
            }
        }
        averageResults.depthStdDev = enough ? int32_t(integerSqrt(squares / count)) : 0;
        if (canDraw) {
            std::snprintf(text, sizeof text, "%d mm", int(mean));
            frame::drawLabel(depthcolormap, text, cv::Point(tx, ty), colour);
        }
    }

    const bool mapped = (mode == 4 || mode == 5) && (flags & kRgbdMapping);
    if (s.avgIRDisplay && (mode == 0 || mode == 1 || mode == 3 || mode == 4 || mode == 5) &&
        !mapped) {
        const cv::Rect inside = window & cv::Rect(0, 0, rawIRFrame.cols, rawIRFrame.rows);
        cv::Scalar mean(0), deviation(0);
        if (!inside.empty()) cv::meanStdDev(rawIRFrame(inside), mean, deviation);
        averageResults.irMean = int32_t(mean[0]);
        averageResults.irStdDev = int32_t(deviation[0]);
        if (canDraw) {
            std::snprintf(text, sizeof text, "%d", int(averageResults.irMean));
            frame::drawLabel(depthcolormap, text, cv::Point(tx, ty + 15), colour);
        }
    }
    if (canDraw) cv::rectangle(depthcolormap, window, colour, 1, cv::LINE_8);
    markAveragesDue();
    TALVOROError::cErrorNo = Ok;
}

}  // namespace Talvoro
