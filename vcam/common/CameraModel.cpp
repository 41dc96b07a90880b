#include "CameraModel.h"

#include <cmath>
#include <cstdio>
#include <sstream>

namespace vcam::model {

namespace {

constexpr double kPi = 3.14159265358979323846;

// The colour sensor's native 1920x1080 readout; other sizes scale or crop it.
constexpr double kColourF = 1372.0;
constexpr double kColourCx = 958.7;
constexpr double kColourCy = 541.3;
constexpr double kColourDist[5] = {0.092, -0.181, 0.0004, -0.0003, 0.067};

std::string number(double v) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "%.17g", v);
    std::string s = buf;
    if (s.find_first_of(".eE") == std::string::npos) s += ".";  // FileStorage writes 1. for 1
    return s;
}

void matrix(std::ostringstream& out, const char* key, int rows, int cols, const double* data) {
    out << key << ": !!opencv-matrix\n   rows: " << rows << "\n   cols: " << cols
        << "\n   dt: d\n   data: [ ";
    for (int i = 0; i < rows * cols; ++i)
        out << (i ? ", " : "") << number(data[i]);
    out << " ]\n";
}

void cameraMatrix(const Intrinsics& in, double out[9]) {
    const double m[9] = {in.fx, 0, in.cx, 0, in.fy, in.cy, 0, 0, 1};
    for (int i = 0; i < 9; ++i)
        out[i] = m[i];
}

}  // namespace

double tofTheta(double rho) {
    return ((kTofTheta[0] * rho + kTofTheta[1]) * rho + kTofTheta[2]) * rho + kTofTheta[3];
}

Intrinsics depthIntrinsics() {
    Intrinsics in;
    in.width = 640;
    in.height = 480;
    in.fx = in.fy = 440.559102;  // least-squares fit of the lens, at most 0.83 px off
    in.cx = 321.37;
    in.cy = 238.64;
    in.dist[0] = -0.31713705;
    in.dist[1] = 0.13376652;
    in.dist[4] = -0.02813609;
    return in;
}

Intrinsics colourIntrinsics(int width, int height) {
    Intrinsics in;
    double scale = 0, cropX = 0, cy = kColourCy;
    if (width == 640 && height == 480) {
        scale = 4.0 / 9.0;  // centre 1440x1080 of the sensor, scaled down
        cropX = 240;
    } else if (width == 1280 && height == 720) {
        scale = 2.0 / 3.0;
    } else if (width == 1920 && height == 1080) {
        scale = 1.0;
    } else if (width == 1920 && height == 1200) {
        scale = 1.0;  // the taller readout adds 60 rows above and below
        cy += 60;
    } else {
        return in;
    }
    in.width = width;
    in.height = height;
    in.fx = in.fy = kColourF * scale;
    in.cx = (kColourCx - cropX) * scale;
    in.cy = cy * scale;
    for (int i = 0; i < 5; ++i)
        in.dist[i] = kColourDist[i];
    return in;
}

Extrinsics extrinsics() {
    // The colour camera sits 25 mm to the right of the ToF camera, turned slightly.
    const double ay = 0.35 * kPi / 180, ax = -0.20 * kPi / 180;
    const double cy = std::cos(ay), sy = std::sin(ay), cx = std::cos(ax), sx = std::sin(ax);
    // R = Ry(ay) * Rx(ax)
    const double R[9] = {cy, sy * sx, sy * cx, 0, cx, -sx, -sy, cy * sx, cy * cx};
    const double centre[3] = {25.0, -0.8, 1.2};  // colour camera centre in depth coordinates
    Extrinsics e;
    for (int i = 0; i < 9; ++i)
        e.R[i] = R[i];
    for (int r = 0; r < 3; ++r)
        e.T[r] = -(R[r * 3] * centre[0] + R[r * 3 + 1] * centre[1] + R[r * 3 + 2] * centre[2]);
    return e;
}

namespace {

// OpenCV's pinhole projection with radial and tangential distortion of a point in the camera's
// own coordinates.
void project(const Intrinsics& in, const double q[3], double* u, double* v) {
    const double x = q[0] / q[2], y = q[1] / q[2], r2 = x * x + y * y;
    const double k1 = in.dist[0], k2 = in.dist[1], p1 = in.dist[2], p2 = in.dist[3],
                 k3 = in.dist[4];
    const double radial = 1 + ((k3 * r2 + k2) * r2 + k1) * r2;
    const double xd = x * radial + 2 * p1 * x * y + p2 * (r2 + 2 * x * x);
    const double yd = y * radial + p1 * (r2 + 2 * y * y) + 2 * p2 * x * y;
    *u = in.fx * xd + in.cx;
    *v = in.fy * yd + in.cy;
}

}  // namespace

void projectToDepth(const double p[3], double* col, double* row) {
    project(depthIntrinsics(), p, col, row);
}

void projectToColour(const double p[3], int width, int height, double* u, double* v) {
    const Extrinsics e = extrinsics();
    double q[3];
    for (int i = 0; i < 3; ++i)
        q[i] = e.R[3 * i] * p[0] + e.R[3 * i + 1] * p[1] + e.R[3 * i + 2] * p[2] + e.T[i];
    project(colourIntrinsics(width, height), q, u, v);
}

std::string calibrationYaml(int blobType, int sets) {
    std::ostringstream out;
    out << "%YAML:1.0\n---\n";
    const bool plain = sets != 1, hd = sets == 1 || sets == 2;
    double m[9];
    switch (blobType) {
        case 1: {
            const Intrinsics d = depthIntrinsics();
            cameraMatrix(d, m);
            if (plain) {
                matrix(out, "SCCM_D", 3, 3, m);
                matrix(out, "SCCD_D", 1, 5, d.dist);
            }
            if (hd) {
                matrix(out, "SCCM_D_HD", 3, 3, m);
                matrix(out, "SCCD_D_HD", 1, 5, d.dist);
            }
            break;
        }
        case 0: {
            if (plain) {
                const Intrinsics c = colourIntrinsics(640, 480);
                cameraMatrix(c, m);
                matrix(out, "SCCM_RGB", 3, 3, m);
                matrix(out, "SCCD_RGB", 1, 5, c.dist);
            }
            if (hd) {
                const Intrinsics c = colourIntrinsics(1280, 720);
                cameraMatrix(c, m);
                matrix(out, "SCCM_RGB_HD", 3, 3, m);
                matrix(out, "SCCD_RGB_HD", 1, 5, c.dist);
            }
            break;
        }
        case 2: {
            const Extrinsics e = extrinsics();
            if (plain) {
                matrix(out, "R", 3, 3, e.R);
                matrix(out, "T", 3, 1, e.T);
            }
            if (hd) {
                matrix(out, "R_HD", 3, 3, e.R);
                matrix(out, "T_HD", 3, 1, e.T);
            }
            break;
        }
        default:
            return "";
    }
    return out.str();
}

}  // namespace vcam::model
