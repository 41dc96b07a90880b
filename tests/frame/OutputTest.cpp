// Handing images out, settings the Device writes, and the region averages.
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "FrameTestSupport.h"
#include "frame/LabelText.h"

using namespace talvoro_test;
using Talvoro::TalvoroFrame;
using Talvoro::ToFFrame;

TEST(Output, FrameTypesFollowTheDataMode) {
    const char* valid[4] = {"1001110000", "1010110000", "0000111111", "1010110000"};
    TalvoroFrame f;
    for (int mode = 0; mode <= 9; ++mode) {
        f.initFrame(mode);
        for (int type = 0; type < 4; ++type) {
            ToFFrame out{};
            const int expected = valid[type][mode] == '1' ? 1 : -3;
            EXPECT_EQ(f.getToFFrame(Talvoro::FrameType(type), &out), expected) << mode << type;
            if (expected == -3) {
                EXPECT_EQ(out.frame_data, nullptr);
            }
        }
    }
    f.initFrame(4);
    ToFFrame out{};
    ASSERT_EQ(f.getToFFrame(Talvoro::RGBFrame, &out), 1);
    EXPECT_EQ(out.frame_data, f.image(Image::Rgb).data);
    EXPECT_EQ(out.pixel_format, Talvoro::PixelFormat_UYVY);
    EXPECT_EQ(out.total_size, 640u * 480 * 2);
    ToFFrame other{};
    EXPECT_EQ(f.getToFFrame(Talvoro::FrameType(7), &other), 1);  // nothing to fill
    EXPECT_EQ(other.frame_data, nullptr);
    f.stampCapture(9);  // captured, not processed yet
    EXPECT_EQ(f.getToFFrame(Talvoro::RGBFrame, &other), -17);
    EXPECT_EQ(other.frame_data, nullptr);
}

TEST(Output, FillFramesSetsOnlyTheModesImages) {
    TalvoroFrame f;
    Talvoro::Frames frames;
    f.initFrame(3);
    f.fillFrames(&frames);
    EXPECT_EQ(frames.ir_frame.frame_data, f.image(Image::IR).data);
    EXPECT_EQ(frames.raw_depth_frame.frame_data, nullptr);
    EXPECT_EQ(frames.rgb_frame.frame_data, nullptr);
    f.stampCapture(3);
    ASSERT_EQ(process(f, 2, image16([](int, int) { return 800; })), 1);
    f.fillFrames(&frames);
    EXPECT_EQ(frames.raw_depth_frame.frame_data, f.image(Image::Depth).data);
    EXPECT_EQ(frames.raw_depth_frame.time_stamp, 3u);
    EXPECT_EQ(frames.depth_colormap_frame.pixel_format, Talvoro::PixelFormat_BGR);
    EXPECT_EQ(frames.depth_colormap_frame.total_size, 640u * 480 * 3);
    EXPECT_EQ(frames.ir_frame.frame_data, nullptr);
    f.initFrame(7);
    f.fillFrames(&frames);
    EXPECT_EQ(frames.rgb_frame.width, 1280);
    EXPECT_EQ(frames.depth_colormap_frame.frame_data, nullptr);
}

// The Device's settings are pinned through the Device (tests/device); here what a depth range
// change does to the images.
TEST(Output, DepthRangeChangeReleasesTheColourMap) {
    LogCapture log;
    TalvoroFrame f;
    f.updateColorMap(500, 500, 2);  // an empty range: the scale is infinite
    EXPECT_TRUE(std::isinf(f.settings().depthScale()));
    f.updateColorMap(0, 4000, 4);
    ASSERT_EQ(process(f, 2, image16([](int, int) { return 2000; })), 1);
    EXPECT_EQ(f.updateDepthRange(5), 1);  // ignored
    EXPECT_EQ(f.currentDepthRange(), 0);
    EXPECT_FALSE(f.image(Image::ColorMap).empty());
    EXPECT_EQ(f.updateDepthRange(1), 1);
    EXPECT_EQ(f.currentDepthRange(), 1);
    EXPECT_TRUE(f.image(Image::ColorMap).empty());
    EXPECT_EQ(log.count("\nTalvoroSDK:Updating depth range in TOFFrame and releasing "
                        "prevDepthFrame and depthcolormap 0   "),
              1u);
    ASSERT_EQ(process(f, 2, image16([](int, int) { return 2000; })), 1);
    EXPECT_EQ(f.image(Image::ScaledDepth).at<uint8_t>(0, 0), 255);  // 4,000 mm after doubling
}

namespace {

// Depth with `valid` pixels of 1,000 mm in the 32x32 window at the centre, 0 elsewhere.
void centreWindow(TalvoroFrame& f, int valid) {
    ASSERT_EQ(process(f, 2, image16([valid](int r, int c) {
                          const int i = (r - 224) * 32 + (c - 304);
                          return r >= 224 && c >= 304 && c < 336 && i < valid ? 1000 : 0;
                      })),
              1);
}

}  // namespace

TEST(Averaging, NeedsAQuarterOfTheWindowValid) {
    TalvoroFrame f;
    centreWindow(f, 255);
    f.calculateAverages();
    EXPECT_EQ(f.averages().avgDepth, 0u);
    EXPECT_EQ(f.averages().depthStdDev, 0);
    centreWindow(f, 256);
    f.calculateAverages();
    EXPECT_EQ(f.averages().avgDepth, 1000u);
    // Zeros count in the spread's sum, not in its count: sqrt(768 x 1000^2 / 256).
    EXPECT_EQ(f.averages().depthStdDev, 1732);
    f.clearAverages();
    EXPECT_EQ(f.averages().avgDepth, 0u);
}

namespace {

// The colour map as processFrame leaves it, and the same with the window drawn by hand.
cv::Mat drawnByHand(const cv::Mat& plain, cv::Rect window, cv::Point label, const char* text) {
    cv::Mat out = plain.clone();
    cv::putText(out, text, label, cv::FONT_HERSHEY_SIMPLEX, 0.5, cv::Scalar(255, 255, 255, 0), 1,
                cv::LINE_8);
    cv::rectangle(out, window, cv::Scalar(255, 255, 255, 0), 1, cv::LINE_8);
    return out;
}

}  // namespace

// The labels' own text drawing against OpenCV's: every character it draws, at places where
// the text runs off each edge of the image, over a background it must not disturb.
TEST(Averaging, LabelTextIsOpenCvsSimplexFont) {
    cv::Mat background(60, 200, CV_8UC3);
    cv::randu(background, 0, 200);
    const cv::Scalar colour(255, 0, 128, 0);
    for (const char* text : {"0123456789 mm", "-42", "65535 mm", "7"}) {
        for (const cv::Point origin : {cv::Point(5, 30), cv::Point(-7, 30), cv::Point(150, 30),
                                       cv::Point(20, 4), cv::Point(20, 62)}) {
            cv::Mat ours = background.clone(), theirs = background.clone();
            Talvoro::frame::drawLabel(ours, text, origin, colour);
            cv::putText(theirs, text, origin, cv::FONT_HERSHEY_SIMPLEX, 0.5, colour, 1, cv::LINE_8);
            EXPECT_EQ(cv::norm(ours, theirs, cv::NORM_INF), 0) << text << " at " << origin;
        }
    }
}

TEST(Averaging, WindowAndLabelPlacement) {
    TalvoroFrame f;
    f.updateColorMap(0, 3000, 4);
    const Bytes raw = image16([](int, int) { return 1500; });
    ASSERT_EQ(process(f, 2, raw), 1);
    const cv::Mat plain = f.image(Image::ColorMap).clone();

    // A window at the user point (5, 5) is moved to start at (0, 0); its label goes below it.
    f.setDepthPos({5, 5});
    f.setAvgRegion(1);
    ASSERT_EQ(process(f, 2, raw), 1);
    EXPECT_EQ(cv::norm(f.image(Image::ColorMap),
                       drawnByHand(plain, {0, 0, 32, 32}, {0, 47}, "1500 mm"), cv::NORM_INF),
              0);

    // The user point (630, 470) is moved to (624, 464); near the bottom edge the label goes
    // above the window, and near the right edge it moves left.
    f.setDepthPos({630, 470});
    EXPECT_EQ(f.depthPos().x, 630);
    EXPECT_EQ(f.depthPos().y, 470);
    ASSERT_EQ(process(f, 2, raw), 1);
    EXPECT_EQ(f.settings().avgX, 624);
    EXPECT_EQ(f.settings().avgY, 464);
    EXPECT_EQ(cv::norm(f.image(Image::ColorMap),
                       drawnByHand(plain, {608, 448, 32, 32}, {565, 418}, "1500 mm"), cv::NORM_INF),
              0);
    EXPECT_EQ(f.averages().avgDepth, 1500u);

    f.setDepthPos({INT32_MAX, INT32_MAX});  // far outside: moved to the last window
    ASSERT_EQ(process(f, 2, raw), 1);
    EXPECT_EQ(f.settings().avgX, 624);
    EXPECT_EQ(f.settings().avgY, 464);

    f.setAvgRegion(0);  // centre
    ASSERT_EQ(process(f, 2, raw), 1);
    EXPECT_EQ(f.settings().avgX, 320);
    EXPECT_EQ(f.settings().avgY, 240);
}

TEST(Averaging, IrValuesOnlyWithoutMapping) {
    TalvoroFrame f;
    f.setAvgIRDisplay(1);
    f.setAvgRegion(0);
    const auto ir = [](int r, int c) { return c == 0 ? 0x10 : 100 + (r + c) % 2 * 10; };
    ASSERT_EQ(process(f, 4, multiplexed(false, ir, ir)), 1);
    EXPECT_EQ(f.averages().irMean, 105);
    EXPECT_EQ(f.averages().irStdDev, 5);
    f.clearAverages();
    f.setProcessingFlags(TalvoroFrame::kRgbdMapping, true);
    ASSERT_EQ(process(f, 4, multiplexed(false, ir, ir)), 1);
    EXPECT_EQ(f.averages().irMean, 0);
}
