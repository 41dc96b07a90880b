#include "Scene.h"

#include <algorithm>
#include <cmath>

#include "CameraModel.h"

namespace vcam::scene {

namespace {

double dot(const Vec3& a, const Vec3& b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}

Vec3 along(const Vec3& o, const Vec3& d, double t) {
    return {o.x + d.x * t, o.y + d.y * t, o.z + d.z * t};
}

Vec3 normalised(const Vec3& v) {
    const double n = std::sqrt(dot(v, v));
    return {v.x / n, v.y / n, v.z / n};
}

struct Candidate {
    double t = INFINITY;
    Vec3 normal;
    Material material = Material::None;

    void offer(double tt, const Vec3& n, Material m) {
        if (tt > 1e-6 && tt < t) {
            t = tt;
            normal = n;
            material = m;
        }
    }
};

bool inDoorway(const Vec3& p) {
    return p.x > kDoorX[0] && p.x < kDoorX[1] && p.y > kDoorTopY;
}

void traceBox(const Vec3& o, const Vec3& d, Candidate* c) {
    const double oa[3] = {o.x, o.y, o.z}, da[3] = {d.x, d.y, d.z};
    double tNear = -INFINITY, tFar = INFINITY;
    int axis = -1;
    for (int i = 0; i < 3; ++i) {
        if (std::fabs(da[i]) < 1e-12) {
            if (oa[i] < kBoxMin[i] || oa[i] > kBoxMax[i]) return;
            continue;
        }
        double t0 = (kBoxMin[i] - oa[i]) / da[i], t1 = (kBoxMax[i] - oa[i]) / da[i];
        if (t0 > t1) std::swap(t0, t1);
        if (t0 > tNear) {
            tNear = t0;
            axis = i;
        }
        tFar = std::min(tFar, t1);
    }
    if (axis < 0 || tNear > tFar || tNear <= 0) return;
    Vec3 n;
    (axis == 0 ? n.x : axis == 1 ? n.y : n.z) = da[axis] > 0 ? -1 : 1;
    c->offer(tNear, n, Material::Box);
}

void traceBall(const Vec3& o, const Vec3& d, Candidate* c) {
    const Vec3 oc{o.x - kBallCentre[0], o.y - kBallCentre[1], o.z - kBallCentre[2]};
    const double b = dot(oc, d);
    const double disc = b * b - (dot(oc, oc) - kBallRadius * kBallRadius);
    if (disc < 0) return;
    const double t = -b - std::sqrt(disc);
    const Vec3 p = along(o, d, t);
    c->offer(t,
             {(p.x - kBallCentre[0]) / kBallRadius, (p.y - kBallCentre[1]) / kBallRadius,
              (p.z - kBallCentre[2]) / kBallRadius},
             Material::Ball);
}

// Which colour of a checkerboard of `size` mm squares the point (a, b) lies on.
bool oddSquare(double a, double b, double size) {
    return (static_cast<long>(std::floor(a / size) + std::floor(b / size)) & 1) != 0;
}

// Near-infrared reflectivity, with a faint print of the wall's pattern.
double irAlbedo(Material m, const Vec3& p) {
    switch (m) {
        case Material::Wall:
            return oddSquare(p.x, p.y, 300) ? 0.66 : 0.72;
        case Material::FarWall:
            return 0.6;
        case Material::Floor:
            return 0.35;
        case Material::Box:
            return 0.55;
        case Material::Ball:
            return 0.65;
        case Material::None:
            break;
    }
    return 0;
}

void colourAlbedo(Material m, const Vec3& p, double rgb[3]) {
    auto set = [&](double r, double g, double b) {
        rgb[0] = r;
        rgb[1] = g;
        rgb[2] = b;
    };
    switch (m) {
        case Material::Wall:
            if (oddSquare(p.x, p.y, 300))
                set(170, 185, 200);
            else
                set(225, 215, 195);
            break;
        case Material::FarWall:
            set(120, 160, 110);
            break;
        case Material::Floor:
            if (oddSquare(p.x, p.z, 500))
                set(95, 85, 80);
            else
                set(120, 110, 100);
            break;
        case Material::Box:
            set(200, 45, 40);
            break;
        case Material::Ball:
            set(40, 80, 200);
            break;
        case Material::None:
            set(0, 0, 0);
            break;
    }
}

// The ToF illumination sits at the lens: returned light falls with the square of the distance
// and with the cosine of the angle of incidence.
constexpr double kIlluminationPower = 2200;

Vec3 tofRayAround(double col, double row, double cx, double cy) {
    const double x = (col - cx) * model::kTofPixelPitchMm;
    const double y = (row - cy) * model::kTofPixelPitchMm;
    const double rho = std::sqrt(x * x + y * y);
    const double theta = model::tofTheta(rho);
    if (rho < 1e-12) return {0, 0, 1};
    const double s = std::sin(theta) / rho;
    return {x * s, y * s, std::cos(theta)};
}

void sampleTof(const Vec3& dir, float* distance, float* amplitude) {
    Hit hit;
    if (!trace({0, 0, 0}, dir, &hit)) {
        *distance = 0;
        *amplitude = 0;
        return;
    }
    const double metres = hit.t / 1000.0;
    const double lambert = std::fabs(dot(hit.normal, dir));
    *distance = static_cast<float>(hit.t);
    *amplitude =
        static_cast<float>(std::min(4095.0, kIlluminationPower * irAlbedo(hit.material, hit.point) *
                                                lambert / (metres * metres)));
}

// Inverse of OpenCV's distortion model for a normalised image point, by fixed-point iteration
// (as cv::undistortPoints does).
void undistortPoint(const model::Intrinsics& in, double xd, double yd, double* x, double* y) {
    const double k1 = in.dist[0], k2 = in.dist[1], p1 = in.dist[2], p2 = in.dist[3],
                 k3 = in.dist[4];
    double u = xd, v = yd;
    for (int i = 0; i < 20; ++i) {
        const double r2 = u * u + v * v;
        const double radial = 1 + ((k3 * r2 + k2) * r2 + k1) * r2;
        const double dx = 2 * p1 * u * v + p2 * (r2 + 2 * u * u);
        const double dy = p1 * (r2 + 2 * v * v) + 2 * p2 * u * v;
        u = (xd - dx) / radial;
        v = (yd - dy) / radial;
    }
    *x = u;
    *y = v;
}

}  // namespace

bool trace(const Vec3& o, const Vec3& d, Hit* hit) {
    Candidate c;
    if (d.z > 0) {
        const double t = (kWallZ - o.z) / d.z;
        if (!inDoorway(along(o, d, t))) c.offer(t, {0, 0, -1}, Material::Wall);
        c.offer((kFarWallZ - o.z) / d.z, {0, 0, -1}, Material::FarWall);
    }
    if (d.y > 0) c.offer((kFloorY - o.y) / d.y, {0, -1, 0}, Material::Floor);
    traceBox(o, d, &c);
    traceBall(o, d, &c);
    if (c.material == Material::None) return false;
    hit->t = c.t;
    hit->point = along(o, d, c.t);
    hit->normal = dot(c.normal, d) > 0 ? Vec3{-c.normal.x, -c.normal.y, -c.normal.z} : c.normal;
    hit->material = c.material;
    return true;
}

Vec3 tofRay(double col, double row) {
    const model::Intrinsics d = model::depthIntrinsics();
    return tofRayAround(col, row, d.cx, d.cy);
}

TofImage renderTof() {
    const model::Intrinsics intr = model::depthIntrinsics();
    constexpr int W = kTofWidth, H = kTofHeight;
    TofImage img;
    img.distanceMm.resize(W * H);
    img.amplitude.resize(W * H);
    for (int r = 0; r < H; ++r)
        for (int c = 0; c < W; ++c)
            sampleTof(tofRayAround(c, r, intr.cx, intr.cy), &img.distanceMm[r * W + c],
                      &img.amplitude[r * W + c]);

    // A pixel on a depth edge integrates light from both surfaces; the sensor reports the
    // amplitude-weighted mean distance, a point floating between them.
    const std::vector<float> centre = img.distanceMm;
    auto differs = [&](int i, int j) {
        const float a = centre[i], b = centre[j];
        return std::fabs(a - b) > 30 + 0.02f * std::min(a, b);
    };
    constexpr double kSub[4] = {-0.375, -0.125, 0.125, 0.375};
    for (int r = 1; r < H - 1; ++r) {
        for (int c = 1; c < W - 1; ++c) {
            const int i = r * W + c;
            if (!differs(i, i - 1) && !differs(i, i + 1) && !differs(i, i - W) &&
                !differs(i, i + W))
                continue;
            double sumA = 0, sumAD = 0;
            for (double dy : kSub) {
                for (double dx : kSub) {
                    float d, a;
                    sampleTof(tofRayAround(c + dx, r + dy, intr.cx, intr.cy), &d, &a);
                    sumA += a;
                    sumAD += a * d;
                }
            }
            img.amplitude[i] = static_cast<float>(sumA / 16);
            img.distanceMm[i] = sumA > 0 ? static_cast<float>(sumAD / sumA) : 0.0f;
        }
    }
    return img;
}

ColourImage renderColour(int width, int height) {
    ColourImage img;
    const model::Intrinsics in = model::colourIntrinsics(width, height);
    if (in.width == 0) return img;
    const model::Extrinsics e = model::extrinsics();
    // p_colour = R p_depth + T, so the colour camera sits at -R^T T and looks along R^T d.
    const Vec3 origin{-(e.R[0] * e.T[0] + e.R[3] * e.T[1] + e.R[6] * e.T[2]),
                      -(e.R[1] * e.T[0] + e.R[4] * e.T[1] + e.R[7] * e.T[2]),
                      -(e.R[2] * e.T[0] + e.R[5] * e.T[1] + e.R[8] * e.T[2])};
    img.width = width;
    img.height = height;
    img.rgb.resize(static_cast<std::size_t>(width) * height * 3);
    for (int v = 0; v < height; ++v) {
        for (int u = 0; u < width; ++u) {
            double x, y;
            undistortPoint(in, (u - in.cx) / in.fx, (v - in.cy) / in.fy, &x, &y);
            const Vec3 dc{x, y, 1};
            const Vec3 dir = normalised({e.R[0] * dc.x + e.R[3] * dc.y + e.R[6] * dc.z,
                                         e.R[1] * dc.x + e.R[4] * dc.y + e.R[7] * dc.z,
                                         e.R[2] * dc.x + e.R[5] * dc.y + e.R[8] * dc.z});
            Hit hit;
            double rgb[3] = {0, 0, 0};
            double shade = 0;
            if (trace(origin, dir, &hit)) {
                colourAlbedo(hit.material, hit.point, rgb);
                shade = 0.35 + 0.65 * std::fabs(dot(hit.normal, dir));
            }
            uint8_t* px = &img.rgb[(static_cast<std::size_t>(v) * width + u) * 3];
            for (int k = 0; k < 3; ++k)
                px[k] = static_cast<uint8_t>(std::clamp(rgb[k] * shade + 0.5, 0.0, 255.0));
        }
    }
    return img;
}

}  // namespace vcam::scene
