// The edge filter of the 8-bit depth: a second-derivative Sobel gradient, eroded, marks strong
// edges. The mask is the same as cv::Sobel (orders 2, aperture 5, scale 4, reflect-101 border,
// 8-bit result) in x and in y, cv::addWeighted of the two with weights 1 and cv::erode (3x3
// rectangle, constant border 4) give, whatever the instruction level and the number of threads.
//
// How: row bands on the worker pool, each streaming its rows through a few cached rows of
// 16-bit row passes and gradients, so that no whole-image intermediate is written; the colour
// map is applied in the same pass.
#ifndef TALVORO_FRAME_EDGE_FILTER_H
#define TALVORO_FRAME_EDGE_FILTER_H

#include <cstdint>

#include <opencv2/core.hpp>

#include "frame/WorkerPool.h"

namespace Talvoro::frame {

struct EdgeImages {
    cv::Mat& mask;     // CV_8UC1, the input's size: the eroded gradient, 255 on a strong edge
    cv::Mat& scratch;  // work rows of every thread of the pool
};

// input: CV_8UC1, not empty, not one of the images. Fills images.mask (allocated when it does
// not fit).
void edgeMask(const cv::Mat& input, const EdgeImages& images, WorkerPool& pool);

// edgeMask, and coloured (CV_8UC3, the input's size, allocated when it does not fit) = the
// colours `table` gives the input (applyColorTable), black where the input is 0 or the mask
// is 255.
void colourWithEdges(const cv::Mat& input, const uint32_t* table, cv::Mat& coloured,
                     const EdgeImages& images, WorkerPool& pool);

}  // namespace Talvoro::frame

#endif
