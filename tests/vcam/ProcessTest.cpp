// Node ownership across the processes of one launcher run, as the kernel keeps it per device:
// the other process here is v4l2-ctl.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include "VcamFixture.h"
#include "VideoDevice.h"

extern char** environ;

using namespace vcamtest;

namespace {

using Processes = VcamTest;

const std::string kCtl = std::string("v4l2-ctl -d ") + kNode;

TEST_F(Processes, AStreamingProcessKeepsTheCameraUntilItLetsGo) {
    VideoDevice dev(kNode);
    // Colour: whole frames whatever the frame mode, which v4l2-ctl counts.
    ASSERT_EQ(dev.setFormat(V4L2_PIX_FMT_UYVY, 640, 480), 0);
    dev.start(2);
    EXPECT_NE(commandOutput(kCtl + " --set-fmt-video=width=1920,height=1080,pixelformat=UYVY")
                  .find("busy"),
              std::string::npos);
    EXPECT_NE(
        commandOutput(kCtl + " --stream-mmap --stream-count=1 --stream-to=/dev/null").find("busy"),
        std::string::npos);
    // The other process sees the format the streamer set, which nobody could change.
    const std::string format = commandOutput(kCtl + " --get-fmt-video");
    EXPECT_NE(format.find("640/480"), std::string::npos) << format;
    EXPECT_NE(format.find("UYVY"), std::string::npos) << format;
    EXPECT_FALSE(dev.grab().empty());

    dev.stop();
    const std::string streamed =
        commandOutput(kCtl + " --stream-mmap --stream-count=1 --stream-to=/dev/null");
    EXPECT_EQ(streamed.find("busy"), std::string::npos) << streamed;
}

TEST_F(Processes, AStreamerThatIsKilledLetsGo) {
    const char* argv[] = {"v4l2-ctl", "-d", kNode, "--stream-mmap", "--stream-to=/dev/null",
                          nullptr};
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&quiet, 2, "/dev/null", O_WRONLY, 0);
    pid_t streamer = 0;
    ASSERT_EQ(posix_spawnp(&streamer, argv[0], &quiet, nullptr, const_cast<char**>(argv), environ),
              0);
    posix_spawn_file_actions_destroy(&quiet);

    VideoDevice dev(kNode);
    // Without buffers of its own, a queue request tells whether another process owns them.
    ASSERT_TRUE(waitFor([&] { return dev.queue(0) == -EBUSY; }));
    EXPECT_EQ(dev.requestBuffers(2), -EBUSY);
    EXPECT_EQ(dev.setFormat(V4L2_PIX_FMT_UYVY, 640, 480), -EBUSY);
    v4l2_buffer b = VideoDevice::buffer(0);
    EXPECT_EQ(dev.ioctl(VIDIOC_QUERYBUF, &b), -EBUSY);
    EXPECT_EQ(dev.ioctl(VIDIOC_DQBUF, &b), -EBUSY);
    uint32_t type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(dev.ioctl(VIDIOC_STREAMON, &type), -EBUSY);
    EXPECT_EQ(dev.streamOff(), -EBUSY);

    // A crash lets go as a close does: the kernel drops the dead process's claim.
    ::kill(streamer, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(streamer, &status, 0), streamer);
    EXPECT_EQ(dev.queue(0), -EINVAL);  // nobody has buffers
    dev.start(2);
    EXPECT_FALSE(dev.grab().empty());
    dev.stop();
}

}  // namespace
