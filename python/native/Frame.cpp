// Frames: the colour image in RGB, and the point cloud of a frame.
#include <opencv2/imgproc.hpp>

#include "Native.h"

namespace talvoro_py {

using namespace Talvoro;

void ReturnToPool::operator()(uint8_t* buffer) const {
    if (std::shared_ptr<BufferPool> p = pool.lock())
        p->give(buffer, bytes);
    else
        delete[] buffer;
}

Buffer BufferPool::take(std::size_t bytes) {
    std::unique_ptr<uint8_t[]> buffer;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = free_.begin(); it != free_.end(); ++it) {
            if (it->first == bytes) {
                buffer = std::move(it->second);
                free_.erase(it);
                break;
            }
        }
    }
    if (!buffer) buffer.reset(new uint8_t[bytes]);
    return Buffer(buffer.release(), ReturnToPool{weak_from_this(), bytes});
}

void BufferPool::give(uint8_t* buffer, std::size_t bytes) {
    std::unique_ptr<uint8_t[]> owned(buffer);
    std::lock_guard<std::mutex> lock(mutex_);
    // The oldest goes when the pool is full: sizes change with the data mode.
    if (free_.size() >= kKept) free_.erase(free_.begin());
    free_.emplace_back(bytes, std::move(owned));
}

const Image& Frame::rgb() {
    std::lock_guard<std::mutex> lock(rgbMutex_);
    if (rgb_.empty() && !uyvy.empty()) {
        Image out;
        out.height = uyvy.height;
        out.width = uyvy.width;
        out.channels = 3;
        out.data = camera->buffers_->take(out.bytes());
        const cv::Mat in(uyvy.height, uyvy.width, CV_8UC2, uyvy.data.get());
        cv::Mat rgb(out.height, out.width, CV_8UC3, out.data.get());
        cv::cvtColor(in, rgb, cv::COLOR_YUV2RGB_UYVY);
        rgb_ = std::move(out);
    }
    return rgb_;
}

Points Frame::points(bool colored, bool organized) const {
    const uint32_t flags = (organized ? uint32_t(PointCloud_Organized) : 0u) |
                           (colored ? uint32_t(PointCloud_Colored) : 0u);
    CameraState& cam = *camera;
    std::lock_guard<std::mutex> fetching(cam.fetchMutex_);
    cam._usable("points");
    // The library deprojects the images it published last, which are this frame's only while
    // no later fetch replaced them.
    if (cam.fetches_ != fetch)
        throw CallError{TimeoutError,
                        "points: a later frame of " + cam.serial_ +
                            " has been fetched; points() works on the newest frame only",
                        CallError::Kind::Stale};
    Points points;
    PointCloudInfo info{};
    int result = GetPointCloud(cam.handle_, flags, nullptr, nullptr, 0, &info);
    if (result == InvalidValue) {
        points.xyz.reset(new float[std::size_t(info.count) * 3]);
        if (colored) points.rgb.reset(new uint8_t[std::size_t(info.count) * 3]);
        result = GetPointCloud(cam.handle_, flags, points.xyz.get(), points.rgb.get(), info.count,
                               &info);
    }
    if (result < 0) cam._fail(result, "points");
    points.count = info.count;
    points.width = info.width;
    points.height = info.height;
    return points;
}

}  // namespace talvoro_py
