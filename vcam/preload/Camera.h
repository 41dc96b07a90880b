// One virtual camera: its scenario entry and its four nodes.
#ifndef TALVORO_VCAM_CAMERA_H
#define TALVORO_VCAM_CAMERA_H

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Priorities.h"
#include "Scenario.h"
#include "SharedLocks.h"

namespace vcam {

class VideoNode;
class HidNode;
class Firmware;
class Node;

// What the control side (extension-unit and HID firmware) sets and the stream follows.
struct CameraState {
    // Extension-unit frame mode (command 0x1A): first 0 = depth, IR and colour multiplexed,
    // 1 = ToF only, 2 = colour only; second selects the ToF content when first is 1
    // (0 depth and IR, 2 depth, 3 IR). A camera starts multiplexed.
    std::atomic<uint16_t> frameModeFirst{0};
    std::atomic<uint8_t> frameModeSecond{0};
    // 0 near range (millimetres), 1 far range (depth in 2 mm units).
    std::atomic<uint16_t> depthRange{0};
    // Set once the camera is unplugged: every node refuses from then on.
    std::atomic<bool> unplugged{false};
};

class Camera {
  public:
    explicit Camera(const CameraSpec& spec);

    const CameraSpec& spec() const { return spec_; }
    CameraState state;
    // What every process of the run shares about the camera's nodes, and the file-handle
    // priorities of its two video nodes.
    SharedLocks locks;
    Priorities priorities{locks};

    // Faults from the scenario and injected at run time; the stream and the firmware look
    // them up where they apply.
    void addFault(const FaultSpec& fault);
    void clearFault(const std::string& name);
    bool findFault(const std::string& name, FaultSpec* fault = nullptr) const;
    // Every fault called `name`, in the order they were added.
    std::vector<FaultSpec> findFaults(const std::string& name) const;
    // uvcvideo's bus_info for the camera's USB port, e.g. "usb-0000:00:14.0-2".
    std::string busInfo() const;

    // The camera is unplugged (see unplugCamera in Hotplug.h): its descriptors fail from now on
    // and whoever waits on one wakes. Idempotent.
    void disconnect();
    // The capture, metadata, HID command and HID IMU nodes.
    std::array<Node*, 4> nodes() const;

    std::shared_ptr<VideoNode> capture;
    std::shared_ptr<VideoNode> metadata;
    std::shared_ptr<HidNode> hidCommand;
    std::shared_ptr<HidNode> hidImu;
    // The control firmware (extension unit, standard controls, HID, IMU).
    std::shared_ptr<Firmware> firmware;

  private:
    CameraSpec spec_;
    std::atomic<bool> disconnected_{false};
    mutable std::mutex faultMutex_;
    std::vector<FaultSpec> faults_;
};

}  // namespace vcam

#endif
