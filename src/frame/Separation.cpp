#include "frame/Separation.h"

#include <cstring>

#include "frame/Cpu.h"

#if TALVORO_X86_64
#include <immintrin.h>
#endif

namespace Talvoro::frame {

void unpack12Scalar(const uint8_t* src, uint16_t* dst, size_t pixels) {
    for (size_t i = 0; i + 1 < pixels; i += 2, src += 3) {
        dst[i] = uint16_t(src[0] << 4 | src[2] >> 4);
        dst[i + 1] = uint16_t(src[1] << 4 | (src[2] & 0x0F));
    }
}

void applyGainScalar(const uint16_t* raw, uint16_t* gained, size_t n, uint16_t gain) {
    for (size_t i = 0; i < n; ++i) {
        const uint32_t v = uint32_t(raw[i]) * gain;
        gained[i] = v > 65535 ? 65535 : uint16_t(v);
    }
}

#if TALVORO_X86_64

namespace {

// min(v * g, 65535) per 16-bit lane: the high half of the product is non-zero on overflow.
inline __m128i gain8(__m128i v, __m128i g) {
    const __m128i low = _mm_mullo_epi16(v, g);
    const __m128i fits = _mm_cmpeq_epi16(_mm_mulhi_epu16(v, g), _mm_setzero_si128());
    return _mm_or_si128(low, _mm_andnot_si128(fits, _mm_set1_epi16(-1)));
}

__attribute__((target("avx2"))) inline __m256i gain16(__m256i v, __m256i g) {
    const __m256i low = _mm256_mullo_epi16(v, g);
    const __m256i fits = _mm256_cmpeq_epi16(_mm256_mulhi_epu16(v, g), _mm256_setzero_si256());
    return _mm256_or_si256(low, _mm256_andnot_si256(fits, _mm256_set1_epi16(-1)));
}

// Shuffles that put each value's high byte (H) and nibble byte (L) into a 16-bit lane, for
// four triples at bytes 0-11 (A) or 4-15 (B) of a 16-byte lane.
#define TALVORO_H_A 0, -1, 1, -1, 3, -1, 4, -1, 6, -1, 7, -1, 9, -1, 10, -1
#define TALVORO_L_A 2, -1, 2, -1, 5, -1, 5, -1, 8, -1, 8, -1, 11, -1, 11, -1
#define TALVORO_H_B 4, -1, 5, -1, 7, -1, 8, -1, 10, -1, 11, -1, 13, -1, 14, -1
#define TALVORO_L_B 6, -1, 6, -1, 9, -1, 9, -1, 12, -1, 12, -1, 15, -1, 15, -1

// Eight pixels from the four byte triples that the shuffles pick out of `bytes`.
__attribute__((target("ssse3"))) inline __m128i assemble(__m128i bytes, __m128i highIdx,
                                                         __m128i lowIdx) {
    const __m128i high = _mm_slli_epi16(_mm_shuffle_epi8(bytes, highIdx), 4);
    const __m128i low = _mm_shuffle_epi8(bytes, lowIdx);
    const __m128i evenLanes = _mm_set1_epi32(0x0000000F);
    const __m128i oddLanes = _mm_set1_epi32(0x000F0000);
    return _mm_or_si128(high, _mm_or_si128(_mm_and_si128(_mm_srli_epi16(low, 4), evenLanes),
                                           _mm_and_si128(low, oddLanes)));
}

__attribute__((target("avx2"))) inline __m256i assemble(__m256i bytes, __m256i highIdx,
                                                        __m256i lowIdx) {
    const __m256i high = _mm256_slli_epi16(_mm256_shuffle_epi8(bytes, highIdx), 4);
    const __m256i low = _mm256_shuffle_epi8(bytes, lowIdx);
    const __m256i evenLanes = _mm256_set1_epi32(0x0000000F);
    const __m256i oddLanes = _mm256_set1_epi32(0x000F0000);
    return _mm256_or_si256(high,
                           _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi16(low, 4), evenLanes),
                                           _mm256_and_si256(low, oddLanes)));
}

// Every load stays inside the bytes of the pixels it decodes, so the last pixels of a buffer
// are never read past. gained may be null.
__attribute__((target("ssse3"))) size_t unpackSsse3(const uint8_t* src, uint16_t* raw,
                                                    uint16_t* gained, size_t pixels,
                                                    uint16_t gain) {
    const __m128i highA = _mm_setr_epi8(TALVORO_H_A), lowA = _mm_setr_epi8(TALVORO_L_A);
    const __m128i highB = _mm_setr_epi8(TALVORO_H_B), lowB = _mm_setr_epi8(TALVORO_L_B);
    const __m128i g = _mm_set1_epi16(short(gain));
    size_t i = 0;
    for (; i + 16 <= pixels; i += 16, src += 24) {
        const __m128i first =
            assemble(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src)), highA, lowA);
        const __m128i second =
            assemble(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 8)), highB, lowB);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(raw + i), first);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(raw + i + 8), second);
        if (gained) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(gained + i), gain8(first, g));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(gained + i + 8), gain8(second, g));
        }
    }
    return i;
}

// Two unaligned 16-byte loads as the low and high lane.
__attribute__((target("avx2"))) inline __m256i load2(const uint8_t* lo, const uint8_t* hi) {
    return _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(lo))),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(hi)), 1);
}

__attribute__((target("avx2"))) size_t unpackAvx2(const uint8_t* src, uint16_t* raw,
                                                  uint16_t* gained, size_t pixels, uint16_t gain) {
    // 32 pixels from 48 bytes: lanes hold bytes 0-15 and 12-27, then 24-39 and 32-47.
    const __m256i high1 = _mm256_setr_epi8(TALVORO_H_A, TALVORO_H_A);
    const __m256i low1 = _mm256_setr_epi8(TALVORO_L_A, TALVORO_L_A);
    const __m256i high2 = _mm256_setr_epi8(TALVORO_H_A, TALVORO_H_B);
    const __m256i low2 = _mm256_setr_epi8(TALVORO_L_A, TALVORO_L_B);
    const __m256i g = _mm256_set1_epi16(short(gain));
    size_t i = 0;
    for (; i + 32 <= pixels; i += 32, src += 48) {
        const __m256i first = assemble(load2(src, src + 12), high1, low1);
        const __m256i second = assemble(load2(src + 24, src + 32), high2, low2);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(raw + i), first);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(raw + i + 16), second);
        if (gained) {
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(gained + i), gain16(first, g));
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(gained + i + 16), gain16(second, g));
        }
    }
    return i;
}

#undef TALVORO_H_A
#undef TALVORO_L_A
#undef TALVORO_H_B
#undef TALVORO_L_B

}  // namespace

#endif

void unpack12WithGain(const uint8_t* src, uint16_t* raw, uint16_t* gained, size_t pixels,
                      uint16_t gain) {
    size_t done = 0;
#if TALVORO_X86_64
    if (isa() >= Isa::Avx2)
        done = unpackAvx2(src, raw, gained, pixels, gain);
    else if (isa() >= Isa::Ssse3)
        done = unpackSsse3(src, raw, gained, pixels, gain);
#endif
    unpack12Scalar(src + done / 2 * 3, raw + done, pixels - done);
    if (gained) applyGainScalar(raw + done, gained + done, pixels - done, gain);
}

void unpack12(const uint8_t* src, uint16_t* dst, size_t pixels) {
    unpack12WithGain(src, dst, nullptr, pixels, 1);
}

void applyGain(const uint16_t* raw, uint16_t* gained, size_t n, uint16_t gain) {
    size_t i = 0;
#if TALVORO_X86_64
    if (isa() >= Isa::Sse2) {
        const __m128i g = _mm_set1_epi16(short(gain));
        for (; i + 8 <= n; i += 8) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(raw + i));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(gained + i), gain8(v, g));
        }
    }
#endif
    applyGainScalar(raw + i, gained + i, n - i, gain);
}

void copyWithGain(const uint8_t* src, uint16_t* raw, uint16_t* gained, size_t n, uint16_t gain) {
    size_t i = 0;
#if TALVORO_X86_64
    if (isa() >= Isa::Sse2) {
        const __m128i g = _mm_set1_epi16(short(gain));
        for (; i + 8 <= n; i += 8) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 2 * i));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(raw + i), v);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(gained + i), gain8(v, g));
        }
    }
#endif
    std::memcpy(raw + i, src + 2 * i, (n - i) * 2);
    applyGainScalar(raw + i, gained + i, n - i, gain);
}

void doubleSaturated(uint16_t* data, size_t n) {
    size_t i = 0;
#if TALVORO_X86_64
    if (isa() >= Isa::Sse2) {
        for (; i + 8 <= n; i += 8) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(data + i), _mm_adds_epu16(v, v));
        }
    }
#endif
    for (; i < n; ++i)
        data[i] = data[i] > 32767 ? 65535 : uint16_t(data[i] * 2);
}

void separateRowPairs(const uint8_t* src, cv::Mat& depth, cv::Mat& rawIr, cv::Mat& ir,
                      uint16_t gain) {
    constexpr size_t rowBytes = kWidth * 2;
    for (int r = 0; r < kHeight; ++r, src += 2 * rowBytes) {
        std::memcpy(depth.ptr<uint16_t>(r), src, rowBytes);
        copyWithGain(src + rowBytes, rawIr.ptr<uint16_t>(r), ir.ptr<uint16_t>(r), kWidth, gain);
    }
}

namespace {

bool isDepthImage(const cv::Mat& m) {
    return m.type() == CV_16UC1 && m.rows == kHeight && m.cols == kWidth;
}

}  // namespace

int separateMultiplexed(const uint8_t* buf, size_t available, const MultiplexedLayout& layout,
                        cv::Mat& depth, cv::Mat& rawIr, cv::Mat& ir, cv::Mat& rgb, uint16_t gain) {
    constexpr int kMalformed = -18;
    const size_t rgbRowBytes = layout.dropWord319 ? layout.rgbLineBytes - 8 : layout.rgbLineBytes;
    if (!buf || available < layout.frameBytes || !isDepthImage(depth) || !isDepthImage(rawIr) ||
        !isDepthImage(ir) || rgb.type() != CV_8UC2 || rgb.rows < layout.rgbLineCount ||
        rgb.cols * size_t(2) != rgbRowBytes || (layout.dropWord319 && layout.rgbLineBytes < 2568))
        return kMalformed;

    int depthRows = 0, irRows = 0, rgbRows = 0;
    bool nextIsDepth = true;
    size_t pos = 0;
    while (pos < layout.frameBytes) {
        const uint8_t* line = buf + pos;
        if (line[0] & 1) {
            if (layout.frameBytes - pos < kTofLineBytes) return kMalformed;
            if (nextIsDepth) {
                if (depthRows == kHeight) return kMalformed;
                unpack12(line, depth.ptr<uint16_t>(depthRows++), kWidth);
            } else {
                if (irRows == kHeight) return kMalformed;
                unpack12WithGain(line, rawIr.ptr<uint16_t>(irRows), ir.ptr<uint16_t>(irRows),
                                 kWidth, gain);
                ++irRows;
            }
            nextIsDepth = !nextIsDepth;
            pos += kTofLineBytes;
        } else {
            if (layout.frameBytes - pos < layout.rgbLineBytes) return kMalformed;
            if (rgbRows == layout.rgbLineCount) return kMalformed;
            uint8_t* row = rgb.ptr<uint8_t>(rgbRows++);
            if (layout.dropWord319) {
                // Word 319 of the 321 is not image data.
                std::memcpy(row, line, 319 * 8);
                std::memcpy(row + 319 * 8, line + 320 * 8, rgbRowBytes - 319 * 8);
            } else {
                std::memcpy(row, line, rgbRowBytes);
            }
            pos += layout.rgbLineBytes;
        }
    }
    return 1;
}

}  // namespace Talvoro::frame
