// Buffer lifecycle, ownership, readiness (select, dup) and pacing of the capture node, and the
// metadata node's stream.
#include <linux/usb/video.h>
#include <sys/wait.h>

#include <atomic>
#include <thread>

#include "VcamFixture.h"
#include "VideoDevice.h"

using namespace vcamtest;

namespace {

using Buffers = VcamTest;

uint64_t monotonicUs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000 + static_cast<uint64_t>(ts.tv_nsec) / 1000;
}

uint64_t stampUs(const v4l2_buffer& b) {
    return static_cast<uint64_t>(b.timestamp.tv_sec) * 1000000 +
           static_cast<uint64_t>(b.timestamp.tv_usec);
}

TEST_F(Buffers, GrantsWithinDriverLimitsAndDescribesEachBuffer) {
    VideoDevice dev(kNode);
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 1280, 600), 0);
    EXPECT_EQ(dev.requestBuffers(100), 32);
    EXPECT_EQ(dev.requestBuffers(3), 3);
    uint32_t lastOffset = 0;
    for (uint32_t i = 0; i < 3; ++i) {
        const v4l2_buffer b = dev.queryBuffer(i);
        EXPECT_EQ(b.index, i);
        EXPECT_EQ(b.length, 1536000u);
        EXPECT_EQ(b.memory, uint32_t(V4L2_MEMORY_MMAP));
        EXPECT_EQ(b.m.offset % 4096, 0u);
        if (i > 0) {
            EXPECT_GT(b.m.offset, lastOffset);
        }
        lastOffset = b.m.offset;
        EXPECT_EQ(b.flags & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE), 0u);
    }
    v4l2_buffer bad = VideoDevice::buffer(3);
    EXPECT_EQ(dev.ioctl(VIDIOC_QUERYBUF, &bad), -EINVAL);
    bad = VideoDevice::buffer(0);
    bad.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    EXPECT_EQ(dev.ioctl(VIDIOC_QUERYBUF, &bad), -EINVAL);
    v4l2_requestbuffers userptr{};
    userptr.count = 2;
    userptr.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    userptr.memory = V4L2_MEMORY_USERPTR;
    EXPECT_EQ(dev.ioctl(VIDIOC_REQBUFS, &userptr), -EINVAL);
    EXPECT_EQ(dev.requestBuffers(0), 0);
    v4l2_buffer gone = VideoDevice::buffer(0);
    EXPECT_EQ(dev.ioctl(VIDIOC_QUERYBUF, &gone), -EINVAL);
}

TEST_F(Buffers, MappingsAreSharedMemoryThatOutlivesTheBuffers) {
    VideoDevice dev(kNode);
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 640, 480), 0);
    ASSERT_EQ(dev.requestBuffers(2), 2);
    const v4l2_buffer b = dev.queryBuffer(1);
    const int dupFd = ::dup(dev.fd());
    auto* a = static_cast<uint8_t*>(
        ::mmap(nullptr, b.length, PROT_READ | PROT_WRITE, MAP_SHARED, dev.fd(), b.m.offset));
    auto* c =
        static_cast<uint8_t*>(::mmap(nullptr, b.length, PROT_READ, MAP_SHARED, dupFd, b.m.offset));
    ASSERT_NE(a, MAP_FAILED);
    ASSERT_NE(c, MAP_FAILED);
    a[b.length - 1] = 0xA5;
    EXPECT_EQ(c[b.length - 1], 0xA5);

    errno = 0;
    EXPECT_EQ(::mmap(nullptr, b.length, PROT_READ, MAP_PRIVATE, dev.fd(), b.m.offset), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(::mmap(nullptr, b.length, PROT_READ, MAP_SHARED, dev.fd(), b.m.offset + 4096),
              MAP_FAILED);
    EXPECT_EQ(::mmap(nullptr, b.length * 2, PROT_READ, MAP_SHARED, dev.fd(), b.m.offset),
              MAP_FAILED);

    // Freed buffers stay mapped until the application unmaps them (orphaned buffers).
    ASSERT_EQ(dev.requestBuffers(0), 0);
    EXPECT_EQ(c[b.length - 1], 0xA5);
    EXPECT_EQ(::mmap(nullptr, b.length, PROT_READ, MAP_SHARED, dev.fd(), b.m.offset), MAP_FAILED);
    ::munmap(a, b.length);
    ::munmap(c, b.length);
    ::close(dupFd);
}

TEST_F(Buffers, QueueDequeueAndStopFollowTheDriverRules) {
    VideoDevice dev(kNode);
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 1280, 600), 0);
    ASSERT_EQ(dev.requestBuffers(3), 3);
    ASSERT_EQ(dev.queue(0), 0);
    EXPECT_EQ(dev.queue(0), -EINVAL);  // already queued
    EXPECT_EQ(dev.queue(3), -EINVAL);
    EXPECT_TRUE(dev.queryBuffer(0).flags & V4L2_BUF_FLAG_QUEUED);
    v4l2_buffer b = VideoDevice::buffer(0);
    EXPECT_EQ(dev.ioctl(VIDIOC_DQBUF, &b), -EINVAL);  // not streaming
    EXPECT_EQ(dev.queue(1), 0);
    EXPECT_EQ(dev.queue(2), 0);
    uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(dev.ioctl(VIDIOC_STREAMON, &type), 0);
    EXPECT_EQ(dev.ioctl(VIDIOC_STREAMON, &type), 0);  // a second STREAMON is harmless

    uint32_t lastSequence = 0;
    uint64_t lastStamp = 0;
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(dev.dequeue(&b), 0);
        const uint64_t now = monotonicUs();
        EXPECT_EQ(b.bytesused, 1536000u);
        EXPECT_EQ(b.flags & (V4L2_BUF_FLAG_TIMESTAMP_MASK | V4L2_BUF_FLAG_DONE |
                             V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_ERROR),
                  uint32_t(V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC));
        EXPECT_EQ(b.field, uint32_t(V4L2_FIELD_NONE));
        EXPECT_LE(stampUs(b), now);  // monotonic clock, frame time in the past
        EXPECT_GT(stampUs(b), now - 20000000);
        if (i == 0) {
            EXPECT_EQ(b.sequence, 0u);
        } else {
            EXPECT_GT(b.sequence, lastSequence);
            EXPECT_GT(stampUs(b), lastStamp);
        }
        lastSequence = b.sequence;
        lastStamp = stampUs(b);
        ASSERT_EQ(dev.queue(b.index), 0);
    }

    ASSERT_EQ(dev.streamOff(), 0);
    for (uint32_t i = 0; i < 3; ++i)
        EXPECT_EQ(dev.queryBuffer(i).flags & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE), 0u);
    b = VideoDevice::buffer(0);
    EXPECT_EQ(dev.ioctl(VIDIOC_DQBUF, &b), -EINVAL);
    type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    EXPECT_EQ(dev.ioctl(VIDIOC_STREAMON, &type), -EINVAL);

    // Streaming again starts the sequence afresh.
    for (uint32_t i = 0; i < 3; ++i)
        ASSERT_EQ(dev.queue(i), 0);
    type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(dev.ioctl(VIDIOC_STREAMON, &type), 0);
    ASSERT_EQ(dev.dequeue(&b), 0);
    EXPECT_EQ(b.sequence, 0u);
    dev.stop();
}

TEST_F(Buffers, OneStreamerAtATimeUntilItLetsGo) {
    VideoDevice first(kNode), second(kNode);
    ASSERT_EQ(first.setFormat(V4L2_PIX_FMT_Y16, 1280, 600), 0);
    first.start(2);
    EXPECT_EQ(second.requestBuffers(2), -EBUSY);
    EXPECT_EQ(second.queue(0), -EBUSY);
    v4l2_buffer b = VideoDevice::buffer(0);
    EXPECT_EQ(second.ioctl(VIDIOC_DQBUF, &b), -EBUSY);
    uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(second.ioctl(VIDIOC_STREAMON, &type), -EBUSY);
    EXPECT_EQ(second.ioctl(VIDIOC_STREAMOFF, &type), -EBUSY);
    EXPECT_FALSE(first.grab().empty());

    // Closing the streamer's last descriptor stops the stream and frees its buffers.
    first.close();
    ASSERT_EQ(second.requestBuffers(2), 2);
    second.start(2);
    EXPECT_FALSE(second.grab().empty());
}

TEST_F(Buffers, DequeueWaitsOnBlockingDescriptorsOnly) {
    VideoDevice dev(kSlowNode);
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 640, 480), 0);
    dev.start(2);
    v4l2_buffer b = VideoDevice::buffer(0);
    EXPECT_EQ(dev.ioctl(VIDIOC_DQBUF, &b), -EAGAIN);  // the first frame is half a second away

    // Blocking mode is read at each call, so fcntl() after open counts.
    ASSERT_EQ(::fcntl(dev.fd(), F_SETFL, ::fcntl(dev.fd(), F_GETFL) & ~O_NONBLOCK), 0);
    b = VideoDevice::buffer(0);
    ASSERT_EQ(dev.ioctl(VIDIOC_DQBUF, &b), 0);
    ASSERT_EQ(dev.queue(b.index), 0);

    // A blocked dequeue returns when the stream is switched off.
    std::atomic<int> result{1};
    std::atomic<pid_t> tid{0};
    std::thread waiter([&] {
        tid = threadId();
        v4l2_buffer w = VideoDevice::buffer(0);
        result = dev.ioctl(VIDIOC_DQBUF, &w);
    });
    EXPECT_TRUE(waitFor([&] { return tid != 0 && sleeping(tid); }));
    ASSERT_EQ(dev.streamOff(), 0);
    waiter.join();
    EXPECT_TRUE(result == -EINVAL || result == 0) << result;
}

TEST_F(Buffers, FramesWithoutAQueuedBufferAreDroppedAndCounted) {
    const auto before = counters(kCamera);
    VideoDevice dev(kNode);
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 640, 480), 0);
    dev.start(2);
    v4l2_buffer a, b;
    ASSERT_EQ(dev.dequeue(&a), 0);
    ASSERT_EQ(dev.dequeue(&b), 0);
    // Both buffers are with the application: the camera must drop.
    ASSERT_TRUE(waitFor([&] { return counters(kCamera).dropped >= before.dropped + 3; }));
    ASSERT_EQ(dev.queue(a.index), 0);
    v4l2_buffer c;
    ASSERT_EQ(dev.dequeue(&c), 0);
    EXPECT_GE(c.sequence, b.sequence + 4);  // the dropped frames leave a gap
    const auto after = counters(kCamera);
    EXPECT_GE(after.produced, before.produced + 3);
    EXPECT_EQ(after.dequeued, before.dequeued + 3);
    EXPECT_GE(after.elapsed - before.elapsed,
              after.produced - before.produced + after.dropped - before.dropped);
    dev.stop();
}

TEST_F(Buffers, AForkedChildLeavesTheParentsStreamAlone) {
    VideoDevice dev(kNode);
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 640, 480), 0);
    dev.start(3);
    EXPECT_FALSE(dev.grab().empty());
    const pid_t child = ::fork();
    if (child == 0) {
        // The child may use the camera on its own: its copy of the stream stands stopped.
        v4l2_format f{};
        f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        const bool ok = xioctl(dev.fd(), VIDIOC_G_FMT, &f) == 0 && f.fmt.pix.width == 640;
        v4l2_buffer b = VideoDevice::buffer(0);
        const bool stopped = xioctl(dev.fd(), VIDIOC_DQBUF, &b) == -EINVAL;
        ::close(dev.fd());
        ::_exit(ok && stopped ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(dev.grab().empty());
    dev.stop();
}

TEST_F(Buffers, TheMetadataNodeStreamsAPayloadHeaderWithEveryFrame) {
    VideoDevice meta(kMetaNode, O_RDWR | O_NONBLOCK, V4L2_BUF_TYPE_META_CAPTURE);
    meta.start(4);
    // On its own it follows the camera's clock: one UVC payload header per frame time.
    v4l2_buffer m{};
    std::vector<uint8_t> block = meta.grab(&m);
    ASSERT_EQ(block.size(), 22u);
    uint64_t ns;
    std::memcpy(&ns, block.data(), sizeof ns);
    EXPECT_EQ(ns / 1000, stampUs(m));
    EXPECT_EQ(block[10], 12);  // bHeaderLength, with presentation time and source clock
    EXPECT_EQ(block[11] & (UVC_STREAM_EOH | UVC_STREAM_PTS | UVC_STREAM_SCR),
              UVC_STREAM_EOH | UVC_STREAM_PTS | UVC_STREAM_SCR);
    VideoDevice other(kMetaNode, O_RDWR | O_NONBLOCK, V4L2_BUF_TYPE_META_CAPTURE);
    EXPECT_EQ(other.requestBuffers(1), -EBUSY);
    v4l2_format f{};
    f.type = V4L2_BUF_TYPE_META_CAPTURE;
    EXPECT_EQ(other.ioctl(VIDIOC_S_FMT, &f), -EBUSY);

    // With the video stream each header goes with a frame: same sequence, same time.
    meta.stop();
    VideoDevice video(kNode);
    ASSERT_EQ(video.setFormat(V4L2_PIX_FMT_Y16, 640, 480), 0);
    video.start(4);
    meta.start(4);
    v4l2_buffer v{};
    EXPECT_FALSE(video.grab(&v).empty());
    do {
        meta.grab(&m);
    } while (!HasFailure() && stampUs(m) < stampUs(v));
    EXPECT_EQ(stampUs(m), stampUs(v));
    EXPECT_EQ(m.sequence, v.sequence);
    meta.stop();
    video.stop();
}

using Readiness = VcamTest;

TEST_F(Readiness, SelectFollowsTheQueueOnEveryDuplicate) {
    VideoDevice dev(kSlowNode);
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 640, 480), 0);
    ASSERT_EQ(dev.requestBuffers(2), 2);
    // Not streaming: poll reports an error, so select finds the descriptor readable.
    EXPECT_TRUE(readable(dev.fd(), 0));
    dev.stop();
    dev.start(2);
    const int copy = ::dup(dev.fd());
    EXPECT_FALSE(readable(copy, 0));  // the first frame is half a second away
    EXPECT_TRUE(readable(copy, 20000));
    EXPECT_TRUE(readable(dev.fd(), 0));
    v4l2_buffer b = VideoDevice::buffer(0);
    ASSERT_EQ(xioctl(copy, VIDIOC_DQBUF, &b), 0);  // a duplicate is the same open file
    EXPECT_FALSE(readable(dev.fd(), 0));
    ASSERT_EQ(dev.queue(b.index), 0);

    // The duplicate alone keeps the stream going.
    ::close(dev.releaseFd());
    EXPECT_TRUE(readable(copy, 20000));
    ASSERT_EQ(xioctl(copy, VIDIOC_DQBUF, &b), 0);
    uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(xioctl(copy, VIDIOC_STREAMOFF, &type), 0);
    EXPECT_TRUE(readable(copy, 0));  // a stopped stream wakes its waiters
    ::close(copy);
}

TEST_F(Readiness, StreamOffWakesAThreadWaitingInSelect) {
    VideoDevice dev(kSlowNode);
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 640, 480), 0);
    dev.start(2);
    v4l2_buffer first;
    ASSERT_EQ(dev.dequeue(&first), 0);  // after this, the next frame is half a second away
    std::atomic<bool> woke{false};
    std::atomic<pid_t> tid{0};
    std::thread waiter([&] {
        tid = threadId();
        // Longer than the test's patience: only the stop can end it in time.
        woke = readable(dev.fd(), 60000);
    });
    EXPECT_TRUE(waitFor([&] { return tid != 0 && sleeping(tid); }));
    ASSERT_EQ(dev.streamOff(), 0);
    waiter.join();
    EXPECT_TRUE(woke);
}

using Pacing = VcamTest;

TEST_F(Pacing, FramesArriveAtTheCameraRateStampedOnItsClock) {
    VideoDevice dev(kNode);
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 1280, 600), 0);
    dev.start(4);
    v4l2_buffer b;
    ASSERT_EQ(dev.dequeue(&b), 0);
    ASSERT_EQ(dev.queue(b.index), 0);
    const uint64_t start = monotonicUs();
    uint64_t stamp = stampUs(b);
    constexpr uint64_t kPeriodUs = 33333;
    int regular = 0;
    for (int i = 0; i < 30; ++i) {
        ASSERT_EQ(dev.dequeue(&b), 0);
        // Consecutive time stamps lie whole frame periods apart (more than one when frames
        // were dropped), unless the camera was held up and restarted its clock.
        const uint64_t delta = stampUs(b) - stamp;
        const uint64_t rest = delta % kPeriodUs;
        if (delta >= kPeriodUs - 2 && (rest <= 2 || kPeriodUs - rest <= 2)) ++regular;
        stamp = stampUs(b);
        ASSERT_EQ(dev.queue(b.index), 0);
    }
    const double seconds = (monotonicUs() - start) / 1e6;
    EXPECT_GE(seconds, 29 * 0.033);  // never faster than the frame rate
    EXPECT_LT(seconds, 20.0);
    EXPECT_GE(regular, 25);
    dev.stop();
}

}  // namespace
