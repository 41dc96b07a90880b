#include "LiveBoard.h"

namespace talvoro_tool {

const char* imageName(int kind) {
    static const char* const names[kImageKinds] = {"depth", "ir", "colour"};
    return kind >= 0 && kind < kImageKinds ? names[kind] : "?";
}

LiveCamera& LiveBoard::entry(const std::string& serial) {
    for (LiveCamera& c : cameras_)
        if (c.serial == serial) return c;
    cameras_.emplace_back();
    cameras_.back().serial = serial;
    return cameras_.back();
}

void LiveBoard::publishImage(const std::string& serial, int kind, LiveImage image) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        image.version = ++version_;
        entry(serial).images.at(static_cast<std::size_t>(kind)) = std::move(image);
    }
    changed_.notify_all();
}

void LiveBoard::publishStatus(const std::string& serial, std::string json) {
    auto status = std::make_shared<const std::string>(std::move(json));
    {
        std::lock_guard<std::mutex> lock(mutex_);
        LiveCamera& c = entry(serial);
        c.status = std::move(status);
        c.statusVersion = ++version_;
    }
    changed_.notify_all();
}

bool LiveBoard::wait(uint64_t* seen, std::chrono::milliseconds timeout,
                     std::vector<LiveCamera>* cameras) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, timeout, [&] { return closed_ || version_ > *seen; });
    if (closed_) return false;
    *seen = version_;
    *cameras = cameras_;
    return true;
}

std::vector<LiveCamera> LiveBoard::cameras() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return cameras_;
}

void LiveBoard::close() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
    }
    changed_.notify_all();
}

bool LiveBoard::addViewer(int limit) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_ || viewers_ >= limit) return false;
    ++viewers_;
    return true;
}

void LiveBoard::removeViewer() {
    std::lock_guard<std::mutex> lock(mutex_);
    --viewers_;
}

int LiveBoard::viewers() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return viewers_;
}

}  // namespace talvoro_tool
