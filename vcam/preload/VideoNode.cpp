#include "VideoNode.h"

#include <fcntl.h>
#include <linux/version.h>
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <cxxabi.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Camera.h"
#include "Firmware.h"
#include "Formats.h"
#include "Libc.h"
#include "StandardControls.h"
#include "Stream.h"
#include "VideoControls.h"
#include "VideoIoctl.h"

namespace vcam {

namespace {

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
    auto file = std::make_shared<VideoOpenFile>(
        std::static_pointer_cast<VideoNode>(shared_from_this()), clientFd, peerFd, flags);
    if (kind_ == Kind::Capture) {
        std::lock_guard<std::mutex> lock(filesMutex_);
        files_.erase(
            std::remove_if(files_.begin(), files_.end(), [](const auto& f) { return f.expired(); }),
            files_.end());
        files_.push_back(file);
    }
    return file;
}

void VideoNode::publish(const std::vector<v4l2_event>& events, const VideoOpenFile* origin) {
    if (events.empty()) return;
    std::vector<std::shared_ptr<VideoOpenFile>> open;
    {
        std::lock_guard<std::mutex> lock(filesMutex_);
        for (const auto& weak : files_)
            if (auto f = weak.lock()) open.push_back(std::move(f));
    }
    for (const auto& f : open)
        for (const v4l2_event& e : events)
            f->postEvent(e, f.get() == origin);
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
    if (video().ofCamera()) {
        client_.reset(libc::fcntl(clientFd, F_DUPFD_CLOEXEC, 0));
        priority_ = video().camera()->priorities.open();
    }
}

VideoOpenFile::~VideoOpenFile() {
    if (!video().ofCamera()) return;
    if (Stream* s = cameraStream()) s->release(this);
    video().camera()->priorities.close(priority_);
    if (subscribed_) video().subscribersChanged(-1);
}

VideoNode& VideoOpenFile::video() const {
    return static_cast<VideoNode&>(*node());
}

Stream* VideoOpenFile::cameraStream() const {
    const auto& camera = video().camera();
    return camera && camera->capture ? camera->capture->stream() : nullptr;
}

// A pending event shows as out-of-band data (POLLPRI, select's exceptional condition), a
// finished buffer as one byte of data. An AF_UNIX socket keeps such bytes in ways that differ
// between kernel versions, so the signals are taken back completely and sent anew.
void VideoOpenFile::applyReadiness() {
    if (!client_.valid()) return;
    const bool event = events_.pending();
    char byte[16];
    recv(client_.get(), byte, 1, MSG_OOB | MSG_DONTWAIT);
    while (recv(client_.get(), byte, sizeof byte, MSG_DONTWAIT) > 0) {
    }
    byte[0] = 1;
    if (readable_) ::send(peerFd(), byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (event) ::send(peerFd(), byte, 1, MSG_OOB | MSG_DONTWAIT | MSG_NOSIGNAL);
    eventSignalled_ = event;
}

void VideoOpenFile::setReadable(bool readable) {
    std::lock_guard<std::mutex> lock(readinessMutex_);
    if (readable == readable_) return;
    readable_ = readable;
    applyReadiness();
}

void VideoOpenFile::postEvent(const v4l2_event& event, bool own) {
    events_.post(event, own);
    std::lock_guard<std::mutex> lock(readinessMutex_);
    if (events_.pending() != eventSignalled_) applyReadiness();
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
    Stream* s = video().ofCamera() ? cameraStream() : nullptr;
    if (!s || s->unplugged()) {
        *err = ENODEV;
        return MAP_FAILED;
    }
    const auto which = video().kind() == VideoNode::Kind::Capture ? Stream::Queue::Capture
                                                                  : Stream::Queue::Metadata;
    return s->map(which, addr, length, prot, flags, offset, err);
}

// The handlers work on the kernel's copy of the argument, so a bad pointer gives EFAULT.
// Nothing may escape into the application, which called a C function.
int VideoOpenFile::ioctl(unsigned long request, void* arg) {
    try {
        VideoIoctlArgument kernelArg;
        if (const int r = kernelArg.copyIn(request, arg)) return r;
        return kernelArg.copyOut(dispatch(request, kernelArg.get()));
    } catch (abi::__forced_unwind&) {
        throw;  // the thread is cancelled in a blocking wait: let it unwind
    } catch (...) {
        return -ENOMEM;
    }
}

int VideoOpenFile::dispatch(unsigned long request, void* arg) {
    if (!video().ofCamera()) {
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
    // The V4L2 core's priority check, before the driver sees the request.
    Priorities& priorities = video().camera()->priorities;
    if (request == VIDIOC_G_PRIORITY) {
        *static_cast<uint32_t*>(arg) = priorities.highest();
        return 0;
    }
    if (priorityGuarded(request)) {
        if (const int r = priorities.check(priority_)) return r;
    }
    if (request == VIDIOC_S_PRIORITY)
        return priorities.change(&priority_, *static_cast<uint32_t*>(arg));

    bool handled = false;
    const int r = commonIoctl(request, arg, &handled);
    if (handled) return r;
    if (video().kind() == VideoNode::Kind::Metadata) return metadataIoctl(request, arg);
    return captureIoctl(request, arg);
}

int VideoOpenFile::commonIoctl(unsigned long request, void* arg, bool* handled) {
    *handled = true;
    switch (request) {
        case VIDIOC_QUERYCAP:
            video().fillCapability(static_cast<v4l2_capability*>(arg));
            return 0;
        // Both nodes have the camera's one input; uvcvideo's metadata node has no input
        // ioctls at all (see docs/vcam.md).
        case VIDIOC_ENUMINPUT:
            return enumInput(static_cast<v4l2_input*>(arg));
        case VIDIOC_G_INPUT:
            *static_cast<int*>(arg) = 0;
            return 0;
        case VIDIOC_S_INPUT:
            return *static_cast<int*>(arg) == 0 ? 0 : -EINVAL;
        case VIDIOC_REQBUFS:
        case VIDIOC_CREATE_BUFS:
        case VIDIOC_QUERYBUF:
        case VIDIOC_QBUF:
        case VIDIOC_DQBUF:
        case VIDIOC_STREAMON:
        case VIDIOC_STREAMOFF:
            return bufferIoctl(request, arg);
        default:
            *handled = false;
            return 0;
    }
}

int VideoOpenFile::bufferIoctl(unsigned long request, void* arg) {
    Stream& s = *cameraStream();
    const auto which = video().kind() == VideoNode::Kind::Capture ? Stream::Queue::Capture
                                                                  : Stream::Queue::Metadata;
    switch (request) {
        case VIDIOC_REQBUFS:
            return s.requestBuffers(which, this, static_cast<v4l2_requestbuffers*>(arg));
        case VIDIOC_CREATE_BUFS:
            return s.createBuffers(which, this, static_cast<v4l2_create_buffers*>(arg));
        case VIDIOC_QUERYBUF:
            return s.queryBuffer(which, static_cast<v4l2_buffer*>(arg));
        case VIDIOC_QBUF:
            return s.queueBuffer(which, this, static_cast<v4l2_buffer*>(arg));
        case VIDIOC_DQBUF:
            return s.dequeueBuffer(which, this, static_cast<v4l2_buffer*>(arg), nonBlocking());
        case VIDIOC_STREAMON:
            return s.streamOn(which, this, *static_cast<uint32_t*>(arg));
        default:
            return s.streamOff(which, this, *static_cast<uint32_t*>(arg));
    }
}

int VideoOpenFile::eventIoctl(unsigned long request, void* arg) {
    StandardControls& controls = video().camera()->firmware->controls();
    if (request == VIDIOC_DQEVENT) {
        const int r = events_.dequeue(static_cast<v4l2_event*>(arg), nonBlocking());
        std::lock_guard<std::mutex> lock(readinessMutex_);
        if (events_.pending() != eventSignalled_) applyReadiness();
        return r;
    }
    const auto& sub = *static_cast<v4l2_event_subscription*>(arg);
    int r;
    if (request == VIDIOC_SUBSCRIBE_EVENT) {
        if (sub.type == V4L2_EVENT_CTRL && !StandardControls::find(sub.id)) return -EINVAL;
        // The initial event tells the current value and flags; a class control has neither.
        v4l2_event initial;
        const bool hasInitial = currentControlEvent(
            controls, sub.id, V4L2_EVENT_CTRL_CH_VALUE | V4L2_EVENT_CTRL_CH_FLAGS, &initial);
        r = events_.subscribe(sub, hasInitial ? &initial : nullptr);
        if (r == 0 && !subscribed_) {
            subscribed_ = true;
            video().subscribersChanged(1);
        }
    } else {
        r = events_.unsubscribe(sub);
    }
    std::lock_guard<std::mutex> lock(readinessMutex_);
    if (events_.pending() != eventSignalled_) applyReadiness();
    return r;
}

int VideoOpenFile::controlIoctl(unsigned long request, void* arg, bool* handled) {
    Camera& camera = *video().camera();
    const bool changes = request == VIDIOC_S_CTRL || request == VIDIOC_S_EXT_CTRLS;
    if (!changes || !video().hasSubscribers())
        return videoControlIoctl(camera, request, arg, handled);
    StandardControls& controls = camera.firmware->controls();
    const ControlSnapshot before = snapshotControls(controls);
    const int r = videoControlIoctl(camera, request, arg, handled);
    if (r == 0) video().publish(controlEvents(before, snapshotControls(controls)), this);
    return r;
}

int VideoOpenFile::captureIoctl(unsigned long request, void* arg) {
    bool handled = false;
    const int r = controlIoctl(request, arg, &handled);
    if (handled) return r;
    Stream& s = *video().stream();
    const double fps = video().camera()->spec().fps;
    switch (request) {
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
            f->fmt.pix = request == VIDIOC_G_FMT ? s.format() : s.tryFormat(f->fmt.pix);
            return 0;
        }
        case VIDIOC_ENUM_FRAMESIZES:
            return enumFrameSizes(static_cast<v4l2_frmsizeenum*>(arg));
        case VIDIOC_ENUM_FRAMEINTERVALS:
            return enumFrameIntervals(static_cast<v4l2_frmivalenum*>(arg), fps);
        case VIDIOC_G_PARM:
        case VIDIOC_S_PARM:
            return streamParameters(static_cast<v4l2_streamparm*>(arg), fps);
        case VIDIOC_SUBSCRIBE_EVENT:
        case VIDIOC_UNSUBSCRIBE_EVENT:
        case VIDIOC_DQEVENT:
            return eventIoctl(request, arg);
        default:
            return -ENOTTY;
    }
}

int VideoOpenFile::metadataIoctl(unsigned long request, void* arg) {
    switch (request) {
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
            if (request == VIDIOC_S_FMT) {
                if (const int r = cameraStream()->checkMetadataFormatChange()) return r;
            }
            clear(&f->fmt.meta);
            f->fmt.meta.dataformat = V4L2_META_FMT_UVC;
            f->fmt.meta.buffersize = formats::kMetadataBufferSize;
            return 0;
        }
        default:
            return -ENOTTY;
    }
}

}  // namespace vcam
