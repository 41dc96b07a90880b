// Point clouds from depth images: back-projection through the depth camera's calibration,
// colour from the colour camera, and binary PLY files.
#ifndef TALVORO_TOOL_POINT_CLOUD_H
#define TALVORO_TOOL_POINT_CLOUD_H

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "TalvoroSDK.h"

namespace talvoro_tool {

// A point in the depth camera's coordinates (x right, y down, z forward), millimetres.
struct CloudPoint {
    float x, y, z;
    uint8_t red, green, blue;
};

// How the depth image was processed, which decides how a pixel's value becomes a point.
struct DepthGeometry {
    // Undistorted: the image follows the pinhole model of the intrinsics; otherwise each pixel
    // keeps the lens's ray, recovered from the distortion coefficients.
    bool undistorted = false;
    // Planarized: a value is the distance along the optical axis (z); otherwise along the ray.
    bool planarized = false;
};

// One point per pixel with depth (16-bit millimetres, 0 = none), coloured from `pixelColours`
// (BGR, the depth image's size) when given, else grey.
std::vector<CloudPoint> backProject(const cv::Mat& depth, const Talvoro::CameraIntrinsics& camera,
                                    DepthGeometry geometry, const cv::Mat& pixelColours);

// Gives each point the colour the colour camera sees there (BGR image of the size its intrinsics
// belong to); points outside its view keep theirs. Returns how many were coloured.
std::size_t colourFromCamera(std::vector<CloudPoint>* points, const cv::Mat& bgr,
                             const Talvoro::CameraIntrinsics& colour,
                             const Talvoro::StereoExtrinsics& depthToColour);

// Writes a binary little-endian PLY: float x, y, z in metres and uchar red, green, blue per
// vertex. `comments` become comment lines of the header. Throws when the file cannot be written.
void writePly(const std::string& path, const std::vector<CloudPoint>& points,
              const std::vector<std::string>& comments);

}  // namespace talvoro_tool

#endif
