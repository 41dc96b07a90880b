// The camera's HID command interface: one 64-byte answer report per request report.
#ifndef TALVORO_VCAM_HID_FIRMWARE_H
#define TALVORO_VCAM_HID_FIRMWARE_H

#include <array>
#include <cstdint>
#include <mutex>

#include "CalibrationSource.h"
#include "FirmwareStore.h"

namespace vcam {

class Firmware;

using HidReport = std::array<uint8_t, 64>;

class HidFirmware {
  public:
    // Command classes (byte 0 of a request).
    static constexpr uint8_t kControlClass = 0xB3;
    static constexpr uint8_t kVersionClass = 0x40;
    static constexpr uint8_t kUniqueIdClass = 0x41;

    explicit HidFirmware(Firmware& firmware);

    static void addDefaults(Settings& settings);

    // The answer to one request; false when the camera stays silent.
    bool handle(const HidReport& request, HidReport* answer);

  private:
    void control(const HidReport& request, HidReport* answer);
    bool simpleSetting(const HidReport& request, HidReport* answer);
    void imuCommand(const HidReport& request, HidReport* answer);
    void calibrationCommand(const HidReport& request, HidReport* answer);
    void boardData(const HidReport& request, HidReport* answer);
    void identity(const HidReport& request, HidReport* answer);

    Firmware& firmware_;
    std::mutex mutex_;
    // The blob chosen by the last size request; chunk reads must follow it directly.
    int selectedBlob_ = -1;
    CalibrationBlob blob_;
};

// A refusal: the request's first two bytes echoed, every status byte 0. Answers without a
// status byte (blob flags, firmware version, unique ID) refuse with byte 0 = 0x00.
void refuse(const HidReport& request, HidReport* answer);

}  // namespace vcam

#endif
