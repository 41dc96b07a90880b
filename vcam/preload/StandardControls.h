// The colour sensor's standard UVC controls as uvcvideo presents them: eleven V4L2 controls
// with their ranges, defaults and menus, kept in the firmware store, and the controls of their
// two classes (user and camera).
#ifndef TALVORO_VCAM_STANDARD_CONTROLS_H
#define TALVORO_VCAM_STANDARD_CONTROLS_H

#include <cstdint>

#include "FirmwareStore.h"

namespace vcam {

class Firmware;

struct ControlInfo {
    uint32_t id;
    const char* name;  // V4L2's name
    const char* key;   // name in the firmware store (null for a class control)
    uint32_t type;     // V4L2_CTRL_TYPE_INTEGER, _BOOLEAN, _MENU or _CTRL_CLASS
    int32_t minimum;
    int32_t maximum;
    int32_t step;
    int32_t defaultValue;
    const char* const* menu;  // menu item names (null where an item is not supported)
};

class StandardControls {
  public:
    explicit StandardControls(Firmware& firmware);

    static void addDefaults(Settings& settings);

    // The control with V4L2 ID `id`, or null.
    static const ControlInfo* find(uint32_t id);
    // The control with the lowest ID above `id`, or null (V4L2_CTRL_FLAG_NEXT_CTRL).
    static const ControlInfo* next(uint32_t id);

    int32_t value(const ControlInfo& control);
    // V4L2_CTRL_FLAG_INACTIVE while the control's automatic mode is on.
    uint32_t flags(const ControlInfo& control);
    // Checks a value for the control and rounds it to the step: 0 or -ERANGE / -EINVAL, or
    // -EACCES for a class control.
    static int check(const ControlInfo& control, int32_t* value);
    // Stores a checked value.
    void set(const ControlInfo& control, int32_t value);

  private:
    Firmware& firmware_;
};

}  // namespace vcam

#endif
