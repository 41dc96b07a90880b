// Inputs shared by the frame benchmarks: a depth scene and raw frames of the ToF modes (the
// calibration is the tests' sample one).
#ifndef TALVORO_BENCH_FRAME_BENCH_INPUTS_H
#define TALVORO_BENCH_FRAME_BENCH_INPUTS_H

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "frame/TalvoroFrame.h"

namespace bench {

// 480x640 depth in mm: a slanted wall, a box, holes and sensor noise.
cv::Mat depthScene();

// A raw buffer of data mode 0, 2, 4 or 5 carrying depthScene() (12-bit in the multiplexed
// modes) and a matching IR image.
std::vector<uint8_t> rawFrame(int mode);

}  // namespace bench

#endif
