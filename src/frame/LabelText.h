// The text of the region-average labels ("1234 mm", "567") as cv::putText draws it in the
// simplex Hershey font at scale 0.5, thickness 1, 8-connected, pixel for pixel, but without
// allocating: each glyph is drawn by OpenCV once, and frames stamp its pixels.
#ifndef TALVORO_FRAME_LABEL_TEXT_H
#define TALVORO_FRAME_LABEL_TEXT_H

#include <opencv2/core.hpp>

namespace Talvoro::frame {

// Draws text with its baseline starting at origin onto image (CV_8UC3) in colour. Text with
// other characters than digits, space, '-' and 'm', or running off the image, is drawn by
// cv::putText itself (which allocates).
void drawLabel(cv::Mat& image, const char* text, cv::Point origin, const cv::Scalar& colour);

}  // namespace Talvoro::frame

#endif
