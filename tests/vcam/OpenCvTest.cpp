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

}  // namespace
