// A hidraw node of a camera: the command interface or the IMU interface.
//
// A report written to the command node is answered by the firmware, which sends the answer
// report to the open file's socket, where the application's select and read find it. The IMU
// node sends value reports to every open file while capture runs.
#ifndef TALVORO_VCAM_HID_NODE_H
#define TALVORO_VCAM_HID_NODE_H

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "HidFirmware.h"
#include "Node.h"

namespace vcam {

class Camera;
class HidOpenFile;

class HidNode : public Node {
  public:
    enum class Kind { Command, Imu };

    // Report descriptor sizes: the library recognises the command interface by its 29 bytes.
    static constexpr int kCommandDescriptorSize = 29;
    static constexpr int kImuDescriptorSize = 34;

    HidNode(std::string devPath, Kind kind, std::shared_ptr<Camera> camera);

    Kind kind() const { return kind_; }
    const std::shared_ptr<Camera>& camera() const { return camera_; }

    // Sends a report from the device to every open file (and to the trace).
    void send(const HidReport& report);
    // The camera is gone: every open file turns readable, and its reads fail.
    void disconnect();

  protected:
    int socketType() const override;
    std::shared_ptr<OpenFile> makeOpenFile(int clientFd, int peerFd, int flags) override;
    int checkOpen() const override;

  private:
    Kind kind_;
    std::shared_ptr<Camera> camera_;
    std::mutex filesMutex_;
    std::vector<std::weak_ptr<HidOpenFile>> files_;

    std::vector<std::shared_ptr<HidOpenFile>> openFiles();
};

class HidOpenFile : public OpenFile {
  public:
    HidOpenFile(std::shared_ptr<HidNode> node, int clientFd, int peerFd, int flags);

    int ioctl(unsigned long request, void* arg) override;
    ssize_t read(int fd, void* buf, std::size_t count) override;
    ssize_t write(int fd, const void* buf, std::size_t count) override;

    // Queues a report for the application; a full queue drops it, as hidraw's does.
    bool deliver(const HidReport& report);

  private:
    HidNode& hid() const;
    // 0, or the errno every call fails with: ENODEV once unplugged, EINTR once per call
    // under the eintr fault.
    int failure();

    std::atomic<bool> interrupted_{false};
};

}  // namespace vcam

#endif
