// A V4L2 video node: a camera's capture or metadata node, or another driver's capture node.
#ifndef TALVORO_VCAM_VIDEO_NODE_H
#define TALVORO_VCAM_VIDEO_NODE_H

#include <memory>

#include "Node.h"
#include "OwnedFd.h"

struct v4l2_capability;

namespace vcam {

class Camera;
class Stream;

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
    const std::shared_ptr<Camera>& camera() const { return camera_; }
    // The camera's capture queue (capture nodes only, else null).
    Stream* stream() const { return stream_.get(); }

    // VIDIOC_QUERYCAP's answer for this node.
    void fillCapability(v4l2_capability* cap) const;

  protected:
    int socketType() const override;
    std::shared_ptr<OpenFile> makeOpenFile(int clientFd, int peerFd, int flags) override;

  private:
    Kind kind_;
    std::shared_ptr<Camera> camera_;
    std::unique_ptr<Stream> stream_;
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

  private:
    VideoNode& video() const;
    // The camera's capture queue, reached from either of its nodes.
    Stream* cameraStream() const;
    int dispatch(unsigned long request, void* arg);
    int captureIoctl(unsigned long request, void* arg);
    int metadataIoctl(unsigned long request, void* arg);

    // The application's end of the socket pair, duplicated: the readiness byte is taken back
    // through it, whatever descriptors the application keeps.
    OwnedFd client_;
};

}  // namespace vcam

#endif
