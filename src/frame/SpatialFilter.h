// The spatial filter of the 8-bit depth: a 5x5 median (replicated border) followed by a
// bilateral filter of diameter 5 with both sigmas 200 (reflect-101 border). The same results
// as cv::medianBlur(input, median, 5) and cv::bilateralFilter(median, output, 5, 200, 200,
// cv::BORDER_REFLECT_101), computed into images that are reused, so a frame allocates nothing.
#ifndef TALVORO_FRAME_SPATIAL_FILTER_H
#define TALVORO_FRAME_SPATIAL_FILTER_H

#include <opencv2/core.hpp>

namespace Talvoro::frame {

struct SpatialImages {
    cv::Mat& median;  // CV_8UC1, the input's size
    cv::Mat& output;  // CV_8UC1, the input's size
    cv::Mat& padded;  // CV_8UC1 work image, the input's size plus 2 pixels on every side
    cv::Mat& lanes;   // CV_8UC1 work image of the median
};

// input: CV_8UC1 of at least 3x3 pixels, not one of the images. Fills the images (allocated
// when they do not fit).
void spatialFilter(const cv::Mat& input, const SpatialImages& images);

}  // namespace Talvoro::frame

#endif
