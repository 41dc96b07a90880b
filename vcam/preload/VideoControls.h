// The control side of a camera's video node: standard V4L2 controls and the UVC extension unit.
#ifndef TALVORO_VCAM_VIDEO_CONTROLS_H
#define TALVORO_VCAM_VIDEO_CONTROLS_H

namespace vcam {

class Camera;

// Handles the control ioctls (VIDIOC_QUERYCTRL, VIDIOC_QUERY_EXT_CTRL, VIDIOC_G_CTRL,
// VIDIOC_S_CTRL, VIDIOC_G/S/TRY_EXT_CTRLS, VIDIOC_QUERYMENU, UVCIOC_CTRL_QUERY) of `camera`'s
// capture node. Sets *handled and returns >= 0 or -errno when the request is one of them;
// leaves *handled false otherwise.
int videoControlIoctl(Camera& camera, unsigned long request, void* arg, bool* handled);

}  // namespace vcam

#endif
