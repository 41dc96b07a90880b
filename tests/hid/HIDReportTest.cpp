// The HID channel's handling of whatever the camera answers, on reports built byte by byte:
// short, long and garbled answers, counts beyond the report, and the IMU sample decoding.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "ScriptedCamera.h"
#include "hid/HIDReports.h"

using namespace Talvoro;
using talvoro_test::report;
using talvoro_test::ScriptedCamera;

namespace {

class ScriptedHid : public ::testing::Test {
  protected:
    HID hid;
    ScriptedCamera cam{hid};
};

TEST_F(ScriptedHid, ShortLongAndMissingAnswers) {
    // Two bytes: the status byte reads as zero, so the answer is refused.
    ASSERT_TRUE(cam.answer({0xB3, 0x02}));
    EXPECT_EQ(hid.setCameraMode(3), SetValueFailed);
    // A longer report is cut at 64 bytes; the rest is dropped with it.
    std::vector<uint8_t> longAnswer = report({0xB3, 0x12, 5, 0, 0, 0, 1});
    longAnswer.resize(100, 0xAB);
    ASSERT_TRUE(cam.answer(longAnswer));
    unsigned char value = 0;
    EXPECT_EQ(hid.getSceneMode(&value), Ok);
    EXPECT_EQ(value, 5);
    // The first report after the request is the answer, whatever it answers.
    ASSERT_TRUE(cam.answer(report({0xB3, 0x14, 9}, 6)));
    EXPECT_EQ(hid.getSceneMode(&value), GetValueFailed);
    EXPECT_EQ(value, 255);
    // A camera that hung up: empty reads, nothing accepted, no wait.
    cam.hangUp();
    EXPECT_EQ(hid.getDenoise(&value), GetValueFailed);
    const auto sent = cam.requests();
    ASSERT_EQ(sent.size(), 4u);
    EXPECT_EQ(sent[0], report({0xB3, 0x02, 3}));
}

TEST_F(ScriptedHid, BoardConfigurationCountIsBoundByTheReport) {
    std::vector<uint8_t> full = report({0xB3, 0x34, 0, 60});
    for (std::size_t i = 4; i < 64; ++i)
        full[i] = static_cast<uint8_t>(i);
    full[31] = 0x01;
    ASSERT_TRUE(cam.answer(full));
    std::string text;
    ASSERT_EQ(hid.getBoardConfigData(&text), Ok);
    EXPECT_EQ(text.substr(0, 6), "456789");
    EXPECT_EQ(text.substr(text.size() - 4), "6263");

    full[3] = 61;  // one value past the end of the report
    ASSERT_TRUE(cam.answer(full));
    std::string untouched = "u";
    EXPECT_EQ(hid.getBoardConfigData(&untouched), GetValueFailed);
    EXPECT_EQ(untouched, "u");
    full[2] = 0xFF;
    ASSERT_TRUE(cam.answer(full));
    EXPECT_EQ(hid.getBoardConfigData(&untouched), GetValueFailed);

    ASSERT_TRUE(cam.answer(report({0xB3, 0x34, 0, 3, 0, 0, 7}, 31)));
    EXPECT_EQ(hid.getBoardConfigData(&untouched), Ok);
    EXPECT_EQ(untouched, "u007");
}

TEST_F(ScriptedHid, UniqueIdNeedsBothHalves) {
    ASSERT_TRUE(cam.answer(report({0x41, 0x01, 0x02, 0x03, 0x04})));
    ASSERT_TRUE(cam.answer(report({0x42, 0x00, 0x05, 0x06, 0x07, 0x08})));
    unsigned long id = 7;
    EXPECT_EQ(hid.getUniqueID(&id), GetValueFailed);
    EXPECT_EQ(id, 7ul);
    ASSERT_TRUE(cam.answer(report({0x41, 0x01, 0x02, 0x03, 0x04})));
    ASSERT_TRUE(cam.answer(report({0x41, 0x00, 0x05, 0x06, 0x07, 0x08})));
    EXPECT_EQ(hid.getUniqueID(&id), Ok);
    EXPECT_EQ(id, 0x0102030405060708ul);
}

TEST_F(ScriptedHid, CalibrationSizeRequestIgnoresTheClassByte) {
    ASSERT_TRUE(cam.answer(report({0x00, 0x09, 1, 0, 0, 0, 0, 0x01, 0x2C}, 15)));
    int size = 0;
    ASSERT_EQ(hid.calibReadReqDepthIntrinsic(&size), Ok);
    EXPECT_EQ(size, 300);
    // Chunk answers carry 56 bytes each from byte 8; a 60-byte blob takes two.
    std::vector<uint8_t> chunk = report({0xB3, 0x0A, 1, 0, 0, 0, 1}, 7);
    for (std::size_t i = 8; i < 64; ++i)
        chunk[i] = static_cast<uint8_t>(i);
    ASSERT_TRUE(cam.answer(chunk));
    ASSERT_TRUE(cam.answer(chunk));
    std::vector<unsigned char> data(60, 0);
    int wanted = 60;
    ASSERT_EQ(hid.calibReadDepthIntrinsic(&wanted, data.data()), Ok);
    EXPECT_EQ(data[0], 8);
    EXPECT_EQ(data[55], 63);
    EXPECT_EQ(data[56], 8);
    EXPECT_EQ(data[59], 11);
    const auto sent = cam.requests();
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[2], report({0xB3, 0x0A, 1, 0, 0, 0, 2}));
}

TEST_F(ScriptedHid, ImuReportsAreDecodedWithTheConfiguredScales) {
    ASSERT_TRUE(cam.answer(report({0xB3, 0x04}, 25)));
    ASSERT_EQ(hid.setIMUConfig({1, 7, 3, 7, 1, 0}), Ok);

    IMUDATAOUTPUT_TypeDef sample{};
    // Acceleration counts 4096, -2, 1; rate counts 100, 0, -32768.
    ASSERT_TRUE(cam.imuReport(report({0xB3, 0x06, 0, 0, 0xFE, 0x10, 0x00, 0xFF, 0xFE, 0x00, 0x01,
                                      0,    0,    0, 0, 0xFD, 0x00, 0x64, 0x00, 0x00, 0x80, 0x00},
                                     48)));
    ASSERT_EQ(hid.getIMUValue(&sample), Ok);
    EXPECT_EQ(sample.imuValueCount, 1);
    EXPECT_EQ(sample.accX, 4096 * double(0.244f));
    EXPECT_EQ(sample.accY, -2 * double(0.244f));
    EXPECT_EQ(sample.accZ, 1 * double(0.244f));
    EXPECT_EQ(sample.gyroX, 100 * double(0.0152f));
    EXPECT_EQ(sample.gyroY, 0.0);
    EXPECT_EQ(sample.gyroZ, -32768 * double(0.0152f));

    // Without the 0xFE marker the acceleration is left as it was.
    IMUDATAOUTPUT_TypeDef partial{9, 1, 2, 3, 4, 5, 6};
    ASSERT_TRUE(cam.imuReport(report(
        {0xB3, 0x06, 0, 0, 0x00, 0x10, 0x00, 0, 0, 0, 0, 0, 0, 0, 0, 0xFD, 0x00, 0x0A}, 48)));
    ASSERT_EQ(hid.getIMUValue(&partial), Ok);
    EXPECT_EQ(partial.imuValueCount, 1);
    EXPECT_EQ(partial.accX, 1.0);
    EXPECT_EQ(partial.gyroX, 10 * double(0.0152f));

    // A B3 06 report without the sample status fails; another report is ignored.
    ASSERT_TRUE(cam.imuReport(report({0xB3, 0x06})));
    EXPECT_EQ(hid.getIMUValue(&sample), OperationFailed);
    IMUDATAOUTPUT_TypeDef untouched{5, 1, 1, 1, 1, 1, 1};
    ASSERT_TRUE(cam.imuReport(report({0xB3, 0x07}, 48)));
    EXPECT_EQ(hid.getIMUValue(&untouched), Ok);
    EXPECT_EQ(untouched.imuValueCount, 5);
    EXPECT_EQ(untouched.accX, 1.0);
    // Nothing queued: the non-blocking read finds nothing.
    EXPECT_EQ(hid.getIMUValue(&sample), HidReadFail);
}

TEST(HidReports, PositionsAndChunks) {
    using hidreport::chunkBytes;
    using hidreport::scaledPosition;
    EXPECT_EQ(scaledPosition(639, 640), 255);
    EXPECT_EQ(scaledPosition(319, 640), 127);  // 127.3 truncated
    EXPECT_EQ(scaledPosition(0, 480), 0);
    EXPECT_EQ(scaledPosition(5000, 640), 255);
    EXPECT_EQ(scaledPosition(5, 1), 255);  // x / 0
    EXPECT_EQ(scaledPosition(0, 1), 0);    // 0 / 0
    EXPECT_EQ(chunkBytes(130, 1), 56u);
    EXPECT_EQ(chunkBytes(130, 3), 18u);
    EXPECT_EQ(chunkBytes(130, 4), 0u);
    EXPECT_EQ(chunkBytes(112, 2), 56u);
    EXPECT_EQ(chunkBytes(10, 0), 0u);
}

}  // namespace
