// TalvoroFrame: the flying-pixel filter and post_processing (spatial filter, edge filter,
// colour map) of the scaled depth.
#include <cstring>

#include <opencv2/imgproc.hpp>

#include "frame/ColorMap.h"
#include "frame/EdgeFilter.h"
#include "frame/FlyingPixelFilter.h"
#include "frame/SpatialFilter.h"
#include "frame/TalvoroFrame.h"

namespace Talvoro {

void TalvoroFrame::flyingPixelFilter(cv::Mat src, int width, int height, int depthLow,
                                     int depthHigh, int thresholdLow, int thresholdHigh,
                                     cv::Mat dst) {
    if (src.type() != CV_16UC1 || dst.type() != CV_16UC1 || width < 1 || height < 1 ||
        src.cols < width || src.rows < height || dst.cols < width || dst.rows < height)
        return;
    // Each test reads its neighbours from the source: the two must not share pixels.
    const uintptr_t srcBegin = uintptr_t(src.ptr()), dstBegin = uintptr_t(dst.ptr());
    const uintptr_t srcEnd = uintptr_t(src.ptr(height - 1)) + size_t(width) * 2;
    const uintptr_t dstEnd = uintptr_t(dst.ptr(height - 1)) + size_t(width) * 2;
    if (srcBegin < dstEnd && dstBegin < srcEnd) return;

    // The outer frame stays 0; the row bands cover the whole interior.
    for (int r = 0; r < height; ++r) {
        uint16_t* row = dst.ptr<uint16_t>(r);
        if (r == 0 || r == height - 1 || width < 3) {
            std::memset(row, 0, size_t(width) * 2);
        } else {
            row[0] = 0;
            row[width - 1] = 0;
        }
    }
    if (width < 3 || height < 3) return;
    // Every pixel's test reads only the source, so horizontal bands give exactly the result of
    // the quadrants of the original design.
    const frame::FlyingPixelLimit limit =
        frame::flyingPixelLimit(depthLow, depthHigh, thresholdLow, thresholdHigh);
    const uint16_t* in = src.ptr<uint16_t>();
    uint16_t* out = dst.ptr<uint16_t>();
    const ptrdiff_t inStride = ptrdiff_t(src.step1()), outStride = ptrdiff_t(dst.step1());
    workers.forEach(size_t(height - 2), workers.pieces(), [&](size_t begin, size_t end, unsigned) {
        frame::flyingPixelRows(in, inStride, out, outStride, 1 + int(begin), 1 + int(end), 1,
                               width - 1, limit);
    });
}

const uint32_t* TalvoroFrame::_colorTable(uint8_t colorMapType) {
    const uint32_t* table = frame::colorMapTable(colorMapType);
    return table ? table : frame::colorMapTable(4);
}

void TalvoroFrame::post_processing(const cv::Mat& src) {
    const Settings s = settings();
    const uint8_t filters = s.filterFlags;
    const uint32_t* table = _colorTable(s.colorMapType);
    if (src.empty() || src.type() != CV_8UC1) {
        depthcolormap.release();
        return;
    }
    const cv::Mat* input = &src;
    if (filters & kSpatialFilter) {
        static_assert(medianKernel == 5 && bilateralDiameter == 5 && bilateralSigma == 200,
                      "frame::spatialFilter computes exactly these parameters");
        frame::spatialFilter(src, {spatialTemp, spatialFiltered, spatialScratch}, workers);
        input = &spatialFiltered;
    }
    if (filters & kEdgeFilter) {
        _edgeFilter(*input, table);
    } else {
        frame::applyColorTable(*input, depthcolormap, table, workers);
    }
}

void TalvoroFrame::_edgeFilter(const cv::Mat& input, const uint32_t* table) {
    static_assert(sobelDx == 2 && sobelDy == 2 && sobelKernel == 5 && erodeKernel == 3 &&
                      sobelWeightX == 1.0 && sobelWeightY == 1.0,
                  "frame::edgeMask computes exactly these parameters");
    // Black where there is no depth or on a strong edge.
    frame::colourWithEdges(input, table, depthcolormap, {edgeMask, edgeScratch}, workers);
}

}  // namespace Talvoro
