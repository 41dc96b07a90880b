// The virtual camera's control firmware as a V4L2 or hidraw client sees it, through raw
// ioctls, reads and writes (the library's own tests cover the camera through the library).
#include <fcntl.h>
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "talvoro_vcam.h"

namespace {

class Fd {
  public:
    explicit Fd(const char* path) : fd_(::open(path, O_RDWR | O_NONBLOCK)) {}
    ~Fd() {
        if (fd_ >= 0) ::close(fd_);
    }
    int get() const { return fd_; }

  private:
    int fd_;
};

// ioctl's errno, or 0.
int ioctlErrno(int fd, unsigned long request, void* arg) {
    return ::ioctl(fd, request, arg) == 0 ? 0 : errno;
}

class Firmware : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam";
        ASSERT_GE(video.get(), 0);
    }
    Fd video{"/dev/video0"};
};

TEST_F(Firmware, ControlsEnumerateInIdOrder) {
    std::vector<uint32_t> ids;
    v4l2_query_ext_ctrl q{};
    q.id = V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND;
    while (ioctlErrno(video.get(), VIDIOC_QUERY_EXT_CTRL, &q) == 0) {
        ids.push_back(q.id);
        EXPECT_EQ(q.elems, 1u);
        q.id |= V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND;
    }
    // Eleven controls, each class's control before the controls of its class.
    ASSERT_EQ(ids.size(), 13u);
    EXPECT_EQ(ids.front(), static_cast<uint32_t>(V4L2_CID_USER_CLASS));
    EXPECT_EQ(ids[1], static_cast<uint32_t>(V4L2_CID_BRIGHTNESS));
    EXPECT_EQ(ids[10], static_cast<uint32_t>(V4L2_CID_CAMERA_CLASS));
    EXPECT_EQ(ids.back(), static_cast<uint32_t>(V4L2_CID_EXPOSURE_ABSOLUTE));
    for (std::size_t i = 1; i < ids.size(); ++i)
        EXPECT_LT(ids[i - 1], ids[i]);

    v4l2_querymenu menu{};
    menu.id = V4L2_CID_EXPOSURE_AUTO;
    menu.index = V4L2_EXPOSURE_SHUTTER_PRIORITY;  // not offered
    EXPECT_EQ(ioctlErrno(video.get(), VIDIOC_QUERYMENU, &menu), EINVAL);
    menu.index = V4L2_EXPOSURE_MANUAL;
    ASSERT_EQ(ioctlErrno(video.get(), VIDIOC_QUERYMENU, &menu), 0);
    EXPECT_STREQ(reinterpret_cast<const char*>(menu.name), "Manual Mode");
}

TEST_F(Firmware, ExtendedControlsApplyAllOrNothing) {
    v4l2_ext_control c[2] = {};
    c[0].id = V4L2_CID_BRIGHTNESS;
    c[0].value = 7;
    c[1].id = V4L2_CID_GAMMA;
    c[1].value = 9999;  // out of range
    v4l2_ext_controls ext{};
    ext.which = V4L2_CTRL_WHICH_CUR_VAL;
    ext.count = 2;
    ext.controls = c;
    EXPECT_EQ(ioctlErrno(video.get(), VIDIOC_TRY_EXT_CTRLS, &ext), ERANGE);
    EXPECT_EQ(ext.error_idx, 1u);
    EXPECT_EQ(ioctlErrno(video.get(), VIDIOC_S_EXT_CTRLS, &ext), ERANGE);
    EXPECT_EQ(ext.error_idx, 2u);  // the count: nothing was applied
    v4l2_control brightness{V4L2_CID_BRIGHTNESS, 0};
    ASSERT_EQ(ioctlErrno(video.get(), VIDIOC_G_CTRL, &brightness), 0);
    EXPECT_NE(brightness.value, 7);

    c[1].value = 301;
    ASSERT_EQ(ioctlErrno(video.get(), VIDIOC_S_EXT_CTRLS, &ext), 0);
    ext.which = V4L2_CTRL_WHICH_DEF_VAL;
    ASSERT_EQ(ioctlErrno(video.get(), VIDIOC_G_EXT_CTRLS, &ext), 0);
    EXPECT_EQ(c[0].value, 0);
    EXPECT_EQ(c[1].value, 100);
    ext.which = V4L2_CTRL_CLASS_USER;
    ASSERT_EQ(ioctlErrno(video.get(), VIDIOC_G_EXT_CTRLS, &ext), 0);
    EXPECT_EQ(c[0].value, 7);
    EXPECT_EQ(c[1].value, 301);
    ext.which = V4L2_CTRL_CLASS_CAMERA;  // brightness is not a camera-class control
    EXPECT_EQ(ioctlErrno(video.get(), VIDIOC_G_EXT_CTRLS, &ext), EINVAL);
    EXPECT_EQ(ext.error_idx, 2u);  // found before any control was read
}

TEST_F(Firmware, ExtensionUnitAddressingFollowsUvcvideo) {
    uint8_t data[16] = {};
    uvc_xu_control_query q{3, 1, UVC_GET_LEN, 2, data};
    ASSERT_EQ(ioctlErrno(video.get(), UVCIOC_CTRL_QUERY, &q), 0);
    EXPECT_EQ(data[0], 8);
    q.selector = 2;
    ASSERT_EQ(ioctlErrno(video.get(), UVCIOC_CTRL_QUERY, &q), 0);
    EXPECT_EQ(data[0], 16);
    q.query = UVC_GET_INFO;
    q.size = 1;
    ASSERT_EQ(ioctlErrno(video.get(), UVCIOC_CTRL_QUERY, &q), 0);
    EXPECT_EQ(data[0], 3);

    uvc_xu_control_query wrongUnit{4, 1, UVC_GET_LEN, 2, data};
    EXPECT_EQ(ioctlErrno(video.get(), UVCIOC_CTRL_QUERY, &wrongUnit), ENOENT);
    uvc_xu_control_query wrongSize{3, 1, UVC_SET_CUR, 4, data};
    EXPECT_EQ(ioctlErrno(video.get(), UVCIOC_CTRL_QUERY, &wrongSize), ENOBUFS);
    uint8_t unknown[8] = {0x77};
    uvc_xu_control_query stall{3, 1, UVC_SET_CUR, 8, unknown};
    EXPECT_EQ(ioctlErrno(video.get(), UVCIOC_CTRL_QUERY, &stall), EPIPE);
    // The metadata node carries no controls.
    Fd meta("/dev/video1");
    EXPECT_EQ(ioctlErrno(meta.get(), UVCIOC_CTRL_QUERY, &q), ENOTTY);
}

TEST_F(Firmware, ImuReportsFlowToEveryOpenDescriptor) {
    Fd command("/dev/hidraw0"), imuA("/dev/hidraw1"), imuB("/dev/hidraw1");
    uint8_t tooLong[65] = {0xB3};
    EXPECT_EQ(::write(command.get(), tooLong, sizeof tooLong), -1);
    EXPECT_EQ(errno, EINVAL);

    uint8_t start[64] = {0xB3, 0x05, 0x01};
    ASSERT_EQ(::write(command.get(), start, sizeof start), 64);
    uint8_t answer[64] = {};
    ASSERT_EQ(::read(command.get(), answer, sizeof answer), 64);
    EXPECT_EQ(answer[19], 0x01);

    for (const Fd* imu : {&imuA, &imuB}) {
        int counter = -1;
        for (int n = 0; n < 3; ++n) {
            pollfd p{imu->get(), POLLIN, 0};
            ASSERT_EQ(::poll(&p, 1, 10000), 1);
            uint8_t report[64] = {};
            ASSERT_EQ(::read(imu->get(), report, sizeof report), 64);
            EXPECT_EQ(report[0], 0xB3);
            EXPECT_EQ(report[1], 0x06);
            EXPECT_EQ(report[48], 0x01);
            const int now = (report[2] << 8) | report[3];
            EXPECT_GT(now, counter);  // each descriptor sees the reports in order
            counter = now;
        }
    }
    uint8_t stop[64] = {0xB3, 0x05, 0x02};
    ASSERT_EQ(::write(command.get(), stop, sizeof stop), 64);
}

}  // namespace
