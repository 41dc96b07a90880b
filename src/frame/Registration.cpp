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
    } catch (...) {
        valid_ = false;
    }
    return valid_;
}

DepthRegistration::Landing DepthRegistration::land(uint16_t raw, int i, int j) const {
    const double* m = projection_;
    // The point cloud: no depth is NaN, which the transform turns into (0, 0, 0).
    float tx = 0, ty = 0, tz = 0;
    if (raw != 0) {
        const float d = float(raw) * kToMetres;
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
        // Terms whose coefficients are all 0 add exactly nothing to a finite point (and a point
        // that is not finite is dropped either way), so they are skipped.
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
    return {roundToInt(u), roundToInt(v), truncateToU16(tz * kToMillimetres + 0.5f),
            !std::isnan(u)};
}

#if TALVORO_X86_64

#define TALVORO_AVX2 __attribute__((target("avx2")))

namespace {

TALVORO_AVX2 inline __m256d add(__m256d a, __m256d b) {
    return _mm256_add_pd(a, b);
}
TALVORO_AVX2 inline __m256d mul(__m256d a, __m256d b) {
    return _mm256_mul_pd(a, b);
}
TALVORO_AVX2 inline __m256d splat(double v) {
    return _mm256_set1_pd(v);
}

// ((px r0 + py r1) + pz r2) + r3: one row of the projection.
TALVORO_AVX2 inline __m256d transformRow(__m256d px, __m256d py, __m256d pz, const double* r) {
    return add(add(add(mul(px, splat(r[0])), mul(py, splat(r[1]))), mul(pz, splat(r[2]))),
               splat(r[3]));
}

// 1 / v where v is not 0, else 1.
TALVORO_AVX2 inline __m256d inverseOrOne(__m256d v) {
    return _mm256_blendv_pd(splat(1), _mm256_div_pd(splat(1), v),
                            _mm256_cmp_pd(v, _mm256_setzero_pd(), _CMP_NEQ_UQ));
}

}  // namespace

// land() for four pixels: the same operations, in the same order, lane by lane.
TALVORO_AVX2 void DepthRegistration::land4(const uint16_t* raw, int i, int j,
                                           Landing out[4]) const {
    const double* m = projection_;
    const __m128i depth =
        _mm_cvtepu16_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(raw)));
    const __m128 present = _mm_castsi128_ps(
        _mm_xor_si128(_mm_cmpeq_epi32(depth, _mm_setzero_si128()), _mm_set1_epi32(-1)));
    const __m128 d = _mm_mul_ps(_mm_cvtepi32_ps(depth), _mm_set1_ps(kToMetres));
    const __m128 columns = _mm_cvtepi32_ps(_mm_setr_epi32(i, i + 1, i + 2, i + 3));
    const __m256d px = _mm256_cvtps_pd(_mm_mul_ps(columns, d));
    const __m256d py = _mm256_cvtps_pd(_mm_mul_ps(_mm_set1_ps(float(j)), d));
    const __m256d pz = _mm256_cvtps_pd(d);
    __m256d w = splat(1);
    __m128 keep = present;  // no depth, or the transform refuses: the point is (0, 0, 0)
    if (!affine_) {
        const __m256d sum = transformRow(px, py, pz, m + 12);
        const __m256d size = _mm256_andnot_pd(splat(-0.0), sum);
        keep =
            _mm_and_ps(keep, _mm256_cvtpd_ps(_mm256_cmp_pd(size, splat(FLT_EPSILON), _CMP_GT_OQ)));
        w = _mm256_div_pd(splat(1), sum);
    }
    const __m128 tx = _mm_and_ps(keep, _mm256_cvtpd_ps(mul(transformRow(px, py, pz, m), w)));
    const __m128 ty = _mm_and_ps(keep, _mm256_cvtpd_ps(mul(transformRow(px, py, pz, m + 4), w)));
    const __m128 tz = _mm_and_ps(keep, _mm256_cvtpd_ps(mul(transformRow(px, py, pz, m + 8), w)));
    __m128 u, v;
    if (distorted_) {
        const double* k = k_;
        const __m256d one = splat(1), two = splat(2);
        const __m256d z = inverseOrOne(_mm256_cvtps_pd(tz));
        const __m256d x = mul(_mm256_cvtps_pd(tx), z), y = mul(_mm256_cvtps_pd(ty), z);
        const __m256d r2 = add(mul(x, x), mul(y, y)), r4 = mul(r2, r2), r6 = mul(r4, r2);
        const __m256d a1 = mul(mul(two, x), y), a2 = add(r2, mul(mul(two, x), x)),
                      a3 = add(r2, mul(mul(two, y), y));
        const __m256d radial =
            add(add(add(one, mul(splat(k[0]), r2)), mul(splat(k[1]), r4)), mul(splat(k[4]), r6));
        __m256d xd = mul(x, radial), yd = mul(y, radial);
        if (rational_) {
            const __m256d inverse =
                _mm256_div_pd(one, add(add(add(one, mul(splat(k[5]), r2)), mul(splat(k[6]), r4)),
                                       mul(splat(k[7]), r6)));
            xd = mul(xd, inverse);
            yd = mul(yd, inverse);
        }
        xd = add(add(xd, mul(splat(k[2]), a1)), mul(splat(k[3]), a2));
        yd = add(add(yd, mul(splat(k[2]), a3)), mul(splat(k[3]), a1));
        if (prism_) {
            xd = add(add(xd, mul(splat(k[8]), r2)), mul(splat(k[9]), r4));
            yd = add(add(yd, mul(splat(k[10]), r2)), mul(splat(k[11]), r4));
        }
        if (tilted_) {
            const cv::Matx33d& t = tilt_;
            const __m256d t0 =
                add(add(mul(splat(t(0, 0)), xd), mul(splat(t(0, 1)), yd)), splat(t(0, 2)));
            const __m256d t1 =
                add(add(mul(splat(t(1, 0)), xd), mul(splat(t(1, 1)), yd)), splat(t(1, 2)));
            const __m256d t2 =
                add(add(mul(splat(t(2, 0)), xd), mul(splat(t(2, 1)), yd)), splat(t(2, 2)));
            const __m256d p = inverseOrOne(t2);
            xd = mul(p, t0);
            yd = mul(p, t1);
        }
        u = _mm256_cvtpd_ps(add(mul(xd, splat(fx_)), splat(cx_)));
        v = _mm256_cvtpd_ps(add(mul(yd, splat(fy_)), splat(cy_)));
    } else {
        u = _mm_div_ps(tx, tz);
        v = _mm_div_ps(ty, tz);
    }
    alignas(16) int xs[4], ys[4], values[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(xs), _mm_cvtps_epi32(u));
    _mm_store_si128(reinterpret_cast<__m128i*>(ys), _mm_cvtps_epi32(v));
    _mm_store_si128(reinterpret_cast<__m128i*>(values),
                    _mm_cvttps_epi32(_mm_add_ps(_mm_mul_ps(tz, _mm_set1_ps(kToMillimetres)),
                                                _mm_set1_ps(0.5f))));
    const int valid = _mm_movemask_ps(_mm_cmpord_ps(u, u));
    for (int n = 0; n < 4; ++n)
        out[n] = {xs[n], ys[n], uint16_t(values[n]), bool(valid >> n & 1)};
}

#undef TALVORO_AVX2

#endif

bool DepthRegistration::apply(const cv::Mat& depth, cv::Mat& registered) const {
    if (!valid_ || depth.type() != CV_16UC1 || registered.type() != CV_16UC1 ||
        registered.size() != output_ || depth.data == registered.data)
        return false;
    for (int r = 0; r < registered.rows; ++r)
        std::memset(registered.ptr(r), 0, registered.cols * sizeof(uint16_t));

    // Occlusion: the nearest point wins, and an empty (0) pixel takes any; dilated to the left,
    // up and up-left. Branch-free for non-zero values: out - 1 wraps 0 to 65535.
    auto place = [&](const Landing& l) {
        if (!l.valid || l.x < 0 || l.y < 0 || l.x >= output_.width || l.y >= output_.height) return;
        auto keep = [&](int x, int y) {
            uint16_t& out = registered.at<uint16_t>(y, x);
            if (l.value == 0) {
                out = 0;
            } else {
                const uint16_t kept = uint16_t(out - 1), given = uint16_t(l.value - 1);
                out = uint16_t((kept < given ? kept : given) + 1);
            }
        };
        keep(l.x, l.y);
        if (l.x > 0) keep(l.x - 1, l.y);
        if (l.y > 0) keep(l.x, l.y - 1);
        if (l.x > 0 && l.y > 0) keep(l.x - 1, l.y - 1);
    };

    const bool vector = TALVORO_X86_64 && isa() >= Isa::Avx2;
    for (int j = 0; j < depth.rows; ++j) {
        const uint16_t* row = depth.ptr<uint16_t>(j);
        int i = 0;
#if TALVORO_X86_64
        if (vector) {
            Landing four[4];
            for (; i + 4 <= depth.cols; i += 4) {
                land4(row + i, i, j, four);
                for (const Landing& l : four)
                    place(l);
            }
        }
#endif
        for (; i < depth.cols; ++i)
            place(land(row[i], i, j));
    }
    return true;
}

}  // namespace Talvoro::frame
