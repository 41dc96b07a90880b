// Checks of the calibration a camera serves, before anything reads or uses it: the size each
// matrix declares in the YAML (OpenCV allocates whatever a matrix declares before it looks at
// its data), and the values undistortion and RGB-D mapping would compute with.
#ifndef TALVORO_FRAME_CALIBRATION_CHECK_H
#define TALVORO_FRAME_CALIBRATION_CHECK_H

#include <cstddef>
#include <string>

#include <opencv2/core.hpp>

namespace Talvoro::frame {

enum class CalibrationItem { CameraMatrix, Distortion, Rotation, Translation };

// Largest row or column count a calibration matrix may declare.
inline constexpr int kMaxCalibrationSide = 16;
// Largest magnitude of any calibration value (pixels, millimetres or coefficients).
inline constexpr double kMaxCalibrationValue = 1e6;

// Largest calibration text handed to OpenCV's YAML reader.
inline constexpr std::size_t kMaxCalibrationText = std::size_t(1) << 20;

// Why `text` must not be handed to OpenCV's YAML reader, or an empty string when it may. OpenCV's
// reader never returns on some malformed texts (a key indented, then a line indented less), so
// a camera's block is first held to the layout OpenCV's own writer gives calibration: the
// "%YAML:1.0" line, an optional "---", then keys at the left margin whose values are numbers or
// words, a quoted string, a flow sequence "[ ... ]" of numbers (which may go on over indented
// lines), or, after an empty value or a "!!type" tag, one map of such keys indented alike;
// blank lines and "#" comments between them; printable ASCII only, at most
// kMaxCalibrationText bytes.
std::string checkCalibrationText(const std::string& text);

// Why the matrix stored at `node` must not be read, or an empty string when it may: a 2-D
// OpenCV matrix of one plain numeric type and one channel, with at most kMaxCalibrationSide
// rows and columns, whose data holds exactly that many numbers.
std::string checkMatrixNode(const cv::FileNode& node);

// Why the values of `m` cannot serve as `item`, or an empty string when they can: every value
// finite and within kMaxCalibrationValue, and a camera matrix's focal lengths (elements (0,0)
// and (1,1)) at least one pixel.
std::string checkMatrixValues(const cv::Mat& m, CalibrationItem item);

// The matrix under `key` at the top of `fs` as CV_64F, read only once checkMatrixNode allows it
// and returned only when checkMatrixValues accepts it; otherwise an empty matrix, with the
// reason in *refused (left empty when there is no such key or OpenCV cannot read it).
cv::Mat readCalibrationMatrix(const cv::FileStorage& fs, const char* key, CalibrationItem item,
                              std::string* refused);

}  // namespace Talvoro::frame

#endif
