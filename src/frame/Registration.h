// RGB-D registration: re-projects 16-bit depth (millimetres) into the colour camera, with the
// arithmetic of cv::rgbd::registerDepth (depth dilation on) so that the results are identical,
// but into a preallocated image and without per-frame allocation.
#ifndef TALVORO_FRAME_REGISTRATION_H
#define TALVORO_FRAME_REGISTRATION_H

#include <opencv2/core.hpp>

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
    // outputSize() and is not reallocated. False (registered untouched) when unusable.
    bool apply(const cv::Mat& depth, cv::Mat& registered) const;

  private:
    // Where one depth pixel lands in the colour image, and its depth there in millimetres;
    // valid is false when the projection is not a number.
    struct Landing {
        int x, y;
        uint16_t value;
        bool valid;
    };
    static constexpr float kToMetres = 0.001f;  // 16-bit depth is millimetres
    static constexpr float kToMillimetres = 1.0f / kToMetres;
    Landing land(uint16_t depth, int i, int j) const;
    void land4(const uint16_t* depth, int i, int j, Landing out[4]) const;

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
};

}  // namespace Talvoro::frame

#endif
