// TalvoroFrame: construction, settings and the temporal filter's history store.
#include "frame/TalvoroFrame.h"

#include <new>

#include "frame/ColorMap.h"
#include "frame/FrameLog.h"
#include "frame/Separation.h"
#include "log/Log.h"

namespace Talvoro {

using frame::kHeight;
using frame::kWidth;

TalvoroFrame::TalvoroFrame() {
    thetaMat = cv::Mat::zeros(kHeight, kWidth, CV_64F);
    thetaFloat = cv::Mat::zeros(kHeight, kWidth, CV_32F);
    irFrame = cv::Mat::zeros(kHeight, kWidth, CV_16UC1);
    rawIRFrame = cv::Mat::zeros(kHeight, kWidth, CV_16UC1);
    depthFrame = cv::Mat::zeros(kHeight, kWidth, CV_16UC1);
    undistortedDepth = cv::Mat::zeros(kHeight, kWidth, CV_16UC1);
    filteredDepth = cv::Mat::zeros(kHeight, kWidth, CV_16UC1);
    filteredRegisteredDepth = cv::Mat::zeros(720, 1280, CV_16UC1);
    frame::colorMapTable(0);  // builds the tables now rather than in the first frame
}

TalvoroFrame::~TalvoroFrame() = default;

void TalvoroFrame::setDeviceIndex(uint32_t index, const std::string& name) {
    std::lock_guard<std::mutex> lock(labelMutex);
    currentDeviceIndex = index;
    label = name;
}

std::string TalvoroFrame::deviceLabel() const {
    std::lock_guard<std::mutex> lock(labelMutex);
    return label;
}

std::string TalvoroFrame::_tag() const {
    std::lock_guard<std::mutex> lock(labelMutex);
    return std::to_string(currentDeviceIndex.load()) + "   " + label;
}

void TalvoroFrame::_logCaught(const char* context) const noexcept {
    std::string tag;
    try {
        tag = _tag();
    } catch (...) {
    }
    logCaughtException(context, tag);
}

TalvoroFrame::Settings TalvoroFrame::settings() const {
    std::lock_guard<std::mutex> lock(settingsMutex);
    return settings_;
}

void TalvoroFrame::setIRGain(uint16_t gain) {
    _change([gain](Settings& s) { s.irGain = gain; });
}

void TalvoroFrame::setAveragingWindow(uint16_t width, uint16_t height) {
    _change([=](Settings& s) {
        s.avgWindowWidth = width;
        s.avgWindowHeight = height;
    });
}

void TalvoroFrame::setAvgIRDisplay(bool on) {
    _change([on](Settings& s) { s.avgIRDisplay = on; });
}

void TalvoroFrame::setProcessingFlags(uint32_t flags, bool on) {
    _change([=](Settings& s) {
        if (on)
            s.processingFlags |= flags;
        else
            s.processingFlags &= ~flags;
    });
}

void TalvoroFrame::markAveragesDue() {
    setProcessingFlags(kAverageDue, true);
}

bool TalvoroFrame::calibrationComplete() const {
    return (settings().calibValidFlags & kVgaCalibration) == kVgaCalibration;
}

int TalvoroFrame::setFilterType(int type, bool on) {
    switch (type) {
        case 0:
        case 2: {
            const uint8_t bit = type == 0 ? kSpatialFilter : kEdgeFilter;
            _change([=](Settings& s) {
                s.filterFlags = uint8_t(on ? s.filterFlags | bit : s.filterFlags & ~bit);
            });
            return 1;
        }
        case 1:
            if (on) {
                bool allocate = false;
                _change([&](Settings& s) {
                    s.filterFlags |= kTemporalFilter;
                    allocate = !s.historyAllocated;
                    s.historyAllocated = true;
                    s.historyReady = true;
                });
                if (allocate) allocateHistory();
            } else {
                _change([](Settings& s) {
                    s.historyReady = false;
                    s.filterFlags &= uint8_t(~kTemporalFilter);
                    s.temporalCount = 0;
                    s.historyAllocated = false;
                });
            }
            return 1;
        default:
            return 0;
    }
}

void TalvoroFrame::updateColorMap(int min, int max, int colormap) {
    _change([=](Settings& s) {
        if (colormap <= 21) s.colorMapType = uint8_t(colormap);
        s.depthMax = uint16_t(max);
        s.depthMin = uint16_t(min);
    });
}

int TalvoroFrame::updateDepthRange(uint16_t range) {
    if (range > 1) return 1;
    depthRange = range;
    {
        std::lock_guard<std::mutex> lock(frameMutex);
        // Released for the caller, but kept for the next frame to reuse: a colour map pointer
        // already handed out stays valid until then.
        if (!prevDepthFrame.empty()) retiredPrevDepth = prevDepthFrame;
        if (!depthcolormap.empty()) retiredColorMap = depthcolormap;
        prevDepthFrame.release();
        depthcolormap.release();
    }
    if (frame::logPasses(3))
        writeLog(3,
                 "\nTalvoroSDK:Updating depth range in TOFFrame and releasing prevDepthFrame and "
                 "depthcolormap " +
                     _tag());
    return 1;
}

void TalvoroFrame::setAvgRegion(int region) {
    uint32_t regions = 0;
    _change([&](Settings& s) {
        regions = s.avgRegionMode;
        if (region >= 0 && region < 32) regions ^= 1u << region;
        regions &= region == 1 ? ~1u : ~2u;
        s.avgRegionMode = regions;
        s.processingFlags |= kAverageDue;
    });
    if (regions == 0) clearAverages();
}

void TalvoroFrame::setDepthPos(DepthPtr position) {
    probe = uint64_t(uint32_t(position.x)) | uint64_t(uint32_t(position.y)) << 32;
    _change([position](Settings& s) {
        s.avgX = position.x;
        s.avgY = position.y;
    });
}

void TalvoroFrame::setCursorColor(int color) {
    const double v = color == 0 ? 255 : 0;
    _change([v](Settings& s) { s.cursorColor = {v, v, v, 0}; });
}

DepthPtr TalvoroFrame::depthPos() const {
    const uint64_t packed = probe;
    return DepthPtr{int32_t(uint32_t(packed)), int32_t(uint32_t(packed >> 32))};
}

void TalvoroFrame::setPositions(const std::vector<DepthPtr>& list) {
    std::lock_guard<std::mutex> lock(positionsMutex);
    try {
        depthPositions.assign(list.begin(), list.end());
    } catch (...) {
        depthPositions.clear();  // out of memory: an empty list rather than a thrown exception
        _logCaught("setPositions");
    }
}

std::vector<DepthPtr> TalvoroFrame::positions() const {
    std::lock_guard<std::mutex> lock(positionsMutex);
    return depthPositions;
}

void TalvoroFrame::clearAverages() {
    std::lock_guard<std::mutex> lock(frameMutex);
    averageResults = Averages{};
}

TalvoroFrame::Averages TalvoroFrame::averages() const {
    std::lock_guard<std::mutex> lock(frameMutex);
    return averageResults;
}

TalvoroFrame::Averages TalvoroFrame::calculateAverages() {
    try {
        const Settings s = settings();
        std::lock_guard<std::mutex> lock(frameMutex);
        _calculateAvgDepthIR(s.avgX, s.avgY, false, s);
        return averageResults;
    } catch (...) {
        // OpenCV refusing its statistics: the results stay as they were.
        _logCaught("calculateAverages");
    }
    return averages();
}

void TalvoroFrame::allocateHistory() {
    const int count = settings().historyLength;
    std::lock_guard<std::mutex> lock(frameMutex);
    depthHistory.clear();
    for (int i = 0; i < count; ++i) {
        // Zeroed: the first frames average with a defined history.
        std::unique_ptr<uint16_t[]> block(new (std::nothrow) uint16_t[size_t(kWidth) * kHeight]());
        if (!block) {
            depthHistory.clear();  // no history: the temporal filter is skipped
            return;
        }
        try {
            depthHistory.push_back(std::move(block));
        } catch (...) {
            depthHistory.clear();
            _logCaught("allocateHistory");
            return;
        }
    }
}

void TalvoroFrame::releaseHistory() {
    std::lock_guard<std::mutex> lock(frameMutex);
    depthHistory.clear();
    depthHistory.shrink_to_fit();
}

bool TalvoroFrame::hasHistory() const {
    std::lock_guard<std::mutex> lock(frameMutex);
    return !depthHistory.empty();
}

void TalvoroFrame::resetToDefaults() {
    _change([](Settings& s) { s = Settings{}; });
    clearAverages();
}

const cv::Mat& TalvoroFrame::image(Image which) const {
    switch (which) {
        case Image::Depth:
            return depthFrame;
        case Image::IR:
            return irFrame;
        case Image::RawIR:
            return rawIRFrame;
        case Image::Rgb:
            return rgbFrame;
        case Image::Registered:
            return registeredDepth;
        case Image::ScaledDepth:
            return prevDepthFrame;
        case Image::ColorMap:
            return depthcolormap;
        case Image::Theta:
            break;
    }
    return thetaMat;
}

}  // namespace Talvoro
