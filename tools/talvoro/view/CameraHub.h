// The cameras the viewer shows: those named on the command line, or else every camera that is
// ever connected while it runs. It polls the camera list about once a second and tells each
// camera's worker whether its camera is there; a camera that goes away stays, disconnected.
#ifndef TALVORO_TOOL_VIEW_CAMERA_HUB_H
#define TALVORO_TOOL_VIEW_CAMERA_HUB_H

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CameraWorker.h"

namespace talvoro_tool {

class LiveBoard;
class Session;

class CameraHub : public CameraOpener {
  public:
    // Empty `serials`: every camera. The first look at the camera list happens here.
    CameraHub(Session* session, LiveBoard* board, std::vector<std::string> serials);
    ~CameraHub() override;  // stops the workers
    CameraHub(const CameraHub&) = delete;
    CameraHub& operator=(const CameraHub&) = delete;

    // Null for a camera the viewer does not show. Workers live as long as the hub.
    CameraWorker* find(const std::string& serial) const;
    std::vector<std::string> serials() const;

    int open(const Talvoro::DeviceInfo& info, Talvoro::DeviceHandle* handle) override;

  private:
    void poll();
    void run();

    Session* session_;
    LiveBoard* board_;
    const bool everyCamera_;
    std::mutex sessionMutex_;  // the session is used by the poll and by the workers' opens
    mutable std::mutex mutex_;
    std::condition_variable stopCond_;
    bool stop_ = false;
    std::vector<std::unique_ptr<CameraWorker>> workers_;
    std::thread thread_;
};

}  // namespace talvoro_tool

#endif
