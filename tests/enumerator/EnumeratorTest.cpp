// Camera enumeration against the sysfs trees the ctest entries build (see CMakeLists.txt).
#include <libudev.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "enumerator/Enumerator.h"
#include "log/TALVOROError.h"
#include "talvoro_vcam.h"

using namespace Talvoro;

namespace {

DeviceInfo info(Enumerator& e, unsigned index, Result* result) {
    DeviceInfo d;
    std::memset(&d, 0x5A, sizeof d);
    *result = e.getDeviceInfo(index, &d);
    return d;
}

// The video nodes in the order udev lists them, to show what the enumerator must undo.
std::vector<std::string> udevOrder() {
    std::vector<std::string> nodes;
    udev* u = udev_new();
    udev_enumerate* en = udev_enumerate_new(u);
    udev_enumerate_add_match_subsystem(en, "video4linux");
    udev_enumerate_scan_devices(en);
    udev_list_entry* entry;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(en)) {
        std::string path = udev_list_entry_get_name(entry);
        nodes.push_back(path.substr(path.rfind('/') + 1));
    }
    udev_enumerate_unref(en);
    udev_unref(u);
    return nodes;
}

class VirtualCamera : public ::testing::Test {
  protected:
    void SetUp() override {
        // These suites only run under the launcher (see CMakeLists.txt); never pass silently.
        ASSERT_TRUE(talvoro_vcam::present()) << "run under talvoro-vcam";
    }
    Enumerator e;
};

using NoCamera = VirtualCamera;
using OneCamera = VirtualCamera;
using TwoCameras = VirtualCamera;
using Video17 = VirtualCamera;
using Video31 = VirtualCamera;
using NonUsbNode = VirtualCamera;
using OtherVendor = VirtualCamera;
using MissingAttributes = VirtualCamera;

TEST_F(NoCamera, InitialisesWithAnEmptyMask) {
    EXPECT_EQ(e.isInitialized(), NotInitialized);
    EXPECT_EQ(e.initialize(), Ok);
    EXPECT_EQ(e.nodeMask(), 0u);
    EXPECT_EQ(e.isInitialized(), NotDeInitialized);

    unsigned count = 99;
    EXPECT_EQ(e.getDeviceCount(&count), NoDeviceConnected);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(TALVOROError::cErrorNo.load(), NoDeviceConnected);
    EXPECT_EQ(e.isValidIndex(0), NoDeviceConnected);
    Result r;
    info(e, 0, &r);
    EXPECT_EQ(r, InvalidDeviceIndex);
}

TEST_F(OneCamera, CountsTheCaptureNodeOnceAndDescribesIt) {
    ASSERT_EQ(e.initialize(), Ok);
    EXPECT_EQ(e.nodeMask(), 1u << 2);  // the metadata node video3 is not counted
    unsigned count = 0;
    ASSERT_EQ(e.getDeviceCount(&count), Ok);
    EXPECT_EQ(count, 1u);

    unsigned node = 0;
    EXPECT_EQ(e.getDevNodeNumber(&node), 2u);
    EXPECT_EQ(node, 2u);

    Result r;
    const DeviceInfo d = info(e, 0, &r);
    ASSERT_EQ(r, Ok);
    EXPECT_STREQ(d.devicePath, "/dev/video2");
    EXPECT_STREQ(d.serialNo, "CAM-ONE");
    EXPECT_STREQ(d.deviceName, "Talvoro Depth Camera");
    EXPECT_STREQ(d.vid, "7e91");
    EXPECT_STREQ(d.pid, "a05c");
    EXPECT_EQ(TALVOROError::cErrorNo.load(), Ok);
}

TEST_F(OneCamera, ValidatesNodesByTheMetadataBit) {
    EXPECT_EQ(e.isValidNode("/dev/video2"), Ok);
    EXPECT_EQ(e.isValidNode("/dev/video3"), InvalidNode);
    EXPECT_EQ(TALVOROError::cErrorNo.load(), InvalidNode);
    EXPECT_EQ(e.isValidNode("/dev/video9"), CameraNotOpened);
}

TEST_F(OneCamera, AnIndexEqualToTheCountPassesTheCheck) {
    EXPECT_EQ(e.isValidIndex(0), Ok);
    EXPECT_EQ(e.isValidIndex(1), Ok);  // count itself: accepted on purpose
    EXPECT_EQ(e.isValidIndex(2), InvalidDeviceIndex);
    // ...and then reaches udev as node "video1", which is not there.
    Result r;
    const DeviceInfo untouched = info(e, 1, &r);
    EXPECT_EQ(r, OperationFailed);
    EXPECT_EQ(static_cast<unsigned char>(untouched.serialNo[0]), 0x5A);
    info(e, 2, &r);
    EXPECT_EQ(r, InvalidDeviceIndex);
}

TEST_F(OneCamera, ListInfoStopsAtTheFirstFailure) {
    DeviceInfo list[2];
    EXPECT_EQ(e.getDeviceListInfo(1, list), Ok);
    EXPECT_STREQ(list[0].serialNo, "CAM-ONE");
    TALVOROError::cErrorNo = 12345;
    EXPECT_EQ(e.getDeviceListInfo(2, list), OperationFailed);
    EXPECT_EQ(TALVOROError::cErrorNo.load(), OperationFailed);  // from the failing getDeviceInfo
}

TEST_F(OneCamera, DeinitialiseAndVersion) {
    ASSERT_EQ(e.initialize(), Ok);
    EXPECT_EQ(e.isInitialized(), NotDeInitialized);
    EXPECT_EQ(e.deInitialize(), Ok);
    EXPECT_EQ(e.isInitialized(), NotInitialized);
    EXPECT_EQ(e.nodeMask(), Enumerator::kNotInitialized);

    unsigned char major = 0, minor = 9;
    unsigned short patch = 0;
    TALVOROError::cErrorNo = -9;
    EXPECT_EQ(e.getSDKVersion(&major, &minor, &patch), Ok);
    EXPECT_EQ(major, 1);
    EXPECT_EQ(minor, 0);
    EXPECT_EQ(patch, 10);
    EXPECT_EQ(TALVOROError::cErrorNo.load(), -9);  // the version query leaves it alone
}

TEST_F(TwoCameras, IndicesFollowNodeNumbersNotUdevOrder) {
    const auto order = udevOrder();
    ASSERT_GE(order.size(), 2u);
    ASSERT_EQ(order.front(), "video4") << "precondition: udev lists video4 first";

    unsigned count = 0;
    ASSERT_EQ(e.getDeviceCount(&count), Ok);
    EXPECT_EQ(count, 2u);
    for (unsigned index : {0u, 1u}) {
        unsigned node = index;
        e.getDevNodeNumber(&node);
        EXPECT_EQ(node, index == 0 ? 0u : 4u);
    }
    Result r;
    EXPECT_STREQ(info(e, 0, &r).serialNo, "ON-ZERO");
    EXPECT_EQ(r, Ok);
    EXPECT_STREQ(info(e, 1, &r).serialNo, "ON-FOUR");
    EXPECT_STREQ(info(e, 1, &r).devicePath, "/dev/video4");
}

TEST_F(Video17, CountedButNotFoundByNodeNumber) {
    ASSERT_EQ(e.initialize(), Ok);
    EXPECT_EQ(e.nodeMask(), 1u << 17);
    unsigned count = 0;
    EXPECT_EQ(e.getDeviceCount(&count), Ok);
    EXPECT_EQ(count, 1u);
    unsigned node = 0;
    EXPECT_EQ(e.getDevNodeNumber(&node), 0u);  // no bit among 0..15: the index stays
    EXPECT_EQ(node, 0u);
    Result r;
    info(e, 0, &r);
    EXPECT_EQ(r, OperationFailed);  // "video0" does not exist
}

TEST_F(Video31, ACameraOnNode31ReadsAsNotInitialised) {
    EXPECT_EQ(e.initialize(), Ok);
    EXPECT_EQ(e.nodeMask(), 1u << 31);
    EXPECT_EQ(e.isInitialized(), NotInitialized);
}

TEST_F(NonUsbNode, FailsTheWholeEnumeration) {
    EXPECT_EQ(e.initialize(), NotInitialized);
    EXPECT_EQ(TALVOROError::cErrorNo.load(), NotInitialized);
    EXPECT_EQ(e.isInitialized(), NotInitialized);
    EXPECT_EQ(e.nodeMask(), Enumerator::kNotInitialized);
}

TEST_F(OtherVendor, IgnoresOtherUsbCameras) {
    ASSERT_EQ(e.initialize(), Ok);
    EXPECT_EQ(e.nodeMask(), 1u << 2);
}

TEST_F(MissingAttributes, GiveOperationFailedNotACrash) {
    unsigned count = 0;
    ASSERT_EQ(e.getDeviceCount(&count), Ok);
    EXPECT_EQ(count, 2u);
    Result r;
    info(e, 0, &r);  // no serial
    EXPECT_EQ(r, OperationFailed);
    info(e, 1, &r);  // no product
    EXPECT_EQ(r, OperationFailed);
    EXPECT_EQ(TALVOROError::cErrorNo.load(), OperationFailed);
}

// Without the launcher: no udev tree of ours, and nodes that are not video devices.
TEST(NoVirtualCamera, NodeValidationFailures) {
    Enumerator e;
    EXPECT_EQ(e.isValidNode("/nonexistent/video0"), CameraNotOpened);
    EXPECT_EQ(e.isValidNode("/dev/null"), SysCallFail);
}

}  // namespace
