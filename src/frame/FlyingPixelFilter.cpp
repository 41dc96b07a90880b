#include "frame/FlyingPixelFilter.h"

#include <cstdlib>

#include "frame/Cpu.h"

#if TALVORO_X86_64
#include <immintrin.h>
#endif

namespace Talvoro::frame {

FlyingPixelLimit flyingPixelLimit(int depthLow, int depthHigh, int thresholdLow,
                                  int thresholdHigh) {
    const int64_t span = thresholdHigh == thresholdLow ? 1 : int64_t(thresholdHigh) - thresholdLow;
    const int64_t slope = (int64_t(depthHigh) - depthLow) / span;
    const bool usable = slope != 0 && slope >= INT32_MIN && slope <= INT32_MAX;
    return {depthLow, usable ? int(slope) : 1, thresholdLow};
}

namespace {

inline uint16_t testPixel(const uint16_t* p, ptrdiff_t stride, const FlyingPixelLimit& l) {
    const int32_t v = p[0];
    const uint16_t* up = p - stride;
    const uint16_t* down = p + stride;
    const int32_t sum = std::abs(v - up[-1]) + std::abs(v - up[0]) + std::abs(v - up[1]) +
                        std::abs(v - p[-1]) + std::abs(v - p[1]) + std::abs(v - down[-1]) +
                        std::abs(v - down[0]) + std::abs(v - down[1]);
    // 64-bit so that no parameter set can overflow; the design's values fit 32 bits.
    const int64_t limit = (int64_t(v) - l.depthLow) / l.slope + l.thresholdLow;
    return limit < (sum >> 3) ? 0 : uint16_t(v);
}

void rowsScalar(const uint16_t* src, ptrdiff_t srcStride, uint16_t* dst, ptrdiff_t dstStride,
                int rowBegin, int rowEnd, int colBegin, int colEnd, const FlyingPixelLimit& l) {
    for (int r = rowBegin; r < rowEnd; ++r) {
        const uint16_t* s = src + r * srcStride;
        uint16_t* d = dst + r * dstStride;
        for (int c = colBegin; c < colEnd; ++c)
            d[c] = testPixel(s + c, srcStride, l);
    }
}

#if TALVORO_X86_64

// The float quotient truncates to the integer one while |p - depthLow| < 2^24 and the slope is
// exact in float: the rounding error stays below the distance to the next integer.
bool vectorSafe(const FlyingPixelLimit& l) {
    constexpr int kExact = 1 << 24;
    return l.depthLow > -kExact + 65536 && l.depthLow < kExact && l.slope > -kExact &&
           l.slope < kExact && l.thresholdLow > -(1 << 30) && l.thresholdLow < (1 << 30);
}

inline __m128i absDiff16(__m128i a, __m128i b) {
    return _mm_or_si128(_mm_subs_epu16(a, b), _mm_subs_epu16(b, a));
}

// Eight pixels starting at p; returns the pixels with the removed ones zeroed.
inline __m128i test8(const uint16_t* p, ptrdiff_t stride, __m128i depthLow, __m128 slope,
                     __m128i thresholdLow) {
    const __m128i zero = _mm_setzero_si128();
    auto load = [](const uint16_t* q) {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(q));
    };
    const __m128i v = load(p);
    const uint16_t* neighbours[8] = {p - stride - 1, p - stride, p - stride + 1, p - 1, p + 1,
                                     p + stride - 1, p + stride, p + stride + 1};
    __m128i sumLo = zero, sumHi = zero;
    for (const uint16_t* q : neighbours) {
        const __m128i d = absDiff16(v, load(q));
        sumLo = _mm_add_epi32(sumLo, _mm_unpacklo_epi16(d, zero));
        sumHi = _mm_add_epi32(sumHi, _mm_unpackhi_epi16(d, zero));
    }
    auto removed = [&](__m128i value, __m128i sum) {
        const __m128 offset = _mm_cvtepi32_ps(_mm_sub_epi32(value, depthLow));
        const __m128i limit =
            _mm_add_epi32(_mm_cvttps_epi32(_mm_div_ps(offset, slope)), thresholdLow);
        return _mm_cmplt_epi32(limit, _mm_srli_epi32(sum, 3));
    };
    const __m128i mask = _mm_packs_epi32(removed(_mm_unpacklo_epi16(v, zero), sumLo),
                                         removed(_mm_unpackhi_epi16(v, zero), sumHi));
    return _mm_andnot_si128(mask, v);
}

void rowsSse2(const uint16_t* src, ptrdiff_t srcStride, uint16_t* dst, ptrdiff_t dstStride,
              int rowBegin, int rowEnd, int colBegin, int colEnd, const FlyingPixelLimit& l) {
    const __m128i depthLow = _mm_set1_epi32(l.depthLow);
    const __m128 slope = _mm_set1_ps(float(l.slope));
    const __m128i thresholdLow = _mm_set1_epi32(l.thresholdLow);
    for (int r = rowBegin; r < rowEnd; ++r) {
        const uint16_t* s = src + r * srcStride;
        uint16_t* d = dst + r * dstStride;
        int c = colBegin;
        for (; c + 8 <= colEnd; c += 8) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + c),
                             test8(s + c, srcStride, depthLow, slope, thresholdLow));
        }
        for (; c < colEnd; ++c)
            d[c] = testPixel(s + c, srcStride, l);
    }
}

// The test without division, for a positive slope b: with a = p - depthLow and
// t = (sum >> 3) - thresholdLow, trunc(a / b) < t holds exactly when a < t b for a >= 0 and when
// a <= (t - 1) b for a < 0. A negative slope is made positive by negating a and b. In 32 bits as
// long as |a| < 2^17, |t| < 2^17 and b <= 2^13.
bool integerSafe(const FlyingPixelLimit& l) {
    return l.depthLow > -65536 && l.depthLow < 65536 && l.slope >= -8192 && l.slope <= 8192 &&
           l.thresholdLow > -65536 && l.thresholdLow < 65536;
}

#define TALVORO_AVX2 __attribute__((target("avx2")))

TALVORO_AVX2 inline __m256i load16(const uint16_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

TALVORO_AVX2 inline __m256i absDiff16x16(__m256i a, __m256i b) {
    return _mm256_or_si256(_mm256_subs_epu16(a, b), _mm256_subs_epu16(b, a));
}

// The integer test on eight 32-bit lanes: all ones where the pixel is removed.
struct IntegerTest {
    int sign;  // of the slope
    __m256i depthLow, thresholdLow, slope, slopeMinusOne;
};

TALVORO_AVX2 inline __m256i removed8(const IntegerTest& k, __m256i value, __m256i mean) {
    __m256i a = _mm256_sub_epi32(value, k.depthLow);
    if (k.sign < 0) a = _mm256_sub_epi32(_mm256_setzero_si256(), a);
    const __m256i t = _mm256_sub_epi32(mean, k.thresholdLow);
    const __m256i bound =
        _mm256_sub_epi32(_mm256_mullo_epi32(t, k.slope),
                         _mm256_and_si256(_mm256_srai_epi32(a, 31), k.slopeMinusOne));
    return _mm256_cmpgt_epi32(bound, a);
}

// Sixteen pixels starting at p; returns the pixels with the removed ones zeroed.
TALVORO_AVX2 inline __m256i test16(const uint16_t* p, ptrdiff_t stride, const IntegerTest& k) {
    const __m256i zero = _mm256_setzero_si256(), seven = _mm256_set1_epi16(7);
    const __m256i v = load16(p);
    const uint16_t* neighbours[8] = {p - stride - 1, p - stride, p - stride + 1, p - 1, p + 1,
                                     p + stride - 1, p + stride, p + stride + 1};
    // sum >> 3 in 16 bits: the eighths of the differences, plus the eighth of their remainders.
    __m256i eighths = zero, rest = zero;
    for (const uint16_t* q : neighbours) {
        const __m256i diff = absDiff16x16(v, load16(q));
        eighths = _mm256_add_epi16(eighths, _mm256_srli_epi16(diff, 3));
        rest = _mm256_add_epi16(rest, _mm256_and_si256(diff, seven));
    }
    const __m256i mean = _mm256_add_epi16(eighths, _mm256_srli_epi16(rest, 3));
    // Unpacking within 128-bit lanes and packing back keeps the order.
    const __m256i mask = _mm256_packs_epi32(
        removed8(k, _mm256_unpacklo_epi16(v, zero), _mm256_unpacklo_epi16(mean, zero)),
        removed8(k, _mm256_unpackhi_epi16(v, zero), _mm256_unpackhi_epi16(mean, zero)));
    return _mm256_andnot_si256(mask, v);
}

TALVORO_AVX2 void rowsAvx2(const uint16_t* src, ptrdiff_t srcStride, uint16_t* dst,
                           ptrdiff_t dstStride, int rowBegin, int rowEnd, int colBegin, int colEnd,
                           const FlyingPixelLimit& l) {
    const int sign = l.slope < 0 ? -1 : 1;
    const IntegerTest k{sign, _mm256_set1_epi32(l.depthLow), _mm256_set1_epi32(l.thresholdLow),
                        _mm256_set1_epi32(sign * l.slope), _mm256_set1_epi32(sign * l.slope - 1)};
    for (int r = rowBegin; r < rowEnd; ++r) {
        const uint16_t* s = src + r * srcStride;
        uint16_t* d = dst + r * dstStride;
        int c = colBegin;
        for (; c + 16 <= colEnd; c += 16)
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + c), test16(s + c, srcStride, k));
        for (; c < colEnd; ++c)
            d[c] = testPixel(s + c, srcStride, l);
    }
}

#undef TALVORO_AVX2

#endif

}  // namespace

void flyingPixelRowsScalar(const uint16_t* src, ptrdiff_t srcStride, uint16_t* dst,
                           ptrdiff_t dstStride, int rowBegin, int rowEnd, int colBegin, int colEnd,
                           const FlyingPixelLimit& limit) {
    rowsScalar(src, srcStride, dst, dstStride, rowBegin, rowEnd, colBegin, colEnd, limit);
}

void flyingPixelRows(const uint16_t* src, ptrdiff_t srcStride, uint16_t* dst, ptrdiff_t dstStride,
                     int rowBegin, int rowEnd, int colBegin, int colEnd,
                     const FlyingPixelLimit& limit) {
#if TALVORO_X86_64
    if (isa() >= Isa::Avx2 && integerSafe(limit))
        return rowsAvx2(src, srcStride, dst, dstStride, rowBegin, rowEnd, colBegin, colEnd, limit);
    if (isa() >= Isa::Sse2 && vectorSafe(limit))
        return rowsSse2(src, srcStride, dst, dstStride, rowBegin, rowEnd, colBegin, colEnd, limit);
#endif
    rowsScalar(src, srcStride, dst, dstStride, rowBegin, rowEnd, colBegin, colEnd, limit);
}

}  // namespace Talvoro::frame
