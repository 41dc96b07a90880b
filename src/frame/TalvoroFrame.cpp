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
    setCursorColor(0);
    updateScaling();
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

int TalvoroFrame::setFilterType(int type, bool on) {
    switch (type) {
        case 0:
        case 2: {
            const uint8_t bit = type == 0 ? kSpatialFilter : kEdgeFilter;
            if (on)
                filterFlags |= bit;
            else
                filterFlags &= uint8_t(~bit);
            return 1;
        }
        case 1:
            if (on) {
                filterFlags |= kTemporalFilter;
                if (!historyAllocated) {
                    allocateHistory();
                    historyAllocated = 1;
                }
                historyReady = 1;
            } else {
                historyReady = 0;
                filterFlags &= uint8_t(~kTemporalFilter);
                temporalCount = 0;
                historyAllocated = 0;
            }
            return 1;
        default:
            return 0;
    }
}

void TalvoroFrame::updateColorMap(int min, int max, int colormap) {
    if (colormap <= 21) colorMapType = uint8_t(colormap);
    depthMax = uint16_t(max);
    depthMin = uint16_t(min);
    updateScaling();
}

void TalvoroFrame::updateScaling() {
    const int max = depthMax, min = depthMin;
    const double scale = 255.0 / (max - min);
    const double offset = min * scale;
    depthScale = scale;
    depthOffset = offset;
    depthSpan = max * scale - offset;
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
    uint32_t regions = avgRegionMode;
    if (region >= 0 && region < 32) regions ^= 1u << region;
    regions &= region == 1 ? ~1u : ~2u;
    avgRegionMode = regions;
    processingFlags |= kAverageDue;
    if (regions == 0) clearAverages();
}

void TalvoroFrame::setDepthPos(DepthPtr position) {
    probe = uint64_t(uint32_t(position.x)) | uint64_t(uint32_t(position.y)) << 32;
    avgX = position.x;
    avgY = position.y;
}

void TalvoroFrame::setCursorColor(int color) {
    const double v = color == 0 ? 255 : 0;
    cursor[0] = v;
    cursor[1] = v;
    cursor[2] = v;
    cursor[3] = 0;
}

DepthPtr TalvoroFrame::depthPos() const {
    const uint64_t packed = probe;
    return DepthPtr{int32_t(uint32_t(packed)), int32_t(uint32_t(packed >> 32))};
}

cv::Scalar TalvoroFrame::cursorColor() const {
    return cv::Scalar(cursor[0], cursor[1], cursor[2], cursor[3]);
}

void TalvoroFrame::setPositions(const std::vector<DepthPtr>& list) {
    std::lock_guard<std::mutex> lock(positionsMutex);
    try {
        depthPositions.assign(list.begin(), list.end());
    } catch (...) {
        depthPositions.clear();  // out of memory: an empty list rather than a thrown exception
    }
}

std::vector<DepthPtr> TalvoroFrame::positions() const {
    std::lock_guard<std::mutex> lock(positionsMutex);
    return depthPositions;
}

void TalvoroFrame::clearAverages() {
    avgDepth = 0;
    depthStdDev = 0;
    irMean = 0;
    irStdDev = 0;
}

void TalvoroFrame::calculateAverages() {
    try {
        std::lock_guard<std::mutex> lock(frameMutex);
        _calculateAvgDepthIR(avgX, avgY, false);
    } catch (...) {
        // OpenCV refusing its statistics: the results stay as they were.
    }
}

void TalvoroFrame::allocateHistory() {
    std::lock_guard<std::mutex> lock(frameMutex);
    depthHistory.clear();
    const int count = historyLength;
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
    irGain = 16;
    avgWindowWidth = 32;
    avgWindowHeight = 32;
    depthMax = 0;
    depthMin = 0;
    colorMapType = 4;
    filterFlags = 0;
    historyReady = 0;
    avgIRDisplay = 0;
    historyLength = 5;
    processingFlags = kDefaultFlag;
    calibValidFlags = 0;
    avgRegionMode = 0;
    clearAverages();
    temporalCount = 0;
    historyAllocated = 0;
    temporalBusy = 0;
    processingEnabled = 1;
    avgX = 320;
    avgY = 240;
    setCursorColor(0);
    updateScaling();
}

}  // namespace Talvoro
