// Finding the cameras: the enumerator's interface.
//
// Why an interface: the registry finds cameras through it, so it depends on neither udev nor
// the node naming, and a scan can be replaced as a whole.
#ifndef TALVORO_ENUMERATOR_TALVORO_ENUMERATOR_H
#define TALVORO_ENUMERATOR_TALVORO_ENUMERATOR_H

#include <string>

#include "TalvoroSDK.h"

namespace Talvoro {

class TALVOROEnumerator {
  public:
    virtual ~TALVOROEnumerator() = default;

    // 1 when index <= count of connected cameras (an index equal to the count passes), -8 when
    // greater, -9 when no camera is connected.
    virtual Result isValidIndex(unsigned int index) = 0;
    // -1 when not initialised, -2 (NotDeInitialized) when initialised.
    virtual Result isInitialized() = 0;
    virtual Result deInitialize() = 0;
    // Scans udev and rebuilds the node mask.
    virtual Result initialize() = 0;
    // Re-scans, then counts the cameras (-9 when none).
    virtual Result getDeviceCount(unsigned int* count) = 0;
    virtual Result getDeviceListInfo(unsigned int count, DeviceInfo* list) = 0;
    virtual Result getDeviceInfo(unsigned int index, DeviceInfo* info) = 0;
    // Maps a device index (in *inOut) to its /dev/video node number (written back).
    virtual unsigned int getDevNodeNumber(unsigned int* inOut) = 0;
    // 1 for a capture node, -6 for a metadata node, -7 / -12 when it cannot be opened / queried.
    virtual Result isValidNode(std::string devicePath) = 0;
    virtual Result getSDKVersion(unsigned char* major, unsigned char* minor,
                                 unsigned short* patch) = 0;
};

}  // namespace Talvoro

#endif
