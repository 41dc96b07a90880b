// The synthetic scene is physically plausible: what the library does to it (planarization,
// registration with the served calibration) gives the answers a real room would.
#include <algorithm>
#include <cmath>

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <opencv2/rgbd.hpp>

#include "RawDecode.h"
#include "VcamFixture.h"
#include "VideoDevice.h"

using namespace vcamtest;

namespace {

using Scene = VcamTest;

std::vector<uint8_t> grabIn(uint32_t width, uint32_t height, unsigned first) {
    EXPECT_TRUE(talvoro_vcam::setFrameMode(kCamera, first, 0));
    VideoDevice dev(kNode);
    EXPECT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, width, height), 0);
    dev.start(2);
    std::vector<uint8_t> frame = dev.grab();
    dev.stop();
    return frame;
}

// cos(theta) of the lens model around the calibrated principal point, as the library
// planarizes.
double planarFactor(int col, int row) {
    const auto in = vcam::model::depthIntrinsics();
    const double x = (col - in.cx) * 0.0056, y = (row - in.cy) * 0.0056;
    return std::cos(vcam::model::tofTheta(std::hypot(x, y)));
}

cv::Mat yamlMatrix(int blobType, const char* key) {
    cv::FileStorage fs(vcam::model::calibrationYaml(blobType, 0),
                       cv::FileStorage::READ | cv::FileStorage::MEMORY);
    cv::Mat m;
    fs[key] >> m;
    return m;
}

bool bluish(const Rgb& c) {
    return c.b > 60 && c.b > 1.8 * c.r && c.b > 1.4 * c.g;
}

bool darkReddish(const Rgb& c) {
    return c.r > 60 && c.r > 2 * c.g && c.r > 2 * c.b;
}

TEST_F(Scene, PlanarizationFlattensTheWall) {
    Image16 depth, ir;
    decodeRowPairs(grabIn(640, 960, 1), &depth, &ir);
    // The top rows see nothing but the back wall, 2.4 m away.
    std::vector<double> z;
    int minRadial = 65535, maxRadial = 0;
    for (int r = 0; r < 60; ++r)
        for (int c = 0; c < 640; ++c) {
            const int d = depth.at(r, c);
            ASSERT_GT(d, 0) << r << "," << c;
            minRadial = std::min(minRadial, d);
            maxRadial = std::max(maxRadial, d);
            z.push_back(std::trunc(d * planarFactor(c, r)));
        }
    EXPECT_GT(maxRadial - minRadial, 800);  // radial distances curve away to the corners...
    std::sort(z.begin(), z.end());
    // ...planarized they are one plane, to within the sensor's noise.
    EXPECT_NEAR(z[z.size() / 2], 2400, 5);
    EXPECT_NEAR(z[z.size() / 100], 2400, 25);
    EXPECT_NEAR(z[z.size() - z.size() / 100], 2400, 25);
}

TEST_F(Scene, DepthEdgesCarryFlyingPixelsAndIrFallsWithDistance) {
    Image16 depth, ir;
    decodeRowPairs(grabIn(640, 960, 1), &depth, &ir);
    // Rows across the box (1.25 m) in front of the wall (2.4 m): its left edge.
    int rowsWithFlyingPixels = 0;
    for (int r = 295; r < 335; ++r) {
        int between = 0, stray = 0;
        for (int c = 20; c < 200; ++c) {
            const int d = depth.at(r, c);
            if (d > radialToPlaneZ(c, r, 1250) + 100 && d < radialToPlaneZ(c, r, 2400) - 100)
                (c > 70 && c < 100 ? between : stray)++;
        }
        EXPECT_EQ(stray, 0) << "row " << r;  // only at the edge
        EXPECT_LE(between, 3) << "row " << r;
        rowsWithFlyingPixels += between > 0;
    }
    EXPECT_GE(rowsWithFlyingPixels, 20);

    int col = 0, row = 0;
    pixelTowards(kThroughDoor, &col, &row);
    EXPECT_GT(ir.at(kBoxRow, kBoxCol), ir.at(kWallRow, kWallCol));
    EXPECT_GT(ir.at(kWallRow, kWallCol), ir.at(row, col));
}

TEST_F(Scene, DepthRegisteredWithTheServedCalibrationLinesUpWithColour) {
    const std::vector<uint8_t> frame = grabIn(1280, 600, 0);
    ASSERT_EQ(frame.size(), 1536000u);
    const Multiplexed m = decodeMultiplexed(frame, 1280);
    ASSERT_TRUE(m.complete);

    const cv::Mat kDepth = yamlMatrix(1, "SCCM_D"), distDepth = yamlMatrix(1, "SCCD_D");
    const cv::Mat kColour = yamlMatrix(0, "SCCM_RGB"), distColour = yamlMatrix(0, "SCCD_RGB");
    const cv::Mat r = yamlMatrix(2, "R"), t = yamlMatrix(2, "T");
    ASSERT_FALSE(kDepth.empty() || kColour.empty() || r.empty() || t.empty());
    // registerDepth reads 16-bit depth as millimetres but works in metres: the blob's
    // translation (millimetres) has to be scaled for it.
    cv::Mat rt = cv::Mat::eye(4, 4, CV_64F);
    r.copyTo(rt(cv::Rect(0, 0, 3, 3)));
    cv::Mat(t / 1000.0).copyTo(rt(cv::Rect(3, 0, 1, 3)));

    cv::Mat z(480, 640, CV_16U);
    for (int row = 0; row < 480; ++row)
        for (int col = 0; col < 640; ++col)
            z.at<uint16_t>(row, col) =
                static_cast<uint16_t>(m.depth.at(row, col) * planarFactor(col, row));
    cv::Mat undistorted, registered;
    cv::undistort(z, undistorted, kDepth, distDepth, kDepth);
    cv::rgbd::registerDepth(kDepth, kColour, distColour, rt, undistorted, cv::Size(640, 480),
                            registered, true);

    // Where registered depth says box or ball (1.1 m to 1.8 m, above the floor), the colour
    // camera sees red or blue; where it says back wall, it does not.
    const double fy = kColour.at<double>(1, 1), cy = kColour.at<double>(1, 2);
    int object = 0, objectColoured = 0, wall = 0, wallPlain = 0;
    for (int v = 0; v < 480; ++v)
        for (int u = 0; u < 640; ++u) {
            const int d = registered.at<uint16_t>(v, u);
            if (d == 0 || (v - cy) / fy * d > 600) continue;  // nothing, or the floor
            const Rgb c = uyvyPixel(m.colourLines[v], u);
            const bool coloured = darkReddish(c) || bluish(c);
            if (d > 1100 && d < 1800) {
                ++object;
                objectColoured += coloured;
            } else if (d > 2300 && d < 2500) {
                ++wall;
                wallPlain += !coloured;
            }
        }
    ASSERT_GT(object, 10000);
    ASSERT_GT(wall, 100000);
    EXPECT_GT(objectColoured, 0.98 * object);
    EXPECT_GT(wallPlain, 0.995 * wall);

    // The box's right-hand outline against the wall, row by row: where the colour turns red and
    // where registered depth steps forward agree to within a pixel.
    const double top[3] = {-525, 200, 1250}, bottom[3] = {-525, 330, 1250};  // above the floor
    double u, vTop, vBottom;
    projectToColour(top, 640, 480, &u, &vTop);
    projectToColour(bottom, 640, 480, &u, &vBottom);
    double sum = 0;
    int rows = 0;
    ASSERT_GE(vTop, 0);
    ASSERT_LT(vBottom, 480);
    for (int v = static_cast<int>(vTop); v < static_cast<int>(vBottom); ++v) {
        int colourEdge = -1, depthEdge = -1;
        for (int x = 300; x >= 0 && (colourEdge < 0 || depthEdge < 0); --x) {
            if (colourEdge < 0 && darkReddish(uyvyPixel(m.colourLines[v], x))) colourEdge = x;
            const int d = registered.at<uint16_t>(v, x);
            if (depthEdge < 0 && d > 1100 && d < 2050) depthEdge = x;  // halfway to the wall
        }
        ASSERT_GE(colourEdge, 0);
        ASSERT_GE(depthEdge, 0);
        sum += depthEdge - colourEdge;
        ++rows;
    }
    ASSERT_GT(rows, 50);
    // Dilation widens registered depth by up to a pixel to the right.
    EXPECT_NEAR(sum / rows, 0.5, 1.0);
}

}  // namespace
