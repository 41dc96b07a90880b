// What a camera's firmware reports about itself: identity, board data and calibration blobs.
// Scenario keys of a [camera] section (see docs/vcam.md); the defaults describe a healthy camera.
#ifndef TALVORO_VCAM_FIRMWARE_SPEC_H
#define TALVORO_VCAM_FIRMWARE_SPEC_H

#include <cstdint>
#include <string>
#include <vector>

namespace vcam {

// How one calibration blob is stored in the camera.
enum class BlobKind {
    Both,      // plain and HD keys, validity flag 2 (the default)
    Vga,       // plain keys only, flag 0
    Hd,        // HD keys only, flag 1
    NoHeader,  // both key sets, flag 2, but the text does not begin with "%YAML:1.0"
    Empty,     // size 0, flag 2
    Missing,   // no blob: size requests are refused, the flag reads 0xFF
    Huge,      // both key sets, flag 2, each 3 x 3 matrix declaring 100000 x 100000
    BadFocal,  // both key sets, flag 2, the first value of each 3 x 3 matrix NaN (plain), 0 (HD)
    Unending   // both key sets, flag 2, after lines OpenCV's YAML reader never finishes reading
};

struct FirmwareSpec {
    std::string uniqueId;  // 64-bit, hex; empty: derived from the serial number
    uint8_t version[2] = {2, 1};
    uint16_t versionBuild[2] = {32, 1057};  // firmware version 2.1.32.1057
    std::vector<uint8_t> boardConfig = {2, 1, 0, 4};
    int boardConfigCount = -1;  // count the board-data answer claims (-1: the number of values)
    BlobKind calib[3] = {BlobKind::Both, BlobKind::Both, BlobKind::Both};  // by HID blob type
    int baseTemperature = 38;                                              // raw 16-bit values
    int laserTemperature = 45;
    int xuAnswerLength = 16;  // length of extension-unit selector 2 (selector 1 is 8)
    double imuRate = 100;     // IMU reports per second while capture runs

    // The 64-bit unique ID for the camera with `serial`.
    uint64_t uniqueIdFor(const std::string& serial) const;
};

// True when `key` is one of the firmware's camera keys.
bool isFirmwareKey(const std::string& key);
// Sets one firmware key from its scenario text; false with *error on a bad value.
bool setFirmwareKey(FirmwareSpec* spec, const std::string& key, const std::string& value,
                    std::string* error);
// The keys that differ from the defaults, as scenario lines.
std::string serializeFirmware(const FirmwareSpec& spec);

}  // namespace vcam

#endif
