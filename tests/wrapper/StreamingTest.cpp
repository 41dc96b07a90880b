// Every data mode streams images of the virtual camera's room; RGB-D mapping with the
// calibration read from the camera; the frame-rate estimate.
// wrapper.streaming: STREAM-1. wrapper.frame_rate: RATE-1 at 10 frames per second.
#include <atomic>
#include <cmath>
#include <thread>
#include <utility>

#include "vcam/RawDecode.h"
#include "wrapper/ApiFixture.h"

namespace apitest {
namespace {

using namespace vcamtest;

struct ModeCase {
    Talvoro::DataMode mode;
    bool depth;
    bool ir;
    int colourWidth;  // 0: no colour image
    int colourHeight;
};

std::ostream& operator<<(std::ostream& out, const ModeCase& c) {
    return out << "mode " << c.mode;
}

uint16_t at16(const ToFFrame& f, int row, int col) {
    uint16_t v;
    std::memcpy(&v, f.frame_data + 2 * (static_cast<std::size_t>(row) * f.width + col), 2);
    return v;
}

// Median of the 5x5 neighbourhood: the camera's noise and a stray flying pixel stay out.
int median16(const ToFFrame& f, int row, int col) {
    std::vector<int> v;
    for (int r = row - 2; r <= row + 2; ++r)
        for (int c = col - 2; c <= col + 2; ++c)
            v.push_back(at16(f, r, c));
    std::nth_element(v.begin(), v.begin() + 12, v.end());
    return v[12];
}

Rgb colourAt(const ToFFrame& f, const double point[3]) {
    double u = 0, v = 0;
    projectToColour(point, f.width, f.height, &u, &v);
    const int x = static_cast<int>(std::lround(u)), y = static_cast<int>(std::lround(v));
    EXPECT_TRUE(x >= 0 && x < f.width && y >= 0 && y < f.height) << x << "," << y;
    return uyvyPixel(f.frame_data + static_cast<std::size_t>(y) * f.width * 2, x);
}

bool red(const Rgb& c) {
    return c.r > 60 && c.r > 1.5 * c.g && c.r > 1.5 * c.b;
}

constexpr double kWallPoint[3] = {0, -400, 2400};  // bare back wall above the objects

void expectSize(const ToFFrame& f, int width, int height, uint8_t format, int bytesPerPixel) {
    EXPECT_EQ(f.width, width);
    EXPECT_EQ(f.height, height);
    EXPECT_EQ(f.pixel_format, format);
    EXPECT_EQ(f.total_size, static_cast<uint32_t>(width * height * bytesPerPixel));
    EXPECT_NE(f.frame_data, nullptr);
}

class Streaming : public ApiTest, public ::testing::WithParamInterface<ModeCase> {
  protected:
    void SetUp() override {
        ApiTest::SetUp();
        h = open("STREAM-1");
    }
    DeviceHandle h{};
};

TEST_P(Streaming, EveryDataModeShowsTheRoom) {
    const ModeCase c = GetParam();
    ASSERT_EQ(SetDataMode(h, c.mode), Ok);
    Talvoro::DataMode reported = No_Image_Mode;
    ASSERT_EQ(GetDataMode(h, &reported), Ok);
    EXPECT_EQ(reported, c.mode);

    ToFFrame f{};
    if (c.depth) {
        ASSERT_TRUE(fetch(h, RawDepth, &f));
        expectSize(f, 640, 480, PixelFormat_16Bit, 2);
        EXPECT_NEAR(median16(f, kWallRow, kWallCol), radialToPlaneZ(kWallCol, kWallRow, 2400), 30);
        EXPECT_NEAR(median16(f, kBoxRow, kBoxCol), radialToPlaneZ(kBoxCol, kBoxRow, 1250), 30);
        ASSERT_TRUE(fetch(h, DepthColorMap, &f));
        expectSize(f, 640, 480, PixelFormat_BGR, 3);
    } else {
        EXPECT_TRUE(refuses(h, RawDepth));
        EXPECT_TRUE(refuses(h, DepthColorMap));
    }
    if (c.ir) {
        ASSERT_TRUE(fetch(h, IRFrame, &f));
        expectSize(f, 640, 480, PixelFormat_16Bit, 2);
        // The box, nearer, returns more light than the wall.
        EXPECT_GT(median16(f, kBoxRow, kBoxCol), 2 * median16(f, kWallRow, kWallCol));
    } else {
        EXPECT_TRUE(refuses(h, IRFrame));
    }
    if (c.colourWidth) {
        ASSERT_TRUE(fetch(h, RGBFrame, &f));
        expectSize(f, c.colourWidth, c.colourHeight, PixelFormat_UYVY, 2);
        EXPECT_TRUE(red(colourAt(f, kBoxFront)));
        EXPECT_FALSE(red(colourAt(f, kWallPoint)));
    } else {
        EXPECT_TRUE(refuses(h, RGBFrame));
    }

    // GetFrames hands out the same set at once.
    Frames all{};
    ASSERT_TRUE(waitFor([&] { return GetNextFrame(h) == Ok && GetFrames(h, &all) == Ok; }));
    EXPECT_EQ(all.raw_depth_frame.frame_data != nullptr, c.depth);
    EXPECT_EQ(all.ir_frame.frame_data != nullptr, c.ir);
    EXPECT_EQ(all.rgb_frame.frame_data != nullptr, c.colourWidth != 0);
    EXPECT_EQ(GetFrames(h, nullptr), InvalidValue);
}

INSTANTIATE_TEST_SUITE_P(Modes, Streaming,
                         ::testing::Values(ModeCase{Depth_IR_Mode, true, true, 0, 0},
                                           ModeCase{Depth_Mode, true, false, 0, 0},
                                           ModeCase{IR_Mode, false, true, 0, 0},
                                           ModeCase{Depth_IR_RGB_VGA_Mode, true, true, 640, 480},
                                           ModeCase{Depth_IR_RGB_HD_Mode, true, true, 1280, 720},
                                           ModeCase{RGB_VGA_Mode, false, false, 640, 480},
                                           ModeCase{RGB_HD_Mode, false, false, 1280, 720},
                                           ModeCase{RGB_FullHD_Mode, false, false, 1920, 1080},
                                           ModeCase{RGB_1200p_Mode, false, false, 1920, 1200}));

using StreamingMapping = Streaming;

// Depth registered onto the colour image with the calibration the camera served: where the
// colour camera sees the box, depth says 1.25 m; where it sees the wall, 2.4 m.
TEST_P(StreamingMapping, DepthLinesUpWithColour) {
    const ModeCase c = GetParam();
    ASSERT_EQ(SetDataMode(h, c.mode), Ok);
    ASSERT_EQ(SetPlanarization(h, 1), Ok);
    ASSERT_EQ(SetRGBDMapping(h, 1), Ok);
    ToFFrame depth{};
    ASSERT_TRUE(fetch(h, RawDepth, &depth));
    expectSize(depth, c.colourWidth, c.colourHeight, PixelFormat_16Bit, 2);
    for (const double* point : {kBoxFront, kWallPoint}) {
        double u = 0, v = 0;
        projectToColour(point, c.colourWidth, c.colourHeight, &u, &v);
        EXPECT_NEAR(median16(depth, static_cast<int>(v), static_cast<int>(u)), point[2], 40);
    }
    ToFFrame map{};
    ASSERT_TRUE(fetch(h, DepthColorMap, &map));
    EXPECT_EQ(map.width, c.colourWidth);
    ASSERT_EQ(SetRGBDMapping(h, 0), Ok);
    ASSERT_TRUE(fetch(h, RawDepth, &depth));
    EXPECT_EQ(depth.width, 640);
}

INSTANTIATE_TEST_SUITE_P(Modes, StreamingMapping,
                         ::testing::Values(ModeCase{Depth_IR_RGB_VGA_Mode, true, true, 640, 480},
                                           ModeCase{Depth_IR_RGB_HD_Mode, true, true, 1280, 720}));

using FrameRate = ApiTest;

constexpr Talvoro::DataMode kRateModes[] = {Depth_IR_Mode, Depth_IR_RGB_VGA_Mode,
                                            Depth_IR_RGB_HD_Mode};

// Runs `fetch` for three seconds between two readings of the estimate (the first starts the
// interval the second averages over); returns the second reading and the frames per second
// `counted()` saw in that time.
template <typename Fetch, typename Counted>
std::pair<int, double> measure(DeviceHandle h, Fetch fetch, Counted counted) {
    GetFramesPerSecond(h);
    const auto start = std::chrono::steady_clock::now();
    const long before = counted();
    while (std::chrono::steady_clock::now() < start + std::chrono::seconds(3))
        fetch();
    const int estimate = GetFramesPerSecond(h);
    const long frames = counted() - before;
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return {estimate, frames / seconds};
}

// The estimate counts the frames the application processed, each once, in whole frames per
// second rounded down; on a loaded machine that can be fewer than the camera's 10.
TEST_F(FrameRate, EstimateCountsEachFetchedFrameOnceInModesZeroFourAndFive) {
    constexpr int kRate = 10;
    const DeviceHandle h = open("RATE-1");
    for (Talvoro::DataMode mode : kRateModes) {
        SCOPED_TRACE(::testing::Message() << "polling, mode " << mode);
        ASSERT_EQ(SetDataMode(h, mode), Ok);
        ASSERT_TRUE(waitFor([&] { return GetNextFrame(h) == Ok; }));
        // Polling may process a frame again when no new one came in time: Ok, but not counted.
        long fetched = 0;
        const auto [estimate, measured] = measure(
            h, [&] { fetched += GetNextFrame(h) == Ok; }, [&] { return fetched; });
        EXPECT_LE(estimate, measured + 0.1);
        EXPECT_GT(estimate, 0);
        EXPECT_LE(estimate, kRate);
    }

    // A frame callback announces each new frame once, and no frame is copied while it runs:
    // there the first Ok is a new frame and a second fetch processes the same one again.
    static std::atomic<long> processed{0};  // the camera keeps its callback until unregistered
    RegisterFrameCallback(h, [h](int, int) {
        if (GetNextFrame(h) != Ok) return;
        ++processed;
        GetNextFrame(h);
    });
    for (Talvoro::DataMode mode : kRateModes) {
        SCOPED_TRACE(::testing::Message() << "frame callback, mode " << mode);
        ASSERT_EQ(SetDataMode(h, mode), Ok);
        const long seen = processed;
        ASSERT_TRUE(waitFor([&] { return processed > seen; }));
        const auto [estimate, measured] = measure(
            h, [] { std::this_thread::sleep_for(std::chrono::milliseconds(10)); },
            [] { return processed.load(); });
        // One frame may be counted on either side of each end of the interval.
        EXPECT_GE(estimate, measured - 1.7);
        EXPECT_LE(estimate, measured + 0.7);
        EXPECT_LE(estimate, kRate);
    }
}

}  // namespace
}  // namespace apitest
