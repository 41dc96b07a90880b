#include "StandardControls.h"

#include <linux/videodev2.h>

#include <cerrno>
#include <iterator>

#include "Firmware.h"

namespace vcam {

namespace {

const char* const kPowerLineMenu[] = {"Disabled", "50 Hz", "60 Hz"};
// Shutter priority is not offered, as with most UVC cameras.
const char* const kExposureMenu[] = {"Auto Mode", "Manual Mode", nullptr, "Aperture Priority Mode"};

// Sorted by ID, which NEXT_CTRL enumeration relies on. Each class's control comes first, as
// uvcvideo lists it: no value, neither readable nor writable.
const ControlInfo kControls[] = {
    {V4L2_CID_USER_CLASS, "User Controls", nullptr, V4L2_CTRL_TYPE_CTRL_CLASS, 0, 0, 0, 0, nullptr},
    {V4L2_CID_BRIGHTNESS, "Brightness", "ctrl.brightness", V4L2_CTRL_TYPE_INTEGER, -64, 64, 1, 0,
     nullptr},
    {V4L2_CID_CONTRAST, "Contrast", "ctrl.contrast", V4L2_CTRL_TYPE_INTEGER, 0, 100, 1, 50,
     nullptr},
    {V4L2_CID_SATURATION, "Saturation", "ctrl.saturation", V4L2_CTRL_TYPE_INTEGER, 0, 128, 1, 64,
     nullptr},
    {V4L2_CID_AUTO_WHITE_BALANCE, "White Balance, Automatic", "ctrl.white_balance_automatic",
     V4L2_CTRL_TYPE_BOOLEAN, 0, 1, 1, 1, nullptr},
    {V4L2_CID_GAMMA, "Gamma", "ctrl.gamma", V4L2_CTRL_TYPE_INTEGER, 72, 500, 1, 100, nullptr},
    {V4L2_CID_GAIN, "Gain", "ctrl.gain", V4L2_CTRL_TYPE_INTEGER, 0, 100, 1, 0, nullptr},
    {V4L2_CID_POWER_LINE_FREQUENCY, "Power Line Frequency", "ctrl.power_line_frequency",
     V4L2_CTRL_TYPE_MENU, 0, 2, 1, 1, kPowerLineMenu},
    {V4L2_CID_WHITE_BALANCE_TEMPERATURE, "White Balance Temperature",
     "ctrl.white_balance_temperature", V4L2_CTRL_TYPE_INTEGER, 2800, 6500, 10, 4600, nullptr},
    {V4L2_CID_SHARPNESS, "Sharpness", "ctrl.sharpness", V4L2_CTRL_TYPE_INTEGER, 0, 7, 1, 3,
     nullptr},
    {V4L2_CID_CAMERA_CLASS, "Camera Controls", nullptr, V4L2_CTRL_TYPE_CTRL_CLASS, 0, 0, 0, 0,
     nullptr},
    {V4L2_CID_EXPOSURE_AUTO, "Auto Exposure", "ctrl.auto_exposure", V4L2_CTRL_TYPE_MENU, 0, 3, 1, 3,
     kExposureMenu},
    {V4L2_CID_EXPOSURE_ABSOLUTE, "Exposure Time, Absolute", "ctrl.exposure_time_absolute",
     V4L2_CTRL_TYPE_INTEGER, 3, 2047, 1, 250, nullptr},
};

}  // namespace

StandardControls::StandardControls(Firmware& firmware) : firmware_(firmware) {}

void StandardControls::addDefaults(Settings& s) {
    for (const auto& c : kControls)
        if (c.key) s[c.key] = c.defaultValue;
}

const ControlInfo* StandardControls::find(uint32_t id) {
    for (const auto& c : kControls)
        if (c.id == id) return &c;
    return nullptr;
}

const ControlInfo* StandardControls::next(uint32_t id) {
    for (const auto& c : kControls)
        if (c.id > id) return &c;
    return nullptr;
}

int32_t StandardControls::value(const ControlInfo& control) {
    if (!control.key) return 0;
    return static_cast<int32_t>(firmware_.store().snapshot().at(control.key));
}

uint32_t StandardControls::flags(const ControlInfo& control) {
    if (control.type == V4L2_CTRL_TYPE_CTRL_CLASS)
        return V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY;
    if (control.id == V4L2_CID_WHITE_BALANCE_TEMPERATURE)
        return value(*find(V4L2_CID_AUTO_WHITE_BALANCE)) ? V4L2_CTRL_FLAG_INACTIVE : 0;
    if (control.id == V4L2_CID_EXPOSURE_ABSOLUTE)
        return value(*find(V4L2_CID_EXPOSURE_AUTO)) != V4L2_EXPOSURE_MANUAL
                   ? V4L2_CTRL_FLAG_INACTIVE
                   : 0;
    return 0;
}

int StandardControls::check(const ControlInfo& control, int32_t* value) {
    if (control.type == V4L2_CTRL_TYPE_CTRL_CLASS) return -EACCES;
    // Values outside the range are refused rather than clamped, so a client sees the refusal.
    if (*value < control.minimum || *value > control.maximum) return -ERANGE;
    if (control.type == V4L2_CTRL_TYPE_MENU) {
        const auto items = static_cast<int32_t>(control.maximum + 1);
        if (*value >= items || !control.menu[*value]) return -EINVAL;
        return 0;
    }
    const int32_t offset = *value - control.minimum;
    *value = control.minimum + (offset + control.step / 2) / control.step * control.step;
    if (*value > control.maximum) *value -= control.step;
    return 0;
}

void StandardControls::set(const ControlInfo& control, int32_t value) {
    firmware_.store().update([&](Settings& s) { s[control.key] = value; });
}

}  // namespace vcam
