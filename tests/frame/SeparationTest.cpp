// Raw layouts of every data mode, the private copy, and far-range doubling.
#include <gtest/gtest.h>

#include <cstring>

#include "FrameTestSupport.h"
#include "log/TALVOROError.h"

using namespace talvoro_test;
using Talvoro::TalvoroFrame;

namespace {

// Value patterns that differ per row and column and stay within 12 bits (bit 4 of column 0 is
// the ToF tag).
int depthAt(int r, int c) {
    return c == 0 ? 0x10 | (r & 0x7F) << 5 : (r * 7 + c * 3) & 0xFFF;
}
int irAt(int r, int c) {
    return c == 0 ? 0x810 | (r & 0xF) << 5 : (r * 5 + c * 11 + 9) & 0xFFF;
}

}  // namespace

TEST(Separation, Mode0RowPairsAndSaturatingIrGain) {
    TalvoroFrame f;
    const Bytes raw = rowPairs([](int r, int c) { return r * 640 + c; },
                               [](int r, int c) { return (r + c) % 2 ? 5000 : 100; });
    ASSERT_EQ(process(f, 0, raw), 1);
    EXPECT_EQ(at16(f.image(Image::Depth), 0, 1), 1);
    EXPECT_EQ(at16(f.image(Image::Depth), 479, 639), uint16_t(479 * 640 + 639));
    EXPECT_EQ(at16(f.image(Image::RawIR), 0, 1), 5000);
    EXPECT_EQ(at16(f.image(Image::IR), 0, 1), 65535);  // 5000 x 16 saturates
    EXPECT_EQ(at16(f.image(Image::IR), 3, 1), 1600);
}

TEST(Separation, Modes2And3AreSingleImages) {
    TalvoroFrame f;
    ASSERT_EQ(process(f, 2, image16([](int r, int c) { return r * 3 + c; })), 1);
    EXPECT_EQ(at16(f.image(Image::Depth), 10, 20), 50);
    f.setIRGain(3);
    ASSERT_EQ(process(f, 3, image16([](int r, int c) { return r + c + 30000; })), 1);
    EXPECT_EQ(at16(f.image(Image::RawIR), 1, 2), 30003);
    EXPECT_EQ(at16(f.image(Image::IR), 1, 2), 65535);
    EXPECT_EQ(at16(f.image(Image::IR), 0, 0), 65535);
    EXPECT_EQ(at16(f.image(Image::Depth), 10, 20), 50);  // mode 3 leaves depth alone
}

TEST(Separation, Mode4DecodesTwelveBitLinesWithColourFirst) {
    TalvoroFrame f;
    Bytes raw = multiplexed(
        false, [](int r, int c) { return r == 0 && c < 2 ? (c ? 0xCDF : 0xABE) : depthAt(r, c); },
        irAt);
    ASSERT_EQ(raw.size(), 1536000u);
    // The first ToF line, right after the first colour line, starts with AB CD EF.
    ASSERT_EQ(raw[1280], 0xAB);
    ASSERT_EQ(raw[1281], 0xCD);
    ASSERT_EQ(raw[1282], 0xEF);
    ASSERT_EQ(raw[0] & 1, 0);  // colour first
    ASSERT_EQ(process(f, 4, raw), 1);
    EXPECT_EQ(at16(f.image(Image::Depth), 0, 0), 0xABE);
    EXPECT_EQ(at16(f.image(Image::Depth), 0, 1), 0xCDF);
    EXPECT_EQ(at16(f.image(Image::Depth), 479, 0), depthAt(479, 0));  // the tag stays as bit 4
    EXPECT_EQ(at16(f.image(Image::Depth), 300, 555), depthAt(300, 555));
    EXPECT_EQ(at16(f.image(Image::RawIR), 17, 33), irAt(17, 33));
    EXPECT_EQ(at16(f.image(Image::IR), 17, 33), std::min(65535, irAt(17, 33) * 16));
    EXPECT_EQ(0, std::memcmp(f.image(Image::Rgb).ptr(479), &raw[479 * (1280 + 1920)], 1280));
}

TEST(Separation, Mode5DropsWord319OfEveryColourLine) {
    TalvoroFrame f;
    const Bytes raw = multiplexed(true, depthAt, irAt);
    ASSERT_EQ(raw.size(), 2770560u);
    ASSERT_EQ(process(f, 5, raw), 1);
    ASSERT_EQ(f.image(Image::Rgb).size(), cv::Size(1280, 720));
    for (int r : {0, 479, 480, 719}) {
        const size_t line =
            r < 480 ? size_t(r) * (2568 + 1920) : 480 * (2568 + 1920) + (r - 480) * 2568;
        EXPECT_EQ(0, std::memcmp(f.image(Image::Rgb).ptr(r), &raw[line], 2552)) << r;
        EXPECT_EQ(0, std::memcmp(f.image(Image::Rgb).ptr(r) + 2552, &raw[line + 2560], 8)) << r;
    }
    EXPECT_EQ(at16(f.image(Image::Depth), 479, 639), depthAt(479, 639));
}

TEST(Separation, MalformedMultiplexedFramesFail) {
    LogCapture log;
    TalvoroFrame f;
    f.stampCapture(7);
    // 481 depth lines (alternating with 480 IR lines) before any colour line.
    Bytes raw;
    for (int i = 0; i < 961; ++i)
        tofLine(raw, [&](int c) { return c ? i & 0xFFF : 0x10; });
    raw.resize(1536000, 0);
    EXPECT_EQ(process(f, 4, raw), -18);
    EXPECT_EQ(Talvoro::TALVOROError::cErrorNo.load(), -18);
    EXPECT_TRUE(f.hasUnprocessedCapture());                       // nothing published
    EXPECT_EQ(at16(f.image(Image::Depth), 479, 5), 958 & 0xFFF);  // rows written so far stay
    EXPECT_EQ(log.count("\nTalvoroSDK:InvalidBuffer in process frame 0   "), 1u);

    // Too many colour lines, and a frame one byte short.
    EXPECT_EQ(process(f, 4, Bytes(1536000, 0)), -18);
    Bytes whole = multiplexed(false, depthAt, irAt);
    whole.pop_back();
    EXPECT_EQ(process(f, 4, whole), -18);
}

TEST(Separation, ShortBuffersFailInEveryMode) {
    TalvoroFrame f;
    for (int mode : {0, 2, 3, 4, 5, 6, 7, 8, 9}) {
        EXPECT_EQ(process(f, mode, Bytes(1000, 1)), -18) << mode;
    }
    EXPECT_EQ(process(f, 1, Bytes(10, 1)), 1);  // mode 1 needs nothing
}

TEST(Separation, Mode1WritesNoImage) {
    TalvoroFrame f;
    ASSERT_EQ(process(f, 2, image16([](int, int) { return 1234; })), 1);
    f.stampCapture(42);
    ASSERT_EQ(process(f, 1, image16([](int, int) { return 99; })), 1);
    EXPECT_EQ(at16(f.image(Image::Depth), 5, 5), 1234);
    EXPECT_FALSE(f.hasUnprocessedCapture());  // published all the same
}

TEST(Separation, ColourOnlyModesCopyTheImage) {
    TalvoroFrame f;
    Bytes raw(1280 * 720 * 2);
    for (size_t i = 0; i < raw.size(); ++i)
        raw[i] = uint8_t(i * 13);
    ASSERT_EQ(process(f, 7, raw), 1);
    ASSERT_EQ(f.image(Image::Rgb).size(), cv::Size(1280, 720));
    EXPECT_EQ(0, std::memcmp(f.image(Image::Rgb).ptr(), raw.data(), raw.size()));
    raw.resize(1920 * 1200 * 2, 3);
    ASSERT_EQ(process(f, 9, raw), 1);
    EXPECT_EQ(f.image(Image::Rgb).size(), cv::Size(1920, 1200));
}

TEST(Separation, PrivateCopyKeepsTheFirstLength) {
    LogCapture log;
    TalvoroFrame f;
    f.initFrame(2);
    Bytes small = image16([](int, int) { return 5; });
    Bytes large = image16([](int, int) { return 6; });
    large.resize(large.size() * 2, 0xFF);
    ASSERT_EQ(f.setupFrame(small.data(), int(small.size())), 1);
    ASSERT_EQ(f.setupFrame(large.data(), int(large.size())), 1);  // copies only 614,400
    ASSERT_EQ(f.processFrame(), 1);
    EXPECT_EQ(at16(f.image(Image::Depth), 479, 639), 6);
    // A shorter buffer is not padded with the rest of the older frame.
    ASSERT_EQ(f.setupFrame(small.data(), 1000), 1);
    EXPECT_EQ(f.processFrame(), -18);
    // Size 0 releases the copy; the next buffer allocates again.
    ASSERT_EQ(f.setupFrame(small.data(), 0), 1);
    ASSERT_EQ(f.setupFrame(small.data(), int(small.size())), 1);
    EXPECT_EQ(f.processFrame(), 1);
    EXPECT_EQ(log.count("\nTalvoroSDK:Maxlength in setup frame is 0   "), 2u);
    EXPECT_EQ(f.setupFrame(nullptr, 100), 1);
    EXPECT_EQ(f.processFrame(), -18);
}

TEST(Separation, FarRangeDoublesDepthWithSaturation) {
    TalvoroFrame f;
    f.updateDepthRange(1);
    ASSERT_EQ(process(f, 2, image16([](int r, int) { return r == 0 ? 1500 : 40000; })), 1);
    EXPECT_EQ(at16(f.image(Image::Depth), 0, 0), 3000);
    EXPECT_EQ(at16(f.image(Image::Depth), 1, 0), 65535);
}

TEST(Separation, MappingWithoutCalibrationDoublesEvenInNearRange) {
    TalvoroFrame f;
    f.setProcessingFlags(TalvoroFrame::kRgbdMapping, true);
    ASSERT_EQ(process(f, 4, multiplexed(false, depthAt, irAt)), 1);
    EXPECT_EQ(at16(f.image(Image::Depth), 300, 555), 2 * depthAt(300, 555));
    setCalibMask(f, 0x3F);  // VGA only: mode 5 still lacks its HD set
    ASSERT_EQ(process(f, 5, multiplexed(true, depthAt, irAt)), 1);
    EXPECT_EQ(at16(f.image(Image::Depth), 300, 555), 2 * depthAt(300, 555));
}
