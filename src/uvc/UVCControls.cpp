// The colour sensor's standard V4L2 controls, named by a small index.
#include <linux/videodev2.h>

#include <iterator>

#include "common/SysCall.h"
#include "log/Log.h"
#include "log/TALVOROError.h"
#include "uvc/UVC.h"

namespace Talvoro {

namespace {

struct StandardControl {
    uint32_t id;
    bool currentOnly;  // the automatic-mode switches report their current value only
};

const StandardControl kControls[] = {
    {V4L2_CID_BRIGHTNESS, false},
    {V4L2_CID_CONTRAST, false},
    {V4L2_CID_SATURATION, false},
    {V4L2_CID_AUTO_WHITE_BALANCE, true},
    {V4L2_CID_GAMMA, false},
    {V4L2_CID_GAIN, false},
    {V4L2_CID_POWER_LINE_FREQUENCY, false},
    {V4L2_CID_WHITE_BALANCE_TEMPERATURE, false},
    {V4L2_CID_SHARPNESS, false},
    {V4L2_CID_EXPOSURE_AUTO, true},
    {V4L2_CID_EXPOSURE_ABSOLUTE, false},
};

// The texts end in "errno=" with nothing after it.
const char* const kGetFailed =
    "\nTalvoroSDK:VIDEOIO(Device):Could not obtain specifics of capture window "
    "(VIDIOC_G_CTRL): errno=";
const char* const kSetFailed =
    "\nTalvoroSDK:VIDEOIO(Device):Could not set specifics of capture window "
    "(VIDIOC_S_CTRL): errno=";

const StandardControl* control(unsigned int index) {
    return index < std::size(kControls) ? &kControls[index] : nullptr;
}

Result getFailed() {
    writeLog(7, kGetFailed);
    return setError(GetValueFailed);
}

}  // namespace

Result UVC::getUVCControl(unsigned int index, UVCProp* prop) {
    if (!prop) return getFailed();
    prop->control_id = static_cast<int32_t>(index);
    const StandardControl* c = control(index);
    if (!c) return getFailed();

    v4l2_control current{};
    current.id = c->id;
    if (XIOCTL(node_, VIDIOC_G_CTRL, &current) == -1) return getFailed();
    if (c->currentOnly) {
        prop->cur_value = current.value;
        return setError(Ok);
    }
    v4l2_queryctrl query{};
    query.id = c->id;
    // The query has no failure text of its own: it reports the G_CTRL one.
    if (XIOCTL(node_, VIDIOC_QUERYCTRL, &query) == -1) return getFailed();
    prop->min_value = query.minimum;
    prop->max_value = query.maximum;
    prop->cur_value = current.value;
    prop->step = query.step;
    prop->default_value = query.default_value;
    return setError(Ok);
}

Result UVC::setUVCControl(unsigned int index, int value) {
    const StandardControl* c = control(index);
    v4l2_control ctrl{};
    if (c) {
        ctrl.id = c->id;
        ctrl.value = value;
    }
    if (!c || XIOCTL(node_, VIDIOC_S_CTRL, &ctrl) == -1) {
        writeLog(7, kSetFailed);
        return setError(SetValueFailed);
    }
    return setError(Ok);
}

}  // namespace Talvoro
