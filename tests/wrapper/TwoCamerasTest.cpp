// Two cameras streaming at once, each driven by an application thread of its own.
// wrapper.two_cameras: TWO-A on /dev/video0, TWO-B on /dev/video2.
#include <thread>

#include "vcam/RawDecode.h"
#include "wrapper/ApiFixture.h"

namespace apitest {
namespace {

using TwoCameras = ApiTest;

struct Outcome {
    int frames = 0;
    int wrongSize = 0;
    int wrongDepth = 0;
};

// Fetches `count` depth images and checks each against the room.
void stream(const DeviceHandle& h, Talvoro::DataMode mode, int count, Outcome* out) {
    if (SetDataMode(h, mode) != Ok) return;
    const double want = vcamtest::radialToPlaneZ(vcamtest::kWallCol, vcamtest::kWallRow, 2400);
    while (out->frames < count) {
        ToFFrame depth{};
        if (!waitFor(
                [&] { return GetNextFrame(h) == Ok && GetToFFrame(h, RawDepth, &depth) == Ok; }))
            return;
        ++out->frames;
        if (depth.width != 640 || depth.height != 480) {
            ++out->wrongSize;
            continue;
        }
        uint16_t d;
        std::memcpy(&d, depth.frame_data + 2 * (vcamtest::kWallRow * 640 + vcamtest::kWallCol), 2);
        if (std::abs(d - want) > 60) ++out->wrongDepth;
    }
}

TEST_F(TwoCameras, StreamFromTwoThreadsAtOnce) {
    const DeviceHandle a = open("TWO-A"), b = open("TWO-B");
    EventLog& framesB = newEventLog();
    RegisterFrameCallback(b, framesB.callback());
    Outcome outA, outB;
    std::thread ta(stream, a, Depth_IR_Mode, 40, &outA);
    std::thread tb(stream, b, Depth_IR_RGB_HD_Mode, 40, &outB);
    ta.join();
    tb.join();
    EXPECT_EQ(outA.frames, 40);
    EXPECT_EQ(outB.frames, 40);
    EXPECT_EQ(outA.wrongSize + outB.wrongSize, 0);
    // A single pixel: the camera's noise allows a rare outlier, not a systematic one.
    EXPECT_LE(outA.wrongDepth + outB.wrongDepth, 2);
    // Each camera's callback carries its own index.
    EXPECT_TRUE(framesB.waitFor(1, 1));
    for (const auto& e : framesB.events())
        EXPECT_EQ(e.second, 1);
    Talvoro::DataMode mode = No_Image_Mode;
    ASSERT_EQ(GetDataMode(a, &mode), Ok);
    EXPECT_EQ(mode, Depth_IR_Mode);
    ASSERT_EQ(GetDataMode(b, &mode), Ok);
    EXPECT_EQ(mode, Depth_IR_RGB_HD_Mode);
}

}  // namespace
}  // namespace apitest
