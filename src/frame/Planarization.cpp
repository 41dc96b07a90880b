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

// Truncations of the float product p of eight depths and float cosines, widened down and up by
// 2^-22. p lies within |p| 2^-23 of the exact product (both roundings to float included), and
// rounding the widened values costs at most 2^-24 more, so the two ends bracket the exact and
// the double product. Where they truncate alike, so does the double product. NaN, infinite and
// huge products truncate to INT32_MIN at both ends, as they do in double.
__attribute__((target("avx2"))) inline void bracket(__m128i values, const float* c, __m256i* low,
                                                    __m256i* high) {
    const __m256 below = _mm256_set1_ps(1.0f - 1.0f / 4194304);
    const __m256 above = _mm256_set1_ps(1.0f + 1.0f / 4194304);
    const __m256 p =
        _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_cvtepu16_epi32(values)), _mm256_loadu_ps(c));
    *low = _mm256_cvttps_epi32(_mm256_mul_ps(p, below));
    *high = _mm256_cvttps_epi32(_mm256_mul_ps(p, above));
}

// Reads the float cosines (half the memory of the doubles) and reads a double only for the few
// pixels whose bracket straddles an integer.
__attribute__((target("avx2"))) size_t planarizeAvx2(uint16_t* depth, const double* cosines,
                                                     const float* nearCosines, size_t n) {
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m256i raw = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(depth + i));
        __m256i low0, high0, low1, high1;
        bracket(_mm256_castsi256_si128(raw), nearCosines + i, &low0, &high0);
        bracket(_mm256_extracti128_si256(raw, 1), nearCosines + i + 8, &low1, &high1);
        // Low 16 bits of each lane, in order: sign-extended so that packs cannot saturate.
        const __m256i first = _mm256_srai_epi32(_mm256_slli_epi32(low0, 16), 16);
        const __m256i second = _mm256_srai_epi32(_mm256_slli_epi32(low1, 16), 16);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(depth + i),
                            _mm256_permute4x64_epi64(_mm256_packs_epi32(first, second), 0xD8));
        const int sure0 = _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpeq_epi32(low0, high0)));
        const int sure1 = _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpeq_epi32(low1, high1)));
        if (int unsure = ~(sure0 | sure1 << 8) & 0xFFFF) {
            alignas(32) uint16_t original[16];
            _mm256_store_si256(reinterpret_cast<__m256i*>(original), raw);
            for (int k = 0; k < 16; ++k, unsure >>= 1)
                if (unsure & 1) depth[i + k] = uint16_t(truncate32(original[k] * cosines[i + k]));
        }
    }
    return i;
}

// The same with sixteen lanes, whose narrowing store keeps the low 16 bits directly.
__attribute__((target("avx512f,avx512bw,avx512vl"))) size_t planarizeAvx512(
    uint16_t* depth, const double* cosines, const float* nearCosines, size_t n) {
    const __m512 below = _mm512_set1_ps(1.0f - 1.0f / 4194304);
    const __m512 above = _mm512_set1_ps(1.0f + 1.0f / 4194304);
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m256i raw = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(depth + i));
        const __m512 p = _mm512_mul_ps(_mm512_cvtepi32_ps(_mm512_cvtepu16_epi32(raw)),
                                       _mm512_loadu_ps(nearCosines + i));
        const __m512i low = _mm512_cvttps_epi32(_mm512_mul_ps(p, below));
        const __m512i high = _mm512_cvttps_epi32(_mm512_mul_ps(p, above));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(depth + i), _mm512_cvtepi32_epi16(low));
        if (unsigned unsure = _mm512_cmpneq_epi32_mask(low, high)) {
            alignas(32) uint16_t original[16];
            _mm256_store_si256(reinterpret_cast<__m256i*>(original), raw);
            for (int k = 0; k < 16; ++k, unsure >>= 1)
                if (unsure & 1) depth[i + k] = uint16_t(truncate32(original[k] * cosines[i + k]));
        }
    }
    return i;
}

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

void planarize(uint16_t* depth, const double* cosines, const float* nearCosines, size_t n) {
    size_t done = 0;
#if TALVORO_X86_64
    if (isa() >= Isa::Avx512 && nearCosines)
        done = planarizeAvx512(depth, cosines, nearCosines, n);
    else if (isa() >= Isa::Avx2 && nearCosines)
        done = planarizeAvx2(depth, cosines, nearCosines, n);
    else if (isa() >= Isa::Sse2)
        done = planarizeSse2(depth, cosines, n);
#endif
    planarizeRange(depth, cosines, done, n);
}

}  // namespace Talvoro::frame
