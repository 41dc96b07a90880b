// A disk that fills up under the tool (the preload of FullDisk.cpp): the error carries the cause,
// a recording keeps what was written and says which frames it holds, a PNG leaves nothing
// half-written. tools.full_disk: FD-1, under the launcher.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <regex>

#include "Recording.h"
#include "common/TempDir.h"
#include "talvoro_vcam.h"
#include "tools/ToolRunner.h"

namespace tooltest {
namespace {

class FullDisk : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam";
        const char* preload = std::getenv("LD_PRELOAD");
        preload_ = preload ? preload : "";
        // First: umockdev's own fwrite() goes to the C library directly.
        setenv("LD_PRELOAD", (std::string(TALVORO_FULL_DISK_PRELOAD) + ":" + preload_).c_str(), 1);
    }
    void TearDown() override {
        setenv("LD_PRELOAD", preload_.c_str(), 1);
        unsetenv("TALVORO_TEST_FULL_DISK");
    }
    // The disk under the test's directory holds `bytes` more bytes.
    void diskHolds(std::size_t bytes) {
        setenv("TALVORO_TEST_FULL_DISK", (dir_.path() + ":" + std::to_string(bytes)).c_str(), 1);
    }

    std::string preload_;
    talvoro_test::TempDir dir_;
};

TEST_F(FullDisk, ARecordingKeepsTheFramesThatFit) {
    // Room for the header, the calibration and about three multiplexed frames of 1.5 MB.
    diskHolds(5000000);
    const ToolRun r = runTool(
        {"record", "FD-1", "--mode", "4", "--frames", "30", "--out", dir_.file("rec.tlvrec")});
    EXPECT_EQ(r.status, 1) << r;
    EXPECT_TRUE(oneLineError(r)) << r;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.err, m,
                                  std::regex("cannot write '.*rec\\.tlvrec': No space left on "
                                             "device; it holds frames 1 to ([0-9]+) \\(sequence")))
        << r;
    vcam::rec::RecordingReader reader;
    std::string error;
    ASSERT_TRUE(reader.open(dir_.file("rec.tlvrec"), &error)) << error;
    EXPECT_EQ(reader.frames().size(), std::stoul(m[1]));
    EXPECT_GE(reader.frames().size(), 2u);
    EXPECT_LE(reader.frames().size(), 3u);
}

TEST_F(FullDisk, APngThatDoesNotFitIsReportedAndRemoved) {
    diskHolds(1000);
    const ToolRun r =
        runTool({"stream", "FD-1", "--mode", "2", "--frames", "1", "--out", dir_.path()});
    EXPECT_EQ(r.status, 1) << r;
    EXPECT_TRUE(oneLineError(r)) << r;
    EXPECT_NE(r.err.find("depth-colormap.png': No space left on device"), std::string::npos) << r;
    EXPECT_FALSE(std::filesystem::exists(dir_.file("depth-colormap.png")));
}

}  // namespace
}  // namespace tooltest
