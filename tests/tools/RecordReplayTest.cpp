// talvoro record and replay: a recording of the virtual camera in modes 0, 4 and 5 holds the raw
// frames and calibration blobs as the camera sent them, and replaying it twice gives the same
// frames bit for bit. tools.record_replay starts the launcher itself (replay starts its own).
#include <gtest/gtest.h>

#include "Recording.h"
#include "common/TempDir.h"
#include "tools/ToolRunner.h"
#include "vcam/RecordingSamples.h"

namespace tooltest {
namespace {

using vcam::rec::RecordingReader;

struct ModeCase {
    int mode;
    uint32_t fourcc;
    uint16_t width, height;
    uint16_t first;
    uint8_t second;
};

std::ostream& operator<<(std::ostream& out, const ModeCase& c) {
    return out << "mode " << c.mode;
}

constexpr uint32_t kY16 = 0x20363159;

class RecordReplay : public ::testing::TestWithParam<ModeCase> {
  protected:
    std::string path(const std::string& name) const { return dir_.file(name); }

    // Records `frames` frames with the tool: under a fresh virtual camera, or under the replay
    // of `replayed`.
    void record(const std::string& out, int frames, const std::string& replayed = "") {
        const std::vector<std::string> recordArgs = {"record",   "REC-1",
                                                     "--mode",   std::to_string(GetParam().mode),
                                                     "--frames", std::to_string(frames),
                                                     "--out",    out};
        ToolRun r;
        if (replayed.empty()) {
            r = runToolWithCameras({"--camera", "serial=REC-1"}, recordArgs, dir_.path());
        } else {
            std::vector<std::string> args = {TALVORO_TOOL, "replay", replayed, "--"};
            args.push_back(TALVORO_TOOL);
            args.insert(args.end(), recordArgs.begin(), recordArgs.end());
            r = runProgram(args, dir_.path());
        }
        ASSERT_EQ(r.status, 0) << r;
        EXPECT_NE(r.out.find("recorded " + std::to_string(frames) + " frames of data mode " +
                             std::to_string(GetParam().mode) + " from REC-1 with 3 calibration"),
                  std::string::npos)
            << r;
    }

    talvoro_test::TempDir dir_;
};

TEST_P(RecordReplay, ReplaysBitExactly) {
    const ModeCase c = GetParam();
    // Two frames: the virtual camera's own scene never repeats a frame, so a replay that fell
    // back to it would not follow the recording's period.
    ASSERT_NO_FATAL_FAILURE(record("original.tlvrec", 2));
    RecordingReader original;
    std::string error;
    ASSERT_TRUE(original.open(path("original.tlvrec"), &error)) << error;
    ASSERT_EQ(original.frames().size(), 2u);
    EXPECT_EQ(original.metadata().at("serial"), "REC-1");
    EXPECT_EQ(original.metadata().at("frames"), "2");
    const std::size_t bytes = 2u * c.width * c.height;
    for (const auto& f : original.frames()) {
        EXPECT_EQ(f.size, bytes);
        EXPECT_EQ(f.info.pixelFormat, c.fourcc);
        EXPECT_EQ(f.info.width, c.width);
        EXPECT_EQ(f.info.height, c.height);
        EXPECT_EQ(f.info.frameModeFirst, c.first);
        EXPECT_EQ(f.info.frameModeSecond, c.second);
        EXPECT_EQ(f.info.depthRange, 0);
    }
    EXPECT_GT(original.frames()[1].info.sequence, original.frames()[0].info.sequence);
    const std::vector<uint8_t> frames[2] = {vcamtest::recordedFrame(original, 0),
                                            vcamtest::recordedFrame(original, 1)};
    ASSERT_NE(frames[0], frames[1]);
    for (int type = 0; type < 3; ++type) {
        const vcam::rec::Calibration* blob = original.calibration(type);
        ASSERT_NE(blob, nullptr) << type;
        EXPECT_EQ(blob->data.rfind("%YAML:1.0", 0), 0u) << type;
        EXPECT_EQ(blob->validFlag, 2) << type;
    }

    for (const char* replay : {"replay1.tlvrec", "replay2.tlvrec"}) {
        SCOPED_TRACE(replay);
        ASSERT_NO_FATAL_FAILURE(record(replay, 6, path("original.tlvrec")));
        RecordingReader again;
        ASSERT_TRUE(again.open(path(replay), &error)) << error;
        ASSERT_EQ(again.frames().size(), 6u);
        // The replay starts wherever the recorder joins the stream, then follows the recording.
        const std::vector<uint8_t> first = vcamtest::recordedFrame(again, 0);
        const std::size_t offset = first == frames[0] ? 0 : 1;
        ASSERT_EQ(first, frames[offset]);
        for (std::size_t i = 1; i < 6; ++i)
            EXPECT_TRUE(vcamtest::recordedFrame(again, i) == frames[(offset + i) % 2]) << i;
        // The replayed camera serves the recording's calibration.
        for (int type = 0; type < 3; ++type) {
            ASSERT_NE(again.calibration(type), nullptr) << type;
            EXPECT_EQ(again.calibration(type)->data, original.calibration(type)->data) << type;
        }
    }
}

// A replayed camera keeps to the recording's data mode: a stream without --mode plays it, one
// asking for another data mode is refused rather than fed the synthetic scene.
TEST(Replay, KeepsToTheRecordedDataMode) {
    talvoro_test::TempDir dir;
    const ToolRun recorded = runToolWithCameras(
        {"--camera", "serial=REC-2"},
        {"record", "REC-2", "--mode", "2", "--frames", "2", "--out", "depth.tlvrec"}, dir.path());
    ASSERT_EQ(recorded.status, 0) << recorded;
    const std::vector<std::string> replay = {TALVORO_TOOL, "replay", "depth.tlvrec", "--",
                                             TALVORO_TOOL, "stream", "REC-2",        "--frames",
                                             "1",          "--json"};
    std::vector<std::string> asked = replay;
    asked.insert(asked.end(), {"--mode", "4"});
    const ToolRun refused = runProgram(asked, dir.path());
    EXPECT_EQ(refused.status, 2) << refused;
    EXPECT_NE(refused.err.find("camera REC-2 plays " + dir.file("depth.tlvrec") +
                               ", which holds frames of data mode 2 only"),
              std::string::npos)
        << refused;
    const ToolRun played = runProgram(replay, dir.path());
    ASSERT_EQ(played.status, 0) << played;
    EXPECT_NE(played.out.find("\"data_mode\": 2"), std::string::npos) << played;
}

INSTANTIATE_TEST_SUITE_P(Modes, RecordReplay,
                         ::testing::Values(ModeCase{0, kY16, 640, 960, 1, 0},
                                           ModeCase{4, kY16, 1280, 600, 0, 0},
                                           ModeCase{5, kY16, 1443, 960, 0, 0}));

}  // namespace
}  // namespace tooltest
