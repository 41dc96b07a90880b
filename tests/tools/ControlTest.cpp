// talvoro get and set: every control by name, values by number and by name, what the camera
// makes of them, and the data modes controls need.
// tools.controls: CTL-1; the test runs under the launcher, so the camera keeps its settings from
// one tool process to the next.
#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include <sstream>

#include "talvoro_vcam.h"
#include "tools/ToolRunner.h"

namespace tooltest {
namespace {

class Controls : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam";
        ASSERT_EQ(runTool({"set", "CTL-1", "defaults"}).status, 0);
        ASSERT_EQ(runTool({"set", "CTL-1", "data-mode", "4"}).status, 0);
    }

    // The value `set` reads back, or the failure.
    static std::string set(const std::string& control, const std::string& value) {
        const ToolRun r = runTool({"set", "CTL-1", control, value});
        return r.status == 0 ? r.out : "status " + std::to_string(r.status) + ": " + r.err;
    }
    static std::string get(const std::string& control) {
        const ToolRun r = runTool({"get", "CTL-1", control});
        return r.status == 0 ? r.out : "status " + std::to_string(r.status) + ": " + r.err;
    }
};

TEST_F(Controls, EveryReadableControlAnswersInDataModeFour) {
    const ToolRun help = runTool({"help", "controls"});
    ASSERT_EQ(help.status, 0) << help;
    std::istringstream lines(help.out);
    std::string line;
    int checked = 0;
    while (std::getline(lines, line)) {
        // "  name: description", "  name (read only): ...", "  name (write only): ..."
        if (line.rfind("  ", 0) != 0 || line.rfind("      ", 0) == 0) continue;
        const std::string name = line.substr(2, line.find_first_of(" :", 2) - 2);
        if (line.find("(write only)") != std::string::npos || name == "imu-sample") continue;
        const ToolRun r = runTool({"get", "CTL-1", name});
        EXPECT_EQ(r.status, 0) << name << "\n" << r;
        EXPECT_FALSE(r.out.empty()) << name;
        ++checked;
    }
    EXPECT_GE(checked, 30);
}

TEST_F(Controls, ValuesGoInByNameOrNumberAndComeBackAsTheCameraHoldsThem) {
    EXPECT_EQ(set("scene-mode", "macro"), "macro\n");
    EXPECT_EQ(get("scene-mode"), "macro\n");
    EXPECT_EQ(set("special-effect", "3"), "negative\n");
    EXPECT_EQ(set("face-detection", "on,0,1"), "on,off,on\n");
    EXPECT_EQ(set("exposure-compensation", "0x4E20"), "20000\n");
    EXPECT_EQ(set("brightness", "-10"), "-10\n");
    // The camera rounds to its step of 10 kelvin.
    EXPECT_EQ(set("white-balance-temperature", "3005"), "3010\n");
    EXPECT_EQ(set("imu-config", "1,7,4g,7,1000dps,3"), "1,7,4g,7,1000dps,3\n");
    EXPECT_EQ(set("tof-coring", "40"), "40\n");

    // Far range allows the longer exposure.
    EXPECT_EQ(set("depth-range", "far"), "far\n");
    EXPECT_EQ(set("tof-exposure", "800"), "800\n");
    EXPECT_EQ(set("depth-range", "near"), "near\n");

    // Defaults restore the camera's HID settings.
    EXPECT_EQ(runTool({"set", "CTL-1", "defaults"}).status, 0);
    EXPECT_EQ(get("scene-mode"), "normal\n");
    EXPECT_EQ(get("face-detection"), "off,off,off\n");
}

TEST_F(Controls, JsonCarriesFieldNamesAndNumbers) {
    ASSERT_EQ(set("smile-detection", "on,off"), "on,off\n");
    const ToolRun r = runTool({"get", "CTL-1", "smile-detection", "--json"});
    ASSERT_EQ(r.status, 0) << r;
    cv::FileStorage fs(
        r.out, cv::FileStorage::READ | cv::FileStorage::MEMORY | cv::FileStorage::FORMAT_JSON);
    ASSERT_TRUE(fs.isOpened()) << r.out;
    EXPECT_EQ(static_cast<std::string>(fs["serial"]), "CTL-1");
    EXPECT_EQ(static_cast<std::string>(fs["control"]), "smile-detection");
    EXPECT_EQ(static_cast<std::string>(fs["fields"][1]), "embed");
    EXPECT_EQ(static_cast<int>(fs["values"][0]), 1);
    EXPECT_EQ(static_cast<int>(fs["values"][1]), 0);
    EXPECT_EQ(static_cast<std::string>(fs["text"]), "on,off");
}

TEST_F(Controls, ColourOnlySettingsNeedAColourOnlyMode) {
    const ToolRun refused = runTool({"set", "CTL-1", "orientation", "mirrored"});
    EXPECT_EQ(refused.status, 1) << refused;
    EXPECT_EQ(refused.err,
              "talvoro: orientation needs a colour-only data mode (6 to 9) (the camera streams "
              "in data mode 4)\n");
    EXPECT_EQ(get("orientation"), "normal\n");

    EXPECT_EQ(set("data-mode", "rgb-vga"), "rgb-vga\n");
    EXPECT_EQ(set("orientation", "mirrored"), "mirrored\n");
    EXPECT_EQ(set("auto-exposure-roi", "manual,640,480,320,240,4"), "manual,4\n");
    EXPECT_EQ(set("orientation", "normal"), "normal\n");
    const ToolRun coring = runTool({"get", "CTL-1", "tof-coring"});
    EXPECT_EQ(coring.status, 1) << coring;
    EXPECT_NE(coring.err.find("tof-coring needs depth"), std::string::npos) << coring;
}

TEST_F(Controls, ImuSamplesFlowWhileCaptureRuns) {
    const ToolRun idle = runTool({"get", "CTL-1", "imu-sample"});
    EXPECT_EQ(idle.status, 1) << idle;
    EXPECT_NE(idle.err.find("imu-capture start"), std::string::npos) << idle;

    ASSERT_EQ(runTool({"set", "CTL-1", "imu-capture", "start"}).status, 0);
    const std::string sample = get("imu-sample");
    // counter, acceleration x, y, z in mg, angular rate x, y, z: the camera rests.
    std::vector<double> v;
    std::istringstream fields(sample);
    for (std::string field; std::getline(fields, field, ',');)
        v.push_back(std::stod(field));
    ASSERT_EQ(v.size(), 7u) << sample;
    EXPECT_NEAR(v[2], 1000, 5) << sample;
    EXPECT_NEAR(v[4], 1.5, 0.1) << sample;
    EXPECT_EQ(runTool({"set", "CTL-1", "imu-capture", "stop"}).status, 0);
}

}  // namespace
}  // namespace tooltest
