// The library's output images as OpenCV matrices, and PNG files of them.
#ifndef TALVORO_TOOL_IMAGES_H
#define TALVORO_TOOL_IMAGES_H

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "TalvoroSDK.h"

namespace talvoro_tool {

// A matrix over the library's pixels (no copy: valid until the next frame is processed), typed
// by the frame's pixel format: 16-bit (CV_16UC1), BGR (CV_8UC3) or UYVY (CV_8UC2). Empty for a
// frame the data mode does not produce, or one whose sizes do not add up.
cv::Mat view(const Talvoro::ToFFrame& frame);
// The colour image converted from UYVY to BGR (a copy); empty without one.
cv::Mat colourBgr(const Talvoro::ToFFrame& frame);

// The library's colour map draws pixels without depth in the colour of the near end of the
// range, like the nearest measured ones; the tool's images draw them black. A copy; `depth`
// (16-bit, the same size) tells which pixels have none.
cv::Mat colourMapWithHoles(const cv::Mat& colourMap, const cv::Mat& depth);

// Writes `image` as a PNG file; throws naming the file and the cause ("No space left on
// device"), and leaves no partial file behind.
void writePng(const std::string& path, const cv::Mat& image);

// Writes the images of a processed frame into `dir`: "depth-colormap.png" (BGR, pixels without
// depth black), "depth.png" (16-bit millimetres), "ir.png" (16-bit) and "colour.png" (BGR), each
// when the data mode has it. Returns the paths written; throws when a file cannot be written.
std::vector<std::string> saveImages(const Talvoro::Frames& frames, const std::string& dir);

}  // namespace talvoro_tool

#endif
