// The video faults, injected while the program runs (the unplug fault has its own runs).
#include "RawDecode.h"
#include "VcamFixture.h"
#include "VideoDevice.h"

using namespace vcamtest;

namespace {

using Faults = VcamTest;

// Takes every finished buffer and gives it back, so that the next frame is a new one.
void drain(VideoDevice& dev) {
    v4l2_buffer b = VideoDevice::buffer(0);
    while (dev.ioctl(VIDIOC_DQBUF, &b) == 0) {
        ASSERT_EQ(dev.queue(b.index), 0);
        b = VideoDevice::buffer(0);
    }
}

// Grabs frames until one satisfies `test` (frames in flight still show the old behaviour).
template <typename Fn>
bool frameWhere(VideoDevice& dev, Fn test, v4l2_buffer* found = nullptr) {
    for (int i = 0; i < 60; ++i) {
        v4l2_buffer b{};
        const std::vector<uint8_t> frame = dev.grab(&b);
        if (frame.empty()) return false;
        if (test(frame, b)) {
            if (found) *found = b;
            return true;
        }
    }
    return false;
}

TEST_F(Faults, StallStopsTheFramesUntilCleared) {
    VideoDevice dev(kNode);
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 640, 480), 0);
    dev.start(3);
    EXPECT_FALSE(dev.grab().empty());
    ASSERT_TRUE(talvoro_vcam::injectFault(kCamera, "stall"));
    const auto stalled = counters(kCamera);
    // The camera's clock runs on; at most the frame being filled still arrives.
    ASSERT_TRUE(waitFor([&] { return counters(kCamera).elapsed >= stalled.elapsed + 5; }));
    EXPECT_LE(counters(kCamera).produced, stalled.produced + 1);
    drain(dev);
    EXPECT_FALSE(readable(dev.fd(), 300));
    ASSERT_TRUE(talvoro_vcam::clearFault(kCamera, "stall"));
    EXPECT_FALSE(dev.grab().empty());
    dev.stop();
}

TEST_F(Faults, ShortFramesReportLessThanTheBufferHolds) {
    VideoDevice dev(kNode);
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 1280, 600), 0);
    dev.start(3);
    auto sized = [](std::size_t n) {
        return [n](const std::vector<uint8_t>& f, const v4l2_buffer&) { return f.size() == n; };
    };
    ASSERT_TRUE(talvoro_vcam::injectFault(kCamera, "short"));
    EXPECT_TRUE(frameWhere(dev, sized(768000)));  // half the buffer by default
    ASSERT_TRUE(talvoro_vcam::clearFault(kCamera, "short"));
    ASSERT_TRUE(talvoro_vcam::injectFault(kCamera, "short:100"));
    EXPECT_TRUE(frameWhere(dev, sized(1536000 - 100)));
    ASSERT_TRUE(talvoro_vcam::clearFault(kCamera, "short"));
    EXPECT_TRUE(frameWhere(dev, sized(1536000)));
    dev.stop();
}

TEST_F(Faults, AFaultWaitsForItsFrame) {
    VideoDevice dev(kNode);
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 1280, 600), 0);
    dev.start(3);
    EXPECT_FALSE(dev.grab().empty());
    const auto now = counters(kCamera);
    const std::string spec = "short:1@" + std::to_string(now.elapsed + 15);
    ASSERT_TRUE(talvoro_vcam::injectFault(kCamera, spec.c_str()));
    EXPECT_EQ(dev.grab().size(), 1536000u);  // produced before frame 15 from now
    EXPECT_TRUE(frameWhere(dev, [](const std::vector<uint8_t>& f, const v4l2_buffer&) {
        return f.size() == 1536000 - 1;
    }));
    dev.stop();
}

TEST_F(Faults, MalformedMultiplexedFramesCarryA481stDepthLine) {
    const std::pair<uint32_t, std::size_t> formats[] = {{600, 1280}, {960, 2568}};
    for (const auto& [height, colourLine] : formats) {
        VideoDevice dev(kNode);
        ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, height == 600 ? 1280 : 1443, height), 0);
        dev.start(3);
        ASSERT_TRUE(talvoro_vcam::injectFault(kCamera, "malformed"));
        Multiplexed m;
        EXPECT_TRUE(frameWhere(
            dev, [&, line = colourLine](const std::vector<uint8_t>& f, const v4l2_buffer&) {
                m = decodeMultiplexed(f, line);
                return m.depthLines > 480;
            }));
        EXPECT_EQ(m.depthLines, 481);
        EXPECT_EQ(m.irLines, 480);
        ASSERT_TRUE(talvoro_vcam::clearFault(kCamera, "malformed"));
        dev.stop();
    }
}

TEST_F(Faults, ReqbufsGrantsTheFaultsCountWhateverIsAsked) {
    VideoDevice dev(kNode);
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 640, 480), 0);
    ASSERT_TRUE(talvoro_vcam::injectFault(kCamera, "reqbufs:2"));
    EXPECT_EQ(dev.requestBuffers(3), 2);
    EXPECT_EQ(dev.requestBuffers(0), 0);  // freeing is not affected
    ASSERT_TRUE(talvoro_vcam::clearFault(kCamera, "reqbufs"));
    ASSERT_TRUE(talvoro_vcam::injectFault(kCamera, "reqbufs:5"));
    dev.start(3);
    v4l2_buffer b = VideoDevice::buffer(4);
    EXPECT_EQ(dev.ioctl(VIDIOC_QUERYBUF, &b), 0);  // all five exist and are queued
    EXPECT_TRUE(b.flags & V4L2_BUF_FLAG_QUEUED);
    EXPECT_FALSE(dev.grab().empty());
    dev.stop();
    ASSERT_TRUE(talvoro_vcam::clearFault(kCamera, "reqbufs"));
    EXPECT_EQ(dev.requestBuffers(3), 3);
    dev.requestBuffers(0);
}

TEST_F(Faults, EintrInterruptsEveryIoctlOnceOnBothNodes) {
    VideoDevice dev(kNode), meta(kMetaNode);
    ASSERT_TRUE(talvoro_vcam::injectFault(kCamera, "eintr"));
    v4l2_format f{};
    f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(rawIoctl(dev.fd(), VIDIOC_G_FMT, &f), -EINTR);
        EXPECT_EQ(rawIoctl(dev.fd(), VIDIOC_G_FMT, &f), 0);
    }
    v4l2_capability cap{};
    EXPECT_EQ(rawIoctl(meta.fd(), VIDIOC_QUERYCAP, &cap), -EINTR);
    EXPECT_EQ(rawIoctl(meta.fd(), VIDIOC_QUERYCAP, &cap), 0);
    // A client that retries, as the library does, streams normally.
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 640, 480), 0);
    dev.start(2);
    EXPECT_FALSE(dev.grab().empty());
    dev.stop();
    ASSERT_TRUE(talvoro_vcam::clearFault(kCamera, "eintr"));
    EXPECT_EQ(rawIoctl(dev.fd(), VIDIOC_G_FMT, &f), 0);
    EXPECT_EQ(rawIoctl(dev.fd(), VIDIOC_G_FMT, &f), 0);
}

// A driver that lies: the answers say what no real buffer or format could be.
TEST_F(Faults, LyingAnswersReachTheApplicationAsTheyAre) {
    VideoDevice dev(kNode);
    ASSERT_TRUE(talvoro_vcam::injectFault(kCamera, "format-size:320x240"));
    v4l2_pix_format answer;
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 640, 480, &answer), 0);
    EXPECT_EQ(answer.width, 320u);
    EXPECT_EQ(answer.height, 240u);
    EXPECT_EQ(answer.sizeimage, 320u * 240 * 2);
    EXPECT_EQ(dev.format().width, 320u);  // and the camera goes by it
    ASSERT_EQ(dev.requestBuffers(1), 1);
    EXPECT_EQ(dev.queryBuffer(0).length, 320u * 240 * 2);
    ASSERT_EQ(dev.requestBuffers(0), 0);
    ASSERT_TRUE(talvoro_vcam::clearFault(kCamera, "format-size"));
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 640, 480), 0);

    ASSERT_TRUE(talvoro_vcam::injectFault(kCamera, "zero-length"));
    ASSERT_EQ(dev.requestBuffers(2), 2);
    const v4l2_buffer empty = dev.queryBuffer(1);
    EXPECT_EQ(empty.length, 0u);
    EXPECT_EQ(::mmap(nullptr, empty.length, PROT_READ, MAP_SHARED, dev.fd(), empty.m.offset),
              MAP_FAILED);
    ASSERT_EQ(dev.requestBuffers(0), 0);
    ASSERT_TRUE(talvoro_vcam::clearFault(kCamera, "zero-length"));

    // The dequeue answers lie; the frames behind them are whole.
    dev.start(3);
    ASSERT_TRUE(talvoro_vcam::injectFault(kCamera, "long:100"));
    v4l2_buffer b;
    ASSERT_EQ(dev.dequeue(&b), 0);
    EXPECT_EQ(b.bytesused, b.length + 100);
    ASSERT_EQ(dev.queue(b.index), 0);
    ASSERT_TRUE(talvoro_vcam::clearFault(kCamera, "long"));
    ASSERT_TRUE(talvoro_vcam::injectFault(kCamera, "bad-index"));
    ASSERT_EQ(dev.dequeue(&b), 0);
    EXPECT_EQ(b.index, 3u);  // one past the last buffer
    EXPECT_EQ(dev.queue(b.index), -EINVAL);
    ASSERT_TRUE(talvoro_vcam::clearFault(kCamera, "bad-index"));
    dev.stop();
}

TEST_F(Faults, FaultsStayWithTheirCamera) {
    ASSERT_TRUE(talvoro_vcam::injectFault(kSlowCamera, "reqbufs:1"));
    VideoDevice dev(kNode);
    EXPECT_EQ(dev.requestBuffers(3), 3);
    dev.requestBuffers(0);
    EXPECT_FALSE(talvoro_vcam::injectFault("NO-SUCH-CAMERA", "stall"));
    EXPECT_FALSE(talvoro_vcam::injectFault(kCamera, "no-such-fault"));
}

}  // namespace
