// Exported extension: the published frame's time and its point cloud.
#include "wrapper/TalvoroWrapper.h"

namespace Talvoro {

using namespace wrapper;

extern "C" {

TALVORO_API Result GetFrameInfo(DeviceHandle handle, FrameInfo* info) {
    return callCamera("GetFrameInfo", handle, ModeRule::Any, [&](const Camera& c) {
        return info ? c.cam->getFrameInfo(info) : InvalidValue;
    });
}

TALVORO_API Result GetPointCloud(DeviceHandle handle, uint32_t flags, float* xyz, uint8_t* rgb,
                                 uint32_t capacity, PointCloudInfo* info) {
    return callCamera("GetPointCloud", handle, ModeRule::Depth, [&](const Camera& c) {
        const bool colored = flags & PointCloud_Colored;
        if (!info || (flags & ~uint32_t(PointCloud_Organized | PointCloud_Colored)) ||
            (capacity > 0 && (!xyz || (colored && !rgb))))
            return InvalidValue;
        if (colored && !permits(ModeRule::Mapped, c.dataMode)) return NotSupportedInDataMode;
        return c.cam->getPointCloud(flags, xyz, rgb, capacity, info);
    });
}

}  // extern "C"

}  // namespace Talvoro
