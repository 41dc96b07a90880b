// The synthetic room the virtual camera looks at, rendered through the optics of CameraModel.h:
// a back wall with a doorway into a far room, a floor, a box standing on the floor and a ball.
//
// Coordinates are the depth (ToF) camera's: x right, y down, z forward, millimetres. Plain C++
// (no OpenCV): the preload renders with it, tests use its geometry.
#ifndef TALVORO_VCAM_SCENE_H
#define TALVORO_VCAM_SCENE_H

#include <cstdint>
#include <vector>

namespace vcam::scene {

struct Vec3 {
    double x = 0, y = 0, z = 0;
};

enum class Material : uint8_t { None, Wall, FarWall, Floor, Box, Ball };

struct Hit {
    double t = 0;  // distance along the (unit) ray, mm
    Vec3 point;
    Vec3 normal;  // unit, facing the ray
    Material material = Material::None;
};

// The room's layout, for tests that check the rendering against it.
constexpr double kWallZ = 2400;     // back wall plane
constexpr double kFarWallZ = 6000;  // wall of the room behind the doorway
constexpr double kFloorY = 700;     // the camera stands 0.7 m above the floor
constexpr double kDoorX[2] = {900, 1500};
constexpr double kDoorTopY = -900;  // the doorway reaches down to the floor
constexpr double kBoxMin[3] = {-750, 150, 1250};
constexpr double kBoxMax[3] = {-300, 700, 1700};
constexpr double kBallCentre[3] = {420, 400, 1450};
constexpr double kBallRadius = 300;

// Nearest surface along origin + t * dir (dir of unit length) with t > 0.
bool trace(const Vec3& origin, const Vec3& dir, Hit* hit);

// Unit ray of the ToF pixel at (col, row): the lens's angle model around the principal point of
// depthIntrinsics(), 5.6 um pixels.
Vec3 tofRay(double col, double row);

constexpr int kTofWidth = 640;
constexpr int kTofHeight = 480;

// One noise-free ToF exposure, row-major 640x480.
struct TofImage {
    std::vector<float> distanceMm;  // radial distance along the pixel's ray
    std::vector<float> amplitude;   // returned light in 12-bit sensor counts
};

// Pixels on a depth edge see both surfaces and report a mix of the two distances (the flying
// pixels a real ToF sensor produces).
TofImage renderTof();

// Colour image as 8-bit RGB triplets, rendered from the colour camera's pose with its
// intrinsics and distortion at one of its output sizes; empty for other sizes.
struct ColourImage {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb;
};
ColourImage renderColour(int width, int height);

}  // namespace vcam::scene

#endif
