// The Device without a camera: its processing settings, callback slots, and what a device that
// never streamed answers.
#include <gtest/gtest.h>

#include "DeviceTestSupport.h"
#include "log/TALVOROError.h"

using namespace Talvoro;

namespace {

class Settings : public ::testing::Test {
  protected:
    Result lastError() const { return static_cast<Result>(TALVOROError::cErrorNo.load()); }

    talvoro_test::LogCapture log;
    Device device{3};
    TalvoroFrame& frame = device.processor();
};

TEST_F(Settings, IrGainAndAveragingWindowRefuseOutOfRangeValues) {
    for (unsigned short gain : {0, 101}) {
        EXPECT_EQ(device.setTOFIRGain(gain), InvalidValue) << gain;
        EXPECT_EQ(lastError(), InvalidValue);
    }
    EXPECT_EQ(frame.settings().irGain, 16);
    EXPECT_EQ(device.setTOFIRGain(100), Ok);
    unsigned short gain = 0;
    EXPECT_EQ(device.getTOFIRGain(&gain), Ok);
    EXPECT_EQ(gain, 100);
    EXPECT_EQ(device.getTOFIRGain(nullptr), InvalidValue);

    EXPECT_EQ(device.updateAvgXandY(600, 400), Ok);
    for (auto [w, h] : {std::pair{3, 10}, {601, 10}, {4, 3}, {4, 401}}) {
        EXPECT_EQ(device.updateAvgXandY(w, h), OperationFailed) << w << "x" << h;
        EXPECT_EQ(lastError(), OperationFailed);
    }
    EXPECT_EQ(frame.settings().avgWindowWidth, 600);
    EXPECT_EQ(frame.settings().avgWindowHeight, 400);
}

TEST_F(Settings, ColourMapKeepsTheMapForNumbersAbove21) {
    EXPECT_EQ(device.updateColorMap(0, 6000, 22), Ok);
    EXPECT_EQ(frame.settings().colorMapType, 4);
    EXPECT_EQ(frame.settings().depthMax, 6000);
    EXPECT_DOUBLE_EQ(frame.settings().depthScale(), 255.0 / 6000);
    EXPECT_EQ(device.updateColorMap(100, 200, -1), Ok);  // negative numbers pass, in 8 bits
    EXPECT_EQ(frame.settings().colorMapType, 255);
}

TEST_F(Settings, AveragingRegionTogglesOffAndClearsTheResults) {
    ASSERT_EQ(talvoro_test::process(frame, 2, talvoro_test::image16([](int, int) { return 900; })),
              Ok);
    ASSERT_EQ(frame.calculateAverages().avgDepth, 900u);
    EXPECT_EQ(device.setAvgRegion(AvgRegion_Center), Ok);
    EXPECT_EQ(frame.settings().avgRegionMode, 1u);
    EXPECT_EQ(device.setAvgRegion(AvgRegion_Point), Ok);  // the two exclude each other
    EXPECT_EQ(frame.settings().avgRegionMode, 2u);
    EXPECT_EQ(device.setAvgRegion(AvgRegion_Point), Ok);
    EXPECT_EQ(frame.settings().avgRegionMode, 0u);
    EXPECT_EQ(frame.averages().avgDepth, 0u);
    EXPECT_TRUE(frame.settings().processingFlags & TalvoroFrame::kAverageDue);
}

TEST_F(Settings, MappingNeedsAMultiplexedModeFirstThenTheCalibration) {
    const auto calibrate = [&](uint16_t mask) {
        device.obtainCalibParams(0, mask, cv::Mat(), cv::Mat(), cv::Mat(), cv::Mat(), cv::Mat(),
                                 cv::Mat());
    };
    calibrate(TalvoroFrame::kVgaCalibration);
    ASSERT_EQ(device.initFrame(Depth_Mode), Ok);
    EXPECT_EQ(device.setRGBDMapping(1), NotSupportedInDataMode);
    EXPECT_EQ(lastError(), NotSupportedInDataMode);
    EXPECT_EQ(device.setRGBDMapping(0), Ok);

    ASSERT_EQ(device.initFrame(Depth_IR_RGB_HD_Mode), Ok);
    calibrate(0x1F);  // one item short
    EXPECT_EQ(device.setRGBDMapping(1), CalibrationDataNotFound);
    EXPECT_EQ(device.setUnDistortion(1), CalibrationDataNotFound);
    EXPECT_EQ(frame.settings().processingFlags &
                  (TalvoroFrame::kRgbdMapping | TalvoroFrame::kUndistortion),
              0u);

    calibrate(TalvoroFrame::kVgaCalibration);
    EXPECT_EQ(device.setRGBDMapping(7), Ok);
    EXPECT_EQ(device.setUnDistortion(1), Ok);
    EXPECT_EQ(device.setFlyingPixelFilter(1), Ok);
    EXPECT_EQ(frame.settings().processingFlags, TalvoroFrame::kDefaultFlag | 0x20u | 0x40u | 0x80u);
    EXPECT_EQ(device.setRGBDMapping(0), Ok);
    EXPECT_EQ(device.setUnDistortion(0), Ok);
    EXPECT_EQ(device.setFlyingPixelFilter(0), Ok);
    EXPECT_EQ(frame.settings().processingFlags, TalvoroFrame::kDefaultFlag);
}

TEST_F(Settings, FilterTypesAndDepthRangeLeaveTheErrorNumberAlone) {
    TALVOROError::cErrorNo = -99;
    EXPECT_EQ(device.setFilterType(3, true), 0);
    EXPECT_EQ(frame.settings().filterFlags, 0);
    EXPECT_EQ(device.setFilterType(1, true), 1);
    EXPECT_TRUE(frame.hasHistory());
    EXPECT_EQ(device.updateDepthRange(5), Ok);  // too large: no range change
    EXPECT_EQ(frame.currentDepthRange(), 0);
    EXPECT_EQ(device.updateDepthRange(1), Ok);
    EXPECT_EQ(frame.currentDepthRange(), 1);
    EXPECT_EQ(device.initFrame(IR_Mode), Ok);
    EXPECT_EQ(TALVOROError::cErrorNo.load(), -99);
}

TEST_F(Settings, DepthAndIrValuesFollowTheDataModeAndAreClearedWhenRead) {
    using talvoro_test::process;
    const auto depth = [](int, int) { return 1000; };
    const auto ir = [](int, int) { return 50; };
    ASSERT_EQ(process(frame, Depth_IR_Mode, talvoro_test::rowPairs(depth, ir)), Ok);
    const auto values = [&](DataMode mode) {
        device.initFrame(mode);
        device.setAvgIRDisplay(1);
        std::array<int, 4> v{-1, -1, -1, -1};
        EXPECT_EQ(device.getDepthIRValues(&v[0], &v[1], &v[2], &v[3]), Ok);
        EXPECT_EQ(frame.averages().avgDepth, 0u);
        return v;
    };
    EXPECT_EQ(values(Depth_IR_Mode), (std::array<int, 4>{1000, 0, 50, 0}));
    EXPECT_EQ(values(Depth_Mode), (std::array<int, 4>{1000, 0, 0, 0}));
    EXPECT_EQ(values(IR_Mode), (std::array<int, 4>{0, 0, 50, 0}));
    int v = 0;
    EXPECT_EQ(device.getDepthIRValues(&v, &v, &v, nullptr), InvalidValue);
}

TEST_F(Settings, EachCallbackSlotTakesOneCallable) {
    int calls = 0;
    const DeviceCallback count = [&](int, int) { ++calls; };
    using Register = Result (Device::*)(DeviceCallback);
    for (Register reg : {&Device::registerFrameCallback, &Device::registerNotificationCallback,
                         &Device::registerWrapperNotificationCallback}) {
        EXPECT_EQ((device.*reg)(DeviceCallback()), Ok);  // empty: the slot stays free
        EXPECT_EQ((device.*reg)(count), Ok);
        EXPECT_EQ((device.*reg)(count), FrameCallbackRegistrationFailed);
        EXPECT_EQ(lastError(), FrameCallbackRegistrationFailed);
    }
    EXPECT_EQ(calls, 0);
}

// ---- A device that never streamed ---------------------------------------------------------

TEST_F(Settings, IdleDeviceStopsAndClosesHarmlessly) {
    EXPECT_EQ(device.isDeviceOpen(), CameraNotOpened);
    EXPECT_EQ(device.deinitCapture(), 1);
    EXPECT_EQ(device.initCapture(true), 0);
    EXPECT_FALSE(device.stream(false));  // already off: answers the state it asked for
    EXPECT_FALSE(device.stream(true));
    EXPECT_EQ(device.getFramesPerSecond(), 0u);
    unsigned w = 7, h = 7, code = 7;
    EXPECT_EQ(device.getFormat(&w, &h, &code), 0);
    EXPECT_EQ(w + h + code, 21u);
}

TEST_F(Settings, PollingWithoutFramesTimesOutAndWithACallbackFindsNoBuffer) {
    EXPECT_EQ(device.getframe(), TimeoutError);
    EXPECT_EQ(lastError(), TimeoutError);
    ASSERT_EQ(device.registerFrameCallback([](int, int) {}), Ok);
    // Twice: the frame lock is not left held by the first refusal.
    EXPECT_EQ(device.getframe(), InvalidFrameBuffer);
    EXPECT_EQ(device.getframe(), InvalidFrameBuffer);
    EXPECT_EQ(lastError(), InvalidFrameBuffer);
}

TEST_F(Settings, FramesAreRefusedWhileANewerCaptureIsUnprocessed) {
    device.initFrame(Depth_Mode);
    frame.stampCapture(1);
    Frames frames;
    EXPECT_EQ(device.getFrames(&frames), TimeoutError);
    ASSERT_EQ(talvoro_test::process(frame, 2, talvoro_test::image16([](int, int) { return 1; })),
              Ok);
    std::memset(&frames, 0x5A, sizeof frames);
    EXPECT_EQ(device.getFrames(&frames), Ok);
    EXPECT_EQ(frames.raw_depth_frame.width, 640);
    EXPECT_EQ(frames.rgb_frame.frame_data, nullptr);
    EXPECT_EQ(frames.ir_frame.total_size, 0u);
}

}  // namespace
