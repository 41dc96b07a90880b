// What the kernel's V4L2 and hidraw layers do around the camera's own answers: argument
// copies that fail with EFAULT, file-handle priorities, control classes and control events.
#include <fcntl.h>
#include <linux/hidraw.h>
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <poll.h>
#include <sys/mman.h>

#include <cstdlib>
#include <string>

#include "VcamFixture.h"
#include "VideoDevice.h"

using namespace vcamtest;

namespace {

using Ioctls = VcamTest;

// A page the process cannot touch and a page it can only read.
class BadMemory {
  public:
    BadMemory() {
        const long page = ::sysconf(_SC_PAGESIZE);
        size_ = static_cast<std::size_t>(page);
        none_ = ::mmap(nullptr, size_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        readOnly_ = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    }
    ~BadMemory() {
        ::munmap(none_, size_);
        ::munmap(readOnly_, size_);
    }
    void* none() const { return none_; }
    void* readOnly() const { return readOnly_; }

  private:
    std::size_t size_;
    void* none_;
    void* readOnly_;
};

int rawErrno(int fd, unsigned long request, void* arg) {
    return ::ioctl(fd, request, arg) == 0 ? 0 : errno;
}

TEST_F(Ioctls, BadPointersGiveEfaultOnEveryNodeInsteadOfACrash) {
    BadMemory bad;
    VideoDevice capture(kNode), meta(kMetaNode);
    const int hid = ::open("/dev/hidraw0", O_RDWR | O_NONBLOCK);
    ASSERT_GE(hid, 0);
    const unsigned long videoRequests[] = {
        VIDIOC_QUERYCAP, VIDIOC_ENUM_FMT,  VIDIOC_G_FMT,  VIDIOC_S_FMT,       VIDIOC_TRY_FMT,
        VIDIOC_REQBUFS,  VIDIOC_QUERYBUF,  VIDIOC_QBUF,   VIDIOC_DQBUF,       VIDIOC_STREAMON,
        VIDIOC_G_PARM,   VIDIOC_QUERYCTRL, VIDIOC_G_CTRL, VIDIOC_S_EXT_CTRLS, UVCIOC_CTRL_QUERY};
    for (int fd : {capture.fd(), meta.fd()}) {
        for (unsigned long request : videoRequests) {
            SCOPED_TRACE(testing::Message() << "fd " << fd << " ioctl " << std::hex << request);
            EXPECT_EQ(rawErrno(fd, request, nullptr), EFAULT);
            EXPECT_EQ(rawErrno(fd, request, bad.none()), EFAULT);
        }
    }
    // An answer the caller's memory cannot take.
    EXPECT_EQ(rawErrno(capture.fd(), VIDIOC_QUERYCAP, bad.readOnly()), EFAULT);
    EXPECT_EQ(rawErrno(hid, HIDIOCGRDESCSIZE, bad.readOnly()), EFAULT);
    EXPECT_EQ(rawErrno(hid, HIDIOCGRAWINFO, nullptr), EFAULT);
    errno = 0;
    EXPECT_EQ(::write(hid, bad.none(), 64), -1);
    EXPECT_EQ(errno, EFAULT);

    // Pointers inside the argument: the control array and the extension unit's data.
    v4l2_ext_controls ext{};
    ext.which = V4L2_CTRL_WHICH_CUR_VAL;
    ext.count = 1;
    ext.controls = static_cast<v4l2_ext_control*>(bad.none());
    EXPECT_EQ(rawErrno(capture.fd(), VIDIOC_G_EXT_CTRLS, &ext), EFAULT);
    v4l2_ext_control brightness{};
    brightness.id = V4L2_CID_BRIGHTNESS;
    ext.controls = &brightness;
    EXPECT_EQ(rawErrno(capture.fd(), VIDIOC_G_EXT_CTRLS, &ext), 0);
    uvc_xu_control_query setCur{3, 1, UVC_SET_CUR, 8, static_cast<uint8_t*>(bad.none())};
    EXPECT_EQ(rawErrno(capture.fd(), UVCIOC_CTRL_QUERY, &setCur), EFAULT);
    uvc_xu_control_query getLen{3, 1, UVC_GET_LEN, 2, static_cast<uint8_t*>(bad.readOnly())};
    EXPECT_EQ(rawErrno(capture.fd(), UVCIOC_CTRL_QUERY, &getLen), EFAULT);

    // Input fields only: whatever the caller left behind them is not read.
    v4l2_capability cap;
    std::memset(&cap, 0xA5, sizeof cap);
    ASSERT_EQ(rawErrno(capture.fd(), VIDIOC_QUERYCAP, &cap), 0);
    EXPECT_EQ(cap.reserved[0], 0u);
    ::close(hid);
}

uint32_t priority(int fd) {
    uint32_t p = 0;
    EXPECT_EQ(rawErrno(fd, VIDIOC_G_PRIORITY, &p), 0);
    return p;
}

int run(const std::string& command) {
    return std::system((command + " > /dev/null 2>&1").c_str());
}

// The priority of any handle on either node, in any process, guards both nodes.
TEST_F(Ioctls, PrioritiesAreTheCamerasAcrossNodesAndProcesses) {
    VideoDevice recorder(kNode), viewer(kNode), meta(kMetaNode);
    EXPECT_EQ(priority(viewer.fd()), uint32_t(V4L2_PRIORITY_DEFAULT));
    uint32_t p = V4L2_PRIORITY_RECORD;
    ASSERT_EQ(rawErrno(recorder.fd(), VIDIOC_S_PRIORITY, &p), 0);
    EXPECT_EQ(priority(meta.fd()), uint32_t(V4L2_PRIORITY_RECORD));

    // Below the recorder: reading is fine, changing the camera is not.
    v4l2_control brightness{V4L2_CID_BRIGHTNESS, 3};
    EXPECT_EQ(rawErrno(viewer.fd(), VIDIOC_G_CTRL, &brightness), 0);
    EXPECT_EQ(rawErrno(viewer.fd(), VIDIOC_S_CTRL, &brightness), EBUSY);
    EXPECT_EQ(viewer.setFormat(V4L2_PIX_FMT_Y16, 640, 480), -EBUSY);
    EXPECT_EQ(viewer.requestBuffers(2), -EBUSY);
    v4l2_format metaFormat{};
    metaFormat.type = V4L2_BUF_TYPE_META_CAPTURE;
    EXPECT_EQ(rawErrno(meta.fd(), VIDIOC_S_FMT, &metaFormat), EBUSY);
    p = V4L2_PRIORITY_RECORD;
    EXPECT_EQ(rawErrno(viewer.fd(), VIDIOC_S_PRIORITY, &p), EBUSY);
    EXPECT_NE(run(std::string("v4l2-ctl -d ") + kNode + " -c brightness=5"), 0);
    p = V4L2_PRIORITY_UNSET;
    EXPECT_EQ(rawErrno(recorder.fd(), VIDIOC_S_PRIORITY, &p), EINVAL);

    recorder.close();
    EXPECT_EQ(priority(viewer.fd()), uint32_t(V4L2_PRIORITY_DEFAULT));
    EXPECT_EQ(rawErrno(viewer.fd(), VIDIOC_S_CTRL, &brightness), 0);
    EXPECT_EQ(run(std::string("v4l2-ctl -d ") + kNode + " -c brightness=0"), 0);
}

v4l2_event_subscription subscription(uint32_t id, uint32_t flags = 0) {
    v4l2_event_subscription sub{};
    sub.type = V4L2_EVENT_CTRL;
    sub.id = id;
    sub.flags = flags;
    return sub;
}

// Whether an event waits: select's exceptional condition, poll's POLLPRI.
bool eventWaits(int fd) {
    pollfd p{fd, POLLPRI, 0};
    return ::poll(&p, 1, 0) == 1 && (p.revents & POLLPRI);
}

TEST_F(Ioctls, ControlEventsTellOtherSubscribersWhatChanged) {
    VideoDevice watcher(kNode), setter(kNode);
    v4l2_event_subscription sub =
        subscription(V4L2_CID_EXPOSURE_ABSOLUTE, V4L2_EVENT_SUB_FL_SEND_INITIAL);
    ASSERT_EQ(rawErrno(watcher.fd(), VIDIOC_SUBSCRIBE_EVENT, &sub), 0);
    sub = subscription(V4L2_CID_BRIGHTNESS);
    ASSERT_EQ(rawErrno(watcher.fd(), VIDIOC_SUBSCRIBE_EVENT, &sub), 0);
    ASSERT_EQ(rawErrno(setter.fd(), VIDIOC_SUBSCRIBE_EVENT, &sub), 0);
    // A class control has no value to tell; another kind of event the camera does not send.
    sub = subscription(V4L2_CID_CAMERA_CLASS, V4L2_EVENT_SUB_FL_SEND_INITIAL);
    EXPECT_EQ(rawErrno(watcher.fd(), VIDIOC_SUBSCRIBE_EVENT, &sub), 0);
    sub.type = V4L2_EVENT_SOURCE_CHANGE;
    EXPECT_EQ(rawErrno(watcher.fd(), VIDIOC_SUBSCRIBE_EVENT, &sub), EINVAL);

    // The initial event: the exposure's value and flags as they are.
    ASSERT_TRUE(eventWaits(watcher.fd()));
    v4l2_event ev{};
    ASSERT_EQ(rawErrno(watcher.fd(), VIDIOC_DQEVENT, &ev), 0);
    EXPECT_EQ(ev.id, uint32_t(V4L2_CID_EXPOSURE_ABSOLUTE));
    EXPECT_EQ(ev.u.ctrl.changes, uint32_t(V4L2_EVENT_CTRL_CH_VALUE | V4L2_EVENT_CTRL_CH_FLAGS));
    EXPECT_EQ(ev.u.ctrl.flags & V4L2_CTRL_FLAG_INACTIVE, uint32_t(V4L2_CTRL_FLAG_INACTIVE));
    EXPECT_EQ(ev.pending, 0u);
    EXPECT_FALSE(eventWaits(watcher.fd()));
    EXPECT_EQ(rawErrno(watcher.fd(), VIDIOC_DQEVENT, &ev), ENOENT);

    // Manual exposure makes the exposure time active: a flags change; brightness: a value.
    v4l2_control c{V4L2_CID_EXPOSURE_AUTO, V4L2_EXPOSURE_MANUAL};
    ASSERT_EQ(rawErrno(setter.fd(), VIDIOC_S_CTRL, &c), 0);
    c = {V4L2_CID_BRIGHTNESS, 9};
    ASSERT_EQ(rawErrno(setter.fd(), VIDIOC_S_CTRL, &c), 0);
    c.value = 10;  // merges with the waiting brightness event
    ASSERT_EQ(rawErrno(setter.fd(), VIDIOC_S_CTRL, &c), 0);
    ASSERT_TRUE(eventWaits(watcher.fd()));
    ASSERT_EQ(rawErrno(watcher.fd(), VIDIOC_DQEVENT, &ev), 0);
    EXPECT_EQ(ev.id, uint32_t(V4L2_CID_EXPOSURE_ABSOLUTE));
    EXPECT_EQ(ev.u.ctrl.changes, uint32_t(V4L2_EVENT_CTRL_CH_FLAGS));
    EXPECT_EQ(ev.u.ctrl.flags & V4L2_CTRL_FLAG_INACTIVE, 0u);
    EXPECT_EQ(ev.pending, 1u);
    const uint32_t sequence = ev.sequence;
    ASSERT_EQ(rawErrno(watcher.fd(), VIDIOC_DQEVENT, &ev), 0);
    EXPECT_EQ(ev.id, uint32_t(V4L2_CID_BRIGHTNESS));
    EXPECT_EQ(ev.u.ctrl.value, 10);
    EXPECT_EQ(ev.sequence, sequence + 2);  // the merged event took a new place and number
    // The setter hears nothing of its own value changes.
    EXPECT_FALSE(eventWaits(setter.fd()));

    sub.type = V4L2_EVENT_ALL;
    ASSERT_EQ(rawErrno(watcher.fd(), VIDIOC_UNSUBSCRIBE_EVENT, &sub), 0);
    c = {V4L2_CID_EXPOSURE_AUTO, V4L2_EXPOSURE_APERTURE_PRIORITY};
    ASSERT_EQ(rawErrno(setter.fd(), VIDIOC_S_CTRL, &c), 0);
    c = {V4L2_CID_BRIGHTNESS, 0};
    ASSERT_EQ(rawErrno(setter.fd(), VIDIOC_S_CTRL, &c), 0);
    EXPECT_FALSE(eventWaits(watcher.fd()));
}

}  // namespace
