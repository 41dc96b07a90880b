#include "frame/Registration.h"

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>

#include "frame/Cpu.h"

#if TALVORO_X86_64
#include <immintrin.h>
#endif

namespace Talvoro::frame {

namespace {

bool isMatrix(const cv::Mat& m, int rows, int cols) {
    return m.rows == rows && m.cols == cols && m.channels() == 1 &&
           (m.depth() == CV_32F || m.depth() == CV_64F);
}

// cvRound: round half to even; NaN and values beyond int give INT_MIN.
inline int roundToInt(float v) {
#if TALVORO_X86_64
    return _mm_cvtss_si32(_mm_set_ss(v));
#else
    const float r = std::nearbyint(v);
    return r >= -2147483648.f && r < 2147483648.f ? int(r) : INT32_MIN;
#endif
}

// The C conversion float -> unsigned short as x86 compilers emit it: truncate to 32 bits (NaN
// and out of range give INT_MIN), keep the low 16 bits.
inline uint16_t truncateToU16(float v) {
#if TALVORO_X86_64
    return uint16_t(_mm_cvttss_si32(_mm_set_ss(v)));
#else
    return v > -2147483649.f && v < 2147483648.f ? uint16_t(int32_t(v)) : 0;
#endif
}

// OpenCV's tilted-sensor projection for distortion coefficients 12 and 13.
cv::Matx33d tiltMatrix(double tauX, double tauY) {
    const double cX = std::cos(tauX), sX = std::sin(tauX);
    const double cY = std::cos(tauY), sY = std::sin(tauY);
    const cv::Matx33d rotX(1, 0, 0, 0, cX, sX, 0, -sX, cX);
    const cv::Matx33d rotY(cY, 0, -sY, 0, 1, 0, sY, 0, cY);
    const cv::Matx33d rotXY = rotY * rotX;
    const cv::Matx33d projZ(rotXY(2, 2), 0, -rotXY(0, 2), 0, rotXY(2, 2), -rotXY(1, 2), 0, 0, 1);
    return projZ * rotXY;
}

}  // namespace

bool DepthRegistration::configure(const cv::Mat& depthMatrix, const cv::Mat& colourMatrix,
                                  const cv::Mat& colourDistortion, const cv::Mat& transform,
                                  cv::Size output) {
    valid_ = false;
    if (!isMatrix(depthMatrix, 3, 3) || !isMatrix(colourMatrix, 3, 3) ||
        !isMatrix(transform, 4, 4) || output.width < 1 || output.height < 1)
        return false;
    if (!colourDistortion.empty() &&
        (colourDistortion.channels() != 1 ||
         (colourDistortion.depth() != CV_32F && colourDistortion.depth() != CV_64F)))
        return false;
    try {
        // registerDepth works in single precision: the matrices are converted to float first.
        const cv::Matx33f depthK = depthMatrix;
        const cv::Matx33f colourK = colourMatrix;
        const cv::Matx44f rt = transform;
        cv::Mat_<float> distortion;
        if (!colourDistortion.empty()) colourDistortion.convertTo(distortion, CV_32F);
        distorted_ = !distortion.empty() && cv::countNonZero(distortion) > 0;
        const size_t count = distortion.total();
        if (distorted_ && count != 4 && count != 5 && count != 8 && count != 12 && count != 14)
            return false;

        cv::Matx44f k = cv::Matx44f::zeros();
        for (int j = 0; j < 3; ++j)
            for (int i = 0; i < 3; ++i)
                k(j, i) = depthK(j, i);
        k(3, 3) = 1;
        cv::Matx44f projection;
        if (distorted_) {
            // Projected into the colour image separately, with its distortion.
            projection = rt * k.inv();
        } else {
            cv::Matx44f colour = cv::Matx44f::zeros();
            for (int j = 0; j < 3; ++j)
                for (int i = 0; i < 3; ++i)
                    colour(j, i) = colourK(j, i);
            colour(3, 3) = 1;
            projection = colour * rt * k.inv();
        }
        for (int i = 0; i < 16; ++i)
            projection_[i] = projection.val[i];
        affine_ = projection_[12] == 0 && projection_[13] == 0 && projection_[14] == 0 &&
                  projection_[15] == 1;

        std::memset(k_, 0, sizeof k_);
        for (size_t i = 0; i < count && i < 14; ++i)
            k_[i] = distortion(int(i));
        rational_ = k_[5] != 0 || k_[6] != 0 || k_[7] != 0;
        prism_ = k_[8] != 0 || k_[9] != 0 || k_[10] != 0 || k_[11] != 0;
        tilted_ = distorted_ && (k_[12] != 0 || k_[13] != 0);
        if (tilted_) tilt_ = tiltMatrix(k_[12], k_[13]);
        fx_ = colourK(0, 0);
        fy_ = colourK(1, 1);
        cx_ = colourK(0, 2);
        cy_ = colourK(1, 2);
        output_ = output;
        valid_ = true;
    } catch (const cv::Exception&) {
        valid_ = false;
    }
    return valid_;
}

bool DepthRegistration::apply(const cv::Mat& depth, cv::Mat& registered) const {
    if (!valid_ || depth.type() != CV_16UC1 || registered.type() != CV_16UC1 ||
        registered.size() != output_ || depth.data == registered.data)
        return false;
    for (int r = 0; r < registered.rows; ++r)
        std::memset(registered.ptr(r), 0, registered.cols * sizeof(uint16_t));
    const double* m = projection_;
    const float toMetres = 0.001f, toMillimetres = 1.0f / toMetres;

    // The nearest point wins; an empty (0) pixel takes any. Without a branch for non-zero values:
    // out - 1 wraps 0 to 65535.
    auto place = [&](int x, int y, uint16_t value) {
        uint16_t& out = registered.at<uint16_t>(y, x);
        if (value == 0) {
            out = 0;
        } else {
            const uint16_t kept = uint16_t(out - 1), given = uint16_t(value - 1);
            out = uint16_t((kept < given ? kept : given) + 1);
        }
    };

    for (int j = 0; j < depth.rows; ++j) {
        const uint16_t* row = depth.ptr<uint16_t>(j);
        for (int i = 0; i < depth.cols; ++i) {
            // The point cloud: no depth is NaN, which the transform turns into (0, 0, 0).
            float tx = 0, ty = 0, tz = 0;
            if (row[i] != 0) {
                const float d = float(row[i]) * toMetres;
                const float px = i * d, py = j * d, pz = d;
                double w = 1;
                if (!affine_) {
                    w = px * m[12] + py * m[13] + pz * m[14] + m[15];
                    w = std::fabs(w) > FLT_EPSILON ? 1. / w : 0;
                }
                if (w != 0) {
                    tx = float((px * m[0] + py * m[1] + pz * m[2] + m[3]) * w);
                    ty = float((px * m[4] + py * m[5] + pz * m[6] + m[7]) * w);
                    tz = float((px * m[8] + py * m[9] + pz * m[10] + m[11]) * w);
                }
            }
            float u, v;
            if (distorted_) {
                // cv::projectPoints with no rotation and no translation.
                double x = tx, y = ty, z = tz;
                z = z != 0 ? 1. / z : 1;
                x *= z;
                y *= z;
                const double r2 = x * x + y * y, r4 = r2 * r2, r6 = r4 * r2;
                const double a1 = 2 * x * y, a2 = r2 + 2 * x * x, a3 = r2 + 2 * y * y;
                const double* k = k_;
                const double radial = 1 + k[0] * r2 + k[1] * r4 + k[4] * r6;
                double xd = x * radial, yd = y * radial;
                // Terms whose coefficients are all 0 add exactly nothing to a finite point (and a
                // point that is not finite is dropped either way), so they are skipped.
                if (rational_) {
                    const double inverse = 1. / (1 + k[5] * r2 + k[6] * r4 + k[7] * r6);
                    xd *= inverse;
                    yd *= inverse;
                }
                xd = xd + k[2] * a1 + k[3] * a2;
                yd = yd + k[2] * a3 + k[3] * a1;
                if (prism_) {
                    xd = xd + k[8] * r2 + k[9] * r4;
                    yd = yd + k[10] * r2 + k[11] * r4;
                }
                if (tilted_) {
                    const cv::Vec3d t = tilt_ * cv::Vec3d(xd, yd, 1);
                    const double p = t(2) != 0 ? 1. / t(2) : 1;
                    xd = p * t(0);
                    yd = p * t(1);
                }
                u = float(xd * fx_ + cx_);
                v = float(yd * fy_ + cy_);
            } else {
                u = tx / tz;
                v = ty / tz;
            }
            if (std::isnan(u)) continue;
            const int x = roundToInt(u), y = roundToInt(v);
            if (x < 0 || y < 0 || x >= output_.width || y >= output_.height) continue;
            const uint16_t value = truncateToU16(tz * toMillimetres + 0.5f);
            // Occlusion: the nearest point wins; dilated to the left, up and up-left.
            place(x, y, value);
            if (x > 0) place(x - 1, y, value);
            if (y > 0) place(x, y - 1, value);
            if (x > 0 && y > 0) place(x - 1, y - 1, value);
        }
    }
    return true;
}

}  // namespace Talvoro::frame
