#include "LiveScene.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "CameraModel.h"
#include "RawLayout.h"

namespace vcam::scene {

namespace {

constexpr int W = kTofWidth;
constexpr int H = kTofHeight;

using Rect = PixelRect;

// Copies the rectangle's pixels (of `bytes` bytes each) from a full image to another.
template <typename T>
void copyRect(const Rect& r, int width, int channels, const T* from, T* to) {
    for (int y = r.y0; y < r.y1; ++y) {
        const std::size_t at = (static_cast<std::size_t>(y) * width + r.x0) * channels;
        std::memcpy(to + at, from + at, sizeof(T) * channels * (r.x1 - r.x0));
    }
}

// The pixels where any of `points` appears, grown by a margin for the lens's curvature.
template <typename Project>
Rect boundsOf(const std::vector<Vec3>& points, int width, int height, Project project) {
    constexpr int kMargin = 4;
    double x0 = INFINITY, y0 = INFINITY, x1 = -INFINITY, y1 = -INFINITY;
    for (const Vec3& p : points) {
        const double xyz[3] = {p.x, p.y, p.z};
        double u, v;
        project(xyz, &u, &v);
        x0 = std::min(x0, u), y0 = std::min(y0, v), x1 = std::max(x1, u), y1 = std::max(y1, v);
    }
    Rect r;
    r.x0 = std::max(0, static_cast<int>(std::floor(x0)) - kMargin);
    r.y0 = std::max(0, static_cast<int>(std::floor(y0)) - kMargin);
    r.x1 = std::min(width, static_cast<int>(std::ceil(x1)) + kMargin + 1);
    r.y1 = std::min(height, static_cast<int>(std::ceil(y1)) + kMargin + 1);
    return r;
}

// Points around the ball's outline as seen from `eye`: on the circle where the cone of sight
// touching the ball crosses the plane through its centre.
std::vector<Vec3> ballOutline(const Pose& pose, const Vec3& eye) {
    std::vector<Vec3> points;
    if (!pose.ball) return points;
    const Vec3& c = pose.ballCentre;
    const Vec3 v{c.x - eye.x, c.y - eye.y, c.z - eye.z};
    const double distance = std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
    const double radius =
        kBallRadius * distance / std::sqrt(distance * distance - kBallRadius * kBallRadius);
    // Two unit vectors across the line of sight: level, and perpendicular to both.
    const double level = std::sqrt(v.x * v.x + v.z * v.z);
    const Vec3 e1{v.z / level, 0, -v.x / level};
    const Vec3 e2{(v.y * e1.z - v.z * e1.y) / distance, (v.z * e1.x - v.x * e1.z) / distance,
                  (v.x * e1.y - v.y * e1.x) / distance};
    for (int k = 0; k < 16; ++k) {
        const double a = k * 3.14159265358979323846 / 8, ca = std::cos(a), sa = std::sin(a);
        points.push_back({c.x + radius * (ca * e1.x + sa * e2.x),
                          c.y + radius * (ca * e1.y + sa * e2.y),
                          c.z + radius * (ca * e1.z + sa * e2.z)});
    }
    return points;
}

// The corners of the part of the door that the doorway shows.
std::vector<Vec3> doorCorners(const Pose& pose) {
    const double x = kDoorX[0] + kDoorWidth * std::cos(pose.doorOpen);
    const double z = kWallZ + kDoorWidth * std::sin(pose.doorOpen);
    return {{kDoorX[0], kDoorTopY, kWallZ},
            {kDoorX[0], kFloorY, kWallZ},
            {x, kDoorTopY, z},
            {x, kFloorY, z}};
}

// Only what the doorway shows of the door counts.
Rect intersect(Rect a, const Rect& b) {
    a.x0 = std::max(a.x0, b.x0), a.y0 = std::max(a.y0, b.y0);
    a.x1 = std::min(a.x1, b.x1), a.y1 = std::min(a.y1, b.y1);
    return a;
}

const std::vector<Vec3> kDoorway = {{kDoorX[0], kDoorTopY, kWallZ},
                                    {kDoorX[1], kDoorTopY, kWallZ},
                                    {kDoorX[0], kFloorY, kWallZ},
                                    {kDoorX[1], kFloorY, kWallZ}};

bool samePose(const Pose& a, const Pose& b) {
    return a.ballCentre.x == b.ballCentre.x && a.ballCentre.y == b.ballCentre.y &&
           a.ballCentre.z == b.ballCentre.z && a.ballTurn == b.ballTurn &&
           a.doorOpen == b.doorOpen && a.ball == b.ball;
}

Vec3 unit(const Vec3& v) {
    const double n = std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
    return {v.x / n, v.y / n, v.z / n};
}

Pose stillRoom() {
    Pose p;
    p.ball = false;
    return p;
}

// The room without the ball, seen by the ToF camera.
struct TofRoom {
    std::vector<Vec3> rays;              // each pixel's unit ray
    std::vector<float> centreDistance;   // before edge mixing
    std::vector<float> centreAmplitude;  // before edge mixing
    TofImage image;                      // as the sensor reports it
};

// The room without the ball at one colour size, and each pixel's ray.
struct ColourRoom {
    int width = 0, height = 0;
    std::vector<uint8_t> rgb;
    std::vector<uint8_t> uyvy;
    // Rays on a grid of kStep pixels, bilinearly interpolated between: undistorting each pixel
    // would cost more than the whole frame, and the rays bend far too gently to tell.
    static constexpr int kStep = 8;
    int gridWidth = 0;
    std::vector<Vec3> grid;

    // The rays of pixels u0 to u1 - 1 of row v, not of unit length.
    void rowRays(int v, int u0, int u1, std::vector<Vec3>* out) const {
        const int gv = v / kStep;
        const double fv = (v - gv * kStep) / double(kStep);
        auto lerp = [](const Vec3& a, const Vec3& b, double f) {
            return Vec3{a.x + (b.x - a.x) * f, a.y + (b.y - a.y) * f, a.z + (b.z - a.z) * f};
        };
        out->resize(u1 - u0);
        Vec3 left, right;
        int cell = -1;
        for (int u = u0; u < u1; ++u) {
            const int gu = std::min(u / kStep, gridWidth - 2);
            if (gu != cell) {
                cell = gu;
                left = lerp(grid[gv * gridWidth + gu], grid[(gv + 1) * gridWidth + gu], fv);
                right =
                    lerp(grid[gv * gridWidth + gu + 1], grid[(gv + 1) * gridWidth + gu + 1], fv);
            }
            (*out)[u - u0] = lerp(left, right, (u - gu * kStep) / double(kStep));
        }
    }
};

// Plain storage: no static initialiser runs in a process that never streams.
std::mutex g_mutex;  // constant-initialised
TofRoom* g_tofRoom = nullptr;
std::map<std::pair<int, int>, std::shared_ptr<const ColourRoom>>* g_colourRooms = nullptr;

const TofRoom& tofRoom() {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_tofRoom) return *g_tofRoom;
    auto room = std::make_unique<TofRoom>();
    room->rays.resize(W * H);
    room->centreDistance.resize(W * H);
    room->centreAmplitude.resize(W * H);
    const Pose still = stillRoom();
    for (int r = 0; r < H; ++r)
        for (int c = 0; c < W; ++c) {
            const int i = r * W + c;
            room->rays[i] = tofRay(c, r);
            sampleTof(room->rays[i], still, &room->centreDistance[i], &room->centreAmplitude[i]);
        }
    room->image = renderTof(still);
    g_tofRoom = room.release();  // lives as long as the process
    return *g_tofRoom;
}

std::shared_ptr<const ColourRoom> colourRoom(int width, int height) {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (!g_colourRooms)
        g_colourRooms = new std::map<std::pair<int, int>, std::shared_ptr<const ColourRoom>>;
    auto& slot = (*g_colourRooms)[{width, height}];
    if (slot) return slot;
    auto room = std::make_shared<ColourRoom>();
    const ColourImage image = renderColour(width, height, stillRoom());
    room->width = width;
    room->height = height;
    room->rgb = image.rgb;
    room->uyvy = raw::uyvy(image);
    const model::Intrinsics in = model::colourIntrinsics(width, height);
    const model::Extrinsics e = model::extrinsics();
    room->gridWidth = width / ColourRoom::kStep + 2;
    const int gridHeight = height / ColourRoom::kStep + 2;
    for (int gv = 0; gv < gridHeight; ++gv)
        for (int gu = 0; gu < room->gridWidth; ++gu)
            room->grid.push_back(
                colourRayWith(in, e, gu * ColourRoom::kStep, gv * ColourRoom::kStep));
    slot = room;
    return slot;
}

// A pixel on a depth edge that moves: as mixedTofPixel() but with 2x2 samples whose rays are
// interpolated between pixel centres, a sixth of its cost, for the edges of every frame.
void mixMovingEdge(const TofRoom& room, int col, int row, const Pose& pose, float* distance,
                   float* amplitude) {
    double sumA = 0, sumAD = 0;
    for (int dy : {-1, 1})
        for (int dx : {-1, 1}) {
            // A quarter of a pixel towards the neighbours: the middle of that quadrant.
            const Vec3& a = room.rays[row * W + col];
            const Vec3& b = room.rays[row * W + col + dx];
            const Vec3& c = room.rays[(row + dy) * W + col];
            const Vec3& d = room.rays[(row + dy) * W + col + dx];
            const Vec3 ray = unit({(9 * a.x + 3 * b.x + 3 * c.x + d.x) / 16,
                                   (9 * a.y + 3 * b.y + 3 * c.y + d.y) / 16,
                                   (9 * a.z + 3 * b.z + 3 * c.z + d.z) / 16});
            float sd, sa;
            sampleTof(ray, pose, &sd, &sa);
            sumA += sa;
            sumAD += sa * sd;
        }
    *amplitude = static_cast<float>(sumA / 4);
    *distance = sumA > 0 ? static_cast<float>(sumAD / sumA) : 0.0f;
}

}  // namespace

void LiveScene::prepareTof() {
    tofRoom();
}

void LiveScene::prepareColour(int width, int height) {
    if (model::colourIntrinsics(width, height).width != 0) colourRoom(width, height);
}

void LiveScene::lockForFork() {
    g_mutex.lock();
}

void LiveScene::unlockAfterFork() {
    g_mutex.unlock();
}

const TofImage& LiveScene::tof(const Pose& pose) {
    if (tofValid_ && samePose(pose, tofPose_)) return tof_;
    const TofRoom& room = tofRoom();
    if (tof_.distanceMm.empty()) {
        tof_.distanceMm = room.image.distanceMm;
        tof_.amplitude = room.image.amplitude;
        centreDistance_ = room.centreDistance;
        centreAmplitude_ = room.centreAmplitude;
        moving_.assign(W * H, 0);
    }
    for (const Rect& r : tofDirty_) {
        copyRect(r, W, 1, room.image.distanceMm.data(), tof_.distanceMm.data());
        copyRect(r, W, 1, room.image.amplitude.data(), tof_.amplitude.data());
        copyRect(r, W, 1, room.centreDistance.data(), centreDistance_.data());
        copyRect(r, W, 1, room.centreAmplitude.data(), centreAmplitude_.data());
        for (int y = r.y0; y < r.y1; ++y)
            std::memset(&moving_[y * W + r.x0], 0, r.x1 - r.x0);
    }
    const auto project = model::projectToDepth;
    tofDirty_ = {
        intersect(boundsOf(doorCorners(pose), W, H, project), boundsOf(kDoorway, W, H, project)),
        boundsOf(ballOutline(pose, {}), W, H, project)};

    // What each pixel's centre sees of the moving things.
    const Vec3& c = pose.ballCentre;
    const double ballFar = c.x * c.x + c.y * c.y + c.z * c.z - kBallRadius * kBallRadius;
    for (const Rect& rect : tofDirty_) {
        for (int r = rect.y0; r < rect.y1; ++r)
            for (int col = rect.x0; col < rect.x1; ++col) {
                const int i = r * W + col;
                const Vec3& dir = room.rays[i];
                Vec3 normal;
                Material m = Material::Ball;
                const double b = c.x * dir.x + c.y * dir.y + c.z * dir.z;
                double t = pose.ball && b > 0 && b * b >= ballFar ? ballHit({}, dir, pose, &normal)
                                                                  : INFINITY;
                if (t == INFINITY) {
                    t = doorHit({}, dir, pose, &normal);
                    m = Material::Door;
                }
                if (t == INFINITY) continue;
                centreDistance_[i] = static_cast<float>(t);
                centreAmplitude_[i] = returnedLight(
                    m, {dir.x * t, dir.y * t, dir.z * t}, pose, t,
                    std::fabs(normal.x * dir.x + normal.y * dir.y + normal.z * dir.z));
                moving_[i] = 1;
            }
    }
    // Depth edges, as renderTof finds them, where a moving thing takes part: those pixels are
    // mixed again, the others next to a moving thing take their centre's view. Everywhere else
    // the still room's pixels stand.
    const float* d = centreDistance_.data();
    const uint8_t* moving = moving_.data();
    for (const Rect& rect : tofDirty_) {
        for (int r = std::max(rect.y0, 1); r < std::min(rect.y1, H - 1); ++r)
            for (int col = std::max(rect.x0, 1); col < std::min(rect.x1, W - 1); ++col) {
                const int i = r * W + col;
                if (!(moving[i] | moving[i - 1] | moving[i + 1] | moving[i - W] | moving[i + W]))
                    continue;
                if (depthEdge(d[i], d[i - 1]) || depthEdge(d[i], d[i + 1]) ||
                    depthEdge(d[i], d[i - W]) || depthEdge(d[i], d[i + W])) {
                    mixMovingEdge(room, col, r, pose, &tof_.distanceMm[i], &tof_.amplitude[i]);
                } else {
                    tof_.distanceMm[i] = d[i];
                    tof_.amplitude[i] = centreAmplitude_[i];
                }
            }
    }
    tofPose_ = pose;
    tofValid_ = true;
    return tof_;
}

const std::vector<uint8_t>& LiveScene::colour(const Pose& pose, int width, int height) {
    if (colourValid_ && samePose(pose, colourPose_) && width == colourWidth_ &&
        height == colourHeight_)
        return colour_;
    colourValid_ = false;
    if (model::colourIntrinsics(width, height).width == 0) {
        colour_.clear();
        colourDirty_.clear();
        return colour_;
    }
    const std::shared_ptr<const ColourRoom> room = colourRoom(width, height);
    if (width != colourWidth_ || height != colourHeight_) {
        colour_ = room->uyvy;
        colourDirty_.clear();
        colourWidth_ = width;
        colourHeight_ = height;
    }
    for (const Rect& r : colourDirty_)
        copyRect(r, width, 2, room->uyvy.data(), colour_.data());

    const Vec3 eye = colourCentre();
    const auto project = [&](const double p[3], double* u, double* v) {
        model::projectToColour(p, width, height, u, v);
    };
    colourDirty_ = {intersect(boundsOf(doorCorners(pose), width, height, project),
                              boundsOf(kDoorway, width, height, project)),
                    boundsOf(ballOutline(pose, eye), width, height, project)};
    const Vec3& c = pose.ballCentre;
    const Vec3 oc{eye.x - c.x, eye.y - c.y, eye.z - c.z};
    const double ocFar = oc.x * oc.x + oc.y * oc.y + oc.z * oc.z - kBallRadius * kBallRadius;
    auto shade = [](const double albedo[3], double cosIncidence, uint8_t* rgb) {
        const double light = 0.35 + 0.65 * cosIncidence;
        for (int k = 0; k < 3; ++k)
            rgb[k] = static_cast<uint8_t>(std::min(albedo[k] * light + 0.5, 255.0));
    };
    // What a pixel shows of the moving things, for a ray of any length: the ball in front of
    // all, the door where the doorway shows it. False, with the still room's colour, for none.
    auto see = [&](const Vec3& d, bool withBall, int u, int v, uint8_t* rgb) {
        const double dd = d.x * d.x + d.y * d.y + d.z * d.z;
        const double b = oc.x * d.x + oc.y * d.y + oc.z * d.z;
        const double disc = b * b - dd * ocFar;
        double albedo[3];
        if (withBall && pose.ball && b < 0 && disc >= 0) {
            const double t = (-b - std::sqrt(disc)) / dd;
            const Vec3 p{eye.x + d.x * t, eye.y + d.y * t, eye.z + d.z * t};
            const double cosIncidence =
                std::fabs((p.x - c.x) * d.x + (p.y - c.y) * d.y + (p.z - c.z) * d.z) /
                (kBallRadius * std::sqrt(dd));
            colourAlbedo(Material::Ball, p, pose, albedo);
            shade(albedo, cosIncidence, rgb);
            return true;
        }
        Vec3 n;
        const double t = doorHit(eye, d, pose, &n);
        if (t == INFINITY) {
            std::memcpy(rgb, &room->rgb[(static_cast<std::size_t>(v) * width + u) * 3], 3);
            return false;
        }
        const Vec3 p{eye.x + d.x * t, eye.y + d.y * t, eye.z + d.z * t};
        colourAlbedo(Material::Door, p, pose, albedo);
        shade(albedo, std::fabs(n.x * d.x + n.y * d.y + n.z * d.z) / std::sqrt(dd), rgb);
        return true;
    };
    for (int pass = 0; pass < 2; ++pass) {
        Rect& rect = colourDirty_[pass];
        rect.x0 &= ~1;  // whole UYVY pairs
        rect.x1 = std::min(width, (rect.x1 + 1) & ~1);
        if (rect.empty()) continue;
        const int n = rect.x1 - rect.x0;
        rowRgb_.resize(3 * n);
        rowSeen_.resize(n);
        for (int v = rect.y0; v < rect.y1; ++v) {
            room->rowRays(v, rect.x0, rect.x1, &rays_);
            for (int k = 0; k < n; ++k)
                rowSeen_[k] = see(rays_[k], pass == 1, rect.x0 + k, v, &rowRgb_[3 * k]);
            uint8_t* out = &colour_[(static_cast<std::size_t>(v) * width + rect.x0) * 2];
            for (int k = 0; k < n; k += 2)
                if (rowSeen_[k] | rowSeen_[k + 1])
                    raw::uyvyPair(&rowRgb_[3 * k], &rowRgb_[3 * k + 3], out + 2 * k);
        }
    }
    colourPose_ = pose;
    colourValid_ = true;
    return colour_;
}

}  // namespace vcam::scene
