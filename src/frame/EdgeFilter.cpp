#include "frame/EdgeFilter.h"

#include <algorithm>

#include "frame/Cpu.h"

#if TALVORO_X86_64
#include <immintrin.h>
#endif

namespace Talvoro::frame {

namespace {

// Reflect-101 (…, 2, 1 | 0, 1, 2, … | n-3, n-2 | n-1, n-2, …) for offsets up to 2.
inline int reflect(int i, int n) {
    return i < 0 ? -i : i >= n ? 2 * n - 2 - i : i;
}

inline uint8_t saturate8(int v) {
    return uint8_t(std::clamp(v, 0, 255));
}

// Row passes of the two separable kernels: [1 0 -2 0 1] for the derivative, [1 4 6 4 1] for
// the smoothing.
void rowPasses(const uint8_t* s, int16_t* derivative, int16_t* smooth, int width) {
    auto scalar = [&](int x) {
        const int a = s[reflect(x - 2, width)], b = s[reflect(x - 1, width)], c = s[x],
                  d = s[reflect(x + 1, width)], e = s[reflect(x + 2, width)];
        derivative[x] = int16_t(a - 2 * c + e);
        smooth[x] = int16_t(a + 4 * (b + d) + 6 * c + e);
    };
    int x = 0;
    for (; x < 2; ++x)
        scalar(x);
#if TALVORO_X86_64
    if (isa() >= Isa::Sse2) {
        const __m128i zero = _mm_setzero_si128();
        auto load8 = [&](int at) {
            return _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(s + at)),
                                     zero);
        };
        for (; x + 8 <= width - 2; x += 8) {
            const __m128i a = load8(x - 2), b = load8(x - 1), c = load8(x), d = load8(x + 1),
                          e = load8(x + 2);
            const __m128i ae = _mm_add_epi16(a, e);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(derivative + x),
                             _mm_sub_epi16(ae, _mm_slli_epi16(c, 1)));
            const __m128i c6 = _mm_add_epi16(_mm_slli_epi16(c, 2), _mm_slli_epi16(c, 1));
            _mm_storeu_si128(
                reinterpret_cast<__m128i*>(smooth + x),
                _mm_add_epi16(_mm_add_epi16(ae, _mm_slli_epi16(_mm_add_epi16(b, d), 2)), c6));
        }
    }
#endif
    for (; x < width; ++x)
        scalar(x);
}

// Column passes for output row y: smoothing of the derivative rows (x gradient) and
// derivative of the smoothed rows (y gradient), times 4, saturated to 8 bits; and their
// saturating sum (both blend weights are 1).
void columnPasses(const cv::Mat& derivative, const cv::Mat& smooth, int y, uint8_t* outX,
                  uint8_t* outY, uint8_t* magnitude) {
    const int h = derivative.rows, width = derivative.cols;
    const int16_t* d[5];
    const int16_t* s[5];
    for (int k = 0; k < 5; ++k) {
        d[k] = derivative.ptr<int16_t>(reflect(y + k - 2, h));
        s[k] = smooth.ptr<int16_t>(reflect(y + k - 2, h));
    }
    int x = 0;
#if TALVORO_X86_64
    if (isa() >= Isa::Sse2) {
        auto load = [](const int16_t* p) {
            return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        };
        for (; x + 8 <= width; x += 8) {
            const __m128i c = load(d[2] + x);
            const __m128i gx = _mm_add_epi16(
                _mm_add_epi16(_mm_add_epi16(load(d[0] + x), load(d[4] + x)),
                              _mm_slli_epi16(_mm_add_epi16(load(d[1] + x), load(d[3] + x)), 2)),
                _mm_add_epi16(_mm_slli_epi16(c, 2), _mm_slli_epi16(c, 1)));
            const __m128i gy = _mm_sub_epi16(_mm_add_epi16(load(s[0] + x), load(s[4] + x)),
                                             _mm_slli_epi16(load(s[2] + x), 1));
            const __m128i sx = _mm_packus_epi16(_mm_slli_epi16(gx, 2), gx);
            const __m128i sy = _mm_packus_epi16(_mm_slli_epi16(gy, 2), gy);
            _mm_storel_epi64(reinterpret_cast<__m128i*>(outX + x), sx);
            _mm_storel_epi64(reinterpret_cast<__m128i*>(outY + x), sy);
            _mm_storel_epi64(reinterpret_cast<__m128i*>(magnitude + x), _mm_adds_epu8(sx, sy));
        }
    }
#endif
    for (; x < width; ++x) {
        outX[x] = saturate8(4 * (d[0][x] + 4 * (d[1][x] + d[3][x]) + 6 * d[2][x] + d[4][x]));
        outY[x] = saturate8(4 * (s[0][x] - 2 * s[2][x] + s[4][x]));
        magnitude[x] = uint8_t(std::min(outX[x] + outY[x], 255));
    }
}

// 3x3 minimum with pixels outside the image taken as 4.
void erode3x3(const cv::Mat& src, cv::Mat& dst) {
    constexpr uint8_t kBorder = 4;
    const int h = src.rows, width = src.cols;
    for (int y = 0; y < h; ++y) {
        const uint8_t* above = y > 0 ? src.ptr<uint8_t>(y - 1) : nullptr;
        const uint8_t* row = src.ptr<uint8_t>(y);
        const uint8_t* below = y + 1 < h ? src.ptr<uint8_t>(y + 1) : nullptr;
        uint8_t* out = dst.ptr<uint8_t>(y);
        auto column = [&](int x) -> uint8_t {
            if (x < 0 || x >= width) return kBorder;
            uint8_t m = row[x];
            m = std::min(m, above ? above[x] : kBorder);
            return std::min(m, below ? below[x] : kBorder);
        };
        auto scalar = [&](int x) { out[x] = std::min({column(x - 1), column(x), column(x + 1)}); };
        int x = 0;
        for (; x < 1 && x < width; ++x)
            scalar(x);
#if TALVORO_X86_64
        if (isa() >= Isa::Sse2 && above && below) {
            auto columns = [&](int at) {
                auto load = [&](const uint8_t* p) {
                    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + at));
                };
                return _mm_min_epu8(_mm_min_epu8(load(above), load(row)), load(below));
            };
            for (; x + 17 <= width; x += 16) {
                _mm_storeu_si128(
                    reinterpret_cast<__m128i*>(out + x),
                    _mm_min_epu8(_mm_min_epu8(columns(x - 1), columns(x)), columns(x + 1)));
            }
        }
#endif
        for (; x < width; ++x)
            scalar(x);
    }
}

}  // namespace

void edgeMask(const cv::Mat& input, const EdgeImages& images) {
    const cv::Size size = input.size();
    images.sobelX.create(size, CV_8UC1);
    images.sobelY.create(size, CV_8UC1);
    images.magnitude.create(size, CV_8UC1);
    images.mask.create(size, CV_8UC1);
    images.rowDerivative.create(size, CV_16SC1);
    images.rowSmooth.create(size, CV_16SC1);
    for (int y = 0; y < size.height; ++y)
        rowPasses(input.ptr<uint8_t>(y), images.rowDerivative.ptr<int16_t>(y),
                  images.rowSmooth.ptr<int16_t>(y), size.width);
    for (int y = 0; y < size.height; ++y)
        columnPasses(images.rowDerivative, images.rowSmooth, y, images.sobelX.ptr<uint8_t>(y),
                     images.sobelY.ptr<uint8_t>(y), images.magnitude.ptr<uint8_t>(y));
    erode3x3(images.magnitude, images.mask);
}

}  // namespace Talvoro::frame
