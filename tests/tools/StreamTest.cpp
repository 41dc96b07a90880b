// talvoro stream: the images of every data mode as PNG files of the right size and type, depth in
// millimetres, and the averages it prints. tools.stream: STR-1, the test under the launcher.
#include <gtest/gtest.h>

#include <opencv2/imgcodecs.hpp>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "common/TempDir.h"
#include "talvoro_vcam.h"
#include "tools/ToolRunner.h"
#include "vcam/RawDecode.h"

namespace tooltest {
namespace {

struct ModeCase {
    int mode;
    bool map;
    int depthWidth, depthHeight;  // 0: no depth image
    bool ir;
    int colourWidth, colourHeight;  // 0: no colour image
};

std::ostream& operator<<(std::ostream& out, const ModeCase& c) {
    return out << "mode " << c.mode << (c.map ? " mapped" : "");
}

// Median of the 5x5 neighbourhood, so that noise and a stray flying pixel stay out.
int median16(const cv::Mat& image, int row, int col) {
    std::vector<int> v;
    for (int r = row - 2; r <= row + 2; ++r)
        for (int c = col - 2; c <= col + 2; ++c)
            v.push_back(image.at<uint16_t>(r, c));
    std::nth_element(v.begin(), v.begin() + 12, v.end());
    return v[12];
}

class Stream : public ::testing::TestWithParam<ModeCase> {
  protected:
    void SetUp() override { ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam"; }
    talvoro_test::TempDir dir_;
};

void expectImage(const std::string& path, int width, int height, int type) {
    SCOPED_TRACE(path);
    if (width == 0) {
        EXPECT_FALSE(std::filesystem::exists(path));
        return;
    }
    const cv::Mat image = cv::imread(path, cv::IMREAD_UNCHANGED);
    ASSERT_FALSE(image.empty());
    EXPECT_EQ(image.cols, width);
    EXPECT_EQ(image.rows, height);
    EXPECT_EQ(image.type(), type);
}

TEST_P(Stream, WritesTheImagesOfTheDataMode) {
    const ModeCase c = GetParam();
    std::vector<std::string> args = {"stream", "STR-1",    "--mode", std::to_string(c.mode),
                                     "-q",     "--frames", "3",      "--out",
                                     "images"};
    if (c.map) args.push_back("--map");
    const ToolRun r = runTool(args, dir_.path());
    ASSERT_EQ(r.status, 0) << r;
    EXPECT_TRUE(r.err.empty()) << r;

    const std::string out = dir_.file("images/");
    expectImage(out + "depth.png", c.depthWidth, c.depthHeight, CV_16UC1);
    expectImage(out + "depth-colormap.png", c.depthWidth, c.depthHeight, CV_8UC3);
    expectImage(out + "ir.png", c.ir ? 640 : 0, 480, CV_16UC1);
    expectImage(out + "colour.png", c.colourWidth, c.colourHeight, CV_8UC3);

    // The last frame's line; its depth average at the image centre, where the back wall
    // is, 2.4 m away (depth is the distance along the ray).
    std::smatch m;
    const std::regex last(
        "frame 3: (--|[0-9]+) fps(, depth ([0-9]+) mm \\(spread [0-9]+\\))?"
        "(, IR ([0-9]+) \\(spread [0-9]+\\))?\n3 frames\n");
    ASSERT_TRUE(std::regex_search(r.out, m, last)) << r;
    EXPECT_EQ(m[2].matched, c.depthWidth != 0) << r;
    EXPECT_EQ(m[4].matched, c.ir && !c.map) << r;
    if (c.depthWidth && !c.map) {
        EXPECT_NEAR(std::stoi(m[3]), vcamtest::radialToPlaneZ(320, 240, 2400), 30) << r;
    }
    if (m[4].matched) {
        EXPECT_GT(std::stoi(m[5]), 0) << r;
    }

    if (c.colourWidth) {
        // Converted from UYVY in blue-green-red order: the box is red, the wall is not.
        const cv::Mat colour = cv::imread(out + "colour.png", cv::IMREAD_UNCHANGED);
        auto at = [&](const double point[3]) {
            double u = 0, v = 0;
            vcamtest::projectToColour(point, colour.cols, colour.rows, &u, &v);
            return colour.at<cv::Vec3b>(static_cast<int>(v), static_cast<int>(u));
        };
        const cv::Vec3b box = at(vcamtest::kBoxFront);
        EXPECT_TRUE(box[2] > 1.5 * box[1] && box[2] > 1.5 * box[0]) << box;
        const double wall[3] = {0, -400, 2400};
        const cv::Vec3b bare = at(wall);
        EXPECT_FALSE(bare[2] > 1.5 * bare[1] && bare[2] > 1.5 * bare[0]) << bare;
    }
    if (c.depthWidth) {
        // Pixels without depth are black in the tool's colour map (the doorway, beyond range).
        const cv::Mat depth = cv::imread(out + "depth.png", cv::IMREAD_UNCHANGED);
        const cv::Mat map = cv::imread(out + "depth-colormap.png", cv::IMREAD_UNCHANGED);
        const cv::Mat holes = depth == 0;
        EXPECT_GT(cv::countNonZero(holes), 1000);
        cv::Mat colours;
        cv::reduce(map.reshape(1, map.rows * map.cols), colours, 1, cv::REDUCE_MAX);
        EXPECT_EQ(cv::countNonZero(colours.reshape(1, map.rows) & holes), 0);
    }
    if (c.depthWidth == 640 && !c.map) {
        // Millimetres as the library gives them, not scaled for display.
        const cv::Mat depth = cv::imread(out + "depth.png", cv::IMREAD_UNCHANGED);
        EXPECT_NEAR(median16(depth, vcamtest::kWallRow, vcamtest::kWallCol),
                    vcamtest::radialToPlaneZ(vcamtest::kWallCol, vcamtest::kWallRow, 2400), 30);
        EXPECT_NEAR(median16(depth, vcamtest::kBoxRow, vcamtest::kBoxCol),
                    vcamtest::radialToPlaneZ(vcamtest::kBoxCol, vcamtest::kBoxRow, 1250), 30);
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, Stream,
                         ::testing::Values(ModeCase{0, false, 640, 480, true, 0, 0},
                                           ModeCase{2, false, 640, 480, false, 0, 0},
                                           ModeCase{3, false, 0, 0, true, 0, 0},
                                           ModeCase{4, false, 640, 480, true, 640, 480},
                                           ModeCase{4, true, 640, 480, true, 640, 480},
                                           ModeCase{5, false, 640, 480, true, 1280, 720},
                                           ModeCase{5, true, 1280, 720, true, 1280, 720},
                                           ModeCase{6, false, 0, 0, false, 640, 480},
                                           ModeCase{7, false, 0, 0, false, 1280, 720},
                                           ModeCase{8, false, 0, 0, false, 1920, 1080},
                                           ModeCase{9, false, 0, 0, false, 1920, 1200}));

}  // namespace
}  // namespace tooltest
