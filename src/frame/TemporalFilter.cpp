#include "frame/TemporalFilter.h"

#include "frame/Cpu.h"

#if TALVORO_X86_64
#include <immintrin.h>
#endif

namespace Talvoro::frame {

namespace {

void averageRange(uint16_t* depth, const uint16_t* const* history, size_t historyCount,
                  uint16_t threshold, size_t begin, size_t end) {
    for (size_t i = begin; i < end; ++i) {
        const int32_t current = depth[i];
        uint32_t sum = uint32_t(current);
        uint32_t count = 1;
        for (size_t k = 0; k < historyCount; ++k) {
            const int32_t past = history[k][i];
            const int32_t diff = current > past ? current - past : past - current;
            if (uint16_t(diff) <= threshold) {
                sum += uint32_t(past);
                ++count;
            }
        }
        depth[i] = uint16_t(uint16_t(sum) / count);
    }
}

#if TALVORO_X86_64

// Quotients of 16-bit sums by counts of at most 256: a float division never rounds across an
// integer here (its error is below 2^-8 / count), so truncating it is the integer division.
inline __m128i divide16(__m128i sum, __m128i count) {
    const __m128i zero = _mm_setzero_si128();
    auto quotient = [](__m128i s, __m128i c) {
        return _mm_cvttps_epi32(_mm_div_ps(_mm_cvtepi32_ps(s), _mm_cvtepi32_ps(c)));
    };
    const __m128i low = quotient(_mm_unpacklo_epi16(sum, zero), _mm_unpacklo_epi16(count, zero));
    const __m128i high = quotient(_mm_unpackhi_epi16(sum, zero), _mm_unpackhi_epi16(count, zero));
    // Unsigned 16-bit pack with SSE2's signed one: bias by 32768 and back.
    const __m128i bias = _mm_set1_epi32(32768);
    return _mm_xor_si128(_mm_packs_epi32(_mm_sub_epi32(low, bias), _mm_sub_epi32(high, bias)),
                         _mm_set1_epi16(short(0x8000)));
}

size_t averageSse2(uint16_t* depth, const uint16_t* const* history, size_t historyCount,
                   uint16_t threshold, size_t n) {
    const __m128i limit = _mm_set1_epi16(short(threshold));
    const __m128i zero = _mm_setzero_si128();
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i current = _mm_loadu_si128(reinterpret_cast<const __m128i*>(depth + i));
        __m128i sum = current;  // 16-bit lanes wrap like the design's sum
        __m128i count = _mm_set1_epi16(1);
        for (size_t k = 0; k < historyCount; ++k) {
            const __m128i past = _mm_loadu_si128(reinterpret_cast<const __m128i*>(history[k] + i));
            const __m128i diff =
                _mm_or_si128(_mm_subs_epu16(current, past), _mm_subs_epu16(past, current));
            const __m128i within = _mm_cmpeq_epi16(_mm_subs_epu16(diff, limit), zero);
            sum = _mm_add_epi16(sum, _mm_and_si128(past, within));
            count = _mm_sub_epi16(count, within);
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(depth + i), divide16(sum, count));
    }
    return i;
}

#endif

}  // namespace

void temporalAverageScalar(uint16_t* depth, const uint16_t* const* history, size_t historyCount,
                           uint16_t threshold, size_t n) {
    averageRange(depth, history, historyCount, threshold, 0, n);
}

void temporalAverage(uint16_t* depth, const uint16_t* const* history, size_t historyCount,
                     uint16_t threshold, size_t n) {
    size_t done = 0;
#if TALVORO_X86_64
    // The 16-bit counters hold at most 256.
    if (isa() >= Isa::Sse2 && historyCount <= 255)
        done = averageSse2(depth, history, historyCount, threshold, n);
#endif
    averageRange(depth, history, historyCount, threshold, done, n);
}

}  // namespace Talvoro::frame
