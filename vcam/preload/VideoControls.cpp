#include "VideoControls.h"

#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Camera.h"
#include "ExtensionUnit.h"
#include "Firmware.h"
#include "StandardControls.h"

namespace vcam {

namespace {

constexpr uint32_t kNextFlags = V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND;

// Copies a name into a fixed-size field of `size` bytes (packed structs allow no references).
void copyName(void* dst, std::size_t size, const char* src) {
    std::memset(dst, 0, size);
    std::memcpy(dst, src, std::min(size - 1, std::strlen(src)));
}

// The control a QUERYCTRL-style request names: the next one after the ID with NEXT_CTRL, else
// that very ID (NEXT_COMPOUND alone finds nothing: the camera has no compound controls).
const ControlInfo* queried(uint32_t id) {
    if (id & V4L2_CTRL_FLAG_NEXT_CTRL) return StandardControls::next(id & ~kNextFlags);
    return StandardControls::find(id & ~kNextFlags);
}

// VIDIOC_QUERYCTRL and VIDIOC_QUERY_EXT_CTRL: their records share these fields.
template <typename Query>
int queryCtrl(StandardControls& controls, Query* q) {
    const ControlInfo* c = queried(q->id);
    if (!c) return -EINVAL;
    std::memset(q, 0, sizeof *q);
    q->id = c->id;
    q->type = c->type;
    copyName(q->name, sizeof q->name, c->name);
    q->minimum = c->minimum;
    q->maximum = c->maximum;
    q->step = static_cast<decltype(q->step)>(c->step);
    q->default_value = c->defaultValue;
    q->flags = controls.flags(*c);
    return 0;
}

int queryExtCtrl(StandardControls& controls, v4l2_query_ext_ctrl* q) {
    if (const int r = queryCtrl(controls, q)) return r;
    q->elem_size = sizeof(int32_t);
    q->elems = 1;
    return 0;
}

int queryMenu(v4l2_querymenu* m) {
    const ControlInfo* c = StandardControls::find(m->id);
    if (!c || c->type != V4L2_CTRL_TYPE_MENU) return -EINVAL;
    if (m->index > static_cast<__u32>(c->maximum) || !c->menu[m->index]) return -EINVAL;
    copyName(m->name, sizeof m->name, c->menu[m->index]);
    m->reserved = 0;
    return 0;
}

// A class control has no value: reading or writing it is refused.
const ControlInfo* accessible(uint32_t id, int* err) {
    const ControlInfo* c = StandardControls::find(id);
    *err = !c ? -EINVAL : c->type == V4L2_CTRL_TYPE_CTRL_CLASS ? -EACCES : 0;
    return *err ? nullptr : c;
}

int getCtrl(StandardControls& controls, v4l2_control* ctrl) {
    int err;
    const ControlInfo* c = accessible(ctrl->id, &err);
    if (!c) return err;
    ctrl->value = controls.value(*c);
    return 0;
}

int setCtrl(StandardControls& controls, v4l2_control* ctrl) {
    int err;
    const ControlInfo* c = accessible(ctrl->id, &err);
    if (!c) return err;
    int32_t value = ctrl->value;
    if (const int r = StandardControls::check(*c, &value)) return r;
    controls.set(*c, value);
    ctrl->value = value;
    return 0;
}

// G/S/TRY_EXT_CTRLS as the V4L2 core and uvcvideo check them: a failure found before any
// control is touched reports error_idx = count, except for TRY, which names the control.
int extCtrls(StandardControls& controls, unsigned long request, v4l2_ext_controls* ext) {
    const bool get = request == VIDIOC_G_EXT_CTRLS;
    const bool tryOnly = request == VIDIOC_TRY_EXT_CTRLS;
    const bool defaults = ext->which == V4L2_CTRL_WHICH_DEF_VAL;
    const auto refuse = [&](uint32_t index, int err) {
        ext->error_idx = tryOnly ? index : ext->count;
        return err;
    };
    if (ext->which == V4L2_CTRL_WHICH_REQUEST_VAL || (defaults && !get))
        return refuse(ext->count, -EINVAL);
    if (ext->which != V4L2_CTRL_WHICH_CUR_VAL && !defaults) {
        for (uint32_t i = 0; i < ext->count; ++i)
            if (V4L2_CTRL_ID2WHICH(ext->controls[i].id) != ext->which) return refuse(i, -EINVAL);
    }
    for (uint32_t i = 0; i < ext->count; ++i) {
        int err;
        if (!accessible(ext->controls[i].id, &err)) return refuse(i, err);
    }
    for (uint32_t i = 0; i < ext->count; ++i) {
        v4l2_ext_control& ctrl = ext->controls[i];
        const ControlInfo* c = StandardControls::find(ctrl.id);
        if (get) {
            ctrl.value = defaults ? c->defaultValue : controls.value(*c);
            continue;
        }
        int32_t value = ctrl.value;
        if (const int r = StandardControls::check(*c, &value)) return refuse(i, r);
        if (tryOnly) ctrl.value = value;
    }
    if (request == VIDIOC_S_EXT_CTRLS) {
        for (uint32_t i = 0; i < ext->count; ++i) {
            v4l2_ext_control& ctrl = ext->controls[i];
            const ControlInfo* c = StandardControls::find(ctrl.id);
            int32_t value = ctrl.value;
            StandardControls::check(*c, &value);
            controls.set(*c, value);
            ctrl.value = value;
        }
    }
    ext->error_idx = 0;
    return 0;
}

}  // namespace

int videoControlIoctl(Camera& camera, unsigned long request, void* arg, bool* handled) {
    *handled = true;
    Firmware& fw = *camera.firmware;
    StandardControls& controls = fw.controls();
    switch (request) {
        case UVCIOC_CTRL_QUERY:
            return fw.extensionUnit().query(*static_cast<uvc_xu_control_query*>(arg));
        case VIDIOC_QUERYCTRL:
        case VIDIOC_QUERY_EXT_CTRL:
        case VIDIOC_QUERYMENU:
        case VIDIOC_G_CTRL:
        case VIDIOC_S_CTRL:
        case VIDIOC_G_EXT_CTRLS:
        case VIDIOC_S_EXT_CTRLS:
        case VIDIOC_TRY_EXT_CTRLS:
            break;
        default:
            *handled = false;
            return 0;
    }
    if (fw.unplugged()) return -ENODEV;
    switch (request) {
        case VIDIOC_QUERYCTRL:
            return queryCtrl(controls, static_cast<v4l2_queryctrl*>(arg));
        case VIDIOC_QUERY_EXT_CTRL:
            return queryExtCtrl(controls, static_cast<v4l2_query_ext_ctrl*>(arg));
        case VIDIOC_QUERYMENU:
            return queryMenu(static_cast<v4l2_querymenu*>(arg));
        case VIDIOC_G_CTRL:
            return getCtrl(controls, static_cast<v4l2_control*>(arg));
        case VIDIOC_S_CTRL:
            return setCtrl(controls, static_cast<v4l2_control*>(arg));
        default:
            return extCtrls(controls, request, static_cast<v4l2_ext_controls*>(arg));
    }
}

}  // namespace vcam
