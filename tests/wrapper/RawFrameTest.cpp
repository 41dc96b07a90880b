// The raw-frame extension: a copy of the newest frame exactly as the camera sent it, beside the
// processed images of the same frame, and from a frame callback.
// wrapper.raw_frames: RAW-1.
#include "vcam/RawDecode.h"
#include "wrapper/ApiFixture.h"

namespace apitest {
namespace {

using namespace vcamtest;

class RawFrames : public ApiTest {
  protected:
    void SetUp() override {
        ApiTest::SetUp();
        h = open("RAW-1");
    }

    // A raw frame and the images processed from that very frame: a fetch counts only when the
    // raw frame is the same before and after it (no newer frame slipped in).
    void fetchBoth(uint32_t bytes, std::vector<uint8_t>* raw, Frames* frames) {
        raw->assign(bytes, 0);
        std::vector<uint8_t> after(bytes);
        RawFrameInfo before{}, again{};
        ASSERT_TRUE(waitFor([&] {
            return GetRawFrame(h, raw->data(), bytes, &before) == Ok && GetNextFrame(h) == Ok &&
                   GetFrames(h, frames) == Ok &&
                   GetRawFrame(h, after.data(), bytes, &again) == Ok &&
                   again.sequence == before.sequence;
        }));
        EXPECT_EQ(before.size, bytes);
        EXPECT_EQ(*raw, after);
    }

    DeviceHandle h{};
};

uint16_t pixel16(const ToFFrame& f, int row, int col) {
    uint16_t v;
    std::memcpy(&v, f.frame_data + 2 * (static_cast<std::size_t>(row) * f.width + col), 2);
    return v;
}

// Every depth value of the image equals the raw frame's (the default processing leaves near-range
// depth as the camera sent it); IR is the raw value times the default gain of 16, saturated.
void expectSameTof(const Image16& depth, const Image16& ir, const Frames& frames) {
    int depthDiffer = 0, irDiffer = 0;
    for (int r = 0; r < 480; ++r)
        for (int c = 0; c < 640; ++c) {
            depthDiffer += pixel16(frames.raw_depth_frame, r, c) != depth.at(r, c);
            const uint32_t gained = std::min<uint32_t>(ir.at(r, c) * 16u, 65535u);
            irDiffer += pixel16(frames.ir_frame, r, c) != gained;
        }
    EXPECT_EQ(depthDiffer, 0);
    EXPECT_EQ(irDiffer, 0);
}

TEST_F(RawFrames, RefuseWhatCannotBeCopied) {
    RawFrameInfo info{};
    std::vector<uint8_t> buffer(1536000, 0xA5);
    EXPECT_EQ(GetRawFrame(handleOf("NO-SUCH"), buffer.data(), 1536000, &info), CameraNotOpened);
    EXPECT_EQ(GetRawFrame(h, buffer.data(), 1536000, nullptr), InvalidValue);

    // A null buffer of no capacity asks for the size; a short buffer is left alone.
    ASSERT_TRUE(waitFor([&] { return GetRawFrame(h, nullptr, 0, &info) == InvalidValue; }));
    EXPECT_EQ(info.size, 1536000u);
    EXPECT_EQ(info.data_mode, Depth_IR_RGB_VGA_Mode);
    EXPECT_EQ(GetRawFrame(h, buffer.data(), 1535999, &info), InvalidValue);
    EXPECT_EQ(buffer.front(), 0xA5);
    EXPECT_EQ(buffer.back(), 0xA5);

    ASSERT_EQ(CloseDevice(h), Ok);
    EXPECT_EQ(GetRawFrame(h, buffer.data(), 1536000, &info), CameraNotOpened);
}

TEST_F(RawFrames, DepthAndIrModeIsTheCamerasRowPairs) {
    ASSERT_EQ(SetDataMode(h, Depth_IR_Mode), Ok);
    std::vector<uint8_t> raw;
    Frames frames{};
    fetchBoth(1228800, &raw, &frames);
    Image16 depth, ir;
    decodeRowPairs(raw, &depth, &ir);
    expectSameTof(depth, ir, frames);
}

TEST_F(RawFrames, MultiplexedModeCarriesTheColourLinesAsTheyAre) {
    std::vector<uint8_t> raw;
    Frames frames{};
    fetchBoth(1536000, &raw, &frames);
    const Multiplexed m = decodeMultiplexed(raw, 1280);
    ASSERT_TRUE(m.complete);
    ASSERT_EQ(m.colourLines.size(), 480u);
    expectSameTof(m.depth, m.ir, frames);
    int differ = 0;
    for (int r = 0; r < 480; ++r)
        differ += std::memcmp(m.colourLines[r], frames.rgb_frame.frame_data + r * 1280, 1280) != 0;
    EXPECT_EQ(differ, 0);
}

TEST_F(RawFrames, FrameCallbackSeesEachFrameItAnnounces) {
    ASSERT_EQ(SetDataMode(h, Depth_Mode), Ok);
    struct Seen {
        std::mutex mutex;
        std::vector<RawFrameInfo> frames;
        std::vector<int> results;
    };
    // Lives as long as the fixture: the camera keeps its callback until it is unregistered.
    static Seen seen;
    RegisterFrameCallback(h, [this](int, int) {
        std::vector<uint8_t> buffer(614400);
        RawFrameInfo info{};
        const int result = GetRawFrame(h, buffer.data(), 614400, &info);
        {
            std::lock_guard<std::mutex> lock(seen.mutex);
            seen.frames.push_back(info);
            seen.results.push_back(result);
        }
    });
    ASSERT_TRUE(waitFor([&] {
        std::lock_guard<std::mutex> lock(seen.mutex);
        return seen.frames.size() >= 6;
    }));
    std::lock_guard<std::mutex> lock(seen.mutex);
    for (std::size_t i = 0; i < seen.frames.size(); ++i) {
        EXPECT_EQ(seen.results[i], Ok);
        EXPECT_EQ(seen.frames[i].size, 614400u);
        EXPECT_EQ(seen.frames[i].data_mode, Depth_Mode);
        if (i == 0) continue;
        // One callback per frame, each with the frame it announces.
        EXPECT_GT(seen.frames[i].sequence, seen.frames[i - 1].sequence);
        EXPECT_GT(seen.frames[i].time_stamp_ns, seen.frames[i - 1].time_stamp_ns);
    }
}

}  // namespace
}  // namespace apitest
