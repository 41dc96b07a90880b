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

__attribute__((target("ssse3"))) void unpack12Ssse3(const uint8_t* src, uint16_t* dst,
                                                    size_t pixels) {
    // 16 pixels from 24 bytes. The loads at offsets 0 and 8 stay inside the 24 bytes, so the
    // last group of a buffer is never read past.
    const __m128i highA = _mm_setr_epi8(0, -1, 1, -1, 3, -1, 4, -1, 6, -1, 7, -1, 9, -1, 10, -1);
    const __m128i lowA = _mm_setr_epi8(2, -1, 2, -1, 5, -1, 5, -1, 8, -1, 8, -1, 11, -1, 11, -1);
    const __m128i highB = _mm_setr_epi8(4, -1, 5, -1, 7, -1, 8, -1, 10, -1, 11, -1, 13, -1, 14, -1);
    const __m128i lowB = _mm_setr_epi8(6, -1, 6, -1, 9, -1, 9, -1, 12, -1, 12, -1, 15, -1, 15, -1);
    size_t i = 0;
    for (; i + 16 <= pixels; i += 16, src += 24) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 8));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), assemble(a, highA, lowA));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i + 8), assemble(b, highB, lowB));
    }
    unpack12Scalar(src, dst + i, pixels - i);
}

}  // namespace

#endif

void unpack12(const uint8_t* src, uint16_t* dst, size_t pixels) {
#if TALVORO_X86_64
    if (isa() >= Isa::Ssse3) return unpack12Ssse3(src, dst, pixels);
#endif
    unpack12Scalar(src, dst, pixels);
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
                uint16_t* raw = rawIr.ptr<uint16_t>(irRows);
                unpack12(line, raw, kWidth);
                applyGain(raw, ir.ptr<uint16_t>(irRows), kWidth, gain);
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
