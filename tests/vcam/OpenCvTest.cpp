// A client nobody here wrote: OpenCV's V4L2 capture backend reading the virtual camera.
#include <opencv2/videoio.hpp>

#include "RawDecode.h"
#include "VcamFixture.h"

using namespace vcamtest;

namespace {

using OpenCv = VcamTest;

TEST_F(OpenCv, VideoCaptureReadsTheColourPicture) {
    cv::VideoCapture cap(kNode, cv::CAP_V4L2);
    ASSERT_TRUE(cap.isOpened());
    ASSERT_TRUE(cap.set(cv::CAP_PROP_FOURCC, cv::VideoWriter::fourcc('U', 'Y', 'V', 'Y')));
    cap.set(cv::CAP_PROP_FRAME_WIDTH, 1280);
    cap.set(cv::CAP_PROP_FRAME_HEIGHT, 720);
    EXPECT_EQ(cap.get(cv::CAP_PROP_FPS), 30);
    double u, v;
    projectToColour(kBoxFront, 1280, 720, &u, &v);
    for (int i = 0; i < 5; ++i) {
        cv::Mat frame;
        ASSERT_TRUE(cap.read(frame)) << i;
        ASSERT_EQ(frame.cols, 1280);
        ASSERT_EQ(frame.rows, 720);
        ASSERT_EQ(frame.type(), CV_8UC3);
        const cv::Vec3b bgr = frame.at<cv::Vec3b>(static_cast<int>(v), static_cast<int>(u));
        EXPECT_TRUE(reddish({double(bgr[2]), double(bgr[1]), double(bgr[0])}))
            << int(bgr[2]) << " " << int(bgr[1]) << " " << int(bgr[0]);
    }
}

TEST_F(OpenCv, VideoCaptureReadsRawDepthAndIrRows) {
    ASSERT_TRUE(talvoro_vcam::setFrameMode(kCamera, 1, 0));
    cv::VideoCapture cap(kNode, cv::CAP_V4L2);
    ASSERT_TRUE(cap.isOpened());
    ASSERT_TRUE(cap.set(cv::CAP_PROP_FOURCC, cv::VideoWriter::fourcc('Y', '1', '6', ' ')));
    cap.set(cv::CAP_PROP_FRAME_WIDTH, 640);
    cap.set(cv::CAP_PROP_FRAME_HEIGHT, 960);
    cap.set(cv::CAP_PROP_CONVERT_RGB, 0);
    cv::Mat frame;
    ASSERT_TRUE(cap.read(frame));
    ASSERT_EQ(frame.type(), CV_16UC1);
    ASSERT_EQ(frame.total(), 640u * 960u);
    // Row pairs: the depth row of the wall pixel is the first half of image row 2 * row.
    const cv::Mat pairs = frame.reshape(1, 480);
    EXPECT_NEAR(pairs.at<uint16_t>(kWallRow, kWallCol), radialToPlaneZ(kWallCol, kWallRow, 2400),
                30);
}

}  // namespace
