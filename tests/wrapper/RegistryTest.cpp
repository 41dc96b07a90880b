// The registration rule of the camera registry, on a registry of its own (no camera needed).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "wrapper/TalvoroWrapper.h"

namespace {

using namespace Talvoro;
using namespace Talvoro::wrapper;

ScannedCamera scanned(unsigned enumIndex, const char* serial) {
    ScannedCamera s{enumIndex, DeviceInfo{}};
    std::strncpy(s.info.serialNo, serial, sizeof s.info.serialNo - 1);
    return s;
}

std::vector<std::string> serials(const Registry& reg) {
    std::vector<std::string> out;
    for (const CameraRecord& c : reg.cameras)
        out.push_back(c.serial());
    return out;
}

using Strings = std::vector<std::string>;

TEST(Registration, AdmitsNewCamerasBesideOne) {
    Registry reg;
    reg.merge(1, {scanned(0, "A")});
    ASSERT_EQ(serials(reg), Strings({"A"}));
    // Not more cameras than registered: nothing is looked at.
    reg.merge(1, {scanned(0, "B")});
    EXPECT_EQ(serials(reg), Strings({"A"}));
    // One camera registered: exactly the new ones come in, with the defaults of a new camera.
    reg.merge(2, {scanned(0, "A"), scanned(1, "B")});
    ASSERT_EQ(serials(reg), Strings({"A", "B"}));
    const Camera b = reg.snapshot(1);
    EXPECT_EQ(b.openState, CameraNotOpened);
    EXPECT_EQ(b.dataMode, Depth_IR_RGB_VGA_Mode);
    EXPECT_EQ(b.depthRange, kDefaultDepthRange);
    EXPECT_FALSE(b.calibParamObtained);
    EXPECT_NE(b.cam, nullptr);
    EXPECT_NE(b.cam, reg.cameras[0].cam);
}

// Kept as it has always been: a serial is skipped only when it equals every registered one, so
// beside two registered cameras a third one brings the first two in again. Handles resolve to
// the first entry of a serial.
TEST(Registration, KnownCameraComesInAgainBesideTwo) {
    Registry reg;
    reg.merge(2, {scanned(0, "A"), scanned(1, "B")});
    reg.merge(3, {scanned(0, "A"), scanned(1, "B"), scanned(2, "C")});
    ASSERT_EQ(serials(reg), Strings({"A", "B", "A", "B", "C"}));
    DeviceHandle a{};
    std::strcpy(a.serialNo, "A");
    int index = -1;
    ASSERT_TRUE(reg.getDevIndex(a, &index));
    EXPECT_EQ(index, 0);

    reg.erase(0);
    ASSERT_TRUE(reg.getDevIndex(a, &index));
    EXPECT_EQ(index, 1);
    std::vector<std::shared_ptr<void>> released;
    reg.clear(&released);
    EXPECT_TRUE(reg.cameras.empty());
    EXPECT_EQ(released.size(), 12u);
    EXPECT_FALSE(reg.getDevIndex(a, &index));
}

}  // namespace
