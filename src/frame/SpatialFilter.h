// The spatial filter of the 8-bit depth: a 5x5 median (replicated border) followed by a
// bilateral filter of diameter 5 with both sigmas 200 (reflect-101 border). The same results
// as cv::medianBlur(input, median, 5) and cv::bilateralFilter(median, output, 5, 200, 200,
// cv::BORDER_REFLECT_101), whatever the instruction level and the number of threads, computed
// into images that are reused, so a frame allocates nothing.
//
// How: row bands on the worker pool, each streaming its rows through a few cached rows. The
// median takes rows in pairs, whose windows share 20 of their 25 values: their columns are
// sorted once, a merging network keeps the six middle ones, and each row adds its own five.
// The bilateral weight of a tap is one lookup in a 13x256 table of space x colour weights, and
// the weight between two pixels serves both of them (a tap and its mirror), so half the
// lookups remain.
#ifndef TALVORO_FRAME_SPATIAL_FILTER_H
#define TALVORO_FRAME_SPATIAL_FILTER_H

#include <opencv2/core.hpp>

#include "frame/WorkerPool.h"

namespace Talvoro::frame {

struct SpatialImages {
    cv::Mat& median;   // CV_8UC1, the input's size
    cv::Mat& output;   // CV_8UC1, the input's size
    cv::Mat& scratch;  // work rows of every thread of the pool
};

// input: CV_8UC1, not empty, not one of the images. Fills the images (allocated when they do
// not fit).
void spatialFilter(const cv::Mat& input, const SpatialImages& images, WorkerPool& pool);

}  // namespace Talvoro::frame

#endif
