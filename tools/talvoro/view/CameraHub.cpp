#include "CameraHub.h"

#include "../Cli.h"
#include "../Session.h"

namespace talvoro_tool {

using namespace Talvoro;

namespace {

constexpr auto kPollInterval = std::chrono::seconds(1);

}  // namespace

CameraHub::CameraHub(Session* session, LiveBoard* board, std::vector<std::string> serials)
    : session_(session), board_(board), everyCamera_(serials.empty()) {
    for (const std::string& serial : serials)
        workers_.push_back(std::make_unique<CameraWorker>(serial, board_, this));
    poll();
    thread_ = std::thread([this] { run(); });
}

CameraHub::~CameraHub() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    stopCond_.notify_all();
    thread_.join();
    workers_.clear();
}

CameraWorker* CameraHub::find(const std::string& serial) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& w : workers_)
        if (w->serial() == serial) return w.get();
    return nullptr;
}

std::vector<std::string> CameraHub::serials() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> list;
    for (const auto& w : workers_)
        list.push_back(w->serial());
    return list;
}

int CameraHub::open(const DeviceInfo& info, DeviceHandle* handle) {
    std::lock_guard<std::mutex> lock(sessionMutex_);
    return session_->tryOpen(info, handle);
}

void CameraHub::poll() {
    std::vector<DeviceInfo> list;
    try {
        std::lock_guard<std::mutex> lock(sessionMutex_);
        list = session_->cameras();
    } catch (const ToolError&) {
        // The list changed while it was read (a camera came or went): the next poll reads it.
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (everyCamera_) {
        for (const DeviceInfo& info : list) {
            bool known = false;
            for (const auto& w : workers_)
                known = known || w->serial() == info.serialNo;
            if (!known)
                workers_.push_back(std::make_unique<CameraWorker>(info.serialNo, board_, this));
        }
    }
    for (const auto& w : workers_) {
        std::optional<DeviceInfo> present;
        for (const DeviceInfo& info : list)
            if (w->serial() == info.serialNo) present = info;
        w->connected(present);
    }
}

void CameraHub::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopCond_.wait_for(lock, kPollInterval, [this] { return stop_; })) {
        lock.unlock();
        poll();
        lock.lock();
    }
}

}  // namespace talvoro_tool
