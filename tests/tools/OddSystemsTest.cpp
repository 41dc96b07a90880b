// Cameras and systems the library copes with only by its kept behaviours (a camera it cannot
// describe, a node number above 15, a capture node without a USB parent, a node the user may
// not open): the tool explains each in words. tools.odd_systems starts a launcher per case.
#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include "tools/ToolRunner.h"

namespace tooltest {
namespace {

const std::string kLongName(60, 'N');

TEST(OddSystems, ListMarksTheCamerasTheLibraryCannotDescribe) {
    // Node 17 counts, but the library maps it to another node; without a serial or with an
    // over-long name a camera has no description; ODD-A is fine.
    const std::vector<std::string> cameras = {
        "--camera", "serial=ODD-A,video=0",
        "--camera", "omit=serial,video=2",
        "--camera", "serial=ODD-LONG,video=4,product=" + kLongName,
        "--camera", "serial=ODD-HIGH,video=17"};
    const ToolRun list = runToolWithCameras(cameras, {"list"});
    ASSERT_EQ(list.status, 0) << list;
    EXPECT_NE(list.out.find("ODD-A "), std::string::npos) << list;
    EXPECT_NE(list.out.find("! camera on /dev/video2: its USB device has no serial number"),
              std::string::npos)
        << list;
    EXPECT_NE(list.out.find("! camera on /dev/video4: its USB product name is longer than 49"),
              std::string::npos)
        << list;
    EXPECT_NE(list.out.find("! camera on /dev/video17: node numbers above 15 are not supported"),
              std::string::npos)
        << list;

    const ToolRun json = runToolWithCameras(cameras, {"list", "--json"});
    ASSERT_EQ(json.status, 0) << json;
    std::string why;
    ASSERT_TRUE(isJson(json.out, false, &why)) << why << json;
    cv::FileStorage fs(json.out, cv::FileStorage::READ | cv::FileStorage::MEMORY);
    const cv::FileNode list4 = fs["cameras"];
    ASSERT_EQ(list4.size(), 4u) << json;
    EXPECT_EQ(static_cast<std::string>(list4[0]["serial"]), "ODD-A");
    for (int i = 1; i < 4; ++i)
        EXPECT_FALSE(static_cast<std::string>(list4[i]["problem"]).empty()) << i;

    const ToolRun info = runToolWithCameras(cameras, {"info", "ODD-HIGH"});
    EXPECT_EQ(info.status, 1) << info;
    EXPECT_EQ(info.err,
              "talvoro: cannot use camera ODD-HIGH: camera on /dev/video17: node numbers above "
              "15 are not supported\n");
}

TEST(OddSystems, APlatformCaptureNodeIsNamed) {
    const ToolRun list = runToolWithCameras(
        {"--camera", "serial=PLAT-1,video=2", "--node", "type=platform,video=0"}, {"list"});
    EXPECT_EQ(list.status, 1) << list;
    EXPECT_TRUE(oneLineError(list)) << list;
    EXPECT_EQ(list.err.rfind("talvoro: cannot initialise the library: /dev/video0 is a video "
                             "capture node without a USB parent",
                             0),
              0u)
        << list;
}

TEST(OddSystems, PermissionDeniedPointsAtTheUdevRule) {
    const ToolRun info =
        runToolWithCameras({"--camera", "serial=PERM-1,fault=hid-open-fail"}, {"info", "PERM-1"});
    EXPECT_EQ(info.status, 1) << info;
    EXPECT_TRUE(oneLineError(info)) << info;
    EXPECT_NE(info.err.find("cannot open camera PERM-1: permission denied on /dev/hidraw"),
              std::string::npos)
        << info;
    EXPECT_NE(info.err.find("60-talvoro.rules"), std::string::npos) << info;
}

}  // namespace
}  // namespace tooltest
