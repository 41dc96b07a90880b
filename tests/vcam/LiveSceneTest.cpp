// The moving scene: the per-frame renderer, which redraws only where the ball and the door are,
// against the full renderer that traces every pixel; the motion itself; and the sensor noise.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "LiveScene.h"
#include "RawLayout.h"

namespace {

using namespace vcam;

// Moments when the ball is at either end of its path and the door nearly shut or half open.
const double kMoments[] = {1.5, 3.0, 4.0, 4.5};

TEST(LiveScene, DrawsWhatTheFullRendererDraws) {
    scene::LiveScene live;
    for (double t : kMoments) {
        SCOPED_TRACE("t = " + std::to_string(t));
        const scene::Pose pose = scene::poseAt(t);
        const scene::TofImage full = scene::renderTof(pose);
        const scene::TofImage& fast = live.tof(pose);
        // Moving edges are mixed from fewer samples; everywhere else the pixels are the same.
        int differ = 0, edgeStray = 0;
        for (std::size_t i = 0; i < full.distanceMm.size(); ++i) {
            const float a = full.distanceMm[i], b = fast.distanceMm[i];
            if (a == b && full.amplitude[i] == fast.amplitude[i]) continue;
            ++differ;
            // A differently mixed edge pixel still lies between the surfaces it straddles.
            const int r = static_cast<int>(i) / scene::kTofWidth;
            const int c = static_cast<int>(i) % scene::kTofWidth;
            float lo = INFINITY, hi = 0;
            for (int dr = -1; dr <= 1; ++dr)
                for (int dc = -1; dc <= 1; ++dc) {
                    const int rr = std::clamp(r + dr, 0, scene::kTofHeight - 1);
                    const int cc = std::clamp(c + dc, 0, scene::kTofWidth - 1);
                    const float v = full.distanceMm[rr * scene::kTofWidth + cc];
                    lo = std::min(lo, v), hi = std::max(hi, v);
                }
            edgeStray += b < lo - 1 || b > hi + 1;
        }
        EXPECT_LT(differ, 2500);
        EXPECT_LE(edgeStray, 10);

        // Colour: rays interpolated between grid points may flip a pixel on an outline.
        const std::vector<uint8_t> reference = raw::uyvy(scene::renderColour(640, 480, pose));
        const std::vector<uint8_t>& drawn = live.colour(pose, 640, 480);
        ASSERT_EQ(drawn.size(), reference.size());
        int bytes = 0;
        for (std::size_t i = 0; i < drawn.size(); ++i)
            bytes += std::abs(drawn[i] - reference[i]) > 1;
        EXPECT_LT(bytes, 400);
    }
}

TEST(LiveScene, TheBallRollsAndTheDoorSwings) {
    const scene::Pose rest;
    const scene::Pose start = scene::poseAt(0);
    EXPECT_DOUBLE_EQ(start.ballCentre.x, rest.ballCentre.x);
    EXPECT_DOUBLE_EQ(start.doorOpen, rest.doorOpen);
    double fastest = 0, leastOpen = 10, x[2] = {1e9, -1e9};
    for (int k = 1; k <= 24 * 30; ++k) {  // a whole period of both, at 30 frames a second
        const scene::Pose a = scene::poseAt((k - 1) / 30.0), b = scene::poseAt(k / 30.0);
        const double dx = b.ballCentre.x - a.ballCentre.x, dz = b.ballCentre.z - a.ballCentre.z;
        const double step = std::hypot(dx, dz);
        fastest = std::max(fastest, step * 30);
        // Rolling, not sliding: it turns through its travel over its radius.
        EXPECT_NEAR(std::fabs(b.ballTurn - a.ballTurn), step / scene::kBallRadius, 1e-9);
        EXPECT_DOUBLE_EQ(b.ballCentre.y, scene::kFloorY - scene::kBallRadius);  // on the floor
        leastOpen = std::min(leastOpen, b.doorOpen);
        x[0] = std::min(x[0], b.ballCentre.x), x[1] = std::max(x[1], b.ballCentre.x);
    }
    EXPECT_LT(fastest, 320);  // mm/s: a ball rolling by, not a missile
    EXPECT_NEAR(leastOpen, scene::kDoorOpenLeast, 1e-3);
    EXPECT_GT(x[0] - scene::kBallRadius, scene::kBoxMax[0]);  // it never runs into the box
    EXPECT_NEAR(x[1] - x[0], 2 * scene::kBallTravel * scene::kBallPath[0], 1);
}

TEST(LiveScene, NoiseFollowsTheKeyAndGrowsWithDistance) {
    // A flat exposure: the near half at 1 m, the far half at 3 m, lit as a wall would be there.
    scene::TofImage image;
    const std::size_t n = scene::kTofWidth * scene::kTofHeight;
    for (std::size_t i = 0; i < n; ++i) {
        const bool near = i < n / 2;
        image.distanceMm.push_back(near ? 1000.0f : 3000.0f);
        image.amplitude.push_back(near ? 1500.0f : 170.0f);
    }
    raw::TofCodes a, b, c;
    raw::quantise(image, 0, raw::noiseKey(7, 100), &a);
    raw::quantise(image, 0, raw::noiseKey(7, 100), &b);
    raw::quantise(image, 0, raw::noiseKey(7, 101), &c);
    EXPECT_EQ(a.depth, b.depth);  // the same seed and frame: the same frame
    EXPECT_EQ(a.ir, b.ir);
    EXPECT_NE(a.depth, c.depth);  // the next frame: other noise

    auto stats = [&](const std::vector<uint16_t>& v, std::size_t from, double* mean, double* sd) {
        double sum = 0, sq = 0;
        for (std::size_t i = from; i < from + n / 2; ++i)
            sum += v[i], sq += double(v[i]) * v[i];
        *mean = sum / (n / 2);
        *sd = std::sqrt(sq / (n / 2) - *mean * *mean);
    };
    double mean, nearSd, farSd, frameToFrame = 0;
    stats(a.depth, 0, &mean, &nearSd);
    EXPECT_NEAR(mean, 1000, 0.2);
    stats(a.depth, n / 2, &mean, &farSd);
    EXPECT_NEAR(mean, 3000, 0.5);
    // 1 + 0.0012 d + 400 / IR millimetres.
    EXPECT_NEAR(nearSd, 1 + 1.2 + 400.0 / 1500, 0.1);
    EXPECT_NEAR(farSd, 1 + 3.6 + 400.0 / 170, 0.2);
    // IR: 2 + 1 % of the light + 0.002 d.
    double irSd;
    stats(a.ir, 0, &mean, &irSd);
    EXPECT_NEAR(mean, 1500, 0.2);
    EXPECT_NEAR(irSd, 2 + 15 + 2, 0.3);
    stats(a.ir, n / 2, &mean, &irSd);
    EXPECT_NEAR(mean, 170, 0.1);
    EXPECT_NEAR(irSd, 2 + 1.7 + 6, 0.2);
    // The same pixel in two frames: independent draws, not one field shifted or repeated.
    for (std::size_t i = 0; i < n / 2; ++i)
        frameToFrame += (a.depth[i] - 1000.0) * (c.depth[i] - 1000.0);
    EXPECT_LT(std::fabs(frameToFrame / (n / 2)) / (nearSd * nearSd), 0.02);
}

}  // namespace
