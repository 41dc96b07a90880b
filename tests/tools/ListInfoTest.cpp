// talvoro list and info, as tables and as JSON read back with OpenCV's FileStorage.
// tools.list_info: LIST-A (video0), LIST-B (video2), LIST-NOEXT (no extrinsics); the test runs
// under the launcher and its tool processes share its cameras. tools.no_camera: none.
#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include "talvoro_vcam.h"
#include "tools/ToolRunner.h"

namespace tooltest {
namespace {

cv::FileStorage parseJson(const std::string& text) {
    return cv::FileStorage(
        text, cv::FileStorage::READ | cv::FileStorage::MEMORY | cv::FileStorage::FORMAT_JSON);
}

cv::FileNode controlNamed(const cv::FileNode& controls, const std::string& name) {
    for (const cv::FileNode& c : controls)
        if (static_cast<std::string>(c["name"]) == name) return c;
    ADD_FAILURE() << "no control " << name;
    return cv::FileNode();
}

class ListInfo : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam"; }
};

TEST_F(ListInfo, ListShowsEveryCameraWithItsUniqueId) {
    const ToolRun table = runTool({"list"});
    ASSERT_EQ(table.status, 0) << table;
    EXPECT_NE(table.out.find("SERIAL"), std::string::npos) << table;
    EXPECT_NE(table.out.find("LIST-A"), std::string::npos) << table;

    const ToolRun json = runTool({"list", "--json"});
    ASSERT_EQ(json.status, 0) << json;
    cv::FileStorage fs = parseJson(json.out);
    ASSERT_TRUE(fs.isOpened()) << json.out;
    const cv::FileNode cameras = fs["cameras"];
    ASSERT_EQ(cameras.size(), 3u) << json.out;
    EXPECT_EQ(static_cast<std::string>(cameras[0]["serial"]), "LIST-A");
    EXPECT_EQ(static_cast<std::string>(cameras[0]["node"]), "/dev/video0");
    EXPECT_EQ(static_cast<std::string>(cameras[1]["serial"]), "LIST-B");
    EXPECT_EQ(static_cast<int>(cameras[1]["index"]), 1);
    EXPECT_EQ(static_cast<std::string>(cameras[1]["vid"]), "7e91");
    EXPECT_EQ(static_cast<std::string>(cameras[1]["pid"]), "a05c");

    // The unique ID is the one `get` reads, and the table shows it too.
    const std::string id = cameras[1]["unique_id"];
    ASSERT_EQ(id.size(), 18u) << id;
    const ToolRun get = runTool({"get", "LIST-B", "unique-id"});
    ASSERT_EQ(get.status, 0) << get;
    EXPECT_EQ(get.out, id + "\n");
    EXPECT_NE(table.out.find(id), std::string::npos) << table;
    EXPECT_NE(static_cast<std::string>(cameras[0]["unique_id"]), id);
}

TEST_F(ListInfo, InfoReportsModesControlsAndCalibration) {
    const ToolRun json = runTool({"info", "LIST-A", "--json"});
    ASSERT_EQ(json.status, 0) << json;
    cv::FileStorage fs = parseJson(json.out);
    ASSERT_TRUE(fs.isOpened()) << json.out;
    EXPECT_EQ(static_cast<std::string>(fs["serial"]), "LIST-A");
    EXPECT_EQ(static_cast<int>(fs["data_mode"]), 4);
    EXPECT_EQ(fs["modes"].size(), 10u);
    EXPECT_EQ(static_cast<std::string>(fs["modes"][5]["name"]), "depth-ir-rgb-hd");

    const cv::FileNode controls = fs["controls"];
    const cv::FileNode brightness = controlNamed(controls, "brightness");
    EXPECT_EQ(static_cast<int>(brightness["available"]), 1);
    EXPECT_EQ(static_cast<int>(brightness["values"][0]), 0);
    EXPECT_EQ(static_cast<std::string>(brightness["range"]), "-64 to 64, default 0");
    EXPECT_EQ(static_cast<std::string>(controlNamed(controls, "imu-config")["text"]),
              "1,7,2g,7,250dps,3");
    EXPECT_EQ(static_cast<int>(controlNamed(controls, "base-temperature")["values"][0]), 38);
    // Orientation is read in every mode with colour, changed only in the colour-only ones.
    EXPECT_EQ(static_cast<int>(controlNamed(controls, "orientation")["available"]), 1);

    const cv::FileNode calibration = fs["calibration"];
    EXPECT_EQ(static_cast<int>(calibration["loaded"]), 1);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(static_cast<int>(calibration["validity"][i]), 2);
    EXPECT_NEAR(static_cast<double>(calibration["depth"]["fx"]), 440.6, 1.0);
    EXPECT_NEAR(static_cast<double>(calibration["hd_colour"]["cx"]), 639.1, 1.0);
    EXPECT_NEAR(static_cast<double>(calibration["extrinsics"]["translation"][0]), -25.0, 0.5);

    const ToolRun text = runTool({"info", "LIST-A"});
    ASSERT_EQ(text.status, 0) << text;
    EXPECT_NE(text.out.find("* 4  depth-ir-rgb-vga"), std::string::npos) << text;
    EXPECT_NE(text.out.find("laser-temperature"), std::string::npos) << text;
}

TEST_F(ListInfo, InfoNamesWhatTheDataModeOrTheCameraLacks) {
    ASSERT_EQ(runTool({"set", "LIST-NOEXT", "data-mode", "depth"}).status, 0);
    const ToolRun json = runTool({"info", "LIST-NOEXT", "--json"});
    ASSERT_EQ(json.status, 0) << json;
    cv::FileStorage fs = parseJson(json.out);
    ASSERT_TRUE(fs.isOpened()) << json.out;
    const cv::FileNode scene = controlNamed(fs["controls"], "scene-mode");
    EXPECT_EQ(static_cast<int>(scene["available"]), 0);
    EXPECT_EQ(static_cast<std::string>(scene["reason"]),
              "scene-mode needs a colour stream (data modes 4 to 9) (the camera streams in "
              "data mode 2)");
    // Without its extrinsics the camera's calibration cannot be used.
    EXPECT_EQ(static_cast<int>(fs["calibration"]["validity"][2]), -1);
    EXPECT_EQ(static_cast<int>(fs["calibration"]["loaded"]), 0);
}

TEST(NoCamera, ListSaysSoAndJsonIsEmpty) {
    ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam";
    const ToolRun table = runTool({"list"});
    EXPECT_EQ(table.status, 0) << table;
    EXPECT_EQ(table.out, "No Talvoro camera connected.\n");
    const ToolRun json = runTool({"list", "--json"});
    ASSERT_EQ(json.status, 0) << json;
    cv::FileStorage fs = parseJson(json.out);
    ASSERT_TRUE(fs.isOpened()) << json.out;
    EXPECT_EQ(fs["cameras"].size(), 0u) << json.out;
    const ToolRun info = runTool({"info", "ANY"});
    EXPECT_EQ(info.status, 1) << info;
    EXPECT_EQ(info.err, "talvoro: no camera with serial 'ANY': none connected\n");
}

}  // namespace
}  // namespace tooltest
