// The calibration store: the three calibration blocks read from a camera at open, cached as
// YAML files in the working directory, parsed back and handed to the camera's Device.
#ifndef TALVORO_WRAPPER_CALIBRATION_STORE_H
#define TALVORO_WRAPPER_CALIBRATION_STORE_H

#include <cstdint>

#include <opencv2/core.hpp>

#include "TalvoroSDK.h"
#include "wrapper/TalvoroWrapper.h"

namespace Talvoro::wrapper {

// Bits of availableCalibData: one per matrix found, plain set in bits 0-5, HD set in 6-11.
enum CalibBit : uint16_t {
    kDepthMatrix = 1 << 0,
    kDepthDistortion = 1 << 1,
    kRgbMatrix = 1 << 2,
    kRgbDistortion = 1 << 3,
    kRotation = 1 << 4,
    kTranslation = 1 << 5,
};
inline constexpr int kHdShift = 6;
inline constexpr uint16_t kPlainSet = 0x3F;
inline constexpr uint16_t kHdSet = kPlainSet << kHdShift;

// Reads, stores and parses the camera's calibration, hands complete sets to its Device and
// records availableCalibData, the parameters and calibParamObtained in the registry. Failures
// are logged and end the loading; the camera is never failed for them. The camera must be open
// (its handle passes the call guard).
void loadCalibration(const Camera& camera, const DeviceHandle& handle);

// Copies one set (hd selects the second half of the record) from the matrices: camera matrices
// 3x3, distortion five coefficients in any layout, extrinsic the 4x4 [R|T; 0 0 0 1]; all CV_64F.
void fillDeviceCalibrationParams(CalibrationParams* params, bool hd, const cv::Mat& depthMatrix,
                                 const cv::Mat& depthDistortion, const cv::Mat& rgbMatrix,
                                 const cv::Mat& rgbDistortion, const cv::Mat& extrinsic);

}  // namespace Talvoro::wrapper

#endif
