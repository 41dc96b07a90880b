// TalvoroFrame: raw buffer hand-over, separation by data mode and the depth pipeline.
#include <algorithm>
#include <cstring>
#include <new>

#include "frame/FrameLog.h"
#include "frame/Planarization.h"
#include "frame/Separation.h"
#include "frame/TalvoroFrame.h"
#include "frame/TemporalFilter.h"
#include "log/Log.h"
#include "log/TALVOROError.h"

namespace Talvoro {

using frame::kHeight;
using frame::kImageBytes;
using frame::kWidth;

namespace {

constexpr size_t kPixels = size_t(kWidth) * kHeight;

// Flying-pixel parameters per depth range: depth low/high (mm), threshold low/high.
struct FlyingPixelSet {
    int depthLow, depthHigh, thresholdLow, thresholdHigh;
};
constexpr FlyingPixelSet kNearSet{200, 1200, 10, 20};
constexpr FlyingPixelSet kFarSet{1000, 6000, 20, 40};

// The colour image of data modes 4 to 9 and, for 4 to 7, the multiplexed layout (8-byte words
// per colour line, colour lines); modes 8 and 9 leave the layout as it was.
struct ColourMode {
    int rows, cols;
    uint32_t frameBytes, lineWords, lineCount;
};
constexpr ColourMode kColourModes[6] = {
    {480, 640, 1536000, 160, 480},  {720, 1280, 2770560, 321, 720}, {480, 640, 1536000, 160, 480},
    {720, 1280, 2770560, 321, 720}, {1080, 1920, 0, 0, 0},          {1200, 1920, 0, 0, 0}};

// (Re)allocates `image` zeroed when it does not have this shape: images handed out before the
// first frame of a mode then hold zeros, not whatever the memory held.
void ensureZeroed(cv::Mat& image, int rows, int cols, int type) {
    if (image.rows != rows || image.cols != cols || image.type() != type)
        image = cv::Mat::zeros(rows, cols, type);
}

}  // namespace

int TalvoroFrame::initFrame(int mode) {
    if (mode < 0) return 0;
    try {
        std::lock_guard<std::mutex> lock(frameMutex);
        dataMode = mode;
        ensureZeroed(depthFrame, kHeight, kWidth, CV_16UC1);
        if (mode >= 4 && mode <= 9) {
            const ColourMode& c = kColourModes[mode - 4];
            if (c.frameBytes) {
                rgbdFrameBytes = c.frameBytes;
                rgbLineWords = c.lineWords;
                rgbLineCount = c.lineCount;
            }
            ensureZeroed(rgbFrame, c.rows, c.cols, CV_8UC2);
        }
        tofLineWords = 120;
        // A new mode brings a new frame size: the next buffer sizes the private copy afresh.
        frameSeparateBuf.reset();
        frameLength = 0;
        frameBytes = 0;
    } catch (...) {
        return OperationFailed;
    }
    return 1;
}

int TalvoroFrame::setupFrame(unsigned char* buffer, int size) {
    updateScaling();
    std::unique_lock<std::mutex> lock(frameMutex);
    if (frameSeparateBuf) {
        if (size == 0) {
            frameSeparateBuf.reset();
            frameLength = 0;
            frameBytes = 0;
        } else if (size < 0 || !buffer) {
            frameBytes = 0;
        } else {
            // Never more than the copy holds; a shorter buffer is recorded as such, so that
            // processFrame does not take the rest of an older frame for this one.
            frameBytes = std::min(uint32_t(size), frameLength);
            std::memcpy(frameSeparateBuf.get(), buffer, frameBytes);
        }
        return setError(Ok);
    }
    frameBytes = 0;
    if (size <= 0 || !buffer) return setError(Ok);
    if (frame::logPasses(1)) writeLog(1, "\nTalvoroSDK:Maxlength in setup frame is " + _tag());
    frameSeparateBuf.reset(new (std::nothrow) unsigned char[size_t(size)]);
    if (!frameSeparateBuf) {
        lock.unlock();
        writeLog(7, "\nTalvoroSDK:frameSeparateBuf mem alloc failed " + _tag());
        return setError(OperationFailed);
    }
    frameLength = uint32_t(size);
    frameBytes = frameLength;
    std::memcpy(frameSeparateBuf.get(), buffer, frameBytes);
    return setError(Ok);
}

TalvoroFrame::FrameSettings TalvoroFrame::_snapshot() const {
    return {dataMode, processingFlags, filterFlags, calibValidFlags, irGain, depthRange == 1};
}

int TalvoroFrame::processFrame() {
    try {
        FrameSettings settings;
        int result;
        {
            std::lock_guard<std::mutex> lock(frameMutex);
            settings = _snapshot();
            result = _separate(settings);
            if (result == Ok) timestamp = captureTimestamp.load();
        }
        if (result != Ok) {
            if (result == InvalidFrameBuffer)
                writeLog(7, "\nTalvoroSDK:InvalidBuffer in process frame " + _tag());
            return setError(result);
        }
        _placeAverageWindow(settings);
        return setError(Ok);
    } catch (...) {
        // Out of memory in an image allocation, or OpenCV refusing one of its calls.
        return setError(OperationFailed);
    }
}

int TalvoroFrame::_separate(const FrameSettings& s) {
    const unsigned char* raw = frameSeparateBuf.get();
    switch (s.mode) {
        case 0:
            return _getDepthIRFrame(raw, s);
        case 2:
            return _getDepthFrame(raw, s);
        case 3:
            return _getIRFrame(raw, s);
        case 4:
        case 5:
            return _getDepthIrRgbFrame(raw, s);
        case 6:
        case 7:
        case 8:
        case 9:
            return _getRgbFrame(raw);
        default:
            return Ok;  // mode 1 and unknown modes carry no image
    }
}

int TalvoroFrame::_getDepthIRFrame(const unsigned char* raw, const FrameSettings& s) {
    if (!raw || frameBytes < 2 * kImageBytes) return InvalidFrameBuffer;
    frame::separateRowPairs(raw, depthFrame, rawIRFrame, irFrame, s.gain);
    if (s.filters & kTemporalFilter) {
        temporalBusy = 1;
        _temporalFilter(s);
        temporalBusy = 0;
    }
    if (s.flags & kPlanarization) _planarize(s);
    if (s.flags & kUndistortion) _undistort();
    if (s.flags & kFlyingPixel) _flyingPixel(s, false);
    _farRange(depthFrame, s);
    _scaleAndColor(depthFrame);
    return Ok;
}

int TalvoroFrame::_getDepthFrame(const unsigned char* raw, const FrameSettings& s) {
    if (!raw || frameBytes < kImageBytes) return InvalidFrameBuffer;
    std::memcpy(depthFrame.ptr(), raw, kImageBytes);
    if (s.filters & kTemporalFilter) _temporalFilter(s);
    if (s.flags & kPlanarization) _planarize(s);
    // Flying pixels before undistortion here, after it in mode 0: both orders are intended.
    if (s.flags & kFlyingPixel) _flyingPixel(s, false);
    if (s.flags & kUndistortion) _undistort();
    _farRange(depthFrame, s);
    _scaleAndColor(depthFrame);
    return Ok;
}

int TalvoroFrame::_getIRFrame(const unsigned char* raw, const FrameSettings& s) {
    if (!raw || frameBytes < kImageBytes) return InvalidFrameBuffer;
    for (int r = 0; r < kHeight; ++r) {
        frame::copyWithGain(raw + size_t(r) * kWidth * 2, rawIRFrame.ptr<uint16_t>(r),
                            irFrame.ptr<uint16_t>(r), kWidth, s.gain);
    }
    return Ok;
}

int TalvoroFrame::_getDepthIrRgbFrame(const unsigned char* raw, const FrameSettings& s) {
    const frame::MultiplexedLayout layout{rgbdFrameBytes, size_t(rgbLineWords) * 8,
                                          int(rgbLineCount), s.mode == 5};
    if (layout.frameBytes == 0) return InvalidFrameBuffer;
    const int separated = frame::separateMultiplexed(raw, raw ? frameBytes : 0, layout, depthFrame,
                                                     rawIRFrame, irFrame, rgbFrame, s.gain);
    if (separated != Ok) return separated;
    if (s.filters & kTemporalFilter) _temporalFilter(s);
    if (s.flags & kPlanarization) _planarize(s);
    _mapDepth(s);
    const bool registered = _usesRegisteredDepth(s.mode, s.flags, s.calib);
    if (s.flags & kFlyingPixel) _flyingPixel(s, registered);
    _scaleAndColor(registered ? registeredDepth : depthFrame);
    return Ok;
}

int TalvoroFrame::_getRgbFrame(const unsigned char* raw) {
    const size_t bytes = rgbFrame.total() * rgbFrame.elemSize();
    if (!raw || bytes == 0 || !rgbFrame.isContinuous() || frameBytes < bytes)
        return InvalidFrameBuffer;
    std::memcpy(rgbFrame.ptr(), raw, bytes);
    return Ok;
}

void TalvoroFrame::_temporalFilter(const FrameSettings&) {
    if (depthHistory.empty()) return;
    uint16_t* depth = depthFrame.ptr<uint16_t>();
    if (historyReady) {
        const uint16_t* history[255];
        const size_t count = std::min<size_t>(depthHistory.size(), 255);
        for (size_t k = 0; k < count; ++k)
            history[k] = depthHistory[k].get();
        frame::temporalAverage(depth, history, count, temporalThreshold, kPixels);
    }
    if (!(filterFlags & kTemporalFilter)) return;  // switched off meanwhile
    uint8_t count = temporalCount;
    if (count < temporalWarmup) temporalCount = ++count;
    if (count == temporalWarmup) {
        historyReady = 1;
        // The oldest image becomes the newest: the last buffer moves to the front.
        std::rotate(depthHistory.begin(), depthHistory.end() - 1, depthHistory.end());
        std::memcpy(depthHistory.front().get(), depth, kImageBytes);
    }
}

void TalvoroFrame::_planarize(const FrameSettings&) {
    frame::planarize(depthFrame.ptr<uint16_t>(), thetaMat.ptr<double>(), thetaFloat.ptr<float>(),
                     kPixels);
}

void TalvoroFrame::_undistort() {
    // Only with a usable calibration; otherwise the depth stays as it is.
    if (vgaUndistort.apply(depthFrame, undistortedDepth)) undistortedDepth.copyTo(depthFrame);
}

void TalvoroFrame::_flyingPixel(const FrameSettings& s, bool registered) {
    const FlyingPixelSet& p = s.farRange ? kFarSet : kNearSet;
    cv::Mat& depth = registered ? registeredDepth : depthFrame;
    cv::Mat& filtered = registered ? filteredRegisteredDepth : filteredDepth;
    if (depth.empty()) return;
    ensureZeroed(filtered, depth.rows, depth.cols, CV_16UC1);
    flyingPixelFilter(depth, depth.cols, depth.rows, p.depthLow, p.depthHigh, p.thresholdLow,
                      p.thresholdHigh, filtered);
    filtered.copyTo(depth);
}

void TalvoroFrame::_farRange(cv::Mat& depth, const FrameSettings& s) {
    if (s.farRange) frame::doubleSaturated(depth.ptr<uint16_t>(), depth.total());
}

void TalvoroFrame::_mapDepth(const FrameSettings& s) {
    if (!(s.flags & kRgbdMapping)) {
        if (s.flags & kUndistortion) _undistort();
        _farRange(depthFrame, s);
        return;
    }
    const bool vga = s.mode == 4 && (s.calib & kVgaCalibration) == kVgaCalibration;
    const bool hd = s.mode == 5 && (s.calib & kHdCalibration) == kHdCalibration;
    if (!vga && !hd) {
        // Mapping asked for without its calibration: doubled whatever the range.
        frame::doubleSaturated(depthFrame.ptr<uint16_t>(), depthFrame.total());
        return;
    }
    if (hd && (hdDepthCameraMatrix.empty() || hdRgbCameraMatrix.empty() ||
               hdRgbDistortion.empty() || hdExtrinsic.empty() || depthFrame.empty())) {
        writeLog(7, "Input mat is empty " + _tag());
        return;
    }
    const frame::UndistortMap& map = vga ? vgaUndistort : hdUndistort;
    const frame::DepthRegistration& registration = vga ? vgaRegistration : hdRegistration;
    const cv::Size size = vga ? cv::Size(640, 480) : cv::Size(1280, 720);
    ensureZeroed(registeredDepth, size.height, size.width, CV_16UC1);
    bool mapped = map.apply(depthFrame, undistortedDepth);
    if (mapped) {
        _farRange(undistortedDepth, s);
        mapped = registration.apply(undistortedDepth, registeredDepth);
    }
    if (!mapped) {
        // What OpenCV would have thrown on for this calibration.
        writeLog(7, "registerDepthFailed" + _tag());
        return;
    }
    // Mode 4 publishes depth in the colour image's geometry; mode 5 keeps it separate.
    if (vga) registeredDepth.copyTo(depthFrame);
}

void TalvoroFrame::_restoreRetired() {
    if (prevDepthFrame.empty() && !retiredPrevDepth.empty())
        std::swap(prevDepthFrame, retiredPrevDepth);
    if (depthcolormap.empty() && !retiredColorMap.empty())
        std::swap(depthcolormap, retiredColorMap);
    retiredPrevDepth.release();
    retiredColorMap.release();
}

void TalvoroFrame::_scaleAndColor(const cv::Mat& depth) {
    _restoreRetired();
    if (depth.empty()) {
        prevDepthFrame.release();
        depthcolormap.release();
        return;
    }
    depth.convertTo(prevDepthFrame, CV_8U, depthScale.load(), -depthOffset.load());
    post_processing(prevDepthFrame);
}

bool TalvoroFrame::_usesRegisteredDepth(int mode, uint32_t flags, uint16_t calib) const {
    return mode == 5 && (flags & kRgbdMapping) && (calib & kHdCalibration) == kHdCalibration;
}

cv::Size TalvoroFrame::_averagingSize(int mode, uint32_t flags) const {
    return mode == 5 && (flags & kRgbdMapping) ? cv::Size(1280, 720) : cv::Size(640, 480);
}

}  // namespace Talvoro
