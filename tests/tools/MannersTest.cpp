// What every command of the tool shares: help, exit statuses, JSON errors and JSON Lines (read
// back with a strict JSON parser), progress on standard error, and Ctrl-C.
// tools.manners: MAN-1, under the launcher.
#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include <regex>
#include <sstream>

#include "Recording.h"
#include "common/TempDir.h"
#include "talvoro_vcam.h"
#include "tools/ToolRunner.h"

namespace tooltest {
namespace {

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

cv::FileStorage parseJson(const std::string& text) {
    return cv::FileStorage(
        text, cv::FileStorage::READ | cv::FileStorage::MEMORY | cv::FileStorage::FORMAT_JSON);
}

// The commands `talvoro --help` lists.
std::vector<std::string> listedCommands() {
    const ToolRun help = runTool({"--help"});
    std::vector<std::string> names;
    bool inList = false;
    for (const std::string& line : lines(help.out)) {
        if (line == "commands:") {
            inList = true;
        } else if (inList && line.rfind("  ", 0) == 0) {
            names.push_back(line.substr(2, line.find(' ', 2) - 2));
        } else {
            inList = false;
        }
    }
    return names;
}

class Manners : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam"; }
    talvoro_test::TempDir dir_;
};

TEST_F(Manners, EveryCommandAnswersHelp) {
    const std::vector<std::string> names = listedCommands();
    ASSERT_GE(names.size(), 9u);
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const ToolRun help = runTool({name, "--help"});
        EXPECT_EQ(help.status, 0) << help;
        EXPECT_EQ(help.out.rfind("usage: talvoro " + name, 0), 0u) << help;
        EXPECT_TRUE(help.err.empty()) << help;
    }
    // The short form, the help command and a help among other arguments say the same.
    const std::string help = runTool({"stream", "--help"}).out;
    EXPECT_EQ(runTool({"stream", "-h"}).out, help);
    EXPECT_EQ(runTool({"help", "stream"}).out, help);
    EXPECT_EQ(runTool({"stream", "MAN-1", "--mode", "99", "-h"}).out, help);
    const ToolRun version = runTool({"--version"});
    EXPECT_EQ(version.status, 0) << version;
    EXPECT_TRUE(std::regex_match(version.out, std::regex("talvoro 1\\.\\d+\\.\\d+\\n"
                                                         "libTalvoroSDK 1\\.\\d+\\.\\d+\\n")))
        << version;
    EXPECT_EQ(runTool({}).status, 2);
}

// One table for the whole tool: what is wrong on the command line is 2, what the camera, the
// library or the disk refuses is 1; with --json the error is a JSON object on standard output.
TEST_F(Manners, ExitStatusesAndJsonErrorsAreTheSameEverywhere) {
    ASSERT_EQ(runTool({"set", "MAN-1", "data-mode", "7"}).status, 0);
    struct Case {
        std::vector<std::string> args;
        int status;
        const char* name;  // of the error object
        int code;          // the library's result, 0 for the tool's own errors
    };
    const Case cases[] = {
        {{"frobnicate"}, 2, "UsageError", 0},
        {{"stream", "MAN-1", "--mode", "12"}, 2, "UsageError", 0},
        {{"stream", "MAN-1", "--mode", "9", "--map"}, 2, "UsageError", 0},
        {{"cloud", "MAN-1", "--mode", "6", "--out", "x.ply"}, 2, "UsageError", 0},
        {{"record", "MAN-1", "--out", "x.tlvrec", "--frames", "-1"}, 2, "UsageError", 0},
        {{"info", "NOPE"}, 1, "Failed", 0},
        // The camera streams in data mode 7: nothing on the command line was wrong.
        {{"stream", "MAN-1", "--planarize", "--frames", "1"}, 1, "Failed", 0},
        {{"cloud", "MAN-1", "--out", "x.ply"}, 1, "Failed", 0},
        {{"get", "MAN-1", "imu-sample"}, 1, "HidReadFail", -15},
        {{"set", "MAN-1", "tof-coring", "5"}, 1, "NotSupportedInDataMode", -23},
    };
    for (const Case& c : cases) {
        std::string trace;
        for (const std::string& a : c.args)
            trace += a + " ";
        SCOPED_TRACE(trace);
        std::vector<std::string> args = c.args;
        args.push_back("--json");
        const ToolRun json = runTool(args, dir_.path());
        EXPECT_EQ(json.status, c.status) << json;
        EXPECT_TRUE(oneLineError(json)) << json;
        std::string why;
        ASSERT_TRUE(isJson(json.out, true, &why)) << why << json;
        cv::FileStorage fs = parseJson(json.out);
        const cv::FileNode error = fs["error"];
        EXPECT_EQ(static_cast<std::string>(error["name"]), c.name) << json;
        EXPECT_EQ(static_cast<int>(error["code"]), c.code) << json;
        EXPECT_EQ(static_cast<int>(error["exit_status"]), c.status) << json;
        EXPECT_EQ("talvoro: " + static_cast<std::string>(error["message"]) + "\n", json.err);
    }
    EXPECT_FALSE(std::filesystem::exists(dir_.file("x.ply")));
    EXPECT_FALSE(std::filesystem::exists(dir_.file("x.tlvrec")));
}

TEST_F(Manners, StreamPrintsAJsonLinePerFrameAndProgressOnStandardError) {
    ASSERT_EQ(runTool({"set", "MAN-1", "data-mode", "2"}).status, 0);
    // Long enough for a progress line or two, which a log gets once a second.
    const ToolRun r = runTool({"stream", "MAN-1", "--frames", "75", "--json"});
    ASSERT_EQ(r.status, 0) << r;
    std::string why;
    ASSERT_TRUE(isJson(r.out, true, &why)) << why << r;
    const std::vector<std::string> out = lines(r.out);
    ASSERT_EQ(out.size(), 76u) << r;
    for (int i = 0; i < 75; ++i) {
        cv::FileStorage frame = parseJson(out[i]);
        EXPECT_EQ(static_cast<int>(frame["frame"]), i + 1) << out[i];
        EXPECT_GT(static_cast<int>(frame["depth_mm"]), 0) << out[i];
    }
    EXPECT_EQ(static_cast<int>(parseJson(out[75])["frames"]), 75) << out[75];
    const std::vector<std::string> progress = lines(r.err);
    EXPECT_GE(progress.size(), 1u) << r;
    EXPECT_LE(progress.size(), 4u) << r;
    for (const std::string& line : progress)
        EXPECT_TRUE(std::regex_match(line, std::regex("frame \\d+: .* fps, depth .*"))) << line;

    const ToolRun quiet = runTool({"stream", "MAN-1", "--frames", "45", "-q"});
    EXPECT_EQ(quiet.status, 0) << quiet;
    EXPECT_TRUE(quiet.err.empty()) << quiet;
}

// The candidates bash completion offers for the last word, as bash runs the completion.
std::string complete(const std::vector<std::string>& words) {
    std::string array = std::string("'") + TALVORO_TOOL + "'";
    for (const std::string& w : words)
        array += " '" + w + "'";
    const std::string script = std::string("source ") + TALVORO_COMPLETION + "; COMP_WORDS=(" +
                               array + "); COMP_CWORD=" + std::to_string(words.size()) +
                               "; _talvoro; printf '%s\\n' \"${COMPREPLY[@]}\"";
    return runProgram({"/bin/bash", "-c", script}).out;
}

TEST_F(Manners, BashCompletesCommandsSerialsOptionsAndValues) {
    EXPECT_EQ(complete({"str"}), "stream\n");
    EXPECT_EQ(complete({"stream", ""}), "MAN-1\n");
    EXPECT_EQ(complete({"stream", "MAN-1", "--fr"}), "--frames\n");
    EXPECT_EQ(complete({"stream", "MAN-1", "--mode", "1"}), "1\n");
    EXPECT_EQ(complete({"stream", "MAN-1", "--filters", "te"}), "temporal\n");
    EXPECT_EQ(complete({"get", "MAN-1", "bright"}), "brightness\n");
    EXPECT_EQ(complete({"set", "MAN-1", "scene-mode", ""}), "normal\nmacro\n");
    EXPECT_EQ(complete({"help", "con"}), "controls\n");
}

TEST_F(Manners, CtrlCEndsCleanlyWithStatus130) {
    // A stream until Ctrl-C still reports its frames, then says it was interrupted.
    const ToolRun stream = runProgram({TALVORO_TOOL, "stream", "MAN-1", "--frames", "0", "--json"},
                                      dir_.path(), "\"frame\": 3,");
    EXPECT_EQ(stream.status, 130) << stream;
    std::string why;
    ASSERT_TRUE(isJson(stream.out, true, &why)) << why << stream;
    const std::vector<std::string> out = lines(stream.out);
    ASSERT_GE(out.size(), 5u) << stream;
    EXPECT_GE(static_cast<int>(parseJson(out[out.size() - 2])["frames"]), 3) << stream;
    EXPECT_EQ(static_cast<std::string>(parseJson(out.back())["error"]["name"]), "Interrupted");
    EXPECT_EQ(stream.err, "talvoro: interrupted\n");

    // A recording until Ctrl-C keeps every frame it announced.
    const ToolRun record = runProgram(
        {TALVORO_TOOL, "record", "MAN-1", "--frames", "0", "--out", "rec.tlvrec", "--json"},
        dir_.path(), "\"recorded\":");
    EXPECT_EQ(record.status, 130) << record;
    ASSERT_TRUE(isJson(record.out, true, &why)) << why << record;
    const std::vector<std::string> recordOut = lines(record.out);
    ASSERT_GE(recordOut.size(), 3u) << record;
    const int frames = parseJson(recordOut[recordOut.size() - 2])["frames"];
    vcam::rec::RecordingReader reader;
    ASSERT_TRUE(reader.open(dir_.file("rec.tlvrec"), &why)) << why;
    EXPECT_EQ(reader.frames().size(), static_cast<std::size_t>(frames));
    EXPECT_GE(frames, 1);
}

}  // namespace
}  // namespace tooltest
