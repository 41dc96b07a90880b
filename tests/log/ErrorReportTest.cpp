// The error report: the text of every code and where it goes (log, standard error, nowhere).
#include <cerrno>

#include <gtest/gtest.h>

#include "TalvoroSDK.h"
#include "common/TempDir.h"
#include "log/Log.h"
#include "log/TALVOROError.h"

using Talvoro::TALVOROError;
using talvoro_test::readFile;
using talvoro_test::TempDir;

namespace {

struct Report {
    std::string log;      // what was appended to the log file (entry bodies only)
    std::string stderr_;  // what went to standard error
};

class ErrorReportTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Talvoro::SetLogLevel(2);
        Talvoro::SetLogging(2);
    }
    void TearDown() override { TALVOROError::cErrorNo = Talvoro::Ok; }

    Report report(int32_t code, const std::string& prefix, int systemError = EIO) {
        const std::string path = dir_.file(Talvoro::Log::getInstance()->fileName());
        const std::size_t before = readFile(path).size();
        TALVOROError::cErrorNo = code;
        testing::internal::CaptureStderr();
        errno = systemError;
        EXPECT_EQ(Talvoro::pError(prefix), Talvoro::Ok);
        Report r;
        r.stderr_ = testing::internal::GetCapturedStderr();
        const std::string appended = readFile(path).substr(before);
        // Strip the "<timestamp>  : " head and the entry's closing newline.
        const auto sep = appended.find("  : ");
        if (sep != std::string::npos)
            r.log = appended.substr(sep + 4, appended.size() - sep - 5);
        else
            r.log = appended;
        EXPECT_EQ(TALVOROError::cErrorNo.load(), code) << "reporting must not change the code";
        return r;
    }

    TempDir dir_{true};
};

TEST_F(ErrorReportTest, LoggedCodesWriteTheirExactMessage) {
    const std::pair<int32_t, std::string> cases[] = {
        {1, "P: Success!.\n"},
        {0, "P: Invalid Error Code!.\n"},
        {-1, "P: Talvoro is Not Initialized!.\n"},
        {-2, "P: Talvoro is Not DeInitialized!.\n"},
        {-3, "P: Requested Invalid Frame Type!.Data Mode and FrameType Mismatch!.\n"},
        {-4, "P: The Camera is not started Streaming!.\n"},
        {-5, "P: The Camera is already Streaming!.\n"},
        {-6, "P: The device is not a video capture node!.\n"},
        {-8, "P: The input device index is invalid!.\n"},
        {-9, "P: There is no Talvoro camera connected!.\n"},
        {-10, "P The property value get is failed"},  // no newline, kept so
        {-11, "P The property value set is failed"},
        {-13, "P: The input value is invalid!.\n"},
        {-16, "P: Invalid Error Code!.\n"},  // no message of its own
        {-18, "P: Invalid Error Code!.\n"},
        {-255, "P: Unknown error!.\n"},
        {2, "P: Invalid Error Code!.\n"},
        {-25, "P: Invalid Error Code!.\n"},
        {-100, "P: Invalid Error Code!.\n"},
    };
    for (const auto& [code, text] : cases) {
        const Report r = report(code, "P");
        EXPECT_EQ(r.log, text) << "code " << code;
        EXPECT_EQ(r.stderr_, "") << "code " << code;
    }
}

TEST_F(ErrorReportTest, SystemErrorCodesGoToStandardErrorThroughPerror) {
    const std::pair<int32_t, std::string> cases[] = {
        {-7, "OpenDevice-CameraNotOpened:: Input/output error\n"},
        {-12, "OpenDevice-SysCallFail:: Input/output error\n"},
        {-14, "OpenDevice-HidWriteFail:: Input/output error\n"},
        {-15, "OpenDevice-HidReadFail:: Input/output error\n"},
        {-17, "OpenDevice-TimeoutError:: Input/output error\n"},
    };
    for (const auto& [code, text] : cases) {
        const Report r = report(code, "OpenDevice");
        EXPECT_EQ(r.stderr_, text) << "code " << code;
        EXPECT_EQ(r.log, "") << "code " << code;
    }
    // The description follows the caller's errno at the time of the report.
    EXPECT_EQ(report(-14, "X", ENODEV).stderr_, "X-HidWriteFail:: No such device\n");
}

TEST_F(ErrorReportTest, LowestCodesAreComposedButWrittenNowhere) {
    for (int32_t code : {-19, -20, -21, -22, -23, -24}) {
        const Report r = report(code, "Silent");
        EXPECT_EQ(r.log, "") << "code " << code;
        EXPECT_EQ(r.stderr_, "") << "code " << code;
    }
}

TEST_F(ErrorReportTest, ComposedTextsOfTheSilentCodes) {
    TALVOROError::Output output;
    EXPECT_EQ(TALVOROError::message(-23, &output),
              "Feature is not supported in current Data ModeOperation Failed ");
    EXPECT_EQ(output, TALVOROError::Output::None);
    EXPECT_EQ(TALVOROError::message(-19, &output), " RGB-D Calibration Data not found in Camera");
    EXPECT_EQ(TALVOROError::message(-20, &output), "Frame separation Failed");
    EXPECT_EQ(TALVOROError::message(-21, &output), "Registering frame call back Failed");
    EXPECT_EQ(TALVOROError::message(-22, &output), "Camera is already open");
    EXPECT_EQ(TALVOROError::message(-24, &output), "Operation Failed ");
}

TEST_F(ErrorReportTest, LoggedReportsFollowTheLogThreshold) {
    Talvoro::SetLogLevel(3);  // level 7 >> 3 == 0: the report is filtered like any message
    EXPECT_EQ(report(-1, "Quiet").log, "");
}

}  // namespace
