// The synthetic room the virtual camera looks at, rendered through the optics of CameraModel.h:
// a back wall with a doorway into a far room, a floor, a box standing on the floor, a ball that
// rolls back and forth on the floor and a door that swings in the doorway.
//
// Coordinates are the depth (ToF) camera's: x right, y down, z forward, millimetres. Plain C++
// (no OpenCV): the preload renders with it, tests use its geometry.
#ifndef TALVORO_VCAM_SCENE_H
#define TALVORO_VCAM_SCENE_H

#include <cstdint>
#include <vector>

#include "CameraModel.h"

namespace vcam::scene {

struct Vec3 {
    double x = 0, y = 0, z = 0;
};

enum class Material : uint8_t { None, Wall, FarWall, Floor, Box, Ball, Door };

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
constexpr double kBallCentre[3] = {420, 400, 1450};  // at rest
constexpr double kBallRadius = 300;
// The ball rolls to and fro along this floor direction, this far either side of its rest
// position, once in so many seconds (at most 0.3 m/s).
constexpr double kBallPath[3] = {0.8, 0, 0.6};
constexpr double kBallTravel = 300;
constexpr double kBallPeriod = 6;
// The door hangs on the doorway's left jamb and opens away from the camera into the far room.
// At rest it stands wide open (90 degrees), edge-on behind the wall and out of sight; moving,
// it swings to within 15 degrees of shut and back once in kDoorPeriod seconds.
constexpr double kDoorWidth = kDoorX[1] - kDoorX[0];
constexpr double kDoorOpenRest = 1.5707963267948966;
constexpr double kDoorOpenLeast = 0.2617993877991494;
constexpr double kDoorPeriod = 8;

// Where the moving things are at one moment.
struct Pose {
    Pose();  // at rest
    Pose(const Vec3& ballCentre, double ballTurn, double doorOpen);

    Vec3 ballCentre;
    double ballTurn;   // radians the ball has rolled through since rest
    double doorOpen;   // radians from the shut door (in the wall plane)
    bool ball = true;  // false: the room without its ball
    // Worked out once per pose: the door's direction, the ball's turn as a rotation matrix.
    double doorCos, doorSin;
    double ballTurnMatrix[9];
};

// The pose `seconds` after the moving scene started (0: at rest).
Pose poseAt(double seconds);

// Nearest surface along origin + t * dir (dir of unit length) with t > 0, with the moving things
// where `pose` puts them (at rest without it).
bool trace(const Vec3& origin, const Vec3& dir, const Pose& pose, Hit* hit);
bool trace(const Vec3& origin, const Vec3& dir, Hit* hit);

// The moving things alone, for renderers that keep the rest of the room: the distance along
// the ray to the ball, or to the door as seen through the doorway (the wall hides it
// elsewhere); infinity when the ray misses it. `normal` is left facing the ray. The door
// takes a direction of any length and measures in it.
double ballHit(const Vec3& origin, const Vec3& dir, const Pose& pose, Vec3* normal);
double doorHit(const Vec3& origin, const Vec3& dir, const Pose& pose, Vec3* normal);

// What a sensor sees of a surface, by material and point (the ball's paint turns with it).
double irAlbedo(Material m, const Vec3& point, const Pose& pose);
void colourAlbedo(Material m, const Vec3& point, const Pose& pose, double rgb[3]);

// Unit ray of the ToF pixel at (col, row): the lens's angle model around the principal point of
// depthIntrinsics(), 5.6 um pixels.
Vec3 tofRay(double col, double row);

// The ToF camera's measurement of one ray: distance (0 for none) and returned light.
void sampleTof(const Vec3& dir, const Pose& pose, float* distance, float* amplitude);
// The ToF illumination sits at the lens: returned light falls with the square of the distance
// and with the cosine of the angle of incidence.
float returnedLight(Material m, const Vec3& point, const Pose& pose, double distanceMm,
                    double cosIncidence);
// Whether two neighbouring ToF pixels straddle a depth edge, where each sees both surfaces.
inline bool depthEdge(float a, float b) {
    return (a > b ? a - b : b - a) > 30 + 0.02f * (a < b ? a : b);
}
// A ToF pixel on a depth edge: the amplitude-weighted mean of 4x4 samples across it.
void mixedTofPixel(int col, int row, const Pose& pose, float* distance, float* amplitude);

constexpr int kTofWidth = 640;
constexpr int kTofHeight = 480;

// One noise-free ToF exposure, row-major 640x480.
struct TofImage {
    std::vector<float> distanceMm;  // radial distance along the pixel's ray
    std::vector<float> amplitude;   // returned light in 12-bit sensor counts
};

// Pixels on a depth edge see both surfaces and report a mix of the two distances (the flying
// pixels a real ToF sensor produces). Every pixel traced: the reference for faster renderers.
TofImage renderTof(const Pose& pose = Pose());

// Colour image as 8-bit RGB triplets, rendered from the colour camera's pose with its
// intrinsics and distortion at one of its output sizes; empty for other sizes.
struct ColourImage {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb;
};
ColourImage renderColour(int width, int height, const Pose& pose = Pose());

// The colour camera's centre and the ray of its pixel (u, v) at one of its output sizes, in
// depth camera coordinates (unit length).
Vec3 colourCentre();
Vec3 colourRay(int width, int height, double u, double v);
Vec3 colourRayWith(const model::Intrinsics& in, const model::Extrinsics& e, double u, double v);
// Shading of the colour picture: the surface's colour, lit from the camera.
void shadeColour(Material m, const Vec3& point, const Vec3& normal, const Vec3& dir,
                 const Pose& pose, uint8_t rgb[3]);

}  // namespace vcam::scene

#endif
