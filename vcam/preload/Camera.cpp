#include "Camera.h"

#include <algorithm>

#include "CalibrationSource.h"
#include "Firmware.h"
#include "HidNode.h"
#include "Stream.h"
#include "VideoNode.h"

namespace vcam {

Camera::Camera(const CameraSpec& spec)
    : locks(testbedStatePath(spec.stateName(), "locks")), spec_(spec) {
    for (const auto& text : spec_.faults) {
        FaultSpec fault;
        std::string error;
        if (parseFault(text, &fault, &error)) faults_.push_back(fault);
    }
    firmware = std::make_shared<Firmware>(*this);
    // A replaying camera serves the calibration that came with its recording.
    if (!spec_.replay.empty()) firmware->setCalibrationSource(recordingCalibration(spec_.replay));
}

void Camera::addFault(const FaultSpec& fault) {
    std::lock_guard<std::mutex> lock(faultMutex_);
    faults_.push_back(fault);
}

void Camera::clearFault(const std::string& name) {
    std::lock_guard<std::mutex> lock(faultMutex_);
    faults_.erase(std::remove_if(faults_.begin(), faults_.end(),
                                 [&](const FaultSpec& f) { return f.name == name; }),
                  faults_.end());
}

bool Camera::findFault(const std::string& name, FaultSpec* fault) const {
    std::lock_guard<std::mutex> lock(faultMutex_);
    for (const auto& f : faults_) {
        if (f.name != name) continue;
        if (fault) *fault = f;
        return true;
    }
    return false;
}

std::vector<FaultSpec> Camera::findFaults(const std::string& name) const {
    std::lock_guard<std::mutex> lock(faultMutex_);
    std::vector<FaultSpec> found;
    for (const auto& f : faults_)
        if (f.name == name) found.push_back(f);
    return found;
}

std::string Camera::busInfo() const {
    // "1-2" is port 2 of bus 1 on the xHCI controller the testbed builds.
    const auto dash = spec_.usbPort.find('-');
    return "usb-0000:00:14.0-" +
           (dash == std::string::npos ? spec_.usbPort : spec_.usbPort.substr(dash + 1));
}

}  // namespace vcam

namespace vcam {

void Camera::disconnect() {
    state.unplugged = true;
    if (disconnected_.exchange(true)) return;
    if (capture && capture->stream()) capture->stream()->wakeUnplugged();
    for (const auto& hid : {hidCommand, hidImu})
        if (hid) hid->disconnect();
}

std::array<Node*, 4> Camera::nodes() const {
    return {capture.get(), metadata.get(), hidCommand.get(), hidImu.get()};
}

}  // namespace vcam
