// Where a camera's calibration blobs come from. The synthetic camera serves the blobs of the
// optics model (CameraModel.h) as the scenario describes them; a replayed recording supplies
// the blobs it carries through Firmware::setCalibrationSource.
#ifndef TALVORO_VCAM_CALIBRATION_SOURCE_H
#define TALVORO_VCAM_CALIBRATION_SOURCE_H

#include <cstdint>
#include <functional>
#include <string>

#include "FirmwareSpec.h"

namespace vcam {

struct CalibrationBlob {
    bool present = false;  // false: the camera holds no such blob
    std::string bytes;     // the blob as stored, normally FileStorage YAML
    uint8_t flag = 0xFF;   // validity flag: 0 plain keys, 1 HD keys, 2 both
};

// HID blob type (0 colour intrinsics, 1 depth intrinsics, 2 extrinsics) to its blob.
using CalibrationSource = std::function<CalibrationBlob(int blobType)>;

// The blobs of the optics model, shaped by the scenario's calib_* keys.
CalibrationSource modelCalibration(const FirmwareSpec& spec);

// The blobs a recording carries (read on first use); a type the recording lacks is a blob the
// camera does not hold.
CalibrationSource recordingCalibration(const std::string& path);

}  // namespace vcam

#endif
