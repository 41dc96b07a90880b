// Point clouds: the library's cloud of the published frame as PLY vertices, and binary PLY files.
#ifndef TALVORO_TOOL_POINT_CLOUD_H
#define TALVORO_TOOL_POINT_CLOUD_H

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "TalvoroSDK.h"

namespace talvoro_tool {

// A point (x right, y down, z forward), millimetres, and its colour.
struct CloudPoint {
    float x, y, z;
    uint8_t red, green, blue;
};

// The published frame's points (GetPointCloud), coloured by the colour camera when `colour`
// and, where it has nothing (or no colour is asked for), by `fallback` (BGR, the depth image's
// size) when given, else grey. *frame tells the points' coordinate frame; *coloured how many
// took the colour camera's colour. Returns the library's result (Ok, or a failure code).
int fetchCloud(const Talvoro::DeviceHandle& camera, bool colour, const cv::Mat& fallback,
               std::vector<CloudPoint>* points, Talvoro::PointCloudFrame* frame,
               std::size_t* coloured);

// A binary little-endian PLY file as writePly writes it.
std::string plyBytes(const std::vector<CloudPoint>& points,
                     const std::vector<std::string>& comments);
// Writes a binary little-endian PLY: float x, y, z in metres and uchar red, green, blue per
// vertex. `comments` become comment lines of the header. Throws when the file cannot be written.
void writePly(const std::string& path, const std::vector<CloudPoint>& points,
              const std::vector<std::string>& comments);

}  // namespace talvoro_tool

#endif
