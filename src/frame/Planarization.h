// Planarization: radial distance to distance along the optical axis, one cosine per pixel.
#ifndef TALVORO_FRAME_PLANARIZATION_H
#define TALVORO_FRAME_PLANARIZATION_H

#include <cstddef>
#include <cstdint>

#include <opencv2/core.hpp>

namespace Talvoro::frame {

// The lens model: viewing angle theta = k0 rho^3 + k1 rho^2 + k2 rho + k3 (radians) of a pixel
// at rho millimetres from the principal point on a sensor of `pitch` / 100,000 mm pixels.
struct LensModel {
    double k0, k1, k2, k3;
    double pitch;
};

// Values of the last pixel computed.
struct ThetaScratch {
    double theta, rho, sensorX, sensorY;
};

// Fills `table` (CV_64F, already sized) with cos(theta) of every pixel, principal point (cx, cy).
ThetaScratch fillThetaTable(cv::Mat& table, double cx, double cy, const LensModel& model);

// depth[i] = depth[i] x cosines[i] in double precision, truncated toward zero and kept to its
// low 16 bits. A product outside the 32-bit range (or NaN) gives 0, as the x86 conversion does.
// nearCosines, when given, holds the cosines rounded to float: the results stay the same, but
// most pixels need only those.
void planarize(uint16_t* depth, const double* cosines, const float* nearCosines, size_t n);
void planarizeScalar(uint16_t* depth, const double* cosines, size_t n);

}  // namespace Talvoro::frame

#endif
