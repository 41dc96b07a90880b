// Device: what the application learns about the frame it processed last, its time and its
// point cloud.
#include <ctime>

#include "device/Device.h"
#include "log/TALVOROError.h"

namespace Talvoro {

namespace {

uint64_t nanoseconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return uint64_t(now.tv_sec) * 1000000000u + uint64_t(now.tv_nsec);
}

}  // namespace

void Device::_publish(const FrameStamp& stamp) {
    if (!stamp.captured) return;  // the zeroed buffer of a run without a frame yet
    // The driver stamps on CLOCK_MONOTONIC; the wall clock's offset to it is the same now as
    // at capture unless someone set the clock in between.
    const uint64_t monotonic = nanoseconds(CLOCK_MONOTONIC);
    const uint64_t wall = nanoseconds(CLOCK_REALTIME);
    std::lock_guard<std::mutex> lock(publishedMutex);
    if (stamp.generation != publishedGeneration) return;
    published.sequence = stamp.sequence;
    published.time_stamp_ns = stamp.timeNs;
    published.wall_time_ns = stamp.timeNs + (wall - monotonic);
    published.data_mode = static_cast<DataMode>(publishedMode);
    publishedValid = true;
}

void Device::_unpublish(int mode) {
    std::lock_guard<std::mutex> lock(publishedMutex);
    ++publishedGeneration;
    publishedValid = false;
    if (mode >= 0) publishedMode = mode;
}

Result Device::getFrameInfo(FrameInfo* info) {
    if (!info) return setError(InvalidValue);
    std::lock_guard<std::mutex> lock(publishedMutex);
    if (!publishedValid) return setError(TimeoutError);
    *info = published;
    return setError(Ok);
}

Result Device::getPointCloud(uint32_t flags, float* xyz, uint8_t* rgb, uint32_t capacity,
                             PointCloudInfo* info) {
    // No getframe meanwhile: the cloud and the sequence number are of the same frame.
    std::lock_guard<std::mutex> processing(processMutex);
    const Result result =
        static_cast<Result>(frameProcessor->pointCloud(flags, xyz, rgb, capacity, info));
    if (!info || (result != Ok && result != InvalidValue)) return result;
    std::lock_guard<std::mutex> lock(publishedMutex);
    // The processor may have processed the zeroed buffer before the first frame.
    if (!publishedValid) return setError(TimeoutError);
    info->sequence = published.sequence;
    return result;
}

}  // namespace Talvoro
