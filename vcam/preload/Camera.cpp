#include "Camera.h"

#include "HidNode.h"
#include "VideoNode.h"

namespace vcam {

Camera::Camera(const CameraSpec& spec) : spec_(spec) {}

std::string Camera::busInfo() const {
    // "1-2" is port 2 of bus 1 on the xHCI controller the testbed builds.
    const auto dash = spec_.usbPort.find('-');
    return "usb-0000:00:14.0-" +
           (dash == std::string::npos ? spec_.usbPort : spec_.usbPort.substr(dash + 1));
}

}  // namespace vcam
