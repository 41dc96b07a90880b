// A V4L2 video node: a camera's capture or metadata node, or another driver's capture node.
#ifndef TALVORO_VCAM_VIDEO_NODE_H
#define TALVORO_VCAM_VIDEO_NODE_H

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "ControlEvents.h"
#include "Node.h"
#include "OwnedFd.h"

struct v4l2_capability;

namespace vcam {

class Camera;
class Stream;
class VideoOpenFile;

class VideoNode : public Node {
  public:
    enum class Kind {
        Capture,   // the camera's video capture node
        Metadata,  // the camera's metadata node
        Platform,  // a capture node that is not on USB
        OtherUsb   // another vendor's USB camera
    };

    VideoNode(std::string devPath, Kind kind, std::shared_ptr<Camera> camera);
    ~VideoNode() override;

    Kind kind() const { return kind_; }
    bool ofCamera() const { return kind_ == Kind::Capture || kind_ == Kind::Metadata; }
    const std::shared_ptr<Camera>& camera() const { return camera_; }
    // The camera's streaming side (capture nodes only, else null).
    Stream* stream() const { return stream_.get(); }

    // VIDIOC_QUERYCAP's answer for this node.
    void fillCapability(v4l2_capability* cap) const;

    // Control events: whether any open file subscribed, and delivery of a change made through
    // `origin` to every open file of the node.
    bool hasSubscribers() const { return subscribers_.load() > 0; }
    void subscribersChanged(int delta) { subscribers_ += delta; }
    void publish(const std::vector<v4l2_event>& events, const VideoOpenFile* origin);

  protected:
    int socketType() const override;
    std::shared_ptr<OpenFile> makeOpenFile(int clientFd, int peerFd, int flags) override;

  private:
    Kind kind_;
    std::shared_ptr<Camera> camera_;
    std::unique_ptr<Stream> stream_;
    std::mutex filesMutex_;
    std::vector<std::weak_ptr<VideoOpenFile>> files_;
    std::atomic<int> subscribers_{0};
};

class VideoOpenFile : public OpenFile {
  public:
    VideoOpenFile(std::shared_ptr<VideoNode> node, int clientFd, int peerFd, int flags);
    ~VideoOpenFile() override;

    int ioctl(unsigned long request, void* arg) override;
    void* mmap(void* addr, std::size_t length, int prot, int flags, off_t offset,
               int* err) override;
    // The camera offers no read()/write() I/O (no V4L2_CAP_READWRITE).
    ssize_t read(int fd, void* buf, std::size_t count) override;
    ssize_t write(int fd, const void* buf, std::size_t count) override;

    // Makes the application's descriptor readable (select, poll) or not.
    void setReadable(bool readable);
    // Whether the application's descriptor is in non-blocking mode now (fcntl may change it).
    bool nonBlocking() const;
    // Queues a control event for this open file, if it subscribed to the control.
    void postEvent(const v4l2_event& event, bool own);

  private:
    VideoNode& video() const;
    // The camera's streaming side, reached from either of its nodes.
    Stream* cameraStream() const;
    int dispatch(unsigned long request, void* arg);
    int captureIoctl(unsigned long request, void* arg);
    int metadataIoctl(unsigned long request, void* arg);
    // The ioctls both of a camera's nodes answer alike; *handled false for the others.
    int commonIoctl(unsigned long request, void* arg, bool* handled);
    int bufferIoctl(unsigned long request, void* arg);
    int eventIoctl(unsigned long request, void* arg);
    int controlIoctl(unsigned long request, void* arg, bool* handled);
    // Puts the descriptor's readiness in line with readable_ and the events waiting.
    void applyReadiness();

    // The application's end of the socket pair, duplicated: the readiness signals are taken
    // back through it, whatever descriptors the application keeps.
    OwnedFd client_;
    std::mutex readinessMutex_;
    bool readable_ = false;
    bool eventSignalled_ = false;
    uint32_t priority_ = 0;  // the file handle's priority (camera nodes)
    EventQueue events_;
    bool subscribed_ = false;  // counted in the node's subscribers
};

}  // namespace vcam

#endif
