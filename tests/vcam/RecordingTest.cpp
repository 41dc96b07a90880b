// The recording file format: the reader and writer against each other, and against a file
// written byte by byte from the documentation, as a short script would write it.
#include <linux/videodev2.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include <gtest/gtest.h>

#include "RecordingSamples.h"
#include "common/TempDir.h"

using vcam::rec::FrameInfo;
using vcam::rec::RecordingReader;
using vcam::rec::RecordingWriter;
using vcamtest::frameInfo;
using vcamtest::pattern;
using vcamtest::recordedFrame;

namespace {

TEST(Recording, RoundTripsMetadataCalibrationAndFrames) {
    talvoro_test::TempDir dir;
    const std::string path = dir.file("rec.tlvrec");
    std::string error;
    RecordingWriter w;
    ASSERT_TRUE(w.open(path, &error)) << error;
    ASSERT_TRUE(w.writeMetadata({{"serial", "LAB-1"}, {"fps", "30"}}));
    ASSERT_TRUE(w.writeCalibration({1, 2, "%YAML:1.0\ndepth\n"}));
    ASSERT_TRUE(w.writeCalibration({0, 0, "%YAML:1.0\nold colour\n"}));
    ASSERT_TRUE(w.writeCalibration({0, 1, "%YAML:1.0\ncolour\n"}));  // replaces the first
    const auto a = pattern(1536000, 1), b = pattern(614400, 2);
    ASSERT_TRUE(
        w.writeFrame(frameInfo(V4L2_PIX_FMT_Y16, 1280, 600, 0, 0, 1, 7), a.data(), a.size()));
    ASSERT_TRUE(
        w.writeFrame(frameInfo(V4L2_PIX_FMT_UYVY, 640, 480, 2, 0, 0, 8), b.data(), b.size()));
    ASSERT_TRUE(w.close(&error)) << error;

    RecordingReader r;
    ASSERT_TRUE(r.open(path, &error)) << error;
    EXPECT_EQ(r.metadata().at("serial"), "LAB-1");
    EXPECT_EQ(r.metadata().at("fps"), "30");
    ASSERT_NE(r.calibration(1), nullptr);
    EXPECT_EQ(r.calibration(1)->validFlag, 2);
    EXPECT_EQ(r.calibration(1)->data, "%YAML:1.0\ndepth\n");
    ASSERT_NE(r.calibration(0), nullptr);
    EXPECT_EQ(r.calibration(0)->data, "%YAML:1.0\ncolour\n");
    EXPECT_EQ(r.calibration(0)->validFlag, 1);
    EXPECT_EQ(r.calibration(2), nullptr);
    ASSERT_EQ(r.frames().size(), 2u);
    const FrameInfo& f = r.frames()[0].info;
    EXPECT_EQ(f.pixelFormat, uint32_t(V4L2_PIX_FMT_Y16));
    EXPECT_EQ(f.width, 1280);
    EXPECT_EQ(f.height, 600);
    EXPECT_EQ(f.depthRange, 1);
    EXPECT_EQ(f.sequence, 7u);
    EXPECT_EQ(f.timestampNs, 7000000123u);
    EXPECT_EQ(r.frames()[1].info.frameModeFirst, 2);
    EXPECT_EQ(recordedFrame(r, 0), a);
    EXPECT_EQ(recordedFrame(r, 1), b);
    std::vector<uint8_t> small(100);
    std::size_t n = 0;
    ASSERT_TRUE(r.readFrame(1, small.data(), small.size(), &n));  // bounded by the caller
    EXPECT_EQ(n, 100u);
    EXPECT_FALSE(r.readFrame(2, small.data(), small.size(), &n));
}

// Writes the documented layout with nothing but byte arithmetic.
struct ScriptWriter {
    std::string bytes;
    void u(uint64_t v, int n) {
        for (int i = 0; i < n; ++i)
            bytes += static_cast<char>(v >> (8 * i));
    }
    void record(const char* tag, const std::string& payload) {
        bytes += std::string(tag, 4);
        u(0, 4);
        u(payload.size(), 8);
        bytes += payload;
    }
};

TEST(Recording, ReadsAFileWrittenFromTheDocumentation) {
    ScriptWriter s;
    s.bytes = "TALVOREC";
    s.u(1, 4);
    s.u(16, 4);
    s.record("META", "product=Talvoro Depth Camera\n");
    s.record("XTRA", "a record a later version might add");
    std::string calib;
    calib += '\x02';  // extrinsics
    calib += '\x00';  // plain set
    calib += std::string(2, '\0') + "%YAML:1.0\n";
    s.record("CALB", calib);
    ScriptWriter frame;
    frame.u(V4L2_PIX_FMT_Y16, 4);
    frame.u(640, 2);
    frame.u(960, 2);
    frame.u(1, 2);  // frame mode 1, 0: depth and IR
    frame.u(0, 1);
    frame.u(0, 1);
    frame.u(0, 4);
    frame.u(42, 8);
    frame.u(5, 8);
    frame.bytes += "RAW!";
    s.record("FRAM", frame.bytes);
    s.record("FRAM", frame.bytes);
    // A recording cut off in the middle of its last record.
    s.bytes.resize(s.bytes.size() - 2);

    talvoro_test::TempDir dir;
    const std::string path = dir.file("script.tlvrec");
    std::ofstream(path, std::ios::binary) << s.bytes;
    RecordingReader r;
    std::string error;
    ASSERT_TRUE(r.open(path, &error)) << error;
    EXPECT_EQ(r.metadata().at("product"), "Talvoro Depth Camera");
    ASSERT_NE(r.calibration(2), nullptr);
    EXPECT_EQ(r.calibration(2)->data, "%YAML:1.0\n");
    ASSERT_EQ(r.frames().size(), 1u);
    EXPECT_EQ(r.frames()[0].info.height, 960);
    EXPECT_EQ(r.frames()[0].info.frameModeFirst, 1);
    EXPECT_EQ(r.frames()[0].info.sequence, 42u);
    EXPECT_EQ(r.frames()[0].info.timestampNs, 5u);
    const auto data = recordedFrame(r, 0);
    EXPECT_EQ(std::string(data.begin(), data.end()), "RAW!");
}

TEST(Recording, RefusesWhatIsNotARecording) {
    talvoro_test::TempDir dir;
    RecordingReader r;
    std::string error;
    EXPECT_FALSE(r.open(dir.file("missing"), &error));
    EXPECT_NE(error.find("missing"), std::string::npos);
    std::ofstream(dir.file("text")) << "not a recording at all";
    EXPECT_FALSE(r.open(dir.file("text"), &error));
    std::string future = "TALVOREC";
    future += std::string("\x02\0\0\0\x10\0\0\0", 8);
    std::ofstream(dir.file("v2"), std::ios::binary) << future;
    EXPECT_FALSE(r.open(dir.file("v2"), &error));
    EXPECT_NE(error.find("version 2"), std::string::npos) << error;
    RecordingWriter w;
    EXPECT_FALSE(w.open(dir.file("no/such/dir/x"), &error));
}

}  // namespace
