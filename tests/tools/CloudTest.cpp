// talvoro cloud: a binary PLY whose points lie on the surfaces of the virtual camera's room,
// coloured by the colour camera in the multiplexed modes. tools.cloud: CLOUD-1, under the
// launcher.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

#include "Scene.h"
#include "common/TempDir.h"
#include "talvoro_vcam.h"
#include "tools/ToolRunner.h"
#include "vcam/RawDecode.h"

namespace tooltest {
namespace {

struct Vertex {
    float x, y, z;  // metres
    uint8_t r, g, b;
};

// Reads a binary little-endian PLY of float x, y, z and uchar red, green, blue; checks that the
// body holds exactly the vertices the header announces.
std::vector<Vertex> readPly(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::string line, header;
    std::size_t count = 0;
    while (std::getline(in, line) && line != "end_header") {
        header += line + "\n";
        if (line.rfind("element vertex ", 0) == 0) count = std::stoul(line.substr(15));
    }
    EXPECT_EQ(header.rfind("ply\nformat binary_little_endian 1.0\n", 0), 0u) << header;
    EXPECT_NE(header.find("property float x\nproperty float y\nproperty float z\n"
                          "property uchar red\nproperty uchar green\nproperty uchar blue\n"),
              std::string::npos)
        << header;
    const std::string body((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(body.size(), count * 15);
    std::vector<Vertex> vertices(std::min(count, body.size() / 15));
    for (std::size_t i = 0; i < vertices.size(); ++i) {
        const char* p = &body[i * 15];
        std::memcpy(&vertices[i].x, p, 12);
        vertices[i].r = static_cast<uint8_t>(p[12]);
        vertices[i].g = static_cast<uint8_t>(p[13]);
        vertices[i].b = static_cast<uint8_t>(p[14]);
    }
    return vertices;
}

// How far (mm) a point lies from the room's surface along its ray from the camera.
double offSurface(const Vertex& v) {
    const double x = v.x * 1000.0, y = v.y * 1000.0, z = v.z * 1000.0;
    const double d = std::sqrt(x * x + y * y + z * z);
    vcam::scene::Hit hit;
    if (!vcam::scene::trace({0, 0, 0}, {x / d, y / d, z / d}, &hit)) return 1e9;
    return std::abs(d - hit.t);
}

bool onBoxFront(const double p[3]) {
    using namespace vcam::scene;
    return std::abs(p[2] - kBoxMin[2]) < 20 && p[0] > kBoxMin[0] + 50 && p[0] < kBoxMax[0] - 50 &&
           p[1] > kBoxMin[1] + 50 && p[1] < kBoxMax[1] - 50;
}

// The cap of the ball that faces the cameras.
bool onBallFront(const double p[3]) {
    using namespace vcam::scene;
    const double d[3] = {p[0] - kBallCentre[0], p[1] - kBallCentre[1], p[2] - kBallCentre[2]};
    return std::abs(std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]) - kBallRadius) < 20 &&
           d[2] < -0.8 * kBallRadius;
}

bool red(const Vertex& v) {
    return v.r > 1.5 * v.g && v.r > 1.5 * v.b;
}

bool blue(const Vertex& v) {
    return v.b > 1.5 * v.r && v.b > 1.5 * v.g;
}

struct CloudCase {
    std::vector<std::string> options;
    int colourWidth, colourHeight;  // the colour camera's image; 0: coloured by the colour map
};

std::ostream& operator<<(std::ostream& out, const CloudCase& c) {
    for (const std::string& o : c.options)
        out << o << " ";
    return out;
}

class Cloud : public ::testing::TestWithParam<CloudCase> {
  protected:
    void SetUp() override { ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam"; }
    talvoro_test::TempDir dir_;
};

TEST_P(Cloud, PointsLieOnTheRoomsSurfaces) {
    const CloudCase& c = GetParam();
    std::vector<std::string> args = {"cloud", "CLOUD-1", "--out", "room.ply"};
    args.insert(args.end(), c.options.begin(), c.options.end());
    const ToolRun r = runTool(args, dir_.path());
    ASSERT_EQ(r.status, 0) << r;
    const std::vector<Vertex> points = readPly(dir_.file("room.ply"));
    std::ostringstream said;
    said << "wrote " << points.size() << " points";
    EXPECT_EQ(r.out.rfind(said.str(), 0), 0u) << r;

    // Every pixel but the doorway (beyond the near range) and the odd dark edge has depth.
    EXPECT_GT(points.size(), 250000u);
    EXPECT_LT(points.size(), 307200u);

    std::vector<double> errors;
    for (const Vertex& v : points)
        errors.push_back(offSurface(v));
    std::sort(errors.begin(), errors.end());
    // Within the camera's noise (a few millimetres at these distances). The pixels on depth
    // edges that mix two surfaces (more of them once undistortion has resampled the image) stay
    // in the last few percent.
    EXPECT_LT(errors[errors.size() / 2], 6.0);
    EXPECT_LT(errors[errors.size() * 97 / 100], 30.0);
    EXPECT_LT(errors[errors.size() * 99 / 100], 80.0);

    // Where the colour camera sees them, the box is red and the ball blue; the colour map gives
    // both the same hue.
    std::size_t box = 0, boxRed = 0, ball = 0, ballBlue = 0;
    for (const Vertex& v : points) {
        const double p[3] = {v.x * 1000.0, v.y * 1000.0, v.z * 1000.0};
        if (c.colourWidth) {
            double u = 0, w = 0;
            vcamtest::projectToColour(p, c.colourWidth, c.colourHeight, &u, &w);
            if (u < 2 || w < 2 || u > c.colourWidth - 3 || w > c.colourHeight - 3) continue;
        }
        if (onBoxFront(p)) ++box, boxRed += red(v);
        if (onBallFront(p)) ++ball, ballBlue += blue(v);
    }
    ASSERT_GT(box, 1000u);
    ASSERT_GT(ball, 1000u);
    if (c.colourWidth) {
        EXPECT_GT(boxRed, box * 95 / 100);
        EXPECT_GT(ballBlue, ball * 95 / 100);
    } else {
        EXPECT_LT(ballBlue, ball / 20);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Geometry, Cloud,
    ::testing::Values(CloudCase{{"--mode", "4"}, 640, 480},
                      CloudCase{{"--mode", "5", "--filters", "flying"}, 1280, 720},
                      CloudCase{{"--mode", "2", "--planarize", "--undistort"}, 0, 0},
                      CloudCase{{"--mode", "0", "--planarize"}, 0, 0}));

}  // namespace
}  // namespace tooltest
