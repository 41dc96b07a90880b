// JPEG encoding of the live images with libjpeg-turbo: the depth colour map (BGR), IR (16-bit,
// shown on a square-root scale) and colour (UYVY, compressed from its own 4:2:2 planes, with no
// conversion to RGB). One encoder per camera thread; it reuses its buffers from frame to frame.
#ifndef TALVORO_TOOL_VIEW_JPEG_ENCODER_H
#define TALVORO_TOOL_VIEW_JPEG_ENCODER_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace talvoro_tool {

class JpegEncoder {
  public:
    explicit JpegEncoder(int quality = 80);
    ~JpegEncoder();
    JpegEncoder(const JpegEncoder&) = delete;
    JpegEncoder& operator=(const JpegEncoder&) = delete;

    // Each returns the JPEG file's bytes; empty for an empty or mistyped image.
    std::string bgr(const cv::Mat& image);   // CV_8UC3
    std::string ir(const cv::Mat& image);    // CV_16UC1
    std::string uyvy(const cv::Mat& image);  // CV_8UC2, even width
    std::string grey(const cv::Mat& image);  // CV_8UC1

    // The 8-bit grey level IR value `v` is shown with.
    static uint8_t irLevel(uint16_t v);

  private:
    // An image of one or three bytes a pixel (`type`), with turbojpeg's pixel format.
    std::string packed(const cv::Mat& image, int type, int pixelFormat, int subsampling);
    // Makes room for the worst case of an image of this size.
    bool reserve(int width, int height, int subsampling);
    std::string finish(int result) const;

    void* handle_;  // tjhandle
    int quality_;
    unsigned char* buffer_ = nullptr;  // from tjAlloc, grown as needed
    unsigned long capacity_ = 0;
    unsigned long size_ = 0;
    std::vector<uint8_t> planes_;  // Y, U and V of a colour image, or the IR levels
};

}  // namespace talvoro_tool

#endif
