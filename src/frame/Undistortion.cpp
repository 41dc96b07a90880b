#include "frame/Undistortion.h"

#include <algorithm>
#include <cmath>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "frame/Cpu.h"

#if TALVORO_X86_64
#include <immintrin.h>
#endif

namespace Talvoro::frame {

namespace {

constexpr int kTabBits = 5;  // OpenCV's INTER_BITS
constexpr int kTabSize = 1 << kTabBits;
constexpr int kTabEntries = kTabSize * kTabSize;

// OpenCV's bilinear weights for 16-bit images, in float: fractions are multiples of 1/32, so
// every weight is exact. w[k][fraction] weighs the k-th of the four source pixels.
struct WeightTable {
    float w[4][kTabEntries];
    WeightTable() {
        for (int fy = 0; fy < kTabSize; ++fy) {
            for (int fx = 0; fx < kTabSize; ++fx) {
                const float ay = fy * (1.f / kTabSize), ax = fx * (1.f / kTabSize);
                const int i = fy * kTabSize + fx;
                w[0][i] = (1.f - ay) * (1.f - ax);
                w[1][i] = (1.f - ay) * ax;
                w[2][i] = ay * (1.f - ax);
                w[3][i] = ay * ax;
            }
        }
    }
};

const WeightTable& weights() {
    static const WeightTable table;
    return table;
}

// saturate_cast<ushort>(float): round to nearest even, clamp to 0..65535.
inline uint16_t toU16(float v) {
    const float r = std::nearbyint(v);
    return r <= 0.f ? 0 : r >= 65535.f ? 65535 : uint16_t(r);
}

struct Source {
    const uint16_t* base;
    size_t stride;
    int width, height;
};

// cv::remap's bilinear 16-bit path for one pixel: four samples (0 outside the image) weighted
// in float, summed left to right and rounded to nearest.
inline uint16_t remapPixel(const Source& s, int sx, int sy, int fraction, const WeightTable& t) {
    const int f = fraction & (kTabEntries - 1);
    if (unsigned(sx) < unsigned(s.width - 1) && unsigned(sy) < unsigned(s.height - 1)) {
        const uint16_t* p = s.base + sy * s.stride + sx;
        return toU16(p[0] * t.w[0][f] + p[1] * t.w[1][f] + p[s.stride] * t.w[2][f] +
                     p[s.stride + 1] * t.w[3][f]);
    }
    if (sx >= s.width || sx + 1 < 0 || sy >= s.height || sy + 1 < 0) return 0;
    auto at = [&](int y, int x) -> float {
        return x >= 0 && x < s.width && y >= 0 && y < s.height ? s.base[y * s.stride + x] : 0.f;
    };
    return toU16(at(sy, sx) * t.w[0][f] + at(sy, sx + 1) * t.w[1][f] + at(sy + 1, sx) * t.w[2][f] +
                 at(sy + 1, sx + 1) * t.w[3][f]);
}

#if TALVORO_X86_64

// Eight pixels at a time with gathers while all eight read inside the image; the same float
// operations in the same order as remapPixel. Returns the pixels done.
__attribute__((target("avx2"))) int remapRowAvx2(const Source& s, const int16_t* xy,
                                                 const uint16_t* fraction, uint16_t* out, int cols,
                                                 const WeightTable& t) {
    const __m256i lastX = _mm256_set1_epi32(s.width - 1), lastY = _mm256_set1_epi32(s.height - 1);
    const __m256i minusOne = _mm256_set1_epi32(-1), stride = _mm256_set1_epi32(int(s.stride));
    const __m256i low16 = _mm256_set1_epi32(0xFFFF), tabMask = _mm256_set1_epi32(kTabEntries - 1);
    const __m256i fractionMask = _mm256_set1_epi32(kTabSize - 1);
    const __m256 step = _mm256_set1_ps(1.f / kTabSize), one = _mm256_set1_ps(1.f);
    const int* pixels = reinterpret_cast<const int*>(s.base);
    int x = 0;
    for (; x + 8 <= cols; x += 8) {
        const __m256i pair = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(xy + 2 * x));
        const __m256i sx = _mm256_srai_epi32(_mm256_slli_epi32(pair, 16), 16);
        const __m256i sy = _mm256_srai_epi32(pair, 16);
        const __m256i inside = _mm256_and_si256(
            _mm256_and_si256(_mm256_cmpgt_epi32(sx, minusOne), _mm256_cmpgt_epi32(lastX, sx)),
            _mm256_and_si256(_mm256_cmpgt_epi32(sy, minusOne), _mm256_cmpgt_epi32(lastY, sy)));
        if (_mm256_movemask_epi8(inside) != -1) {
            for (int i = x; i < x + 8; ++i)
                out[i] = remapPixel(s, xy[2 * i], xy[2 * i + 1], fraction[i], t);
            continue;
        }
        // Each 32-bit gather at pixel offset o reads the pixels o and o + 1.
        const __m256i offset = _mm256_add_epi32(_mm256_mullo_epi32(sy, stride), sx);
        const __m256i top = _mm256_i32gather_epi32(pixels, offset, 2);
        const __m256i bottom = _mm256_i32gather_epi32(pixels, _mm256_add_epi32(offset, stride), 2);
        const __m256i f = _mm256_and_si256(
            _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(fraction + x))),
            tabMask);
        // The table's weights, computed as the table computes them rather than gathered.
        const __m256 ax =
            _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_and_si256(f, fractionMask)), step);
        const __m256 ay = _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_srli_epi32(f, kTabBits)), step);
        const __m256 bx = _mm256_sub_ps(one, ax), by = _mm256_sub_ps(one, ay);
        const __m256 p0 = _mm256_cvtepi32_ps(_mm256_and_si256(top, low16));
        const __m256 p1 = _mm256_cvtepi32_ps(_mm256_srli_epi32(top, 16));
        const __m256 p2 = _mm256_cvtepi32_ps(_mm256_and_si256(bottom, low16));
        const __m256 p3 = _mm256_cvtepi32_ps(_mm256_srli_epi32(bottom, 16));
        __m256 sum = _mm256_mul_ps(p0, _mm256_mul_ps(by, bx));
        sum = _mm256_add_ps(sum, _mm256_mul_ps(p1, _mm256_mul_ps(by, ax)));
        sum = _mm256_add_ps(sum, _mm256_mul_ps(p2, _mm256_mul_ps(ay, bx)));
        sum = _mm256_add_ps(sum, _mm256_mul_ps(p3, _mm256_mul_ps(ay, ax)));
        // Round to nearest even, then saturate to 16 bits as saturate_cast does.
        const __m256i rounded = _mm256_cvtps_epi32(sum);
        const __m256i packed =
            _mm256_permute4x64_epi64(_mm256_packus_epi32(rounded, rounded), 0x08);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), _mm256_castsi256_si128(packed));
    }
    return x;
}

#endif

}  // namespace

bool UndistortMap::build(const cv::Mat& cameraMatrix, const cv::Mat& distortion, cv::Size size) {
    clear();
    if (cameraMatrix.empty() || size.width < 1 || size.height < 1) return false;
    try {
        // cv::undistort computes its map in stripes with the principal point shifted per
        // stripe; doing the same here makes the map, and so the result, identical to the bit.
        cv::Mat_<double> a, shifted;
        cameraMatrix.convertTo(a, CV_64F);
        if (a.rows != 3 || a.cols != 3) return false;
        cv::Mat d = distortion.empty() ? cv::Mat(cv::Mat::zeros(5, 1, CV_64F))
                                       : cv::Mat(cv::Mat_<double>(distortion));
        a.copyTo(shifted);
        cv::Mat xy(size, CV_16SC2), fraction(size, CV_16UC1);
        const int stripe = std::min(std::max(1, (1 << 12) / size.width), size.height);
        const double v0 = shifted(1, 2);
        for (int y = 0; y < size.height; y += stripe) {
            const int rows = std::min(stripe, size.height - y);
            shifted(1, 2) = v0 - y;
            cv::Mat xyPart = xy.rowRange(y, y + rows),
                    fractionPart = fraction.rowRange(y, y + rows);
            cv::initUndistortRectifyMap(a, d, cv::Mat_<double>::eye(3, 3), shifted,
                                        cv::Size(size.width, rows), CV_16SC2, xyPart, fractionPart);
        }
        xy_ = xy;
        fraction_ = fraction;
        return true;
    } catch (...) {
        clear();
        return false;
    }
}

void UndistortMap::clear() {
    xy_.release();
    fraction_.release();
}

bool UndistortMap::apply(const cv::Mat& src, cv::Mat& dst, WorkerPool& pool) const {
    if (!valid() || src.type() != CV_16UC1 || dst.type() != CV_16UC1 || src.size() != size() ||
        dst.size() != size() || src.data == dst.data)
        return false;
    const WeightTable& table = weights();
    const Source source{src.ptr<uint16_t>(), src.step1(), src.cols, src.rows};
    const bool vector = TALVORO_X86_64 && isa() >= Isa::Avx2;
    pool.forEach(size_t(dst.rows), pool.pieces(), [&](size_t begin, size_t end, unsigned) {
        for (int y = int(begin); y < int(end); ++y) {
            const int16_t* xy = xy_.ptr<int16_t>(y);
            const uint16_t* fraction = fraction_.ptr<uint16_t>(y);
            uint16_t* out = dst.ptr<uint16_t>(y);
            int x = 0;
#if TALVORO_X86_64
            if (vector) x = remapRowAvx2(source, xy, fraction, out, dst.cols, table);
#endif
            for (; x < dst.cols; ++x)
                out[x] = remapPixel(source, xy[2 * x], xy[2 * x + 1], fraction[x], table);
        }
    });
    return true;
}

}  // namespace Talvoro::frame
