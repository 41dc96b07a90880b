#include "frame/Registration.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>

#include "frame/Cpu.h"
#include "frame/LensDistortion.h"

#if TALVORO_X86_64
#include <immintrin.h>
#endif

namespace Talvoro::frame {

namespace {

constexpr float kToMetres = 0.001f;  // 16-bit depth is millimetres
constexpr float kToMillimetres = 1.0f / kToMetres;

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
        double xd, yd;
        distortAsOpenCv(x, y, k_, rational_, prism_, &xd, &yd);
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

namespace {

// The projection's numbers, copied for a row so that the compiler may keep them in registers
// (the row's stores cannot change a copy).
struct Model {
    double m[16], k[14], t[9];
    double fx, fy, cx, cy;
    bool affine, distorted, rational, prism, tilted;
};

struct Lanes4 {
    __m128i x, y;   // the colour pixel; INT_MIN where not a number or out of range
    __m128i value;  // the depth there in millimetres, truncated to 32 bits
    __m128i valid;  // all ones where u is a number
};

// A row of the transform times w, in float; 0 where keep is not set.
TALVORO_AVX2 inline __m128 transformed(__m256d px, __m256d py, __m256d pz, const double* r,
                                       bool affine, __m256d w, __m128 keep) {
    const __m256d t = transformRow(px, py, pz, r);
    return _mm_and_ps(keep, _mm256_cvtpd_ps(affine ? t : mul(t, w)));
}

// land() for four pixels: the same operations, in the same order, lane by lane.
TALVORO_AVX2 inline __attribute__((always_inline)) Lanes4 land4(const Model& c, const uint16_t* raw,
                                                                int i, int j) {
    Lanes4 out;
    const double* m = c.m;
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
    if (!c.affine) {
        const __m256d sum = transformRow(px, py, pz, m + 12);
        const __m256d size = _mm256_andnot_pd(splat(-0.0), sum);
        keep =
            _mm_and_ps(keep, _mm256_cvtpd_ps(_mm256_cmp_pd(size, splat(FLT_EPSILON), _CMP_GT_OQ)));
        w = _mm256_div_pd(splat(1), sum);
    }
    // An affine transform's w is exactly 1: the product is the row itself.
    const __m128 tx = transformed(px, py, pz, m, c.affine, w, keep);
    const __m128 ty = transformed(px, py, pz, m + 4, c.affine, w, keep);
    const __m128 tz = transformed(px, py, pz, m + 8, c.affine, w, keep);
    __m128 u, v;
    if (c.distorted) {
        const double* k = c.k;
        const __m256d one = splat(1);
        const __m256d z = inverseOrOne(_mm256_cvtps_pd(tz));
        const __m256d x = mul(_mm256_cvtps_pd(tx), z), y = mul(_mm256_cvtps_pd(ty), z);
        const __m256d xx = mul(x, x), yy = mul(y, y), xy = mul(x, y);
        const __m256d r2 = add(xx, yy), r4 = mul(r2, r2), r6 = mul(r4, r2);
        // 2x y, 2x x and 2y y as doublings of the products: scaling by 2 is exact, and x and y
        // (float coordinates times the inverse of a float depth) are zero or far too large for
        // their products to fall below the normal range, where it would not be.
        const __m256d a1 = add(xy, xy), a2 = add(r2, add(xx, xx)), a3 = add(r2, add(yy, yy));
        const __m256d radial =
            add(add(add(one, mul(splat(k[0]), r2)), mul(splat(k[1]), r4)), mul(splat(k[4]), r6));
        __m256d xd = mul(x, radial), yd = mul(y, radial);
        if (c.rational) {
            const __m256d inverse =
                _mm256_div_pd(one, add(add(add(one, mul(splat(k[5]), r2)), mul(splat(k[6]), r4)),
                                       mul(splat(k[7]), r6)));
            xd = mul(xd, inverse);
            yd = mul(yd, inverse);
        }
        xd = add(add(xd, mul(splat(k[2]), a1)), mul(splat(k[3]), a2));
        yd = add(add(yd, mul(splat(k[2]), a3)), mul(splat(k[3]), a1));
        if (c.prism) {
            xd = add(add(xd, mul(splat(k[8]), r2)), mul(splat(k[9]), r4));
            yd = add(add(yd, mul(splat(k[10]), r2)), mul(splat(k[11]), r4));
        }
        if (c.tilted) {
            const double* t = c.t;
            const __m256d t0 = add(add(mul(splat(t[0]), xd), mul(splat(t[1]), yd)), splat(t[2]));
            const __m256d t1 = add(add(mul(splat(t[3]), xd), mul(splat(t[4]), yd)), splat(t[5]));
            const __m256d t2 = add(add(mul(splat(t[6]), xd), mul(splat(t[7]), yd)), splat(t[8]));
            const __m256d p = inverseOrOne(t2);
            xd = mul(p, t0);
            yd = mul(p, t1);
        }
        u = _mm256_cvtpd_ps(add(mul(xd, splat(c.fx)), splat(c.cx)));
        v = _mm256_cvtpd_ps(add(mul(yd, splat(c.fy)), splat(c.cy)));
    } else {
        u = _mm_div_ps(tx, tz);
        v = _mm_div_ps(ty, tz);
    }
    out.x = _mm_cvtps_epi32(u);
    out.y = _mm_cvtps_epi32(v);
    out.value = _mm_cvttps_epi32(
        _mm_add_ps(_mm_mul_ps(tz, _mm_set1_ps(kToMillimetres)), _mm_set1_ps(0.5f)));
    out.valid = _mm_castps_si128(_mm_cmpord_ps(u, u));
    return out;
}

}  // namespace

#define TALVORO_AVX512 __attribute__((target("avx2,avx512f,avx512bw,avx512vl")))

namespace {

TALVORO_AVX512 inline __m512d add8(__m512d a, __m512d b) {
    return _mm512_add_pd(a, b);
}
TALVORO_AVX512 inline __m512d mul8(__m512d a, __m512d b) {
    return _mm512_mul_pd(a, b);
}
TALVORO_AVX512 inline __m512d splat8(double v) {
    return _mm512_set1_pd(v);
}

// Conversions with every lane set: GCC 12 takes the plain intrinsics' undefined source for an
// uninitialised read.
TALVORO_AVX512 inline __m512d widen8(__m256 v) {
    return _mm512_maskz_cvtps_pd(0xFF, v);
}
TALVORO_AVX512 inline __m256 narrow8(__m512d v) {
    return _mm512_maskz_cvtpd_ps(0xFF, v);
}

TALVORO_AVX512 inline __m512d transformRow8(__m512d px, __m512d py, __m512d pz, const double* r) {
    return add8(add8(add8(mul8(px, splat8(r[0])), mul8(py, splat8(r[1]))), mul8(pz, splat8(r[2]))),
                splat8(r[3]));
}

TALVORO_AVX512 inline __m512d inverseOrOne8(__m512d v) {
    return _mm512_mask_div_pd(splat8(1), _mm512_cmp_pd_mask(v, _mm512_setzero_pd(), _CMP_NEQ_UQ),
                              splat8(1), v);
}

TALVORO_AVX512 inline __m256 transformed8(__m512d px, __m512d py, __m512d pz, const double* r,
                                          bool affine, __m512d w, __m256 keep) {
    const __m512d t = transformRow8(px, py, pz, r);
    return _mm256_and_ps(keep, narrow8(affine ? t : mul8(t, w)));
}

struct Lanes8 {
    __m256i x, y, value, valid;  // as Lanes4, for eight pixels
};

// land4() for eight pixels at once: the same operations, in the same order, lane by lane.
TALVORO_AVX512 inline __attribute__((always_inline)) Lanes8 land8(const Model& c,
                                                                  const uint16_t* raw, int i,
                                                                  int j) {
    Lanes8 out;
    const double* m = c.m;
    const __m256i depth =
        _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(raw)));
    const __m256 present = _mm256_castsi256_ps(
        _mm256_xor_si256(_mm256_cmpeq_epi32(depth, _mm256_setzero_si256()), _mm256_set1_epi32(-1)));
    const __m256 d = _mm256_mul_ps(_mm256_cvtepi32_ps(depth), _mm256_set1_ps(kToMetres));
    const __m256 columns =
        _mm256_cvtepi32_ps(_mm256_setr_epi32(i, i + 1, i + 2, i + 3, i + 4, i + 5, i + 6, i + 7));
    const __m512d px = widen8(_mm256_mul_ps(columns, d));
    const __m512d py = widen8(_mm256_mul_ps(_mm256_set1_ps(float(j)), d));
    const __m512d pz = widen8(d);
    __m512d w = splat8(1);
    __m256 keep = present;
    if (!c.affine) {
        const __m512d sum = transformRow8(px, py, pz, m + 12);
        const __mmask8 usable =
            _mm512_cmp_pd_mask(_mm512_abs_pd(sum), splat8(FLT_EPSILON), _CMP_GT_OQ);
        keep = _mm256_and_ps(
            keep, _mm256_castsi256_ps(_mm256_maskz_mov_epi32(usable, _mm256_set1_epi32(-1))));
        w = _mm512_div_pd(splat8(1), sum);
    }
    const __m256 tx = transformed8(px, py, pz, m, c.affine, w, keep);
    const __m256 ty = transformed8(px, py, pz, m + 4, c.affine, w, keep);
    const __m256 tz = transformed8(px, py, pz, m + 8, c.affine, w, keep);
    __m256 u, v;
    if (c.distorted) {
        const double* k = c.k;
        const __m512d one = splat8(1);
        const __m512d z = inverseOrOne8(widen8(tz));
        const __m512d x = mul8(widen8(tx), z), y = mul8(widen8(ty), z);
        const __m512d xx = mul8(x, x), yy = mul8(y, y), xy = mul8(x, y);
        const __m512d r2 = add8(xx, yy), r4 = mul8(r2, r2), r6 = mul8(r4, r2);
        const __m512d a1 = add8(xy, xy), a2 = add8(r2, add8(xx, xx)), a3 = add8(r2, add8(yy, yy));
        const __m512d radial = add8(add8(add8(one, mul8(splat8(k[0]), r2)), mul8(splat8(k[1]), r4)),
                                    mul8(splat8(k[4]), r6));
        __m512d xd = mul8(x, radial), yd = mul8(y, radial);
        if (c.rational) {
            const __m512d inverse = _mm512_div_pd(
                one, add8(add8(add8(one, mul8(splat8(k[5]), r2)), mul8(splat8(k[6]), r4)),
                          mul8(splat8(k[7]), r6)));
            xd = mul8(xd, inverse);
            yd = mul8(yd, inverse);
        }
        xd = add8(add8(xd, mul8(splat8(k[2]), a1)), mul8(splat8(k[3]), a2));
        yd = add8(add8(yd, mul8(splat8(k[2]), a3)), mul8(splat8(k[3]), a1));
        if (c.prism) {
            xd = add8(add8(xd, mul8(splat8(k[8]), r2)), mul8(splat8(k[9]), r4));
            yd = add8(add8(yd, mul8(splat8(k[10]), r2)), mul8(splat8(k[11]), r4));
        }
        if (c.tilted) {
            const double* t = c.t;
            const __m512d t0 =
                add8(add8(mul8(splat8(t[0]), xd), mul8(splat8(t[1]), yd)), splat8(t[2]));
            const __m512d t1 =
                add8(add8(mul8(splat8(t[3]), xd), mul8(splat8(t[4]), yd)), splat8(t[5]));
            const __m512d t2 =
                add8(add8(mul8(splat8(t[6]), xd), mul8(splat8(t[7]), yd)), splat8(t[8]));
            const __m512d p = inverseOrOne8(t2);
            xd = mul8(p, t0);
            yd = mul8(p, t1);
        }
        u = narrow8(add8(mul8(xd, splat8(c.fx)), splat8(c.cx)));
        v = narrow8(add8(mul8(yd, splat8(c.fy)), splat8(c.cy)));
    } else {
        u = _mm256_div_ps(tx, tz);
        v = _mm256_div_ps(ty, tz);
    }
    out.x = _mm256_cvtps_epi32(u);
    out.y = _mm256_cvtps_epi32(v);
    out.value = _mm256_cvttps_epi32(
        _mm256_add_ps(_mm256_mul_ps(tz, _mm256_set1_ps(kToMillimetres)), _mm256_set1_ps(0.5f)));
    out.valid = _mm256_castps_si256(_mm256_cmp_ps(u, u, _CMP_ORD_Q));
    return out;
}

// The AVX2 row loop's work with one land8 per block (INT32_MIN: kNowhere).
TALVORO_AVX512 int projectRowAvx512(const Model& c, cv::Size output, const uint16_t* raw, int j,
                                    int count, size_t stride, int32_t* target, uint16_t* value,
                                    int32_t* top, int32_t* bottom, uint8_t* inside) {
    const __m256i zero = _mm256_setzero_si256(), minusOne = _mm256_set1_epi32(-1);
    const __m256i width = _mm256_set1_epi32(output.width),
                  height = _mm256_set1_epi32(output.height);
    const __m256i rowStride = _mm256_set1_epi32(int(stride)),
                  nowhere = _mm256_set1_epi32(INT32_MIN);
    const __m256i highest = _mm256_set1_epi32(INT32_MAX), lowest = _mm256_set1_epi32(INT32_MIN);
    int i = 0;
    for (int b = 0; i + 8 <= count; i += 8, ++b) {
        const Lanes8 l = land8(c, raw + i, i, j);
        const __m256i corner = _mm256_min_epi32(l.x, l.y);
        const __m256i within =
            _mm256_and_si256(_mm256_and_si256(l.valid, _mm256_cmpgt_epi32(width, l.x)),
                             _mm256_and_si256(_mm256_cmpgt_epi32(height, l.y),
                                              _mm256_cmpgt_epi32(corner, minusOne)));
        const __m256i roomy = _mm256_and_si256(within, _mm256_cmpgt_epi32(corner, zero));
        const __m256i index = _mm256_add_epi32(_mm256_mullo_epi32(l.y, rowStride), l.x);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(target + i),
                            _mm256_blendv_epi8(nowhere, index, within));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(value + i), _mm256_cvtepi32_epi16(l.value));
        const __m256i ys = _mm256_blendv_epi8(highest, l.y, within),
                      ysHigh = _mm256_blendv_epi8(lowest, l.y, within);
        __m128i low = _mm_min_epi32(_mm256_castsi256_si128(ys), _mm256_extracti128_si256(ys, 1));
        __m128i high =
            _mm_max_epi32(_mm256_castsi256_si128(ysHigh), _mm256_extracti128_si256(ysHigh, 1));
        low = _mm_min_epi32(low, _mm_shuffle_epi32(low, 0x4E));
        high = _mm_max_epi32(high, _mm_shuffle_epi32(high, 0x4E));
        top[b] = _mm_cvtsi128_si32(_mm_min_epi32(low, _mm_shuffle_epi32(low, 0xB1)));
        bottom[b] = _mm_cvtsi128_si32(_mm_max_epi32(high, _mm_shuffle_epi32(high, 0xB1)));
        inside[b] = _mm256_movemask_ps(_mm256_castsi256_ps(roomy)) == 0xFF;
    }
    return i;
}

}  // namespace

#undef TALVORO_AVX512

// project() of one row, eight pixels at a time; returns the pixels done.
TALVORO_AVX2 int DepthRegistration::projectRowAvx2(const uint16_t* raw, int j, int count,
                                                   size_t stride, int32_t* target, uint16_t* value,
                                                   int32_t* top, int32_t* bottom,
                                                   uint8_t* inside) const {
    Model c;
    std::memcpy(c.m, projection_, sizeof c.m);
    std::memcpy(c.k, k_, sizeof c.k);
    for (int n = 0; n < 9; ++n)
        c.t[n] = tilt_.val[n];
    c.fx = fx_;
    c.fy = fy_;
    c.cx = cx_;
    c.cy = cy_;
    c.affine = affine_;
    c.distorted = distorted_;
    c.rational = rational_;
    c.prism = prism_;
    c.tilted = tilted_;
    if (avx512_)
        return projectRowAvx512(c, output_, raw, j, count, stride, target, value, top, bottom,
                                inside);
    const __m128i zero = _mm_setzero_si128(), minusOne = _mm_set1_epi32(-1);
    const __m128i width = _mm_set1_epi32(output_.width), height = _mm_set1_epi32(output_.height);
    const __m128i rowStride = _mm_set1_epi32(int(stride)), nowhere = _mm_set1_epi32(kNowhere);
    const __m128i highest = _mm_set1_epi32(INT32_MAX), lowest = _mm_set1_epi32(INT32_MIN);
    int i = 0;
    for (int b = 0; i + 8 <= count; i += 8, ++b) {
        __m128i low = highest, high = lowest, values[2];
        int interior = 0;
        for (int half = 0; half < 2; ++half) {
            const int at = i + 4 * half;
            const Lanes4 l = land4(c, raw + at, at, j);
            // One bounds check for the lanes: inside the image, and inside with its dilation.
            const __m128i corner = _mm_min_epi32(l.x, l.y);
            const __m128i within = _mm_and_si128(
                _mm_and_si128(l.valid, _mm_cmpgt_epi32(width, l.x)),
                _mm_and_si128(_mm_cmpgt_epi32(height, l.y), _mm_cmpgt_epi32(corner, minusOne)));
            const __m128i roomy = _mm_and_si128(within, _mm_cmpgt_epi32(corner, zero));
            interior |= _mm_movemask_ps(_mm_castsi128_ps(roomy)) << (4 * half);
            const __m128i index = _mm_add_epi32(_mm_mullo_epi32(l.y, rowStride), l.x);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(target + at),
                             _mm_blendv_epi8(nowhere, index, within));
            low = _mm_min_epi32(low, _mm_blendv_epi8(highest, l.y, within));
            high = _mm_max_epi32(high, _mm_blendv_epi8(lowest, l.y, within));
            // Low 16 bits of each lane, sign-extended so that the signed pack keeps them.
            values[half] = _mm_srai_epi32(_mm_slli_epi32(l.value, 16), 16);
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(value + i),
                         _mm_packs_epi32(values[0], values[1]));
        low = _mm_min_epi32(low, _mm_shuffle_epi32(low, 0x4E));
        high = _mm_max_epi32(high, _mm_shuffle_epi32(high, 0x4E));
        top[b] = _mm_cvtsi128_si32(_mm_min_epi32(low, _mm_shuffle_epi32(low, 0xB1)));
        bottom[b] = _mm_cvtsi128_si32(_mm_max_epi32(high, _mm_shuffle_epi32(high, 0xB1)));
        inside[b] = interior == 0xFF;
    }
    return i;
}

// Eight pixels of rows y - 1 and y keep the nearest of their depth and v (not 0): the two
// pairs at at - stride - 1 and at - 1 at once.
TALVORO_AVX2 inline void keepFootprint(uint16_t* at, ptrdiff_t stride, __m128i nearer) {
    uint16_t* upper = at - stride - 1;
    uint16_t* lower = at - 1;
    int32_t a, b;
    std::memcpy(&a, upper, 4);
    std::memcpy(&b, lower, 4);
    const __m128i one = _mm_set1_epi16(1);
    __m128i pairs = _mm_insert_epi32(_mm_cvtsi32_si128(a), b, 1);
    pairs = _mm_add_epi16(_mm_min_epu16(_mm_sub_epi16(pairs, one), nearer), one);
    a = _mm_cvtsi128_si32(pairs);
    b = _mm_extract_epi32(pairs, 1);
    std::memcpy(upper, &a, 4);
    std::memcpy(lower, &b, 4);
}

// Lanes d and d + 1 of sixteen clear, the others all ones: a footprint's two columns.
alignas(32) const uint16_t kFootprintLanes[48] = {
    0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF,
    0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0,      0,      0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF,
    0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF,
    0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF};

// Eight landings of one row, none of them 0, within fourteen columns of each other and fifteen
// of the image's right edge: their footprints are merged in registers and each of the two rows
// is read and written once. The nearest depth wins whatever the order, so this is the same as
// eight landings one after another, which would each read what the one before just wrote
// (across a store the processor cannot forward when the footprints overlap). False when the
// landings do not qualify.
TALVORO_AVX2 bool placeRunAvx2(uint16_t* out, ptrdiff_t stride, int width, const int32_t* target,
                               const uint16_t* value) {
    int32_t lowest = target[0], highest = target[0];
    for (int n = 1; n < 8; ++n) {
        lowest = std::min(lowest, target[n]);
        highest = std::max(highest, target[n]);
    }
    if (highest - lowest > 14) return false;
    const ptrdiff_t row = lowest / stride, column = lowest - row * stride;
    if (highest / stride != row || column + 14 >= width) return false;
    __m128i values = _mm_loadu_si128(reinterpret_cast<const __m128i*>(value));
    if (_mm_movemask_epi8(_mm_cmpeq_epi16(values, _mm_setzero_si128())) != 0) return false;
    __m256i nearer = _mm256_set1_epi16(-1);
    for (int n = 0; n < 8; ++n) {
        const int d = int(target[n] - lowest);
        const __m256i lanes =
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(kFootprintLanes + 16 - d));
        nearer = _mm256_min_epu16(nearer,
                                  _mm256_or_si256(lanes, _mm256_set1_epi16(short(value[n] - 1))));
    }
    const __m256i one = _mm256_set1_epi16(1);
    for (uint16_t* at : {out + lowest - 1, out + lowest - stride - 1}) {
        __m256i kept = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
        kept = _mm256_add_epi16(_mm256_min_epu16(_mm256_sub_epi16(kept, one), nearer), one);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(at), kept);
    }
    return true;
}

TALVORO_AVX2 void DepthRegistration::placeInsideAvx2(uint16_t* out, ptrdiff_t stride, int width,
                                                     const int32_t* target, const uint16_t* value,
                                                     int count) {
    if (count == 8 && placeRunAvx2(out, stride, width, target, value)) return;
    for (int n = 0; n < count; ++n) {
        uint16_t* at = out + target[n];
        const uint16_t v = value[n];
        if (v == 0) {
            std::memset(at - stride - 1, 0, 4);
            std::memset(at - 1, 0, 4);
        } else {
            keepFootprint(at, stride, _mm_set1_epi16(short(v - 1)));
        }
    }
}

#undef TALVORO_AVX2

#endif

namespace {

// The nearest depth wins, an empty (0) pixel takes any, and a landing of 0 clears: out - 1
// wraps 0 to 65535.
inline void keep(uint16_t& out, uint16_t value) {
    if (value == 0) {
        out = 0;
    } else {
        const uint16_t kept = uint16_t(out - 1), given = uint16_t(value - 1);
        out = uint16_t((kept < given ? kept : given) + 1);
    }
}

}  // namespace

void DepthRegistration::project(const cv::Mat& depth, size_t stride, int rowBegin, int rowEnd,
                                bool vector) {
    for (int j = rowBegin; j < rowEnd; ++j) {
        const uint16_t* row = depth.ptr<uint16_t>(j);
        const size_t first = size_t(j) * depth.cols, blocks = size_t(j) * blocksPerRow_;
        int i = 0;
#if TALVORO_X86_64
        if (vector)
            i = projectRowAvx2(row, j, depth.cols, stride, &target_[first], &value_[first],
                               &blockTop_[blocks], &blockBottom_[blocks], &blockInside_[blocks]);
#else
        (void)vector;
#endif
        for (; i < depth.cols; i += 8) {
            int32_t top = INT32_MAX, bottom = INT32_MIN;
            bool inside = i + 8 <= depth.cols;
            for (int n = i; n < std::min(i + 8, depth.cols); ++n) {
                const Landing l = land(row[n], n, j);
                const bool within =
                    l.valid && l.x >= 0 && l.y >= 0 && l.x < output_.width && l.y < output_.height;
                target_[first + n] = within ? int32_t(l.y * stride + l.x) : kNowhere;
                value_[first + n] = l.value;
                inside = inside && within && l.x > 0 && l.y > 0;
                if (within) {
                    top = std::min(top, l.y);
                    bottom = std::max(bottom, l.y);
                }
            }
            blockTop_[blocks + i / 8] = top;
            blockBottom_[blocks + i / 8] = bottom;
            blockInside_[blocks + i / 8] = inside;
        }
    }
}

void DepthRegistration::place(const cv::Mat& depth, cv::Mat& registered, int rowBegin, int rowEnd,
                              bool vector) const {
    for (int r = rowBegin; r < rowEnd; ++r)
        std::memset(registered.ptr(r), 0, registered.cols * sizeof(uint16_t));
    uint16_t* out = registered.ptr<uint16_t>();
    const size_t stride = registered.step1();
    // A landing at row y writes rows y - 1 and y.
    for (int j = 0; j < depth.rows; ++j) {
        const size_t first = size_t(j) * depth.cols;
        for (int b = 0; b < blocksPerRow_; ++b) {
            const size_t block = size_t(j) * blocksPerRow_ + b;
            const int top = blockTop_[block], bottom = blockBottom_[block];
            if (bottom < rowBegin || top > rowEnd) continue;  // nothing lands here
            const int i = 8 * b, end = std::min(i + 8, depth.cols);
            if (blockInside_[block] && top > rowBegin && bottom < rowEnd) {
#if TALVORO_X86_64
                if (vector) {
                    placeInsideAvx2(out, ptrdiff_t(stride), registered.cols, &target_[first + i],
                                    &value_[first + i], end - i);
                    continue;
                }
#endif
                for (int n = i; n < end; ++n) {
                    uint16_t* at = out + target_[first + n];
                    const uint16_t v = value_[first + n];
                    keep(at[0], v);
                    keep(at[-1], v);
                    keep(at[-ptrdiff_t(stride)], v);
                    keep(at[-ptrdiff_t(stride) - 1], v);
                }
                continue;
            }
            for (int n = i; n < end; ++n) {
                const int32_t t = target_[first + n];
                if (t == kNowhere) continue;
                const int y = int(size_t(t) / stride), x = int(size_t(t) - size_t(y) * stride);
                const uint16_t v = value_[first + n];
                uint16_t* at = out + t;
                if (y >= rowBegin && y < rowEnd) {
                    keep(at[0], v);
                    if (x > 0) keep(at[-1], v);
                }
                if (y > 0 && y - 1 >= rowBegin && y - 1 < rowEnd) {
                    keep(at[-ptrdiff_t(stride)], v);
                    if (x > 0) keep(at[-ptrdiff_t(stride) - 1], v);
                }
            }
        }
    }
}

bool DepthRegistration::apply(const cv::Mat& depth, cv::Mat& registered, WorkerPool& pool) {
    if (!valid_ || depth.type() != CV_16UC1 || registered.type() != CV_16UC1 ||
        registered.size() != output_ || depth.data == registered.data || depth.empty())
        return false;
    const size_t stride = registered.step1();
    if (size_t(output_.height) * stride > size_t(INT32_MAX)) return false;
    const size_t pixels = depth.total();
    blocksPerRow_ = (depth.cols + 7) / 8;
    const size_t blocks = size_t(blocksPerRow_) * depth.rows;
    if (target_.size() < pixels) {
        target_.resize(pixels);
        value_.resize(pixels);
    }
    if (blockTop_.size() < blocks) {
        blockTop_.resize(blocks);
        blockBottom_.resize(blocks);
        blockInside_.resize(blocks);
    }
    const bool vector = TALVORO_X86_64 && isa() >= Isa::Avx2;
    avx512_ = vector && isa() >= Isa::Avx512;
    pool.forEach(size_t(depth.rows), pool.pieces(), [&](size_t begin, size_t end, unsigned) {
        project(depth, stride, int(begin), int(end), vector);
    });
    // Bands of the colour image, each taking the landings in the depth image's order.
    pool.forEach(size_t(registered.rows), pool.threads(), [&](size_t begin, size_t end, unsigned) {
        place(depth, registered, int(begin), int(end), vector);
    });
    return true;
}

}  // namespace Talvoro::frame
