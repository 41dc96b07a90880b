// Temporal filter, flying-pixel filter and post_processing.
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "FrameTestSupport.h"
#include "frame/Cpu.h"
#include "frame/EdgeFilter.h"
#include "frame/FlyingPixelFilter.h"
#include "frame/SpatialFilter.h"
#include "frame/TemporalFilter.h"
#include "frame/WorkerPool.h"

using namespace talvoro_test;
using Talvoro::TalvoroFrame;
using Talvoro::frame::Isa;
using Talvoro::frame::setIsaLimit;

TEST(TemporalFilter, SumWrapsAtSixteenBits) {
    std::vector<uint16_t> current{20000}, past(5, 20000);
    const uint16_t* history[5];
    for (int k = 0; k < 5; ++k)
        history[k] = &past[k];
    Talvoro::frame::temporalAverage(current.data(), history, 5, 100, 1);
    EXPECT_EQ(current[0], 9077);  // 120,000 mod 65,536 = 54,464, / 6
}

TEST(TemporalFilter, CountsOnlyHistoryWithinTheThreshold) {
    std::vector<uint16_t> current(16, 1000);
    std::vector<std::vector<uint16_t>> past{
        std::vector<uint16_t>(16, 1100), std::vector<uint16_t>(16, 899),
        std::vector<uint16_t>(16, 1000), std::vector<uint16_t>(16, 0)};
    const uint16_t* history[4] = {past[0].data(), past[1].data(), past[2].data(), past[3].data()};
    Talvoro::frame::temporalAverage(current.data(), history, 4, 100, 16);
    EXPECT_EQ(current[15], 1033);  // (1000 + 1100 + 1000) / 3: 899 is 101 away
}

TEST(TemporalFilter, PipelineRotatesTheHistoryEveryFrame) {
    TalvoroFrame f;
    EXPECT_EQ(f.setFilterType(3, true), 0);
    ASSERT_EQ(f.setFilterType(1, true), 1);
    EXPECT_TRUE(f.hasHistory());
    const Bytes raw = image16([](int, int) { return 20000; });
    // The zeroed history fills with one frame per call; from the fourth frame on the 16-bit sum
    // wraps: (4 x 20,000) mod 65,536 / 4.
    std::vector<int> seen;
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(process(f, 2, raw), 1);
        seen.push_back(at16(f.image(Image::Depth), 100, 100));
    }
    EXPECT_EQ(seen, (std::vector<int>{20000, 20000, 20000, 3616}));
    ASSERT_EQ(f.setFilterType(1, false), 1);
    EXPECT_TRUE(f.hasHistory());  // kept until the camera is closed
    ASSERT_EQ(process(f, 2, raw), 1);
    EXPECT_EQ(at16(f.image(Image::Depth), 100, 100), 20000);
}

namespace {

cv::Mat filterFlying(cv::Mat src, bool far) {
    TalvoroFrame f;
    cv::Mat dst(src.size(), CV_16UC1, cv::Scalar(7));
    if (far)
        f.flyingPixelFilter(src, src.cols, src.rows, 1000, 6000, 20, 40, dst);
    else
        f.flyingPixelFilter(src, src.cols, src.rows, 200, 1200, 10, 20, dst);
    return dst;
}

}  // namespace

TEST(FlyingPixelFilter, RemovesAPixelOnlyAboveItsLimit) {
    cv::Mat depth(480, 640, CV_16UC1, cv::Scalar(1200));
    depth.at<uint16_t>(9, 9) = 1200 + 168;    // neighbour of (10, 10): mean difference 21 > 20
    depth.at<uint16_t>(99, 99) = 1200 + 160;  // neighbour of (100, 100): mean 20, not above
    // Limit (150 - 200) / 100 + 10 truncates toward zero to 10, so a mean of 10 stays.
    depth(cv::Rect(199, 199, 3, 3)).setTo(160);
    depth.at<uint16_t>(200, 200) = 150;
    cv::Mat out = filterFlying(depth, false);
    EXPECT_EQ(at16(out, 10, 10), 0);
    EXPECT_EQ(at16(out, 100, 100), 1200);
    EXPECT_EQ(at16(out, 200, 200), 150);
    depth.at<uint16_t>(200, 201) = 161;  // mean 10.125 still shifts to 10: kept
    EXPECT_EQ(at16(filterFlying(depth, false), 200, 200), 150);
    depth.at<uint16_t>(200, 201) = 168;  // mean 11: removed
    EXPECT_EQ(at16(filterFlying(depth, false), 200, 200), 0);

    // Far range: 6,000 mm allows a mean of 40.
    cv::Mat far(100, 100, CV_16UC1, cv::Scalar(6000));
    far.at<uint16_t>(49, 50) = 6000 + 320;
    EXPECT_EQ(at16(filterFlying(far, true), 50, 50), 6000);
    far.at<uint16_t>(49, 50) = 6000 + 328;
    EXPECT_EQ(at16(filterFlying(far, true), 50, 50), 0);
}

TEST(FlyingPixelFilter, BorderIsAlwaysZero) {
    cv::Mat out = filterFlying(cv::Mat(480, 640, CV_16UC1, cv::Scalar(1000)), false);
    EXPECT_EQ(cv::countNonZero(out.row(0)) + cv::countNonZero(out.row(479)) +
                  cv::countNonZero(out.col(0)) + cv::countNonZero(out.col(639)),
              0);
    EXPECT_EQ(cv::countNonZero(out), 478 * 638);
    EXPECT_EQ(cv::countNonZero(filterFlying(cv::Mat(2, 9, CV_16UC1, cv::Scalar(5)), false)), 0);
}

// The filter as shipped, in row bands on its threads, against the scalar rows over the whole
// interior: at every instruction level, alone and on every core.
TEST(FlyingPixelFilter, SameResultWhateverTheThreadsAndLevel) {
    cv::Mat depth(480, 640, CV_16UC1);
    cv::RNG rng(3);
    rng.fill(depth, cv::RNG::UNIFORM, 900, 1400);
    depth(cv::Rect(0, 0, 320, 240)).setTo(1000);
    cv::Mat expected(depth.size(), CV_16UC1, cv::Scalar(0));
    Talvoro::frame::flyingPixelRowsScalar(depth.ptr<uint16_t>(), 640, expected.ptr<uint16_t>(),
                                          640, 1, 479, 1, 639,
                                          Talvoro::frame::flyingPixelLimit(200, 1200, 10, 20));
    ASSERT_GT(cv::countNonZero(expected), 0);
    ASSERT_LT(cv::countNonZero(expected), 478 * 638);
    for (Isa level : {Isa::Scalar, Isa::Sse2, Isa::Avx2, Isa::Avx512}) {
        setIsaLimit(level);
        for (unsigned threads : {1u, 0u}) {
            Talvoro::frame::setThreadLimit(threads);
            EXPECT_EQ(cv::norm(filterFlying(depth, false), expected, cv::NORM_INF), 0)
                << "isa " << int(level) << " threads " << threads;
        }
    }
    Talvoro::frame::setThreadLimit(0);
    setIsaLimit(Isa::Avx512);
}

namespace {

// An 8-bit depth picture with flat regions, ramps, holes and sharp edges.
cv::Mat scaledDepthPicture() {
    cv::Mat img(480, 640, CV_8UC1);
    for (int r = 0; r < 480; ++r)
        for (int c = 0; c < 640; ++c)
            img.at<uint8_t>(r, c) = uint8_t(c < 200 ? c : r < 240 ? 180 : (r * c) % 251);
    img(cv::Rect(300, 50, 40, 40)).setTo(0);
    img(cv::Rect(450, 300, 80, 60)).setTo(255);
    return img;
}

cv::Mat expectedColours(const cv::Mat& src, bool spatial, bool edge, int map) {
    cv::Mat input = src, out;
    if (spatial) {
        cv::Mat median;
        cv::medianBlur(src, median, 5);
        cv::bilateralFilter(median, input, 5, 200, 200, cv::BORDER_REFLECT_101);
    }
    cv::applyColorMap(input, out, map);
    if (!edge) return out;
    cv::Mat sx, sy, magnitude, mask;
    cv::Sobel(input, sx, CV_8U, 2, 0, 5, 4.0, 0, cv::BORDER_REFLECT_101);
    cv::Sobel(input, sy, CV_8U, 0, 2, 5, 4.0, 0, cv::BORDER_REFLECT_101);
    cv::addWeighted(sx, 1.0, sy, 1.0, 0, magnitude);
    cv::erode(magnitude, mask, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(3, 3)),
              cv::Point(-1, -1), 1, cv::BORDER_CONSTANT, cv::Scalar(4));
    out.setTo(cv::Scalar::all(0), (input == 0) | (mask == 255));
    return out;
}

}  // namespace

TEST(PostProcessing, EveryFilterCombinationMatchesOpenCv) {
    const cv::Mat src = scaledDepthPicture();
    TalvoroFrame f;
    for (Isa level : {Isa::Scalar, Isa::Avx512}) {
        setIsaLimit(level);
        for (int flags : {0, 1, 4, 5}) {
            for (int map : {0, 4, 11, 21}) {
                f.setFilterType(0, flags & 1);
                f.setFilterType(2, flags & 4);
                f.updateColorMap(0, 0, map);
                f.post_processing(src);
                const cv::Mat expected = expectedColours(src, flags & 1, flags & 4, map);
                ASSERT_EQ(f.image(Image::ColorMap).size(), expected.size());
                EXPECT_EQ(cv::norm(f.image(Image::ColorMap), expected, cv::NORM_INF), 0)
                    << "filters " << flags << " map " << map << " isa " << int(level);
            }
        }
    }
    // A number beyond OpenCV's maps colours like the default map.
    f.setFilterType(0, false);
    f.setFilterType(2, false);
    f.updateColorMap(0, 0, 200 - 256);  // kept in 8 bits: 200
    f.post_processing(src);
    EXPECT_EQ(
        cv::norm(f.image(Image::ColorMap), expectedColours(src, false, false, 4), cv::NORM_INF), 0);
}

// The spatial filter on noise with flat and sloping patches, at every size class its loops treat
// differently (images narrower than the radius, widths off the vector steps, the camera's
// images), every instruction level and several thread counts.
TEST(PostProcessing, SpatialFilterMatchesOpenCvOnNoise) {
    cv::RNG rng(7);
    cv::Mat median, output, scratch;
    Talvoro::frame::WorkerPool alone(0), pair(1), four(3);
    for (const cv::Size size : {cv::Size(1, 1), cv::Size(2, 7), cv::Size(5, 3), cv::Size(37, 5),
                                cv::Size(61, 23), cv::Size(640, 480), cv::Size(1280, 720)}) {
        cv::Mat src(size, CV_8UC1);
        rng.fill(src, cv::RNG::UNIFORM, 0, 256);
        src(cv::Rect(0, 0, size.width / 2, size.height / 2)).setTo(0);
        src(cv::Rect(size.width / 2, size.height / 2, size.width / 3, size.height / 3)).setTo(90);
        // A gentle slope: differences between 8 and 15 between pixels two apart.
        for (int r = size.height / 2; r < size.height; ++r)
            for (int c = 0; c < size.width / 2; ++c)
                src.at<uint8_t>(r, c) = uint8_t(5 * c);
        cv::Mat expectedMedian, expected;
        cv::medianBlur(src, expectedMedian, 5);
        cv::bilateralFilter(expectedMedian, expected, 5, 200, 200, cv::BORDER_REFLECT_101);
        for (Isa level : {Isa::Scalar, Isa::Sse2, Isa::Avx2, Isa::Avx512}) {
            setIsaLimit(level);
            for (Talvoro::frame::WorkerPool* pool : {&alone, &pair, &four}) {
                Talvoro::frame::spatialFilter(src, {median, output, scratch}, *pool);
                EXPECT_EQ(cv::norm(median, expectedMedian, cv::NORM_INF), 0)
                    << size << " isa " << int(level) << " threads " << pool->threads();
                EXPECT_EQ(cv::norm(output, expected, cv::NORM_INF), 0)
                    << size << " isa " << int(level) << " threads " << pool->threads();
            }
        }
    }
    setIsaLimit(Isa::Avx512);
}

// The edge mask on noise with flat patches, at the same size classes, levels and threads.
TEST(PostProcessing, EdgeMaskMatchesOpenCvOnNoise) {
    cv::RNG rng(11);
    cv::Mat mask, scratch;
    Talvoro::frame::WorkerPool alone(0), pair(1), four(3);
    const cv::Mat element = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(3, 3));
    for (const cv::Size size : {cv::Size(1, 1), cv::Size(2, 7), cv::Size(5, 3), cv::Size(37, 5),
                                cv::Size(61, 23), cv::Size(640, 480), cv::Size(1280, 720)}) {
        cv::Mat src(size, CV_8UC1);
        rng.fill(src, cv::RNG::UNIFORM, 0, 256);
        src(cv::Rect(0, 0, size.width / 2, size.height / 2)).setTo(40);
        cv::Mat sx, sy, magnitude, expected;
        cv::Sobel(src, sx, CV_8U, 2, 0, 5, 4.0, 0, cv::BORDER_REFLECT_101);
        cv::Sobel(src, sy, CV_8U, 0, 2, 5, 4.0, 0, cv::BORDER_REFLECT_101);
        cv::addWeighted(sx, 1.0, sy, 1.0, 0, magnitude);
        cv::erode(magnitude, expected, element, cv::Point(-1, -1), 1, cv::BORDER_CONSTANT,
                  cv::Scalar(4));
        for (Isa level : {Isa::Scalar, Isa::Sse2, Isa::Avx2, Isa::Avx512}) {
            setIsaLimit(level);
            for (Talvoro::frame::WorkerPool* pool : {&alone, &pair, &four}) {
                Talvoro::frame::edgeMask(src, {mask, scratch}, *pool);
                EXPECT_EQ(cv::norm(mask, expected, cv::NORM_INF), 0)
                    << size << " isa " << int(level) << " threads " << pool->threads();
            }
        }
    }
    setIsaLimit(Isa::Avx512);
}

TEST(PostProcessing, SpatialFilterAloneKeepsNoDepthColoured) {
    TalvoroFrame f;
    f.setFilterType(0, true);
    f.post_processing(cv::Mat::zeros(480, 640, CV_8UC1));
    cv::Mat zeroColour;
    cv::applyColorMap(cv::Mat::zeros(1, 1, CV_8UC1), zeroColour, 4);
    EXPECT_NE(zeroColour.at<cv::Vec3b>(0, 0), cv::Vec3b(0, 0, 0));
    EXPECT_EQ(f.image(Image::ColorMap).at<cv::Vec3b>(240, 320), zeroColour.at<cv::Vec3b>(0, 0));
    f.setFilterType(0, false);
    f.setFilterType(2, true);
    f.post_processing(cv::Mat::zeros(480, 640, CV_8UC1));
    EXPECT_EQ(f.image(Image::ColorMap).at<cv::Vec3b>(240, 320), cv::Vec3b(0, 0, 0));
}
