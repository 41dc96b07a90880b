// Cameras arriving and leaving as udev announces them, for the application's device-list
// callback: one monitor thread, running while a callback is registered.
#ifndef TALVORO_WRAPPER_DEVICE_LIST_EVENTS_H
#define TALVORO_WRAPPER_DEVICE_LIST_EVENTS_H

#include <functional>

#include "TalvoroSDK.h"

namespace Talvoro::wrapper {

using DeviceListCallback = std::function<void(DeviceListEvent, const char*)>;

// Registers `callback` in place of the current one (starting the monitor when none runs), or
// with an empty function unregisters it and stops the monitor. Ok, or OperationFailed when udev
// cannot be watched.
Result setDeviceListCallback(DeviceListCallback callback);

}  // namespace Talvoro::wrapper

#endif
