// Raw buffers of any length and content in every mode, and concurrent use from the Device's
// threads.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "FrameTestSupport.h"
#include "SampleCalibration.h"

using namespace talvoro_test;
using Talvoro::TalvoroFrame;

namespace {

const size_t kFrameBytes[10] = {1228800, 0,      614400,  614400,  1536000,
                                2770560, 614400, 1843200, 4147200, 4608000};

// Everything on, with complete calibrations, so that every stage sees the garbage.
void everythingOn(TalvoroFrame& f) {
    talvoro_sample::loadBoth(f);
    f.createThetaMat();
    f.setPlanarization(1);
    f.setFilterType(0, true);
    f.setFilterType(1, true);
    f.setFilterType(2, true);
    f.setProcessingFlags(
        TalvoroFrame::kUndistortion | TalvoroFrame::kRgbdMapping | TalvoroFrame::kFlyingPixel,
        true);
    f.setAvgIRDisplay(1);
    f.setDepthPos({639, 0});
    f.setAvgRegion(1);
    f.updateColorMap(0, 5000, 4);
}

}  // namespace

TEST(Robustness, AnyBufferGivesACodeInEveryMode) {
    std::mt19937 rng(99);
    for (bool on : {false, true}) {
        TalvoroFrame f;
        if (on) everythingOn(f);
        for (int mode = 0; mode <= 10; ++mode) {
            const size_t full = mode < 10 ? kFrameBytes[mode] : 5000;
            for (size_t length :
                 {size_t(0), size_t(1), full / 3, full ? full - 1 : 7, full, full + 4097}) {
                Bytes raw(length);
                for (auto& b : raw)
                    b = uint8_t(rng());
                if (mode == 4 || mode == 5) {
                    // Mostly well-formed, truncated or extended: a real frame with noise.
                    Bytes good = multiplexed(
                        mode == 5, [](int, int c) { return c ? 77 : 0x10; },
                        [](int, int c) { return c ? 9 : 0x10; });
                    std::copy(good.begin(), good.begin() + std::min(length, good.size()),
                              raw.begin());
                }
                const int result = process(f, mode, raw);
                EXPECT_TRUE(result == 1 || result == -18) << mode << " " << length << " " << result;
                Talvoro::ToFFrame out;
                for (int type = 0; type < 4; ++type)
                    f.getToFFrame(Talvoro::FrameType(type), &out);
            }
        }
    }
}

TEST(Robustness, SettingsAndReadersRunBesideProcessing) {
    TalvoroFrame f;
    everythingOn(f);
    const Bytes raw = multiplexed(
        false, [](int r, int c) { return c ? (r * c) & 0xFFF : 0x10; },
        [](int, int c) { return c ? 300 : 0x10; });
    f.initFrame(4);
    std::atomic<bool> done{false};
    std::thread settings([&] {
        for (int i = 0; !done; ++i) {
            f.setAvgRegion(i % 3);
            f.updateColorMap(i % 100, 3000 + i % 7, i % 23);
            f.setFilterType(i % 3, i % 2);
            f.setDepthPos({i % 700, i % 500});
            f.updateDepthRange(uint16_t(i % 3));
            f.setCursorColor(i % 2);
            f.setIRGain(uint16_t(1 + i % 100));
            f.setProcessingFlags(TalvoroFrame::kFlyingPixel, i % 2);
            f.calculateAverages();
            f.stampCapture(i);
        }
    });
    std::thread reader([&] {
        Talvoro::ToFFrame out;
        Talvoro::Frames frames;
        while (!done) {
            f.getToFFrame(Talvoro::DepthColorMap, &out);
            f.fillFrames(&frames);
        }
    });
    for (int i = 0; i < 12; ++i) {
        ASSERT_EQ(f.setupFrame(const_cast<uint8_t*>(raw.data()), int(raw.size())), 1);
        ASSERT_EQ(f.processFrame(), 1);
    }
    done = true;
    settings.join();
    reader.join();
}
