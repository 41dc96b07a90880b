// OpenCV's lens distortion of a normalised point, computed as cv::projectPoints computes it, so
// that code projecting without OpenCV lands on the same pixels.
#ifndef TALVORO_FRAME_LENS_DISTORTION_H
#define TALVORO_FRAME_LENS_DISTORTION_H

namespace Talvoro::frame {

// Distorts (x, y) with the coefficients k1 k2 p1 p2 k3 k4 k5 k6 s1 s2 s3 s4 (a tilted sensor is
// the caller's), in the same operations and order as cv::projectPoints. Without `rational` or
// `prism` the terms of k4 to k6 or s1 to s4 are skipped: with all their coefficients 0 they add
// exactly nothing to a finite point, and a point that is not finite is dropped either way.
inline void distortAsOpenCv(double x, double y, const double* k, bool rational, bool prism,
                            double* xd, double* yd) {
    const double r2 = x * x + y * y, r4 = r2 * r2, r6 = r4 * r2;
    const double a1 = 2 * x * y, a2 = r2 + 2 * x * x, a3 = r2 + 2 * y * y;
    const double radial = 1 + k[0] * r2 + k[1] * r4 + k[4] * r6;
    double dx = x * radial, dy = y * radial;
    if (rational) {
        const double inverse = 1. / (1 + k[5] * r2 + k[6] * r4 + k[7] * r6);
        dx *= inverse;
        dy *= inverse;
    }
    dx = dx + k[2] * a1 + k[3] * a2;
    dy = dy + k[2] * a3 + k[3] * a1;
    if (prism) {
        dx = dx + k[8] * r2 + k[9] * r4;
        dy = dy + k[10] * r2 + k[11] * r4;
    }
    *xd = dx;
    *yd = dy;
}

}  // namespace Talvoro::frame

#endif
