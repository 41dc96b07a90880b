// Plugging and unplugging cameras while the program runs: what udev monitors hear, what
// becomes of open descriptors, and the numbers a camera comes back on. The tests run in order
// in one launcher run (see CMakeLists.txt) and leave every camera plugged in.
#include <libudev.h>
#include <linux/videodev2.h>
#include <poll.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "VideoDevice.h"

using namespace vcamtest;

namespace {

// --camera serial=PLUG-A,video=0 --camera serial=PLUG-B,video=2

// What a udev monitor of video4linux and hidraw devices hears.
class Monitor {
  public:
    Monitor() : udev_(udev_new()), monitor_(udev_monitor_new_from_netlink(udev_, "udev")) {
        udev_monitor_filter_add_match_subsystem_devtype(monitor_, "video4linux", nullptr);
        udev_monitor_filter_add_match_subsystem_devtype(monitor_, "hidraw", nullptr);
        EXPECT_EQ(udev_monitor_enable_receiving(monitor_), 0);
    }
    ~Monitor() {
        udev_monitor_unref(monitor_);
        udev_unref(udev_);
    }

    // The next `n` events as "ACTION DEVNODE SERIAL", sorted; fewer when they do not come.
    std::vector<std::string> next(int n, int ms = 5000) {
        std::vector<std::string> events;
        for (int i = 0; i < n; ++i) {
            pollfd p{udev_monitor_get_fd(monitor_), POLLIN, 0};
            if (poll(&p, 1, ms) != 1) break;
            udev_device* d = udev_monitor_receive_device(monitor_);
            if (!d) break;
            const char* serial = udev_device_get_property_value(d, "ID_SERIAL_SHORT");
            events.push_back(std::string(udev_device_get_action(d)) + " " +
                             udev_device_get_devnode(d) + " " + (serial ? serial : "-"));
            udev_device_unref(d);
        }
        std::sort(events.begin(), events.end());
        return events;
    }

  private:
    udev* udev_;
    udev_monitor* monitor_;
};

std::string node(const char* kind, int n) {
    return std::string("/dev/") + kind + std::to_string(n);
}

int ctl(const std::string& args) {
    const int status = std::system((std::string(TALVORO_VCAM_LAUNCHER) + " ctl " + args).c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class Plug : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam"; }
};

TEST_F(Plug, MonitorsHearTheCameraLeaveAndComeBackOnNewNodes) {
    Monitor monitor;
    std::string error;
    ASSERT_TRUE(talvoro_vcam::unplug("PLUG-A", &error)) << error;
    // Video nodes name their camera (udev's ID_SERIAL_SHORT), hidraw nodes only their node.
    EXPECT_EQ(monitor.next(4),
              (std::vector<std::string>{"remove /dev/hidraw0 -", "remove /dev/hidraw1 -",
                                        "remove /dev/video0 PLUG-A", "remove /dev/video1 PLUG-A"}));
    EXPECT_EQ(talvoro_vcam::captureNode("PLUG-A"), -1);
    EXPECT_EQ(talvoro_vcam::cameraCount(), 1);
    EXPECT_EQ(::open("/dev/video0", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);

    ASSERT_TRUE(talvoro_vcam::plug("PLUG-A", "", &error)) << error;
    // The old nodes may still be open somewhere: the camera comes back on the lowest free ones.
    EXPECT_EQ(talvoro_vcam::captureNode("PLUG-A"), 4);
    EXPECT_EQ(monitor.next(4),
              (std::vector<std::string>{"add /dev/hidraw4 -", "add /dev/hidraw5 -",
                                        "add /dev/video4 PLUG-A", "add /dev/video5 PLUG-A"}));
    EXPECT_TRUE(monitor.next(1, 200).empty());  // once each
    EXPECT_EQ(talvoro_vcam::cameraCount(), 2);
    VideoDevice dev(node("video", 4));
    dev.start(2);
    EXPECT_EQ(dev.grab().size(), 1536000u);
}

TEST_F(Plug, AnotherProcessUnplugsAStreamingCameraAndTheReplugStartsAfresh) {
    const int before = talvoro_vcam::captureNode("PLUG-B");
    ASSERT_EQ(before, 2);
    VideoDevice dev(node("video", before));
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 640, 480), 0);
    dev.start(2);
    EXPECT_FALSE(dev.grab().empty());
    const int hid = ::open("/dev/hidraw2", O_RDWR);
    ASSERT_GE(hid, 0);

    ASSERT_EQ(ctl("unplug PLUG-B"), 0);
    // This process hears of it from the run, not from its own call: the waiter wakes.
    EXPECT_TRUE(readable(dev.fd(), 5000));
    v4l2_buffer b = VideoDevice::buffer(0);
    EXPECT_EQ(dev.ioctl(VIDIOC_DQBUF, &b), -ENODEV);
    EXPECT_TRUE(readable(hid, 5000));  // each node hears of the unplug on its own
    char report[64];
    EXPECT_EQ(::read(hid, report, sizeof report), -1);
    EXPECT_EQ(errno, ENODEV);

    ASSERT_EQ(ctl("plug PLUG-B"), 0);
    const int after = talvoro_vcam::captureNode("PLUG-B");
    EXPECT_NE(after, before);
    EXPECT_NE(after, -1);
    // The old descriptors belong to the device that left and stay dead.
    v4l2_capability cap{};
    EXPECT_EQ(dev.ioctl(VIDIOC_QUERYCAP, &cap), -ENODEV);
    ::close(hid);
    // The camera plugged back in has its power-on format, not the one it was left in.
    VideoDevice fresh(node("video", after));
    EXPECT_EQ(fresh.format().width, 1280u);
    fresh.start(2);
    EXPECT_EQ(fresh.grab().size(), 1536000u);
}

TEST_F(Plug, ANewSerialArrivesWithItsKeysAndRefusalsSayWhy) {
    std::string error;
    ASSERT_TRUE(talvoro_vcam::plug("PLUG-NEW", "video=20,fps=5", &error)) << error;
    EXPECT_EQ(talvoro_vcam::captureNode("PLUG-NEW"), 20);
    EXPECT_EQ(talvoro_vcam::cameraCount(), 3);
    VideoDevice dev("/dev/video20");
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(dev.ioctl(VIDIOC_G_PARM, &parm), 0);
    EXPECT_EQ(parm.parm.capture.timeperframe.denominator, 5u);
    dev.close();

    EXPECT_FALSE(talvoro_vcam::plug("PLUG-NEW", "", &error));
    EXPECT_EQ(error, "PLUG-NEW is plugged in already");
    EXPECT_FALSE(talvoro_vcam::plug("PLUG-BAD", "video=4", &error));  // PLUG-A is there
    EXPECT_EQ(error, "video4 is used twice");
    EXPECT_FALSE(talvoro_vcam::unplug("NOPE", &error));
    EXPECT_EQ(error, "no camera NOPE");
    EXPECT_EQ(ctl("unplug NOPE 2> /dev/null"), 1);
    EXPECT_EQ(ctl("replug PLUG-NEW 2> /dev/null"), 2);
    ASSERT_TRUE(talvoro_vcam::unplug("PLUG-NEW", &error)) << error;
    EXPECT_EQ(talvoro_vcam::cameraCount(), 2);
}

}  // namespace
