#include "VideoNode.h"

#include <fcntl.h>
#include <linux/version.h>
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "Camera.h"
#include "Formats.h"
#include "Libc.h"
#include "Stream.h"
#include "VideoControls.h"

namespace vcam {

namespace {

constexpr uint32_t kMetadataBufferSize = 10240;  // uvcvideo's UVC_METADATA_BUF_SIZE

// Set while this thread's last ioctl on a camera node was refused by the eintr fault, so that
// its retry goes through. Trivially initialised: no TLS constructor.
thread_local bool t_interrupted = false;

void copyString(__u8* dst, std::size_t size, const std::string& src) {
    std::memset(dst, 0, size);
    std::memcpy(dst, src.data(), std::min(size - 1, src.size()));
}

template <typename T>
void clear(T* record) {
    std::memset(record, 0, sizeof *record);
}

void describeFormat(v4l2_fmtdesc* d, uint32_t type, uint32_t fourcc, const char* description) {
    const uint32_t index = d->index;
    clear(d);
    d->index = index;
    d->type = type;
    copyString(d->description, sizeof d->description, description);
    d->pixelformat = fourcc;
}

int enumFrameSizes(v4l2_frmsizeenum* e) {
    const formats::Format* f = formats::find(e->pixel_format);
    if (!f || e->index >= static_cast<uint32_t>(f->sizeCount)) return -EINVAL;
    const uint32_t index = e->index, fourcc = e->pixel_format;
    clear(e);
    e->index = index;
    e->pixel_format = fourcc;
    e->type = V4L2_FRMSIZE_TYPE_DISCRETE;
    e->discrete.width = f->sizes[index].width;
    e->discrete.height = f->sizes[index].height;
    return 0;
}

int enumFrameIntervals(v4l2_frmivalenum* e, double fps) {
    const formats::Format* f = formats::find(e->pixel_format);
    if (!f || e->index != 0) return -EINVAL;
    bool known = false;
    for (int i = 0; i < f->sizeCount; ++i)
        known |= f->sizes[i].width == e->width && f->sizes[i].height == e->height;
    if (!known) return -EINVAL;
    const uint32_t fourcc = e->pixel_format, w = e->width, h = e->height;
    clear(e);
    e->pixel_format = fourcc;
    e->width = w;
    e->height = h;
    e->type = V4L2_FRMIVAL_TYPE_DISCRETE;
    e->discrete = formats::interval(fps);
    return 0;
}

// The camera runs at its one frame rate; S_PARM answers with it, as a fixed-rate driver does.
int streamParameters(v4l2_streamparm* p, double fps) {
    if (p->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return -EINVAL;
    clear(&p->parm);
    p->parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
    p->parm.capture.timeperframe = formats::interval(fps);
    return 0;
}

int enumInput(v4l2_input* in) {
    if (in->index != 0) return -EINVAL;
    clear(in);
    copyString(in->name, sizeof in->name, "Camera 1");
    in->type = V4L2_INPUT_TYPE_CAMERA;
    return 0;
}

}  // namespace

VideoNode::VideoNode(std::string devPath, Kind kind, std::shared_ptr<Camera> camera)
    : Node(std::move(devPath)), kind_(kind), camera_(std::move(camera)) {
    if (kind_ == Kind::Capture && camera_) stream_ = std::make_unique<Stream>(*camera_);
}

VideoNode::~VideoNode() = default;

int VideoNode::socketType() const {
    return SOCK_STREAM;
}

std::shared_ptr<OpenFile> VideoNode::makeOpenFile(int clientFd, int peerFd, int flags) {
    // A real camera keeps its format while plugged; another process may have changed it.
    if (stream_) {
        try {
            stream_->reloadFormat();
        } catch (...) {
            // Keep the format this process knows.
        }
    }
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
    : OpenFile(std::move(node), clientFd, peerFd, flags) {
    if (video().stream()) client_.reset(libc::fcntl(clientFd, F_DUPFD_CLOEXEC, 0));
}

VideoOpenFile::~VideoOpenFile() {
    if (Stream* s = video().stream()) s->release(this);
}

VideoNode& VideoOpenFile::video() const {
    return static_cast<VideoNode&>(*node());
}

Stream* VideoOpenFile::cameraStream() const {
    const auto& camera = video().camera();
    return camera && camera->capture ? camera->capture->stream() : nullptr;
}

void VideoOpenFile::setReadable(bool readable) {
    char byte = 1;
    if (readable)
        libc::write(peerFd(), &byte, 1);
    else if (client_.valid())
        recv(client_.get(), &byte, 1, MSG_DONTWAIT);
}

bool VideoOpenFile::nonBlocking() const {
    const int flags = client_.valid() ? libc::fcntl(client_.get(), F_GETFL, 0) : openFlags();
    return flags >= 0 && (flags & O_NONBLOCK);
}

ssize_t VideoOpenFile::read(int, void*, std::size_t) {
    errno = EINVAL;
    return -1;
}

ssize_t VideoOpenFile::write(int, const void*, std::size_t) {
    errno = EINVAL;
    return -1;
}

void* VideoOpenFile::mmap(void* addr, std::size_t length, int prot, int flags, off_t offset,
                          int* err) {
    Stream* s = video().stream();
    if (!s || s->unplugged()) {
        *err = ENODEV;
        return MAP_FAILED;
    }
    return s->map(addr, length, prot, flags, offset, err);
}

// Nothing may escape into the application, which called a C function.
int VideoOpenFile::ioctl(unsigned long request, void* arg) {
    try {
        return dispatch(request, arg);
    } catch (...) {
        return -ENOMEM;
    }
}

int VideoOpenFile::dispatch(unsigned long request, void* arg) {
    const VideoNode::Kind kind = video().kind();
    if (kind == VideoNode::Kind::Platform || kind == VideoNode::Kind::OtherUsb) {
        if (request != VIDIOC_QUERYCAP) return -ENOTTY;
        video().fillCapability(static_cast<v4l2_capability*>(arg));
        return 0;
    }
    // A camera's node: gone once unplugged, and subject to the eintr fault.
    Stream* stream = cameraStream();
    if (stream && stream->unplugged()) return -ENODEV;
    if (stream && stream->faultActive("eintr")) {
        t_interrupted = !t_interrupted;
        if (t_interrupted) return -EINTR;
    }
    if (kind == VideoNode::Kind::Metadata) return metadataIoctl(request, arg);
    bool handled = false;
    const int r = videoControlIoctl(*video().camera(), request, arg, &handled);
    if (handled) return r;
    return captureIoctl(request, arg);
}

int VideoOpenFile::captureIoctl(unsigned long request, void* arg) {
    Stream& s = *video().stream();
    const double fps = video().camera()->spec().fps;
    switch (request) {
        case VIDIOC_QUERYCAP:
            video().fillCapability(static_cast<v4l2_capability*>(arg));
            return 0;
        case VIDIOC_ENUM_FMT: {
            auto* d = static_cast<v4l2_fmtdesc*>(arg);
            if (d->type != V4L2_BUF_TYPE_VIDEO_CAPTURE || d->index >= uint32_t(formats::count()))
                return -EINVAL;
            const formats::Format& f = formats::at(static_cast<int>(d->index));
            describeFormat(d, V4L2_BUF_TYPE_VIDEO_CAPTURE, f.fourcc, f.description);
            return 0;
        }
        case VIDIOC_G_FMT:
        case VIDIOC_S_FMT:
        case VIDIOC_TRY_FMT: {
            auto* f = static_cast<v4l2_format*>(arg);
            if (f->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return -EINVAL;
            if (request == VIDIOC_S_FMT) return s.setFormat(&f->fmt.pix);
            f->fmt.pix = request == VIDIOC_G_FMT ? s.format() : formats::negotiate(f->fmt.pix);
            return 0;
        }
        case VIDIOC_ENUM_FRAMESIZES:
            return enumFrameSizes(static_cast<v4l2_frmsizeenum*>(arg));
        case VIDIOC_ENUM_FRAMEINTERVALS:
            return enumFrameIntervals(static_cast<v4l2_frmivalenum*>(arg), fps);
        case VIDIOC_G_PARM:
        case VIDIOC_S_PARM:
            return streamParameters(static_cast<v4l2_streamparm*>(arg), fps);
        case VIDIOC_ENUMINPUT:
            return enumInput(static_cast<v4l2_input*>(arg));
        case VIDIOC_G_INPUT:
            *static_cast<int*>(arg) = 0;
            return 0;
        case VIDIOC_S_INPUT:
            return *static_cast<int*>(arg) == 0 ? 0 : -EINVAL;
        case VIDIOC_REQBUFS:
            return s.requestBuffers(this, static_cast<v4l2_requestbuffers*>(arg));
        case VIDIOC_QUERYBUF:
            return s.queryBuffer(static_cast<v4l2_buffer*>(arg));
        case VIDIOC_QBUF:
            return s.queueBuffer(this, static_cast<v4l2_buffer*>(arg));
        case VIDIOC_DQBUF:
            return s.dequeueBuffer(this, static_cast<v4l2_buffer*>(arg), nonBlocking());
        case VIDIOC_STREAMON:
            return s.streamOn(this, *static_cast<uint32_t*>(arg));
        case VIDIOC_STREAMOFF:
            return s.streamOff(this, *static_cast<uint32_t*>(arg));
        default:
            return -ENOTTY;
    }
}

int VideoOpenFile::metadataIoctl(unsigned long request, void* arg) {
    switch (request) {
        case VIDIOC_QUERYCAP:
            video().fillCapability(static_cast<v4l2_capability*>(arg));
            return 0;
        case VIDIOC_ENUM_FMT: {
            auto* d = static_cast<v4l2_fmtdesc*>(arg);
            if (d->type != V4L2_BUF_TYPE_META_CAPTURE || d->index != 0) return -EINVAL;
            describeFormat(d, V4L2_BUF_TYPE_META_CAPTURE, V4L2_META_FMT_UVC,
                           "UVC Payload Header Metadata");
            return 0;
        }
        case VIDIOC_G_FMT:
        case VIDIOC_S_FMT:
        case VIDIOC_TRY_FMT: {
            auto* f = static_cast<v4l2_format*>(arg);
            if (f->type != V4L2_BUF_TYPE_META_CAPTURE) return -EINVAL;
            clear(&f->fmt.meta);
            f->fmt.meta.dataformat = V4L2_META_FMT_UVC;
            f->fmt.meta.buffersize = kMetadataBufferSize;
            return 0;
        }
        default:
            return -ENOTTY;
    }
}

}  // namespace vcam
