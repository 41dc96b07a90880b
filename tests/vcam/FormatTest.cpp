// Format negotiation on the capture node, and what the metadata node answers.
#include <string>

#include "VcamFixture.h"
#include "VideoDevice.h"

using namespace vcamtest;

namespace {

using Formats = VcamTest;

struct Request {
    uint32_t fourcc, width, height;
    uint32_t wantFourcc, wantWidth, wantHeight;
};

// The lists themselves are checked through v4l2-ctl (clients_test.sh); here their ends.
TEST_F(Formats, EnumerationsEndWithTheirLists) {
    VideoDevice dev(kNode);
    ASSERT_TRUE(dev.isOpen());
    v4l2_fmtdesc d{};
    d.index = 2;
    d.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(dev.ioctl(VIDIOC_ENUM_FMT, &d), -EINVAL);
    v4l2_frmsizeenum fs{};
    fs.index = 4;
    fs.pixel_format = V4L2_PIX_FMT_UYVY;
    EXPECT_EQ(dev.ioctl(VIDIOC_ENUM_FRAMESIZES, &fs), -EINVAL);
    fs.index = 0;
    fs.pixel_format = V4L2_PIX_FMT_MJPEG;
    EXPECT_EQ(dev.ioctl(VIDIOC_ENUM_FRAMESIZES, &fs), -EINVAL);
    v4l2_frmivalenum iv{};
    iv.pixel_format = V4L2_PIX_FMT_Y16;
    iv.width = 1443;
    iv.height = 960;
    ASSERT_EQ(dev.ioctl(VIDIOC_ENUM_FRAMEINTERVALS, &iv), 0);
    EXPECT_EQ(iv.discrete.denominator, 30u);
    iv.pixel_format = V4L2_PIX_FMT_UYVY;  // 1443x960 is a Y16 size only
    EXPECT_EQ(dev.ioctl(VIDIOC_ENUM_FRAMEINTERVALS, &iv), -EINVAL);
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(dev.ioctl(VIDIOC_G_PARM, &parm), 0);
    EXPECT_EQ(parm.parm.capture.capability, uint32_t(V4L2_CAP_TIMEPERFRAME));
    EXPECT_EQ(parm.parm.capture.timeperframe.denominator, 30u);
}

TEST_F(Formats, AnswersEveryRequestWithTheNearestSupportedFormat) {
    VideoDevice dev(kNode);
    const Request cases[] = {
        {V4L2_PIX_FMT_Y16, 1280, 600, V4L2_PIX_FMT_Y16, 1280, 600},
        {V4L2_PIX_FMT_Y16, 1443, 960, V4L2_PIX_FMT_Y16, 1443, 960},
        {V4L2_PIX_FMT_Y16, 1440, 960, V4L2_PIX_FMT_Y16, 1443, 960},
        {V4L2_PIX_FMT_Y16, 640, 500, V4L2_PIX_FMT_Y16, 640, 480},
        {V4L2_PIX_FMT_UYVY, 1920, 1100, V4L2_PIX_FMT_UYVY, 1920, 1080},
        {V4L2_PIX_FMT_UYVY, 4000, 3000, V4L2_PIX_FMT_UYVY, 1920, 1200},
        {V4L2_PIX_FMT_UYVY, 1, 1, V4L2_PIX_FMT_UYVY, 640, 480},
        {V4L2_PIX_FMT_MJPEG, 640, 480, V4L2_PIX_FMT_Y16, 640, 480},  // unknown: the default kind
    };
    for (const Request& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
        v4l2_format f{};
        f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        f.fmt.pix.width = c.width;
        f.fmt.pix.height = c.height;
        f.fmt.pix.pixelformat = c.fourcc;
        f.fmt.pix.field = V4L2_FIELD_INTERLACED;
        ASSERT_EQ(dev.ioctl(VIDIOC_TRY_FMT, &f), 0);
        EXPECT_EQ(f.fmt.pix.pixelformat, c.wantFourcc);
        EXPECT_EQ(f.fmt.pix.width, c.wantWidth);
        EXPECT_EQ(f.fmt.pix.height, c.wantHeight);
        EXPECT_EQ(f.fmt.pix.field, uint32_t(V4L2_FIELD_NONE));  // progressive, whatever is asked
        EXPECT_EQ(f.fmt.pix.bytesperline, c.wantWidth * 2);
        EXPECT_EQ(f.fmt.pix.sizeimage, c.wantWidth * c.wantHeight * 2);

        v4l2_pix_format set;
        ASSERT_EQ(dev.setFormat(c.fourcc, c.width, c.height, &set), 0);
        const v4l2_pix_format got = dev.format();
        EXPECT_EQ(got.pixelformat, c.wantFourcc);
        EXPECT_EQ(got.width, c.wantWidth);
        EXPECT_EQ(got.height, c.wantHeight);
        EXPECT_EQ(set.sizeimage, got.sizeimage);
    }
    v4l2_format wrong{};
    wrong.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    EXPECT_EQ(dev.ioctl(VIDIOC_S_FMT, &wrong), -EINVAL);
    EXPECT_EQ(dev.ioctl(VIDIOC_G_FMT, &wrong), -EINVAL);
}

TEST_F(Formats, TryFormatChangesNothingAndSetFormatIsRefusedWhileBuffersExist) {
    VideoDevice dev(kNode);
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 1280, 600), 0);
    v4l2_format f{};
    f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    f.fmt.pix.pixelformat = V4L2_PIX_FMT_UYVY;
    f.fmt.pix.width = 1920;
    f.fmt.pix.height = 1080;
    ASSERT_EQ(dev.ioctl(VIDIOC_TRY_FMT, &f), 0);
    EXPECT_EQ(dev.format().width, 1280u);

    ASSERT_EQ(dev.requestBuffers(2), 2);
    EXPECT_EQ(dev.setFormat(V4L2_PIX_FMT_UYVY, 1920, 1080), -EBUSY);
    VideoDevice other(kNode);
    EXPECT_EQ(other.setFormat(V4L2_PIX_FMT_UYVY, 1920, 1080), -EBUSY);
    EXPECT_EQ(dev.format().width, 1280u);
    ASSERT_EQ(dev.requestBuffers(0), 0);
    EXPECT_EQ(dev.setFormat(V4L2_PIX_FMT_UYVY, 1920, 1080), 0);
    // The buffers take the size of the new format.
    ASSERT_EQ(dev.requestBuffers(1), 1);
    EXPECT_EQ(dev.queryBuffer(0).length, 1920u * 1080 * 2);
}

TEST_F(Formats, TheNegotiatedFormatOutlivesTheProcessThatSetIt) {
    {
        VideoDevice dev(kNode);
        ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_UYVY, 1280, 720), 0);
    }
    // Another process of the same run finds the camera as this one left it...
    const std::string shown =
        commandOutput(std::string("v4l2-ctl -d ") + kNode + " --get-fmt-video");
    EXPECT_NE(shown.find("1280/720"), std::string::npos) << shown;
    EXPECT_NE(shown.find("UYVY"), std::string::npos) << shown;
    // ...and this process sees what another one sets, on its next open.
    commandOutput(std::string("v4l2-ctl -d ") + kNode +
                  " --set-fmt-video=width=1443,height=960,pixelformat='Y16 '");
    VideoDevice dev(kNode);
    EXPECT_EQ(dev.format().width, 1443u);
    EXPECT_EQ(dev.format().pixelformat, uint32_t(V4L2_PIX_FMT_Y16));
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_Y16, 1280, 600), 0);
}

using Nodes = VcamTest;

TEST_F(Nodes, CaptureAndMetadataNodesDifferInDeviceCaps) {
    VideoDevice capture(kNode), meta(kMetaNode);
    v4l2_capability c{}, m{};
    ASSERT_EQ(capture.ioctl(VIDIOC_QUERYCAP, &c), 0);
    ASSERT_EQ(meta.ioctl(VIDIOC_QUERYCAP, &m), 0);
    EXPECT_EQ(c.device_caps & (V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_META_CAPTURE),
              uint32_t(V4L2_CAP_VIDEO_CAPTURE));
    EXPECT_EQ(m.device_caps & (V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_META_CAPTURE),
              uint32_t(V4L2_CAP_META_CAPTURE));

    v4l2_fmtdesc d{};
    d.type = V4L2_BUF_TYPE_META_CAPTURE;
    ASSERT_EQ(meta.ioctl(VIDIOC_ENUM_FMT, &d), 0);
    EXPECT_EQ(d.pixelformat, uint32_t(V4L2_META_FMT_UVC));
    d.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(meta.ioctl(VIDIOC_ENUM_FMT, &d), -EINVAL);
    EXPECT_EQ(capture.ioctl(VIDIOC_ENUM_FMT, &d), 0);
    // Each node streams its own kind of buffer.
    EXPECT_EQ(meta.requestBuffers(2), -EINVAL);
    // No read() I/O on a camera that does not offer it.
    char byte;
    errno = 0;
    EXPECT_EQ(::read(capture.fd(), &byte, 1), -1);
    EXPECT_EQ(errno, EINVAL);
}

}  // namespace
