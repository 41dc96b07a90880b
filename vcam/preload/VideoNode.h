// A V4L2 video node: a camera's capture or metadata node, or another driver's capture node.
#ifndef TALVORO_VCAM_VIDEO_NODE_H
#define TALVORO_VCAM_VIDEO_NODE_H

#include <memory>

#include "Node.h"

struct v4l2_capability;

namespace vcam {

class Camera;

class VideoNode : public Node {
  public:
    enum class Kind {
        Capture,   // the camera's video capture node
        Metadata,  // the camera's metadata node
        Platform,  // a capture node that is not on USB
        OtherUsb   // another vendor's USB camera
    };

    VideoNode(std::string devPath, Kind kind, std::shared_ptr<Camera> camera);

    Kind kind() const { return kind_; }
    const std::shared_ptr<Camera>& camera() const { return camera_; }

    // VIDIOC_QUERYCAP's answer for this node.
    void fillCapability(v4l2_capability* cap) const;

  protected:
    int socketType() const override;
    std::shared_ptr<OpenFile> makeOpenFile(int clientFd, int peerFd, int flags) override;

  private:
    Kind kind_;
    std::shared_ptr<Camera> camera_;
};

class VideoOpenFile : public OpenFile {
  public:
    VideoOpenFile(std::shared_ptr<VideoNode> node, int clientFd, int peerFd, int flags);

    int ioctl(unsigned long request, void* arg) override;

  private:
    VideoNode& video() const;
};

}  // namespace vcam

#endif
