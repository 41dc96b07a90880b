// Unplugging: each suite runs in a launcher run of its own (see CMakeLists.txt), since a
// camera does not come back.
#include <libudev.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>

#include "VideoDevice.h"

using namespace vcamtest;

namespace {

int udevDevices(const char* subsystem) {
    udev* u = udev_new();
    udev_enumerate* e = udev_enumerate_new(u);
    udev_enumerate_add_match_subsystem(e, subsystem);
    udev_enumerate_scan_devices(e);
    int n = 0;
    udev_list_entry* entry;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(e))++ n;
    udev_enumerate_unref(e);
    udev_unref(u);
    return n;
}

int openErrno(const char* path) {
    const int fd = ::open(path, O_RDWR | O_NONBLOCK);
    if (fd >= 0) {
        ::close(fd);
        return 0;
    }
    return errno;
}

// What is left of the camera once it is gone: an open descriptor that fails, nodes that do not
// open, and nothing in udev, for this process and the next.
void expectGone(VideoDevice& dev) {
    EXPECT_TRUE(readable(dev.fd(), 0));
    v4l2_capability cap{};
    EXPECT_EQ(dev.ioctl(VIDIOC_QUERYCAP, &cap), -ENODEV);
    v4l2_buffer b = VideoDevice::buffer(0);
    EXPECT_EQ(dev.ioctl(VIDIOC_DQBUF, &b), -ENODEV);
    EXPECT_EQ(::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, dev.fd(), 0), MAP_FAILED);
    for (const char* node : {"/dev/video0", "/dev/video1", "/dev/hidraw0", "/dev/hidraw1"})
        EXPECT_EQ(openErrno(node), ENOENT) << node;
    EXPECT_EQ(udevDevices("video4linux"), 0);
    EXPECT_EQ(udevDevices("hidraw"), 0);
    EXPECT_NE(std::system("udevadm info /dev/video0 > /dev/null 2>&1"), 0);
    EXPECT_NE(std::system("v4l2-ctl -d /dev/video0 --all > /dev/null 2>&1"), 0);
    dev.close();
}

class UnplugRun : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam";
        ASSERT_EQ(udevDevices("video4linux"), 2);
        ASSERT_EQ(udevDevices("hidraw"), 2);
    }
};

// --camera serial=VCAM-U,video=0,fault=unplug@10
using Unplug = UnplugRun;

TEST_F(Unplug, TheCameraDisappearsAtItsFrame) {
    VideoDevice dev("/dev/video0");
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 640, 480), 0);
    dev.start(4);
    v4l2_buffer b{};
    int r;
    while ((r = dev.dequeue(&b)) == 0)
        ASSERT_EQ(dev.queue(b.index), 0);
    EXPECT_EQ(r, -ENODEV);
    const auto c = counters("VCAM-U");
    EXPECT_EQ(c.produced + c.dropped, 10u);  // frames 0 to 9, then gone
    EXPECT_EQ(c.dequeued, c.produced);
    expectGone(dev);
}

// --camera serial=VCAM-U,video=0
using UnplugInjected = UnplugRun;

TEST_F(UnplugInjected, WakesABlockedDequeueWithENODEV) {
    VideoDevice dev("/dev/video0", O_RDWR);  // blocking
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 640, 480), 0);
    dev.start(2);
    EXPECT_FALSE(dev.grab().empty());
    ASSERT_TRUE(talvoro_vcam::injectFault("VCAM-U", "stall"));
    std::atomic<int> result{1};
    std::atomic<pid_t> tid{0};
    std::thread waiter([&] {
        tid = threadId();
        // Stalled: only the unplug can end this wait.
        v4l2_buffer w = VideoDevice::buffer(0);
        while ((result = xioctl(dev.fd(), VIDIOC_DQBUF, &w)) == 0)
            xioctl(dev.fd(), VIDIOC_QBUF, &w);
    });
    EXPECT_TRUE(waitFor([&] { return tid != 0 && sleeping(tid); }));
    ASSERT_TRUE(talvoro_vcam::injectFault("VCAM-U", "unplug"));
    waiter.join();
    EXPECT_EQ(result, -ENODEV);
    expectGone(dev);
}

}  // namespace
