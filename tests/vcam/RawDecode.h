// Decoders for the camera's raw frames, written from the documented layouts (not from the
// virtual camera's own packing code), and the expected geometry of the scene.
#ifndef TALVORO_TESTS_VCAM_RAW_DECODE_H
#define TALVORO_TESTS_VCAM_RAW_DECODE_H

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "CameraModel.h"

namespace vcamtest {

struct Image16 {
    int width = 640;
    int height = 480;
    std::vector<uint16_t> px = std::vector<uint16_t>(640 * 480, 0);
    uint16_t at(int row, int col) const { return px[row * width + col]; }
};

inline uint16_t le16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}

// 640x960 Y16: row pairs of 640 depth values then 640 IR values.
inline void decodeRowPairs(const std::vector<uint8_t>& f, Image16* depth, Image16* ir) {
    for (int r = 0; r < 480; ++r)
        for (int c = 0; c < 640; ++c) {
            depth->px[r * 640 + c] = le16(&f[r * 2560 + 2 * c]);
            ir->px[r * 640 + c] = le16(&f[r * 2560 + 1280 + 2 * c]);
        }
}

// 640x480 Y16: plain rows.
inline Image16 decodeRows(const std::vector<uint8_t>& f) {
    Image16 img;
    for (int i = 0; i < 640 * 480; ++i)
        img.px[i] = le16(&f[2 * i]);
    return img;
}

// Three bytes carry two 12-bit pixels: (b0 << 4 | b2 >> 4) and (b1 << 4 | b2 & 15).
inline void unpackTofLine(const uint8_t* line, uint16_t* out) {
    for (int i = 0; i < 320; ++i) {
        const uint8_t b0 = line[3 * i], b1 = line[3 * i + 1], b2 = line[3 * i + 2];
        out[2 * i] = static_cast<uint16_t>(b0 << 4 | b2 >> 4);
        out[2 * i + 1] = static_cast<uint16_t>(b1 << 4 | (b2 & 0x0F));
    }
}

struct Multiplexed {
    Image16 depth, ir;
    std::vector<const uint8_t*> colourLines;
    int depthLines = 0;  // 481 when the frame has a surplus depth line
    int irLines = 0;
    bool complete = false;  // the lines fill the frame exactly
};

// Walks the lines by the tag bit of their first byte; ToF lines alternate depth, IR. Stops at
// a surplus (481st) ToF line, as a reader must: what follows it need not parse.
inline Multiplexed decodeMultiplexed(const std::vector<uint8_t>& f, std::size_t colourLineBytes) {
    Multiplexed m;
    std::size_t pos = 0;
    while (pos < f.size()) {
        const bool tof = f[pos] & 1;
        const std::size_t len = tof ? 960 : colourLineBytes;
        if (pos + len > f.size()) return m;
        if (tof) {
            const bool depth = m.depthLines == m.irLines;
            int& row = depth ? m.depthLines : m.irLines;
            if (row == 480) {
                ++row;
                return m;
            }
            unpackTofLine(&f[pos], &(depth ? m.depth : m.ir).px[row * 640]);
            ++row;
        } else {
            m.colourLines.push_back(&f[pos]);
        }
        pos += len;
    }
    m.complete = pos == f.size();
    return m;
}

struct Rgb {
    double r, g, b;
};

// BT.601 limited-range UYVY, pixel `x` of a line of pairs.
inline Rgb uyvyPixel(const uint8_t* line, int x) {
    const uint8_t* pair = line + (x / 2) * 4;
    const double y = (pair[(x & 1) ? 3 : 1] - 16) * 1.164;
    const double u = pair[0] - 128.0, v = pair[2] - 128.0;
    return {y + 1.596 * v, y - 0.392 * u - 0.813 * v, y + 2.017 * u};
}

inline bool reddish(const Rgb& c) {
    return c.r > 120 && c.r > 2 * c.g && c.r > 2 * c.b;
}

// The direction of a ToF pixel's ray: the lens's angle model around the principal point.
inline void tofDirection(double col, double row, double dir[3]) {
    const auto in = vcam::model::depthIntrinsics();
    const double x = (col - in.cx) * vcam::model::kTofPixelPitchMm;
    const double y = (row - in.cy) * vcam::model::kTofPixelPitchMm;
    const double rho = std::hypot(x, y);
    const double theta = vcam::model::tofTheta(rho);
    dir[0] = x / rho * std::sin(theta);
    dir[1] = y / rho * std::sin(theta);
    dir[2] = std::cos(theta);
}

// Radial distance from the camera to the plane z = `z` along a pixel's ray.
inline double radialToPlaneZ(int col, int row, double z) {
    double d[3];
    tofDirection(col, row, d);
    return z / d[2];
}

// The ToF pixel whose ray passes closest to the direction of point p (depth coordinates, mm).
inline void pixelTowards(const double p[3], int* col, int* row) {
    const double n = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
    double best = -2;
    for (int r = 0; r < 480; ++r)
        for (int c = 0; c < 640; ++c) {
            double d[3];
            tofDirection(c, r, d);
            const double cosine = (d[0] * p[0] + d[1] * p[1] + d[2] * p[2]) / n;
            if (cosine > best) {
                best = cosine;
                *col = c;
                *row = r;
            }
        }
}

// Where point p (depth coordinates, mm) appears in the colour image of size w x h.
using vcam::model::projectToColour;

// Pixels well inside the box's front face (z = 1250 mm) and on the bare back wall (z = 2400).
constexpr int kBoxCol = 160, kBoxRow = 380;
constexpr int kWallCol = 320, kWallRow = 150;
// The middle of the box's front face, in depth coordinates.
constexpr double kBoxFront[3] = {-525, 425, 1250};
// A point on the far wall seen through the doorway.
constexpr double kThroughDoor[3] = {1200 * 2.5, 0, 6000};

}  // namespace vcamtest

#endif
