// Data-mode answers for formats and failures the camera never produces: a Device whose format
// query and format change the test decides.
// wrapper.seam: SEAM-1.
#include <atomic>

#include "device/Device.h"
#include "wrapper/ApiFixture.h"
#include "wrapper/TalvoroWrapper.h"

namespace apitest {
namespace {

class ScriptedFormat : public Talvoro::Device {
  public:
    using Device::Device;

    static inline std::atomic<bool> colour800x600{false};
    static inline std::atomic<bool> formatQueryFails{false};
    static inline std::atomic<bool> formatChangeFails{false};

    int getFormat(unsigned int* w, unsigned int* h, unsigned int* code) override {
        if (formatQueryFails) return 0;
        if (!colour800x600) return Device::getFormat(w, h, code);
        *w = 800;
        *h = 600;
        *code = 0;
        return 1;
    }
    int setFormat(unsigned int w, unsigned int h, unsigned int code) override {
        return formatChangeFails ? 0 : Device::setFormat(w, h, code);
    }
};

class Seam : public ApiTest {
  protected:
    void SetUp() override {
        Talvoro::wrapper::setDeviceFactory([](int index) { return new ScriptedFormat(index); });
        ApiTest::SetUp();
        h = open("SEAM-1");
    }
    void TearDown() override {
        ScriptedFormat::colour800x600 = false;
        ScriptedFormat::formatQueryFails = false;
        ScriptedFormat::formatChangeFails = false;
        ApiTest::TearDown();
        Talvoro::wrapper::setDeviceFactory(nullptr);
    }
    DeviceHandle h{};
};

TEST_F(Seam, AColourFormatOfNoDataModeLeavesTheModeUntouched) {
    ScriptedFormat::colour800x600 = true;
    Talvoro::DataMode mode = Depth_Mode;
    EXPECT_EQ(GetDataMode(h, &mode), Ok);
    EXPECT_EQ(mode, Depth_Mode);
    // Not knowing the current mode, the switch compares with the recorded one (4) and goes on.
    EXPECT_EQ(SetDataMode(h, RGB_VGA_Mode), Ok);
    ScriptedFormat::colour800x600 = false;
    EXPECT_EQ(GetDataMode(h, &mode), Ok);
    EXPECT_EQ(mode, RGB_VGA_Mode);
    EXPECT_EQ(SetDataMode(h, Depth_IR_RGB_VGA_Mode), Ok);
}

TEST_F(Seam, AFormatQueryThatFailsGivesOperationFailed) {
    ScriptedFormat::formatQueryFails = true;
    Talvoro::DataMode mode = Depth_Mode;
    EXPECT_EQ(GetDataMode(h, &mode), OperationFailed);
    EXPECT_EQ(mode, Depth_Mode);
    // Without the current mode the switch does nothing, and says Ok.
    EXPECT_EQ(SetDataMode(h, RGB_VGA_Mode), Ok);
    ScriptedFormat::formatQueryFails = false;
    EXPECT_EQ(GetDataMode(h, &mode), Ok);
    EXPECT_EQ(mode, Depth_IR_RGB_VGA_Mode);
}

TEST_F(Seam, AFormatChangeThatFailsGivesSysCallFail) {
    ScriptedFormat::formatChangeFails = true;
    EXPECT_EQ(SetDataMode(h, RGB_HD_Mode), SysCallFail);
    unsigned char orientation = 0;
    EXPECT_EQ(SetOrientation(h, 0), NotSupportedInDataMode);  // mode 7 was not recorded
    EXPECT_EQ(GetOrientation(h, &orientation), Ok);
    // The camera took the colour frame mode, so the way back goes through another mode.
    ScriptedFormat::formatChangeFails = false;
    EXPECT_EQ(SetDataMode(h, RGB_VGA_Mode), Ok);
    EXPECT_EQ(SetDataMode(h, Depth_IR_RGB_VGA_Mode), Ok);
    ToFFrame depth{};
    EXPECT_TRUE(fetch(h, RawDepth, &depth));
}

}  // namespace
}  // namespace apitest
