// The logger: file name, level filter, output modes, entry format and thread safety.
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "TalvoroSDK.h"
#include "common/TempDir.h"
#include "log/Log.h"

using Talvoro::Log;
using talvoro_test::readFile;
using talvoro_test::TempDir;

namespace {

// Each test runs in its own working directory, so the log file there holds only its entries.
class LogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(Talvoro::SetLogLevel(2), Talvoro::Ok);
        ASSERT_EQ(Talvoro::SetLogging(2), Talvoro::Ok);
    }
    void TearDown() override {
        Talvoro::SetLogLevel(2);
        Talvoro::SetLogging(2);
    }
    std::string logText() const { return readFile(dir_.file(Log::getInstance()->fileName())); }
    bool logExists() const {
        return std::filesystem::exists(dir_.file(Log::getInstance()->fileName()));
    }

    TempDir dir_{true};
};

const std::regex kEntry(R"(\d{4}_\d{2}_\d{2}_\d{2}_\d{2}_\d{2}  : (.*))");

TEST_F(LogTest, FileNameCarriesTheCreationTime) {
    EXPECT_TRUE(
        std::regex_match(Log::getInstance()->fileName(),
                         std::regex(R"(Talvoro_Log_\d{4}_\d{2}_\d{2}_\d{2}_\d{2}_\d{2}\.txt)")));
    EXPECT_TRUE(std::regex_match(Log::GetTimestamp(),
                                 std::regex(R"(\d{4}_\d{2}_\d{2}_\d{2}_\d{2}_\d{2})")));
}

TEST_F(LogTest, EntryIsTimestampSeparatorMessageNewline) {
    Log::getInstance()->writeLog(7, "\nTalvoroSDK:hid open:");
    const std::string text = logText();
    // The library's messages start with a newline: the timestamp stands on a line of its own.
    EXPECT_TRUE(
        std::regex_match(text, std::regex(R"(\d{4}(_\d{2}){5}  : \nTalvoroSDK:hid open:\n)")))
        << text;
}

// TALVORO_DATA_DIR moves the file out of the working directory; empty, it counts as unset.
TEST_F(LogTest, DataDirectoryHoldsTheFileWhenSet) {
    TempDir data;
    ASSERT_EQ(setenv("TALVORO_DATA_DIR", data.path().c_str(), 1), 0);
    Log::getInstance()->writeLog(7, "moved");
    ASSERT_EQ(setenv("TALVORO_DATA_DIR", "", 1), 0);
    Log::getInstance()->writeLog(7, "here");
    unsetenv("TALVORO_DATA_DIR");
    EXPECT_NE(readFile(data.file(Log::getInstance()->fileName())).find(" : moved\n"),
              std::string::npos);
    EXPECT_EQ(logText().find("moved"), std::string::npos);
    EXPECT_NE(logText().find(" : here\n"), std::string::npos);
}

// Threshold -1..8 against the library's levels 1, 3, 7 and negative levels.
TEST_F(LogTest, LevelFilterIsABitShiftOfTheLevel) {
    struct Row {
        int threshold;
        bool l1, l3, l7;
    };
    const Row table[] = {{-1, false, false, false}, {0, true, true, true},
                         {1, false, true, true},    {2, false, false, true},
                         {3, false, false, false},  {4, false, false, false},
                         {5, false, false, false},  {6, false, false, false},
                         {7, false, false, false},  {8, false, false, false}};
    for (const Row& row : table) {
        ASSERT_EQ(Talvoro::SetLogLevel(row.threshold), Talvoro::Ok);
        const std::string tag = "t" + std::to_string(row.threshold) + "-";
        for (int level : {1, 3, 7, -1, -7, -65536}) {
            Log::getInstance()->writeLog(level, tag + "L" + std::to_string(level));
        }
        const std::string text = logText();
        auto written = [&](int level) {
            return text.find(" : " + tag + "L" + std::to_string(level) + "\n") != std::string::npos;
        };
        EXPECT_EQ(written(1), row.l1) << "threshold " << row.threshold;
        EXPECT_EQ(written(3), row.l3) << "threshold " << row.threshold;
        EXPECT_EQ(written(7), row.l7) << "threshold " << row.threshold;
        for (int negative : {-1, -7, -65536})
            EXPECT_TRUE(written(negative)) << "threshold " << row.threshold;
    }
}

TEST_F(LogTest, OutOfRangeSettingsAreRefusedAndKeepTheOldValue) {
    ASSERT_EQ(Talvoro::SetLogLevel(0), Talvoro::Ok);
    EXPECT_EQ(Talvoro::SetLogLevel(9), Talvoro::OperationFailed);
    EXPECT_EQ(Talvoro::SetLogLevel(-2), Talvoro::OperationFailed);
    EXPECT_EQ(Log::getInstance()->level(), 0);
    EXPECT_EQ(Talvoro::SetLogLevel(8), Talvoro::Ok);
    EXPECT_EQ(Talvoro::SetLogLevel(-1), Talvoro::Ok);

    ASSERT_EQ(Talvoro::SetLogging(3), Talvoro::Ok);
    EXPECT_EQ(Talvoro::SetLogging(5), Talvoro::OperationFailed);
    EXPECT_EQ(Log::getInstance()->mode(), 3u);
    EXPECT_EQ(Talvoro::SetLogging(4), Talvoro::Ok);
    EXPECT_EQ(Talvoro::SetLogging(0), Talvoro::Ok);
}

TEST_F(LogTest, DefaultsWriteFailuresToTheFileOnly) {
    testing::internal::CaptureStdout();
    Log::getInstance()->writeLog(7, "failure");
    Log::getInstance()->writeLog(3, "progress");
    Log::getInstance()->writeLog(1, "detail");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    const std::string text = logText();
    EXPECT_NE(text.find("  : failure\n"), std::string::npos);
    EXPECT_EQ(text.find("progress"), std::string::npos);
    EXPECT_EQ(text.find("detail"), std::string::npos);
}

TEST_F(LogTest, ConsoleModeStillCreatesAnEmptyFile) {
    ASSERT_EQ(Talvoro::SetLogging(1), Talvoro::Ok);
    EXPECT_FALSE(logExists());
    testing::internal::CaptureStdout();
    Log::getInstance()->writeLog(7, "to the console");
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(\d{4}(_\d{2}){5}  : to the console\n)")))
        << out;
    EXPECT_TRUE(logExists());
    EXPECT_EQ(logText(), "");
}

TEST_F(LogTest, BothModeWritesBothAndSilentModesWriteNothing) {
    ASSERT_EQ(Talvoro::SetLogging(3), Talvoro::Ok);
    testing::internal::CaptureStdout();
    Log::getInstance()->writeLog(7, "twice");
    EXPECT_NE(testing::internal::GetCapturedStdout().find("  : twice\n"), std::string::npos);
    EXPECT_NE(logText().find("  : twice\n"), std::string::npos);

    for (unsigned mode : {0u, 4u}) {
        ASSERT_EQ(Talvoro::SetLogging(mode), Talvoro::Ok);
        testing::internal::CaptureStdout();
        Log::getInstance()->writeLog(7, "silent" + std::to_string(mode));
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        EXPECT_EQ(logText().find("silent"), std::string::npos);
    }
}

TEST_F(LogTest, PrintLogKeepsTheLow16BitsOfTheLevel) {
    ASSERT_EQ(Talvoro::PrintLog(0x10007, "high bits dropped"), Talvoro::Ok);
    // 0x10003 becomes 3, below the default threshold; -1 becomes 65535, which passes.
    Talvoro::PrintLog(0x10003, "becomes three");
    Talvoro::PrintLog(-1, "becomes 65535");
    Talvoro::PrintLog(0x10000, "becomes zero");
    ASSERT_EQ(Talvoro::SetLogLevel(-1), Talvoro::Ok);
    Talvoro::PrintLog(-1, "not negative any more");
    const std::string text = logText();
    EXPECT_NE(text.find("high bits dropped"), std::string::npos);
    EXPECT_EQ(text.find("becomes three"), std::string::npos);
    EXPECT_NE(text.find("becomes 65535"), std::string::npos);
    EXPECT_EQ(text.find("becomes zero"), std::string::npos);
    EXPECT_EQ(text.find("not negative any more"), std::string::npos);
}

TEST_F(LogTest, EntriesFromManyThreadsNeverInterleave) {
    constexpr int kThreads = 8, kEntries = 200;
    const std::string padding(300, 'x');
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &padding] {
            for (int i = 0; i < kEntries; ++i)
                Log::getInstance()->writeLog(
                    7, std::to_string(t) + ":" + std::to_string(i) + ":" + padding);
        });
    }
    for (auto& t : threads)
        t.join();

    std::istringstream in(logText());
    std::string line;
    std::set<std::string> seen;
    const std::regex body(R"((\d+):(\d+):(x+))");
    while (std::getline(in, line)) {
        std::smatch m, b;
        ASSERT_TRUE(std::regex_match(line, m, kEntry)) << line;
        const std::string message = m[1];
        ASSERT_TRUE(std::regex_match(message, b, body)) << line;
        EXPECT_EQ(b[3].length(), padding.size());
        EXPECT_TRUE(seen.insert(message).second) << "duplicate " << message;
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(kThreads * kEntries));
}

TEST_F(LogTest, ProcessesSharingTheFileAppend) {
    Log::getInstance()->writeLog(7, "parent before");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        Log::getInstance()->writeLog(7, "child");
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    Log::getInstance()->writeLog(7, "parent after");
    const std::string text = logText();
    const auto before = text.find("parent before"), inChild = text.find("child"),
               after = text.find("parent after");
    ASSERT_NE(before, std::string::npos);
    ASSERT_NE(inChild, std::string::npos);
    ASSERT_NE(after, std::string::npos);
    EXPECT_LT(before, inChild);
    EXPECT_LT(inChild, after);
}

TEST_F(LogTest, UnwritableDirectoryOnlyLosesTheFile) {
    ASSERT_EQ(Talvoro::SetLogging(3), Talvoro::Ok);
    ASSERT_EQ(chmod(dir_.path().c_str(), 0500), 0);
    testing::internal::CaptureStdout();
    Log::getInstance()->writeLog(7, "still on the console");
    EXPECT_NE(testing::internal::GetCapturedStdout().find("still on the console"),
              std::string::npos);
    chmod(dir_.path().c_str(), 0700);
    // root ignores directory permissions; only check the file when they applied.
    if (geteuid() != 0) {
        EXPECT_FALSE(logExists());
    }
}

}  // namespace
