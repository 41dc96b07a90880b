// The controls of the viewer's panel: every camera control of the tool's control table, and the
// frame-processing settings (filters, planarization, undistortion, mapping, colour map, IR gain),
// which the library keeps only while the camera is open. The viewer remembers the processing
// settings per camera and applies them again when the camera comes back.
#ifndef TALVORO_TOOL_VIEW_VIEW_CONTROLS_H
#define TALVORO_TOOL_VIEW_VIEW_CONTROLS_H

#include <map>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include "../Controls.h"
#include "TalvoroSDK.h"

namespace talvoro_tool {

// The processing settings in the form of the control table: each can be set; only those the
// library can read back have a getter, the others keep the value last set here.
const std::vector<Control>& processingControls();

// Processing settings of one camera, by control name; the defaults at first.
class ProcessingState {
  public:
    ProcessingState();
    const Values& operator[](const std::string& name) const { return values_.at(name); }
    void set(const std::string& name, Values values) { values_[name] = std::move(values); }
    // Sets them all on a camera just opened; a setting its data mode refuses stays for later.
    void applyTo(const Talvoro::DeviceHandle& camera) const;

  private:
    std::map<std::string, Values> values_;
};

// A request the panel cannot carry out: an HTTP status and a message for the user.
class ControlError : public std::runtime_error {
  public:
    ControlError(int status, const std::string& message)
        : std::runtime_error(message), status_(status) {}
    int status() const { return status_; }

  private:
    int status_;
};

// Every control with its fields, ranges and current value (or why it cannot be read now).
nlohmann::json describeControls(const Talvoro::DeviceHandle& camera,
                                const ProcessingState& processing);

// Sets control `name` from the request {"value": "V1,V2" or a number} or {"values": [...]}
// (numbers or value names, as `talvoro set` takes them); nothing reaches the camera unless every
// value is valid. Returns the control's description afterwards; throws ControlError.
nlohmann::json setControl(const Talvoro::DeviceHandle& camera, ProcessingState* processing,
                          const std::string& name, const nlohmann::json& request);

}  // namespace talvoro_tool

#endif
