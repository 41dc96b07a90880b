// RGB-D registration: re-projects 16-bit depth (millimetres) into the colour camera, with the
// arithmetic of cv::rgbd::registerDepth (depth dilation on) so that the results are identical,
// but into a preallocated image and without per-frame allocation.
//
// How: the projection of every depth pixel runs in row bands on the worker pool and lands in a
// buffer (target and depth per pixel, and per block of eight whether all of them land inside
// with room for the dilation, so that such a block needs no bounds check). Then bands of the
// colour image's rows take, each in the depth image's order, the landings that touch them:
// the nearest depth wins and a landing of 0 clears, so the order matters and is kept.
#ifndef TALVORO_FRAME_REGISTRATION_H
#define TALVORO_FRAME_REGISTRATION_H

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "frame/WorkerPool.h"

namespace Talvoro::frame {

class DepthRegistration {
  public:
    // depthMatrix: the depth camera's 3x3 intrinsics; colourMatrix, colourDistortion: the
    // colour camera's; transform: 4x4 rigid transform from the depth to the colour camera with
    // its translation in metres; output: the colour image size. False, and unusable, for
    // matrices registerDepth would refuse (wrong shapes or types, a distortion vector of an
    // unsupported length).
    bool configure(const cv::Mat& depthMatrix, const cv::Mat& colourMatrix,
                   const cv::Mat& colourDistortion, const cv::Mat& transform, cv::Size output);
    void clear() { valid_ = false; }
    bool valid() const { return valid_; }
    cv::Size outputSize() const { return output_; }

    // registered = depth (CV_16UC1) seen from the colour camera; registered must be CV_16UC1 of
    // outputSize() and is not reallocated. False (registered untouched) when unusable. The
    // landing buffer is allocated at the first call and when the depth image grows.
    bool apply(const cv::Mat& depth, cv::Mat& registered, WorkerPool& pool);

  private:
    // Where one depth pixel lands in the colour image, and its depth there in millimetres;
    // valid is false when the projection is not a number.
    struct Landing {
        int x, y;
        uint16_t value;
        bool valid;
    };
    static constexpr int32_t kNowhere = INT32_MIN;  // a pixel that lands outside
    Landing land(uint16_t depth, int i, int j) const;
    // project() of one row, eight pixels at a time (AVX2, or AVX-512 when avx512_); returns the
    // pixels done.
    int projectRowAvx2(const uint16_t* depth, int j, int count, size_t stride, int32_t* target,
                       uint16_t* value, int32_t* top, int32_t* bottom, uint8_t* inside) const;
    // place() of landings all inside with room for their dilation (AVX2).
    static void placeInsideAvx2(uint16_t* out, ptrdiff_t stride, int width, const int32_t* target,
                                const uint16_t* value, int count);

    void project(const cv::Mat& depth, size_t stride, int rowBegin, int rowEnd, bool vector);
    void place(const cv::Mat& depth, cv::Mat& registered, int rowBegin, int rowEnd,
               bool vector) const;

    bool valid_ = false;
    cv::Size output_;
    double projection_[16] = {};  // depth pixel and depth to colour camera (or image) space
    bool affine_ = false;         // last row of projection_ is exactly 0 0 0 1
    bool distorted_ = false;
    double k_[14] = {};
    bool rational_ = false;  // coefficients 5 to 7 in use
    bool prism_ = false;     // coefficients 8 to 11 in use
    bool tilted_ = false;    // coefficients 12 and 13 in use
    cv::Matx33d tilt_;
    double fx_ = 0, fy_ = 0, cx_ = 0, cy_ = 0;

    // Per depth pixel: the colour pixel's index (row x width + column), or kNowhere; its depth.
    // Per block of eight pixels of a depth row: the lowest and highest colour row landed on,
    // and whether all eight land inside at row and column 1 or more.
    std::vector<int32_t> target_;
    std::vector<uint16_t> value_;
    std::vector<int32_t> blockTop_, blockBottom_;
    std::vector<uint8_t> blockInside_;
    int blocksPerRow_ = 0;
    bool avx512_ = false;  // project() with eight lanes of double at once
};

}  // namespace Talvoro::frame

#endif
