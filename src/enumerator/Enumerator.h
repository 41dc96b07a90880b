// Camera enumeration with libudev: a mask of /dev/video node numbers of connected cameras.
#ifndef TALVORO_ENUMERATOR_ENUMERATOR_H
#define TALVORO_ENUMERATOR_ENUMERATOR_H

#include <atomic>
#include <cstdint>

#include "enumerator/TALVOROEnumerator.h"

namespace Talvoro {

// USB identity of the camera, as the kernel writes idVendor / idProduct.
inline constexpr const char* kCameraVendorId = "7e91";
inline constexpr const char* kCameraProductId = "a05c";

class Enumerator : public TALVOROEnumerator {
  public:
    static constexpr uint32_t kNotInitialized = 0xFFFFFFFFu;

    Enumerator() = default;

    Result isValidIndex(unsigned int index) override;
    Result isInitialized() override;
    Result deInitialize() override;
    Result initialize() override;
    Result getDeviceCount(unsigned int* count) override;
    Result getDeviceListInfo(unsigned int count, DeviceInfo* list) override;
    Result getDeviceInfo(unsigned int index, DeviceInfo* info) override;
    unsigned int getDevNodeNumber(unsigned int* inOut) override;
    Result isValidNode(std::string devicePath) override;
    Result getSDKVersion(unsigned char* major, unsigned char* minor,
                         unsigned short* patch) override;

    uint32_t nodeMask() const { return mask_.load(); }

  private:
    // Bit n set: /dev/video<n> is a capture node of a connected camera. All ones: not
    // initialised. Both application threads and the unplug path rescan, hence atomic.
    std::atomic<uint32_t> mask_{kNotInitialized};
};

}  // namespace Talvoro

#endif
