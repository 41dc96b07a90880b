// A camera that disappears in the middle of a data-mode switch: whichever step it is lost in,
// the loss is reported once, the camera is closed and unregistered, and later calls answer as
// for an unplugged camera. A Device that unplugs the camera (for real, through the virtual
// camera) just before the chosen step makes it deterministic; the camera is plugged back after
// each case.
// wrapper.unplug_at_step: STEP-1.
#include <atomic>
#include <string>

#include "device/Device.h"
#include "wrapper/ApiFixture.h"
#include "wrapper/TalvoroWrapper.h"

namespace apitest {
namespace {

constexpr const char* kSerial = "STEP-1";

enum class Step {
    ModeQuery,  // the format query that finds the current mode
    FrameMode,  // the extension-unit command right after it
    StreamOff,
    Format,  // the new format, once the stream is off
    BufferRequest,
    StreamOn,
};

class UnplugsAtStep : public Talvoro::Device {
  public:
    using Device::Device;

    static inline std::atomic<bool> armed{false};
    static inline std::atomic<Step> step{Step::ModeQuery};
    static inline std::atomic<bool> fired{false};

    int getFormat(unsigned int* w, unsigned int* h, unsigned int* code) override {
        at(Step::ModeQuery);
        const int r = Device::getFormat(w, h, code);
        at(Step::FrameMode);
        return r;
    }
    int deinitCapture() override {
        at(Step::StreamOff);
        return Device::deinitCapture();
    }
    int initCapture(bool keepFormat) override {
        if (!keepFormat) at(Step::Format);
        return Device::initCapture(keepFormat);
    }
    bool requestBuffers(int count) override {
        if (count > 0) at(Step::BufferRequest);
        return Device::requestBuffers(count);
    }
    bool stream(bool on) override {
        if (on) at(Step::StreamOn);
        return Device::stream(on);
    }

  private:
    static void at(Step here) {
        if (here != step || !armed.exchange(false)) return;
        std::string error;
        fired = talvoro_vcam::unplug(kSerial, &error);
        EXPECT_TRUE(fired) << error;
    }
};

class UnplugAtStep : public ApiTest, public ::testing::WithParamInterface<Step> {
  protected:
    void SetUp() override {
        Talvoro::wrapper::setDeviceFactory([](int index) { return new UnplugsAtStep(index); });
        ApiTest::SetUp();
    }
    void TearDown() override {
        UnplugsAtStep::armed = false;
        opened_.clear();  // gone: nothing to put back into data mode 4
        ApiTest::TearDown();
        Talvoro::wrapper::setDeviceFactory(nullptr);
        if (talvoro_vcam::captureNode(kSerial) < 0) {
            std::string error;
            EXPECT_TRUE(talvoro_vcam::plug(kSerial, "", &error)) << error;
        }
    }
};

TEST_P(UnplugAtStep, IsReportedOnceAndTheCameraIsGone) {
    const DeviceHandle h = open(kSerial);
    EventLog& notes = newEventLog();
    RegisterNotificationCallback(h, notes.callback());
    ToFFrame frame{};
    ASSERT_TRUE(fetch(h, RawDepth, &frame));

    UnplugsAtStep::fired = false;
    UnplugsAtStep::step = GetParam();
    UnplugsAtStep::armed = true;
    // The application of the field report: modes 0, 6, 4 and 2 in turn, a frame in between.
    for (DataMode mode : {Depth_IR_Mode, RGB_VGA_Mode, Depth_IR_RGB_VGA_Mode, IR_Mode}) {
        SetDataMode(h, mode);
        GetNextFrame(h);
        if (UnplugsAtStep::fired) break;
    }
    ASSERT_TRUE(UnplugsAtStep::fired);

    ASSERT_TRUE(notes.waitFor(1, 0));
    ASSERT_TRUE(waitFor([&] { return IsOpened(h) == InvalidDeviceIndex; }));
    EXPECT_EQ(SetDataMode(h, Depth_Mode), CameraNotOpened);
    EXPECT_EQ(GetNextFrame(h), CameraNotOpened);
    EXPECT_EQ(CloseDevice(h), CameraNotOpened);
    uint32_t count = 7;
    EXPECT_EQ(GetDeviceCount(&count), NoDeviceConnected);
    EXPECT_EQ(notes.events(), (std::vector<std::pair<int, int>>{{1, 0}}));
}

std::string nameOf(const ::testing::TestParamInfo<Step>& info) {
    static const char* const names[] = {"ModeQuery", "FrameMode",     "StreamOff",
                                        "Format",    "BufferRequest", "StreamOn"};
    return names[static_cast<int>(info.param)];
}

INSTANTIATE_TEST_SUITE_P(Steps, UnplugAtStep,
                         ::testing::Values(Step::ModeQuery, Step::FrameMode, Step::StreamOff,
                                           Step::Format, Step::BufferRequest, Step::StreamOn),
                         nameOf);

}  // namespace
}  // namespace apitest
