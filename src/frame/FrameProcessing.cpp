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
        published_ = FrameSettings::none();
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
        _logCaught("initFrame");
        return OperationFailed;
    }
    return 1;
}

int TalvoroFrame::setupFrame(unsigned char* buffer, int size) {
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
    FrameSettings s;
    static_cast<Settings&>(s) = settings();
    s.mode = dataMode;
    s.farRange = depthRange == 1;
    return s;
}

int TalvoroFrame::processFrame() {
    try {
        FrameSettings settings;
        int result;
        {
            std::lock_guard<std::mutex> lock(frameMutex);
            settings = _snapshot();
            result = _separate(settings);
            if (result == Ok) {
                timestamp = captureTimestamp.load();
                published_ = settings;
            }
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
        _logCaught("processFrame");
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
    frame::separateRowPairs(raw, depthFrame, rawIRFrame, irFrame, s.irGain);
    if (s.filterFlags & kTemporalFilter) _temporalFilter();
    if (s.processingFlags & kPlanarization) _planarize();
    if (s.processingFlags & kUndistortion) _undistort();
    if (s.processingFlags & kFlyingPixel) _flyingPixel(s, false);
    _farRange(depthFrame, s);
    _scaleAndColor(depthFrame, s);
    return Ok;
}

int TalvoroFrame::_getDepthFrame(const unsigned char* raw, const FrameSettings& s) {
    if (!raw || frameBytes < kImageBytes) return InvalidFrameBuffer;
    std::memcpy(depthFrame.ptr(), raw, kImageBytes);
    if (s.filterFlags & kTemporalFilter) _temporalFilter();
    if (s.processingFlags & kPlanarization) _planarize();
    // Flying pixels before undistortion here, after it in mode 0: both orders are kept on
    // purpose (pinned by Undistortion.FlyingPixelsComeBeforeItOnlyInModeTwo).
    if (s.processingFlags & kFlyingPixel) _flyingPixel(s, false);
    if (s.processingFlags & kUndistortion) _undistort();
    _farRange(depthFrame, s);
    _scaleAndColor(depthFrame, s);
    return Ok;
}

int TalvoroFrame::_getIRFrame(const unsigned char* raw, const FrameSettings& s) {
    if (!raw || frameBytes < kImageBytes) return InvalidFrameBuffer;
    for (int r = 0; r < kHeight; ++r) {
        frame::copyWithGain(raw + size_t(r) * kWidth * 2, rawIRFrame.ptr<uint16_t>(r),
                            irFrame.ptr<uint16_t>(r), kWidth, s.irGain);
    }
    return Ok;
}

int TalvoroFrame::_getDepthIrRgbFrame(const unsigned char* raw, const FrameSettings& s) {
    const frame::MultiplexedLayout layout{rgbdFrameBytes, size_t(rgbLineWords) * 8,
                                          int(rgbLineCount), s.mode == 5};
    if (layout.frameBytes == 0) return InvalidFrameBuffer;
    const int separated = frame::separateMultiplexed(raw, raw ? frameBytes : 0, layout, depthFrame,
                                                     rawIRFrame, irFrame, rgbFrame, s.irGain);
    if (separated != Ok) return separated;
    if (s.filterFlags & kTemporalFilter) _temporalFilter();
    if (s.processingFlags & kPlanarization) _planarize();
    _mapDepth(s);
    const bool registered = _usesRegisteredDepth(s.mode, s.processingFlags, s.calibValidFlags);
    if (s.processingFlags & kFlyingPixel) _flyingPixel(s, registered);
    _scaleAndColor(registered ? registeredDepth : depthFrame, s);
    return Ok;
}

int TalvoroFrame::_getRgbFrame(const unsigned char* raw) {
    const size_t bytes = rgbFrame.total() * rgbFrame.elemSize();
    if (!raw || bytes == 0 || !rgbFrame.isContinuous() || frameBytes < bytes)
        return InvalidFrameBuffer;
    std::memcpy(rgbFrame.ptr(), raw, bytes);
    return Ok;
}

void TalvoroFrame::_temporalFilter() {
    if (depthHistory.empty()) return;
    uint16_t* depth = depthFrame.ptr<uint16_t>();
    if (settings().historyReady) {
        const uint16_t* history[255];
        const size_t count = std::min<size_t>(depthHistory.size(), 255);
        for (size_t k = 0; k < count; ++k)
            history[k] = depthHistory[k].get();
        frame::temporalAverage(depth, history, count, temporalThreshold, kPixels);
    }
    bool rotate = false;
    _change([&](Settings& s) {
        if (!(s.filterFlags & kTemporalFilter)) return;  // switched off meanwhile
        if (s.temporalCount < temporalWarmup) ++s.temporalCount;
        if (s.temporalCount == temporalWarmup) {
            s.historyReady = true;
            rotate = true;
        }
    });
    if (rotate) {
        // The oldest image becomes the newest: the last buffer moves to the front.
        std::rotate(depthHistory.begin(), depthHistory.end() - 1, depthHistory.end());
        std::memcpy(depthHistory.front().get(), depth, kImageBytes);
    }
}

void TalvoroFrame::_planarize() {
    frame::planarize(depthFrame.ptr<uint16_t>(), thetaMat.ptr<double>(), thetaFloat.ptr<float>(),
                     kPixels);
}

void TalvoroFrame::_undistort() {
    // Only with a usable calibration; otherwise the depth stays as it is.
    if (vgaUndistort.apply(depthFrame, undistortedDepth, workers))
        undistortedDepth.copyTo(depthFrame);
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
    if (!(s.processingFlags & kRgbdMapping)) {
        if (s.processingFlags & kUndistortion) _undistort();
        _farRange(depthFrame, s);
        return;
    }
    const bool vga = s.mode == 4 && (s.calibValidFlags & kVgaCalibration) == kVgaCalibration;
    const bool hd = s.mode == 5 && (s.calibValidFlags & kHdCalibration) == kHdCalibration;
    if (!vga && !hd) {
        // Mapping asked for without its calibration: doubled whatever the range, on purpose
        // (pinned by Separation.MappingWithoutCalibrationDoublesEvenInNearRange).
        frame::doubleSaturated(depthFrame.ptr<uint16_t>(), depthFrame.total());
        return;
    }
    if (hd && (hdDepthCameraMatrix.empty() || hdRgbCameraMatrix.empty() ||
               hdRgbDistortion.empty() || hdExtrinsic.empty() || depthFrame.empty())) {
        writeLog(7, "Input mat is empty " + _tag());
        return;
    }
    const frame::UndistortMap& map = vga ? vgaUndistort : hdUndistort;
    frame::DepthRegistration& registration = vga ? vgaRegistration : hdRegistration;
    const cv::Size size = vga ? cv::Size(640, 480) : cv::Size(1280, 720);
    ensureZeroed(registeredDepth, size.height, size.width, CV_16UC1);
    bool mapped = map.apply(depthFrame, undistortedDepth, workers);
    if (mapped) {
        _farRange(undistortedDepth, s);
        mapped = registration.apply(undistortedDepth, registeredDepth, workers);
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

void TalvoroFrame::_scaleAndColor(const cv::Mat& depth, const FrameSettings& s) {
    _restoreRetired();
    if (depth.empty()) {
        prevDepthFrame.release();
        depthcolormap.release();
        return;
    }
    depth.convertTo(prevDepthFrame, CV_8U, s.depthScale(), -s.depthOffset());
    post_processing(prevDepthFrame);
}

bool TalvoroFrame::_usesRegisteredDepth(int mode, uint32_t flags, uint16_t calib) {
    return mode == 5 && (flags & kRgbdMapping) && (calib & kHdCalibration) == kHdCalibration;
}

cv::Size TalvoroFrame::_averagingSize(int mode, uint32_t flags) {
    return mode == 5 && (flags & kRgbdMapping) ? cv::Size(1280, 720) : cv::Size(640, 480);
}

}  // namespace Talvoro
