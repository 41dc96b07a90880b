// The edge filter's mask: a second-derivative Sobel gradient of the 8-bit depth, eroded. The
// same results as cv::Sobel (orders 2, aperture 5, scale 4, reflect-101 border, 8-bit result)
// in x and in y, cv::addWeighted of the two with weights 1 and cv::erode (3x3 rectangle,
// constant border 4), computed in 16-bit integers into images that are reused, so a frame
// allocates nothing.
#ifndef TALVORO_FRAME_EDGE_FILTER_H
#define TALVORO_FRAME_EDGE_FILTER_H

#include <opencv2/core.hpp>

namespace Talvoro::frame {

struct EdgeImages {
    cv::Mat& sobelX;         // CV_8UC1, the input's size
    cv::Mat& sobelY;         // CV_8UC1
    cv::Mat& magnitude;      // CV_8UC1
    cv::Mat& mask;           // CV_8UC1
    cv::Mat& rowDerivative;  // CV_16SC1 work image
    cv::Mat& rowSmooth;      // CV_16SC1 work image
};

// input: CV_8UC1 of at least 3x3 pixels. Fills the images (allocated when they do not fit).
void edgeMask(const cv::Mat& input, const EdgeImages& images);

}  // namespace Talvoro::frame

#endif
