#include "frame/Planarization.h"

#include <cmath>

#include "frame/Cpu.h"

#if TALVORO_X86_64
#include <immintrin.h>
#endif

namespace Talvoro::frame {

ThetaScratch fillThetaTable(cv::Mat& table, double cx, double cy, const LensModel& m) {
    ThetaScratch s{0, 0, 0, 0};
    for (int r = 0; r < table.rows; ++r) {
        double* row = table.ptr<double>(r);
        for (int c = 0; c < table.cols; ++c) {
            s.sensorX = (c - cx) * m.pitch / 100000.0;
            s.sensorY = (r - cy) * m.pitch / 100000.0;
            s.rho = std::sqrt(s.sensorX * s.sensorX + s.sensorY * s.sensorY);
            s.theta = m.k0 * s.rho * s.rho * s.rho + m.k1 * s.rho * s.rho + m.k2 * s.rho + m.k3;
            row[c] = std::cos(s.theta);
        }
    }
    return s;
}

namespace {

// The truncating conversion of cvttsd2si: out of range and NaN give INT32_MIN.
inline int32_t truncate32(double v) {
    return v > -2147483649.0 && v < 2147483648.0 ? int32_t(v) : INT32_MIN;
}

void planarizeRange(uint16_t* depth, const double* cosines, size_t begin, size_t end) {
    for (size_t i = begin; i < end; ++i)
        depth[i] = uint16_t(truncate32(depth[i] * cosines[i]));
}

#if TALVORO_X86_64

size_t planarizeSse2(uint16_t* depth, const double* cosines, size_t n) {
    const __m128i zero = _mm_setzero_si128();
    auto product = [](__m128i ints, const double* c) {
        return _mm_cvttpd_epi32(_mm_mul_pd(_mm_cvtepi32_pd(ints), _mm_loadu_pd(c)));
    };
    // Low 16 bits of each 32-bit lane, packed: sign-extend them first so packs cannot saturate.
    auto low16 = [](__m128i v) { return _mm_srai_epi32(_mm_slli_epi32(v, 16), 16); };
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(depth + i));
        const __m128i lo = _mm_unpacklo_epi16(v, zero);
        const __m128i hi = _mm_unpackhi_epi16(v, zero);
        const __m128i p0 = product(lo, cosines + i);
        const __m128i p1 = product(_mm_srli_si128(lo, 8), cosines + i + 2);
        const __m128i p2 = product(hi, cosines + i + 4);
        const __m128i p3 = product(_mm_srli_si128(hi, 8), cosines + i + 6);
        const __m128i first = low16(_mm_unpacklo_epi64(p0, p1));
        const __m128i second = low16(_mm_unpacklo_epi64(p2, p3));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(depth + i), _mm_packs_epi32(first, second));
    }
    return i;
}

#endif

}  // namespace

void planarizeScalar(uint16_t* depth, const double* cosines, size_t n) {
    planarizeRange(depth, cosines, 0, n);
}

void planarize(uint16_t* depth, const double* cosines, size_t n) {
    size_t done = 0;
#if TALVORO_X86_64
    if (isa() >= Isa::Sse2) done = planarizeSse2(depth, cosines, n);
#endif
    planarizeRange(depth, cosines, done, n);
}

}  // namespace Talvoro::frame
