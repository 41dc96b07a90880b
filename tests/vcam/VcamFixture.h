// The cameras of the virtual camera's own test runs (see CMakeLists.txt) and a fixture that
// puts them back the way it found them.
#ifndef TALVORO_TESTS_VCAM_FIXTURE_H
#define TALVORO_TESTS_VCAM_FIXTURE_H

#include <gtest/gtest.h>

#include "talvoro_vcam.h"

namespace vcamtest {

// --camera serial=VCAM-A,video=0 --camera serial=VCAM-SLOW,video=2,fps=2
constexpr const char* kCamera = "VCAM-A";
constexpr const char* kNode = "/dev/video0";
constexpr const char* kMetaNode = "/dev/video1";
// Two frames a second: time enough to look at the queue between two frames.
constexpr const char* kSlowCamera = "VCAM-SLOW";
constexpr const char* kSlowNode = "/dev/video2";

class VcamTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // These suites run under the launcher only; they must fail, not pass, without it.
        ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam";
    }
    void TearDown() override {
        for (const char* serial : {kCamera, kSlowCamera}) {
            for (const char* fault : {"stall", "short", "malformed", "reqbufs", "eintr", "long",
                                      "bad-index", "format-size", "zero-length"})
                talvoro_vcam::clearFault(serial, fault);
            talvoro_vcam::setFrameMode(serial, 0, 0);
            talvoro_vcam::setDepthRange(serial, 0);
        }
    }
};

}  // namespace vcamtest

#endif
