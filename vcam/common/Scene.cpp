#include "Scene.h"

#include <algorithm>
#include <cmath>

#include "CameraModel.h"

namespace vcam::scene {

namespace {

constexpr double kPi = 3.14159265358979323846;

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

Vec3 facing(const Vec3& normal, const Vec3& dir) {
    return dot(normal, dir) > 0 ? Vec3{-normal.x, -normal.y, -normal.z} : normal;
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

// Which colour of a checkerboard of `size` mm squares the point (a, b) lies on.
bool oddSquare(double a, double b, double size) {
    return (static_cast<long>(std::floor(a / size) + std::floor(b / size)) & 1) != 0;
}

// The axis the ball turns about as it rolls along its path: the floor's upward normal (-y)
// crossed with the (level) direction of travel.
constexpr Vec3 kRollAxis{-kBallPath[2], 0, kBallPath[0]};

// The ball's paint: blue, with two dark blue bands around it (at rest one level, one upright
// across its path) that show it turning.
bool onBallBand(const Vec3& p, const Pose& pose) {
    const double x = (p.x - pose.ballCentre.x) / kBallRadius,
                 y = (p.y - pose.ballCentre.y) / kBallRadius,
                 z = (p.z - pose.ballCentre.z) / kBallRadius;
    const double* m = pose.ballTurnMatrix;  // world to the ball's own frame
    const Vec3 q{m[0] * x + m[1] * y + m[2] * z, m[3] * x + m[4] * y + m[5] * z,
                 m[6] * x + m[7] * y + m[8] * z};
    constexpr double kHalfWidth = 0.12;
    return std::fabs(q.y) < kHalfWidth ||
           std::fabs(q.x * kBallPath[0] + q.z * kBallPath[2]) < kHalfWidth;
}

Vec3 tofRayAround(double col, double row, double cx, double cy) {
    const double x = (col - cx) * model::kTofPixelPitchMm;
    const double y = (row - cy) * model::kTofPixelPitchMm;
    const double rho = std::sqrt(x * x + y * y);
    const double theta = model::tofTheta(rho);
    if (rho < 1e-12) return {0, 0, 1};
    const double s = std::sin(theta) / rho;
    return {x * s, y * s, std::cos(theta)};
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

Pose::Pose() : Pose({kBallCentre[0], kBallCentre[1], kBallCentre[2]}, 0, kDoorOpenRest) {}

Pose::Pose(const Vec3& centre, double turn, double open)
    : ballCentre(centre),
      ballTurn(turn),
      doorOpen(open),
      doorCos(std::cos(open)),
      doorSin(std::sin(open)) {
    // Rotation by -turn about the rolling axis (Rodrigues), taking the world into the frame the
    // ball's paint is fixed in.
    const Vec3& k = kRollAxis;
    const double c = std::cos(-turn), s = std::sin(-turn), v = 1 - c;
    const double m[9] = {c + k.x * k.x * v,       k.x * k.y * v - k.z * s, k.x * k.z * v + k.y * s,
                         k.y * k.x * v + k.z * s, c + k.y * k.y * v,       k.y * k.z * v - k.x * s,
                         k.z * k.x * v - k.y * s, k.z * k.y * v + k.x * s, c + k.z * k.z * v};
    for (int i = 0; i < 9; ++i)
        ballTurnMatrix[i] = m[i];
}

Pose poseAt(double seconds) {
    const double s = kBallTravel * std::sin(2 * kPi * seconds / kBallPeriod);
    const double open = kDoorOpenRest - (kDoorOpenRest - kDoorOpenLeast) *
                                            (1 - std::cos(2 * kPi * seconds / kDoorPeriod)) / 2;
    // Rolling, not sliding: the ball turns by the distance over its radius.
    return Pose({kBallCentre[0] + kBallPath[0] * s, kBallCentre[1] + kBallPath[1] * s,
                 kBallCentre[2] + kBallPath[2] * s},
                s / kBallRadius, open);
}

double ballHit(const Vec3& o, const Vec3& d, const Pose& pose, Vec3* normal) {
    if (!pose.ball) return INFINITY;
    const Vec3& c = pose.ballCentre;
    const Vec3 oc{o.x - c.x, o.y - c.y, o.z - c.z};
    const double b = dot(oc, d);
    const double disc = b * b - (dot(oc, oc) - kBallRadius * kBallRadius);
    if (disc < 0) return INFINITY;
    const double t = -b - std::sqrt(disc);
    if (t <= 1e-6) return INFINITY;
    const Vec3 p = along(o, d, t);
    *normal = facing(
        {(p.x - c.x) / kBallRadius, (p.y - c.y) / kBallRadius, (p.z - c.z) / kBallRadius}, d);
    return t;
}

double doorHit(const Vec3& o, const Vec3& d, const Pose& pose, Vec3* normal) {
    if (d.z <= 0) return INFINITY;
    // The door stands behind the wall: only a ray through the doorway reaches it.
    const double tWall = (kWallZ - o.z) / d.z;
    const Vec3 w = along(o, d, tWall);
    if (tWall <= 0 || !inDoorway(w) || w.y > kFloorY) return INFINITY;
    const double c = pose.doorCos, s = pose.doorSin;
    const Vec3 n{-s, 0, c};  // across the panel, which runs along (c, 0, s) from the hinge
    const double denom = dot(n, d);
    if (std::fabs(denom) < 1e-12) return INFINITY;
    const double t = (n.x * (kDoorX[0] - o.x) + n.z * (kWallZ - o.z)) / denom;
    if (t < tWall - 1e-6) return INFINITY;
    const Vec3 p = along(o, d, t);
    const double across = (p.x - kDoorX[0]) * c + (p.z - kWallZ) * s;
    if (across < 0 || across > kDoorWidth || p.y < kDoorTopY || p.y > kFloorY) return INFINITY;
    *normal = facing(n, d);
    return t;
}

bool trace(const Vec3& o, const Vec3& d, const Pose& pose, Hit* hit) {
    Candidate c;
    if (d.z > 0) {
        const double t = (kWallZ - o.z) / d.z;
        if (!inDoorway(along(o, d, t))) c.offer(t, {0, 0, -1}, Material::Wall);
        c.offer((kFarWallZ - o.z) / d.z, {0, 0, -1}, Material::FarWall);
    }
    if (d.y > 0) c.offer((kFloorY - o.y) / d.y, {0, -1, 0}, Material::Floor);
    traceBox(o, d, &c);
    Vec3 n;
    const double tBall = ballHit(o, d, pose, &n);
    if (tBall < INFINITY) c.offer(tBall, n, Material::Ball);
    const double tDoor = doorHit(o, d, pose, &n);
    if (tDoor < INFINITY) c.offer(tDoor, n, Material::Door);
    if (c.material == Material::None) return false;
    hit->t = c.t;
    hit->point = along(o, d, c.t);
    hit->normal = facing(c.normal, d);
    hit->material = c.material;
    return true;
}

bool trace(const Vec3& o, const Vec3& d, Hit* hit) {
    return trace(o, d, Pose(), hit);
}

// Near-infrared reflectivity, with a faint print of the wall's pattern.
double irAlbedo(Material m, const Vec3& p, const Pose&) {
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
        case Material::Door:
            return 0.5;
        case Material::None:
            break;
    }
    return 0;
}

void colourAlbedo(Material m, const Vec3& p, const Pose& pose, double rgb[3]) {
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
            if (onBallBand(p, pose))
                set(10, 20, 185);
            else
                set(40, 80, 200);
            break;
        case Material::Door:
            set(150, 100, 60);
            break;
        case Material::None:
            set(0, 0, 0);
            break;
    }
}

float returnedLight(Material m, const Vec3& point, const Pose& pose, double distanceMm,
                    double cosIncidence) {
    constexpr double kIlluminationPower = 2200;
    const double metres = distanceMm / 1000.0;
    return static_cast<float>(std::min(
        4095.0, kIlluminationPower * irAlbedo(m, point, pose) * cosIncidence / (metres * metres)));
}

void sampleTof(const Vec3& dir, const Pose& pose, float* distance, float* amplitude) {
    Hit hit;
    if (!trace({0, 0, 0}, dir, pose, &hit)) {
        *distance = 0;
        *amplitude = 0;
        return;
    }
    *distance = static_cast<float>(hit.t);
    *amplitude =
        returnedLight(hit.material, hit.point, pose, hit.t, std::fabs(dot(hit.normal, dir)));
}

void mixedTofPixel(int col, int row, const Pose& pose, float* distance, float* amplitude) {
    const model::Intrinsics intr = model::depthIntrinsics();
    constexpr double kSub[4] = {-0.375, -0.125, 0.125, 0.375};
    double sumA = 0, sumAD = 0;
    for (double dy : kSub) {
        for (double dx : kSub) {
            float d, a;
            sampleTof(tofRayAround(col + dx, row + dy, intr.cx, intr.cy), pose, &d, &a);
            sumA += a;
            sumAD += a * d;
        }
    }
    *amplitude = static_cast<float>(sumA / 16);
    *distance = sumA > 0 ? static_cast<float>(sumAD / sumA) : 0.0f;
}

Vec3 tofRay(double col, double row) {
    const model::Intrinsics d = model::depthIntrinsics();
    return tofRayAround(col, row, d.cx, d.cy);
}

TofImage renderTof(const Pose& pose) {
    constexpr int W = kTofWidth, H = kTofHeight;
    TofImage img;
    img.distanceMm.resize(W * H);
    img.amplitude.resize(W * H);
    for (int r = 0; r < H; ++r)
        for (int c = 0; c < W; ++c)
            sampleTof(tofRay(c, r), pose, &img.distanceMm[r * W + c], &img.amplitude[r * W + c]);

    // A pixel on a depth edge integrates light from both surfaces; the sensor reports the
    // amplitude-weighted mean distance, a point floating between them.
    const std::vector<float> centre = img.distanceMm;
    for (int r = 1; r < H - 1; ++r) {
        for (int c = 1; c < W - 1; ++c) {
            const int i = r * W + c;
            if (depthEdge(centre[i], centre[i - 1]) || depthEdge(centre[i], centre[i + 1]) ||
                depthEdge(centre[i], centre[i - W]) || depthEdge(centre[i], centre[i + W]))
                mixedTofPixel(c, r, pose, &img.distanceMm[i], &img.amplitude[i]);
        }
    }
    return img;
}

Vec3 colourCentre() {
    const model::Extrinsics e = model::extrinsics();
    // p_colour = R p_depth + T, so the colour camera sits at -R^T T.
    return {-(e.R[0] * e.T[0] + e.R[3] * e.T[1] + e.R[6] * e.T[2]),
            -(e.R[1] * e.T[0] + e.R[4] * e.T[1] + e.R[7] * e.T[2]),
            -(e.R[2] * e.T[0] + e.R[5] * e.T[1] + e.R[8] * e.T[2])};
}

Vec3 colourRay(int width, int height, double u, double v) {
    return colourRayWith(model::colourIntrinsics(width, height), model::extrinsics(), u, v);
}

Vec3 colourRayWith(const model::Intrinsics& in, const model::Extrinsics& e, double u, double v) {
    double x, y;
    undistortPoint(in, (u - in.cx) / in.fx, (v - in.cy) / in.fy, &x, &y);
    // The colour camera looks along R^T (x, y, 1).
    return normalised({e.R[0] * x + e.R[3] * y + e.R[6], e.R[1] * x + e.R[4] * y + e.R[7],
                       e.R[2] * x + e.R[5] * y + e.R[8]});
}

void shadeColour(Material m, const Vec3& point, const Vec3& normal, const Vec3& dir,
                 const Pose& pose, uint8_t rgb[3]) {
    double albedo[3];
    colourAlbedo(m, point, pose, albedo);
    const double shade = m == Material::None ? 0 : 0.35 + 0.65 * std::fabs(dot(normal, dir));
    for (int k = 0; k < 3; ++k)
        rgb[k] = static_cast<uint8_t>(std::clamp(albedo[k] * shade + 0.5, 0.0, 255.0));
}

ColourImage renderColour(int width, int height, const Pose& pose) {
    ColourImage img;
    if (model::colourIntrinsics(width, height).width == 0) return img;
    const Vec3 origin = colourCentre();
    const model::Intrinsics in = model::colourIntrinsics(width, height);
    const model::Extrinsics e = model::extrinsics();
    img.width = width;
    img.height = height;
    img.rgb.resize(static_cast<std::size_t>(width) * height * 3);
    for (int v = 0; v < height; ++v) {
        for (int u = 0; u < width; ++u) {
            const Vec3 dir = colourRayWith(in, e, u, v);
            Hit hit;
            uint8_t* px = &img.rgb[(static_cast<std::size_t>(v) * width + u) * 3];
            if (trace(origin, dir, pose, &hit))
                shadeColour(hit.material, hit.point, hit.normal, dir, pose, px);
            else
                px[0] = px[1] = px[2] = 0;
        }
    }
    return img;
}

}  // namespace vcam::scene
