// A camera's control firmware: the extension unit, the standard controls, the HID command
// interface and the IMU, over one store of the settings the camera keeps while plugged in.
#ifndef TALVORO_VCAM_FIRMWARE_H
#define TALVORO_VCAM_FIRMWARE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "CalibrationSource.h"
#include "Camera.h"
#include "FirmwareStore.h"

namespace vcam {

class Camera;
class ExtensionUnit;
class HidFirmware;
class ImuStream;
class StandardControls;

class Firmware {
  public:
    explicit Firmware(Camera& camera);
    ~Firmware();
    Firmware(const Firmware&) = delete;
    Firmware& operator=(const Firmware&) = delete;

    Camera& camera() const { return camera_; }
    FirmwareStore& store() { return store_; }
    ExtensionUnit& extensionUnit() { return *xu_; }
    StandardControls& controls() { return *controls_; }
    HidFirmware& hid() { return *hid_; }
    ImuStream& imu() { return *imu_; }

    // True once the camera is gone: the stream unplugged it, or an unplug fault is set from
    // the start (frame 0). Every node then fails with ENODEV.
    bool unplugged() const;

    // True when a fault `name` is set whose ARG `matches` accepts (an empty ARG always does).
    template <typename Match>
    bool faultApplies(const std::string& name, Match matches) const;

    // The calibration blob of a HID blob type, from the current source.
    CalibrationBlob calibration(int blobType);
    // Replaces the blob source (the replay of a recording supplies its own).
    void setCalibrationSource(CalibrationSource source);

    // Copies the frame mode and depth range of `settings` to the camera's state, which the
    // stream follows.
    void publishState(const Settings& settings) const;

  private:
    Camera& camera_;
    FirmwareStore store_;
    std::mutex sourceMutex_;
    CalibrationSource source_;
    std::unique_ptr<ExtensionUnit> xu_;
    std::unique_ptr<StandardControls> controls_;
    std::unique_ptr<HidFirmware> hid_;
    std::unique_ptr<ImuStream> imu_;
};

// True when `arg` (hex digits, e.g. "B302" or "4101") is a prefix of `data`, or when `arg` is
// "0xNN" and `data` is a camera-control report B3 NN. Used by the HID faults.
bool reportPrefixMatches(const std::string& arg, const uint8_t* data, std::size_t size);

}  // namespace vcam

namespace vcam {

template <typename Match>
bool Firmware::faultApplies(const std::string& name, Match matches) const {
    for (const FaultSpec& fault : camera_.findFaults(name))
        if (fault.arg.empty() || matches(fault.arg)) return true;
    return false;
}

}  // namespace vcam

#endif
