#include "VideoIoctl.h"

#include <linux/videodev2.h>

#include <cerrno>
#include <cstring>

#include "UserCopy.h"

namespace vcam {

namespace {

#define INPUT_UP_TO(type, field) (offsetof(type, field) + sizeof(type::field))

// Of these ioctls' argument only the fields up to the named one are input (the V4L2 core's
// INFO_FL_CLEAR): the handler sees the rest zeroed, whatever the caller left there.
std::size_t inputSize(unsigned long request, std::size_t size) {
    switch (request) {
        case VIDIOC_G_FMT:
            return INPUT_UP_TO(v4l2_format, type);
        case VIDIOC_QUERYBUF:
            return INPUT_UP_TO(v4l2_buffer, length);
        case VIDIOC_G_PARM:
            return INPUT_UP_TO(v4l2_streamparm, type);
        case VIDIOC_ENUMINPUT:
            return INPUT_UP_TO(v4l2_input, index);
        case VIDIOC_QUERYCTRL:
            return INPUT_UP_TO(v4l2_queryctrl, id);
        case VIDIOC_QUERY_EXT_CTRL:
            return INPUT_UP_TO(v4l2_query_ext_ctrl, id);
        case VIDIOC_QUERYMENU:
            return INPUT_UP_TO(v4l2_querymenu, index);
        case VIDIOC_ENUM_FRAMESIZES:
            return INPUT_UP_TO(v4l2_frmsizeenum, pixel_format);
        case VIDIOC_ENUM_FRAMEINTERVALS:
            return INPUT_UP_TO(v4l2_frmivalenum, height);
        case VIDIOC_G_SELECTION:
            return INPUT_UP_TO(v4l2_selection, r);
        case VIDIOC_EXPBUF:
            return INPUT_UP_TO(v4l2_exportbuffer, flags);
        default:
            return size;
    }
}

#undef INPUT_UP_TO

// The extended-control calls return error_idx even when they fail.
bool alwaysCopied(unsigned long request) {
    return request == VIDIOC_G_EXT_CTRLS || request == VIDIOC_S_EXT_CTRLS ||
           request == VIDIOC_TRY_EXT_CTRLS;
}

bool isBufferCall(unsigned long request) {
    return request == VIDIOC_QUERYBUF || request == VIDIOC_QBUF || request == VIDIOC_DQBUF ||
           request == VIDIOC_PREPARE_BUF;
}

}  // namespace

int VideoIoctlArgument::copyIn(unsigned long request, void* user) {
    request_ = request;
    user_ = user;
    size_ = _IOC_SIZE(request);
    if (size_ == 0) return 0;
    if (size_ > sizeof small_) large_.resize(size_);
    unsigned char* kernel = data();
    std::memset(kernel, 0, size_);
    if (_IOC_DIR(request) & _IOC_WRITE) {
        if (!user::copyFrom(kernel, user, inputSize(request, size_))) return -EFAULT;
    }

    std::size_t arrayBytes = 0;
    if (alwaysCopied(request)) {
        auto* ext = reinterpret_cast<v4l2_ext_controls*>(kernel);
        if (ext->count > V4L2_CID_MAX_CTRLS) return -EINVAL;
        arrayBytes = std::size_t{ext->count} * sizeof(v4l2_ext_control);
        if (arrayBytes) arrayField_ = reinterpret_cast<void**>(&ext->controls);
    } else if (isBufferCall(request)) {
        auto* buffer = reinterpret_cast<v4l2_buffer*>(kernel);
        if (V4L2_TYPE_IS_MULTIPLANAR(buffer->type)) {
            if (buffer->length > VIDEO_MAX_PLANES) return -EINVAL;
            arrayBytes = std::size_t{buffer->length} * sizeof(v4l2_plane);
            if (arrayBytes) arrayField_ = reinterpret_cast<void**>(&buffer->m.planes);
        }
    }
    if (arrayField_) {
        arrayUser_ = *arrayField_;
        array_.resize(arrayBytes);
        if (!user::copyFrom(array_.data(), arrayUser_, arrayBytes)) return -EFAULT;
        *arrayField_ = array_.data();
    }
    return 0;
}

int VideoIoctlArgument::copyOut(int rc) {
    if (rc == -ENOTTY || (rc < 0 && !alwaysCopied(request_))) return rc;
    if (arrayField_) {
        *arrayField_ = arrayUser_;
        if (!user::copyTo(arrayUser_, array_.data(), array_.size())) rc = -EFAULT;
    }
    if ((_IOC_DIR(request_) & _IOC_READ) && !user::copyTo(user_, data(), size_)) rc = -EFAULT;
    return rc;
}

bool priorityGuarded(unsigned long request) {
    switch (request) {
        case VIDIOC_S_FMT:
        case VIDIOC_REQBUFS:
        case VIDIOC_CREATE_BUFS:
        case VIDIOC_STREAMON:
        case VIDIOC_STREAMOFF:
        case VIDIOC_S_INPUT:
        case VIDIOC_S_PARM:
        case VIDIOC_S_CTRL:
        case VIDIOC_S_EXT_CTRLS:
        case VIDIOC_S_PRIORITY:
        case VIDIOC_S_SELECTION:
        case VIDIOC_S_STD:
            return true;
        default:
            return false;
    }
}

}  // namespace vcam
