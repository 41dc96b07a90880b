// Lens undistortion of 16-bit depth from a map computed once per calibration. The result is
// bit-identical to cv::undistort(src, dst, K, D, K) and costs one remap per frame, in row bands
// on the worker pool.
#ifndef TALVORO_FRAME_UNDISTORTION_H
#define TALVORO_FRAME_UNDISTORTION_H

#include <opencv2/core.hpp>

#include "frame/WorkerPool.h"

namespace Talvoro::frame {

class UndistortMap {
  public:
    // Builds the map for camera matrix K and distortion D (the same K as the new camera matrix)
    // and images of `size`. False, and an unusable map, when OpenCV refuses the calibration
    // (a matrix of the wrong shape, a distortion vector of an unsupported length).
    bool build(const cv::Mat& cameraMatrix, const cv::Mat& distortion, cv::Size size);
    void clear();
    bool valid() const { return !xy_.empty(); }
    cv::Size size() const { return xy_.size(); }

    // dst = undistorted src, both CV_16UC1 of size() and distinct; dst is not reallocated.
    // False (dst untouched) when the map is unusable or the images do not fit it. Row bands run
    // on the pool.
    bool apply(const cv::Mat& src, cv::Mat& dst, WorkerPool& pool) const;

  private:
    cv::Mat xy_;        // CV_16SC2: integer source position
    cv::Mat fraction_;  // CV_16UC1: 5-bit y and x fractions, index into the weight table
};

}  // namespace Talvoro::frame

#endif
