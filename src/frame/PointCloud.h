// Point clouds from depth images. The viewing ray of every pixel is computed once per camera and
// image geometry (inverting the lens distortion is the costly part), so that turning a frame's
// depth into points costs a multiplication per coordinate and no allocation.
#ifndef TALVORO_FRAME_POINT_CLOUD_H
#define TALVORO_FRAME_POINT_CLOUD_H

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

namespace Talvoro::frame {

// One camera as its calibration describes it: the 3x3 intrinsic matrix and OpenCV's distortion
// coefficients (none, or 4, 5, 8, 12 or 14 of them).
struct CameraCalibration {
    cv::Matx33d matrix;
    std::vector<double> distortion;

    // From the matrices the calibration store hands over; false when they are missing or
    // malformed (wrong shape or type, a focal length of 0, a coefficient count OpenCV lacks).
    static bool read(const cv::Mat& matrix, const cv::Mat& distortion, CameraCalibration* out);
    bool operator==(const CameraCalibration& other) const;
};

// A rigid transform from the depth camera to the colour camera, the translation in metres.
struct RigidTransform {
    cv::Matx33d rotation;
    cv::Vec3d translation;

    // From a 4x4 extrinsic whose translation is in millimetres; false when malformed.
    static bool readMillimetres(const cv::Mat& extrinsic, RigidTransform* out);
};

// The rays of the pixels of one image geometry.
class PixelRays {
  public:
    // Makes the table fit `camera` and images of `size`. `pinhole`: the image follows the pinhole
    // model of the intrinsics (it has been undistorted); otherwise every pixel keeps the lens's
    // own ray, found by inverting the distortion. Recomputed only when something changed.
    void prepare(const CameraCalibration& camera, cv::Size size, bool pinhole);
    cv::Size size() const { return size_; }

    // Writes the points of `depth` (CV_16UC1 millimetres of the prepared size, 0 = no
    // measurement) as x, y, z metres into `xyz`: every pixel when `organized` (NaN where there is
    // no depth), else only the pixels with depth, row by row. `alongAxis`: a value is the
    // distance along the optical axis (z); otherwise along the pixel's ray. Returns the points
    // written; `xyz` must hold countPoints() of them.
    uint32_t deproject(const cv::Mat& depth, bool alongAxis, bool organized, float* xyz) const;

  private:
    CameraCalibration camera_;
    cv::Size size_;
    bool pinhole_ = false;
    // Per pixel x/z and y/z of its ray, and 1/1000 of z over the ray's length (millimetres along
    // the ray to metres along the axis).
    std::vector<float> rays_;
};

// The points deproject writes for `depth`.
uint32_t countPoints(const cv::Mat& depth, bool organized);

// Colours of points made from `depth` when `rgb` (CV_8UC3, the depth image's size) shows the same
// pixels: three bytes per point in deproject's order, black where there is no depth.
void colourFromPixels(const cv::Mat& depth, const cv::Mat& rgb, bool organized, uint8_t* out);

// Colours of `count` points (x, y, z metres in the depth camera) from what the colour camera sees
// there: `rgb` (CV_8UC3) is its image, of the size `colour` belongs to. Points behind the colour
// camera, outside its image or not a number are black.
void colourByProjection(const float* xyz, uint32_t count, const CameraCalibration& colour,
                        const RigidTransform& depthToColour, const cv::Mat& rgb, uint8_t* out);

}  // namespace Talvoro::frame

#endif
