#include "VideoNode.h"

#include <linux/version.h>
#include <linux/videodev2.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "Camera.h"
#include "VideoControls.h"

namespace vcam {

namespace {

void copyString(__u8* dst, std::size_t size, const std::string& src) {
    std::memset(dst, 0, size);
    std::memcpy(dst, src.data(), std::min(size - 1, src.size()));
}

}  // namespace

VideoNode::VideoNode(std::string devPath, Kind kind, std::shared_ptr<Camera> camera)
    : Node(std::move(devPath)), kind_(kind), camera_(std::move(camera)) {}

int VideoNode::socketType() const {
    return SOCK_STREAM;
}

std::shared_ptr<OpenFile> VideoNode::makeOpenFile(int clientFd, int peerFd, int flags) {
    return std::make_shared<VideoOpenFile>(std::static_pointer_cast<VideoNode>(shared_from_this()),
                                           clientFd, peerFd, flags);
}

void VideoNode::fillCapability(v4l2_capability* cap) const {
    std::memset(cap, 0, sizeof *cap);
    cap->version = KERNEL_VERSION(6, 1, 0);
    const __u32 common = V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT;
    switch (kind_) {
        case Kind::Capture:
        case Kind::Metadata:
            copyString(cap->driver, sizeof cap->driver, "uvcvideo");
            copyString(cap->card, sizeof cap->card, camera_->spec().product);
            copyString(cap->bus_info, sizeof cap->bus_info, camera_->busInfo());
            // The metadata node tells itself apart by META_CAPTURE in device_caps, and the
            // camera reports no video capture on it at all.
            if (kind_ == Kind::Capture) {
                cap->device_caps = V4L2_CAP_VIDEO_CAPTURE | common;
                cap->capabilities =
                    V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_META_CAPTURE | common | V4L2_CAP_DEVICE_CAPS;
            } else {
                cap->device_caps = V4L2_CAP_META_CAPTURE | common;
                cap->capabilities = V4L2_CAP_META_CAPTURE | common | V4L2_CAP_DEVICE_CAPS;
            }
            break;
        case Kind::Platform:
            copyString(cap->driver, sizeof cap->driver, "platform-cam");
            copyString(cap->card, sizeof cap->card, "Platform Camera");
            copyString(cap->bus_info, sizeof cap->bus_info, "platform:talvoro-platform-cam");
            cap->device_caps = V4L2_CAP_VIDEO_CAPTURE | common;
            cap->capabilities = cap->device_caps | V4L2_CAP_DEVICE_CAPS;
            break;
        case Kind::OtherUsb:
            copyString(cap->driver, sizeof cap->driver, "uvcvideo");
            copyString(cap->card, sizeof cap->card, "USB Webcam");
            copyString(cap->bus_info, sizeof cap->bus_info, "usb-0000:00:14.0-20");
            cap->device_caps = V4L2_CAP_VIDEO_CAPTURE | common;
            cap->capabilities = cap->device_caps | V4L2_CAP_DEVICE_CAPS;
            break;
    }
}

VideoOpenFile::VideoOpenFile(std::shared_ptr<VideoNode> node, int clientFd, int peerFd, int flags)
    : OpenFile(std::move(node), clientFd, peerFd, flags) {}

VideoNode& VideoOpenFile::video() const {
    return static_cast<VideoNode&>(*node());
}

int VideoOpenFile::ioctl(unsigned long request, void* arg) {
    if (video().kind() == VideoNode::Kind::Capture) {
        bool handled = false;
        const int r = videoControlIoctl(*video().camera(), request, arg, &handled);
        if (handled) return r;
    }
    switch (request) {
        case VIDIOC_QUERYCAP:
            video().fillCapability(static_cast<v4l2_capability*>(arg));
            return 0;
        default:
            return -ENOTTY;
    }
}

}  // namespace vcam
