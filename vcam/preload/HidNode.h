// A hidraw node of a camera: the command interface or the IMU interface.
#ifndef TALVORO_VCAM_HID_NODE_H
#define TALVORO_VCAM_HID_NODE_H

#include <memory>

#include "Node.h"

namespace vcam {

class Camera;

class HidNode : public Node {
  public:
    enum class Kind { Command, Imu };

    // Report descriptor sizes: the library recognises the command interface by its 29 bytes.
    static constexpr int kCommandDescriptorSize = 29;
    static constexpr int kImuDescriptorSize = 34;

    HidNode(std::string devPath, Kind kind, std::shared_ptr<Camera> camera);

    Kind kind() const { return kind_; }
    const std::shared_ptr<Camera>& camera() const { return camera_; }

  protected:
    int socketType() const override;
    std::shared_ptr<OpenFile> makeOpenFile(int clientFd, int peerFd, int flags) override;

  private:
    Kind kind_;
    std::shared_ptr<Camera> camera_;
};

class HidOpenFile : public OpenFile {
  public:
    HidOpenFile(std::shared_ptr<HidNode> node, int clientFd, int peerFd, int flags);

    int ioctl(unsigned long request, void* arg) override;

  private:
    HidNode& hid() const;
};

}  // namespace vcam

#endif
