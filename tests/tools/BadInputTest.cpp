// Bad input to the tool: a one-line error and a non-zero exit, never a crash, and no file left
// behind. tools.bad_input: BAD-1, and BAD-GONE, unplugged after 5 frames; under the launcher.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "common/TempDir.h"
#include "talvoro_vcam.h"
#include "tools/ToolRunner.h"

namespace tooltest {
namespace {

class BadInput : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam";
        std::ofstream(dir_.file("file")) << "a file, not a directory\n";
    }

    void expectError(std::vector<std::string> args, int status, const std::string& text) {
        args.push_back("-q");  // no progress line before the error on a slow machine
        const ToolRun r = runTool(args, dir_.path());
        EXPECT_EQ(r.status, status) << r;
        EXPECT_TRUE(oneLineError(r)) << r;
        EXPECT_NE(r.err.find(text), std::string::npos) << r;
    }

    talvoro_test::TempDir dir_;
};

TEST_F(BadInput, UnknownCamerasControlsAndValues) {
    expectError({"info", "NOPE"}, 1, "no camera with serial 'NOPE' (connected: BAD-1, BAD-GONE)");
    expectError({"stream", "NOPE", "--frames", "1"}, 1, "no camera with serial 'NOPE'");
    expectError({"get", "BAD-1", "colour"}, 2, "unknown control 'colour'");
    expectError({"set", "BAD-1", "denoise", "16"}, 2, "denoise: 16 is out of range (0 to 15)");
    expectError({"set", "BAD-1", "scene-mode", "sepia"}, 2,
                "scene-mode: unknown value 'sepia' (normal (0), macro (1))");
    expectError({"set", "BAD-1", "face-detection", "1,1"}, 2, "expected 3 values");
    // The exposure limit follows the depth range (near: 380).
    expectError({"set", "BAD-1", "tof-exposure", "381"}, 2, "381 is out of range (0 to 380)");
    // The camera's own range for the standard controls.
    expectError({"set", "BAD-1", "gamma", "10"}, 2, "gamma: 10 is out of range (72 to 500)");
    expectError({"set", "BAD-1", "unique-id", "1"}, 2, "unique-id can only be read");
    expectError({"get", "BAD-1", "defaults"}, 2, "defaults can only be set");
    expectError({"set", "BAD-1", "scene-mode"}, 2, "missing VALUE for scene-mode");
}

TEST_F(BadInput, WrongCommandLines) {
    expectError({"frobnicate"}, 2, "unknown command 'frobnicate'");
    expectError({"stream"}, 2, "missing SERIAL");
    expectError({"stream", "BAD-1", "--mode", "12"}, 2, "--mode: 12 is out of range (0 to 9)");
    expectError({"stream", "BAD-1", "--frames", "many"}, 2, "--frames: expected a number");
    expectError({"stream", "BAD-1", "--filters", "blur"}, 2, "unknown filter 'blur'");
    expectError({"stream", "BAD-1", "--colour"}, 2, "unknown option --colour");
    expectError({"list", "extra"}, 2, "unexpected argument 'extra'");
    expectError({"cloud", "BAD-1"}, 2, "missing --out FILE.ply");
    expectError({"record", "BAD-1", "--mode", "1", "--out", "x.tlvrec"}, 2,
                "data mode 1 produces no frames");
    expectError({"replay", "file"}, 2, "missing -- COMMAND");
}

TEST_F(BadInput, UnwritableOutputFailsBeforeStreaming) {
    expectError({"stream", "BAD-1", "--frames", "1", "--out", "file/images"}, 1,
                "cannot create '" + dir_.file("file/images") + "'");
    expectError({"cloud", "BAD-1", "--out", "file/room.ply"}, 1,
                "cannot write '" + dir_.file("file/room.ply") + "'");
    expectError({"record", "BAD-1", "--frames", "1", "--out", "no/such/dir/x.tlvrec"}, 1,
                "no/such/dir/x.tlvrec");
    // A file that is no recording cannot be replayed.
    expectError({"replay", "file", "--", "true"}, 1, "cannot replay '" + dir_.file("file") + "'");
}

TEST_F(BadInput, ProcessingTheDataModeCannotDo) {
    // Asked for on the command line: a usage error, like a wrong option.
    expectError({"stream", "BAD-1", "--mode", "2", "--map", "--frames", "1"}, 2,
                "--map needs data mode 4 or 5");
    expectError({"stream", "BAD-1", "--mode", "7", "--planarize", "--frames", "1"}, 2,
                "needs a data mode with depth");
    expectError({"cloud", "BAD-1", "--mode", "3", "--out", "ir.ply"}, 2,
                "data mode 3 has no depth");
    // A failed command leaves no file behind.
    EXPECT_FALSE(std::filesystem::exists(dir_.file("ir.ply")));
}

TEST_F(BadInput, UnpluggedCameraEndsTheStream) {
    expectError({"record", "BAD-GONE", "--frames", "100", "--out", "gone.tlvrec"}, 1,
                "camera BAD-GONE is gone");
    EXPECT_FALSE(std::filesystem::exists(dir_.file("gone.tlvrec")));
}

}  // namespace
}  // namespace tooltest
