// The virtual camera's optics: the one source of truth for rendering the scene and for the
// calibration blobs the camera serves, so that registered depth lines up with colour edges.
//
// Coordinates are the depth (ToF) camera's: x right, y down, z forward, millimetres.
#ifndef TALVORO_VCAM_CAMERA_MODEL_H
#define TALVORO_VCAM_CAMERA_MODEL_H

#include <string>

namespace vcam::model {

struct Intrinsics {
    int width = 0;
    int height = 0;
    double fx = 0, fy = 0, cx = 0, cy = 0;
    double dist[5] = {0, 0, 0, 0, 0};  // k1, k2, p1, p2, k3 (OpenCV order)
};

struct Extrinsics {
    double R[9];  // row-major rotation, depth camera -> colour camera
    double T[3];  // translation in millimetres: p_colour = R * p_depth + T
};

// The ToF lens: the angle from the optical axis (radians) of a pixel whose distance from the
// principal point on the sensor is rho millimetres is the cubic below, with a pixel pitch of
// 5.6 um. It is the lens model the library's planarization uses, so a wall facing the camera
// planarizes flat. depthIntrinsics() is the OpenCV pinhole + radial model fitted to it.
constexpr double kTofPixelPitchMm = 0.0056;
constexpr double kTofTheta[4] = {-0.003941913933982022, 0.010284423749602922, 0.3980528447719074,
                                 0.0006897647830719222};  // rho^3..rho^0
double tofTheta(double rhoMm);

// Depth camera, 640x480; the same for the plain and the HD calibration set.
Intrinsics depthIntrinsics();

// Colour camera at one of its output sizes: 640x480, 1280x720, 1920x1080 or 1920x1200
// (other sizes: width and height zero).
Intrinsics colourIntrinsics(int width, int height);

// Depth camera to colour camera.
Extrinsics extrinsics();

// Where a point (depth camera coordinates, mm) appears: in the ToF image (by the fitted OpenCV
// model, within a pixel of the lens's own), and in the colour picture at one of its sizes.
void projectToDepth(const double p[3], double* col, double* row);
void projectToColour(const double p[3], int width, int height, double* u, double* v);

// Calibration blobs as the camera stores them: OpenCV FileStorage YAML beginning with
// "%YAML:1.0". `blobType` is the HID blob type (0 colour intrinsics, 1 depth intrinsics,
// 2 extrinsics); `sets` the validity flag (0 plain keys, 1 HD keys, 2 both). The plain set
// belongs to the 640x480 colour image, the HD set to 1280x720.
std::string calibrationYaml(int blobType, int sets);

}  // namespace vcam::model

#endif
