#include "frame/SpatialFilter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "frame/Cpu.h"

#if TALVORO_X86_64
#include <immintrin.h>
#endif

namespace Talvoro::frame {

namespace {

constexpr int kRadius = 2;
constexpr int kTaps = 13;    // the 5x5 square's points within the radius
constexpr int kValues = 25;  // the 5x5 neighbourhood
constexpr int kLanes = 32;   // the sorting network's width: the values and 7 of 255

// The median's comparators on kValues lanes, and the lane that ends up with the median.
struct MedianNetwork {
    std::vector<std::pair<uint8_t, uint8_t>> comparators;
    int medianLane = 0;
};

// Batcher's odd-even merge sort of 32 lanes, where the 7 lanes of 255 never need to exist: a
// comparator against a lane still 255 leaves both as they are or swaps them, which renaming
// the lanes does for free. Of the rest only those the middle lane depends on are kept.
const MedianNetwork& medianNetwork() {
    static const MedianNetwork network = [] {
        std::vector<std::pair<uint8_t, uint8_t>> all;
        for (int p = 1; p < kLanes; p <<= 1)
            for (int k = p; k >= 1; k >>= 1)
                for (int j = k % p; j + k < kLanes; j += 2 * k)
                    for (int i = 0; i < std::min(k, kLanes - j - k); ++i)
                        if ((i + j) / (2 * p) == (i + j + k) / (2 * p))
                            all.emplace_back(uint8_t(i + j), uint8_t(i + j + k));
        std::array<uint8_t, kLanes> lane{};
        std::array<bool, kLanes> is255{};
        for (int i = 0; i < kLanes; ++i) {
            lane[i] = uint8_t(i);
            is255[i] = i >= kValues;
        }
        std::vector<std::pair<uint8_t, uint8_t>> used;
        for (const auto& [a, b] : all) {
            if (is255[b]) continue;  // the smaller one is already in a
            if (is255[a]) {
                std::swap(lane[a], lane[b]);
                std::swap(is255[a], is255[b]);
                continue;
            }
            used.emplace_back(lane[a], lane[b]);
        }
        MedianNetwork n;
        n.medianLane = lane[kValues / 2];
        std::array<bool, kLanes> needed{};
        needed[n.medianLane] = true;
        for (auto it = used.rbegin(); it != used.rend(); ++it) {
            if (!needed[it->first] && !needed[it->second]) continue;
            needed[it->first] = needed[it->second] = true;
            n.comparators.push_back(*it);
        }
        std::reverse(n.comparators.begin(), n.comparators.end());
        return n;
    }();
    return network;
}

// The bilateral filter's weights, as OpenCV computes them for diameter 5 and both sigmas 200.
struct BilateralWeights {
    std::array<float, 256> colour;
    std::array<float, kTaps> space;
    std::array<std::pair<int, int>, kTaps> offsets;  // (row, column), rows first
};

const BilateralWeights& bilateralWeights() {
    static const BilateralWeights weights = [] {
        BilateralWeights w{};
        const double coefficient = -0.5 / (200.0 * 200.0);
        for (int i = 0; i < 256; ++i)
            w.colour[i] = float(std::exp(i * i * coefficient));
        int k = 0;
        for (int i = -kRadius; i <= kRadius; ++i)
            for (int j = -kRadius; j <= kRadius; ++j) {
                const double r = std::sqrt(double(i) * i + double(j) * j);
                if (r > kRadius) continue;
                w.space[k] = float(std::exp(r * r * coefficient));
                w.offsets[k++] = {i, j};
            }
        return w;
    }();
    return weights;
}

// Copies input into padded with a border of kRadius pixels on every side.
template <typename Index>
void pad(const cv::Mat& input, cv::Mat& padded, Index index) {
    const int rows = input.rows, cols = input.cols;
    for (int r = -kRadius; r < rows + kRadius; ++r) {
        const uint8_t* s = input.ptr<uint8_t>(index(r, rows));
        uint8_t* d = padded.ptr<uint8_t>(r + kRadius);
        std::memcpy(d + kRadius, s, size_t(cols));
        for (int c = 1; c <= kRadius; ++c) {
            d[kRadius - c] = s[index(-c, cols)];
            d[kRadius + cols - 1 + c] = s[index(cols - 1 + c, cols)];
        }
    }
}

inline int replicate(int i, int n) {
    return std::clamp(i, 0, n - 1);
}

inline int reflect101(int i, int n) {
    return i < 0 ? -i : i >= n ? 2 * n - 2 - i : i;
}

#if TALVORO_X86_64
__attribute__((target("avx2"))) int compareSwapAvx2(uint8_t* a, uint8_t* b, int width) {
    int j = 0;
    for (; j + 32 <= width; j += 32) {
        const __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + j));
        const __m256i y = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + j));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(a + j), _mm256_min_epu8(x, y));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(b + j), _mm256_max_epu8(x, y));
    }
    return j;
}
#endif

void compareSwap(uint8_t* a, uint8_t* b, int width, Isa level) {
    int j = 0;
#if TALVORO_X86_64
    if (level >= Isa::Avx2) j = compareSwapAvx2(a, b, width);
    if (level >= Isa::Sse2) {
        for (; j + 16 <= width; j += 16) {
            const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + j));
            const __m128i y = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + j));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(a + j), _mm_min_epu8(x, y));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(b + j), _mm_max_epu8(x, y));
        }
    }
#endif
    for (; j < width; ++j) {
        const uint8_t x = a[j], y = b[j];
        a[j] = std::min(x, y);
        b[j] = std::max(x, y);
    }
}

void median(const cv::Mat& padded, cv::Mat& lanes, cv::Mat& out) {
    const int width = out.cols;
    const MedianNetwork& network = medianNetwork();
    const Isa level = isa();
    for (int y = 0; y < out.rows; ++y) {
        for (int k = 0; k < kValues; ++k)
            std::memcpy(lanes.ptr<uint8_t>(k), padded.ptr<uint8_t>(y + k / 5) + k % 5,
                        size_t(width));
        for (const auto& [a, b] : network.comparators)
            compareSwap(lanes.ptr<uint8_t>(a), lanes.ptr<uint8_t>(b), width, level);
        std::memcpy(out.ptr<uint8_t>(y), lanes.ptr<uint8_t>(network.medianLane), size_t(width));
    }
}

// Per pixel, the taps are summed in order with fused multiply-adds, as OpenCV's vector code
// does on processors with FMA, so that the results agree bit for bit.
void bilateralRowScalar(const uint8_t* const* taps, const uint8_t* centre, uint8_t* out, int from,
                        int width, const BilateralWeights& w) {
    for (int j = from; j < width; ++j) {
        const int rval = centre[j];
        float sum = 0, wsum = 0;
        for (int k = 0; k < kTaps; ++k) {
            const int val = taps[k][j];
            const float weight = w.space[k] * w.colour[std::abs(val - rval)];
            wsum += weight;
            sum = std::fma(float(val), weight, sum);
        }
        out[j] = uint8_t(std::clamp(int(std::nearbyint(sum / wsum)), 0, 255));
    }
}

#if TALVORO_X86_64
__attribute__((target("avx2"))) inline __m256i load8(const uint8_t* p) {
    return _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
}

__attribute__((target("avx2,fma"))) int bilateralRowAvx2(const uint8_t* const* taps,
                                                         const uint8_t* centre, uint8_t* out,
                                                         int width, const BilateralWeights& w) {
    int j = 0;
    for (; j + 8 <= width; j += 8) {
        const __m256i rval = load8(centre + j);
        __m256 sum = _mm256_setzero_ps(), wsum = _mm256_setzero_ps();
        for (int k = 0; k < kTaps; ++k) {
            const __m256i val = load8(taps[k] + j);
            const __m256i diff = _mm256_abs_epi32(_mm256_sub_epi32(val, rval));
            const __m256 weight = _mm256_mul_ps(_mm256_set1_ps(w.space[k]),
                                                _mm256_i32gather_ps(w.colour.data(), diff, 4));
            wsum = _mm256_add_ps(wsum, weight);
            sum = _mm256_fmadd_ps(_mm256_cvtepi32_ps(val), weight, sum);
        }
        const __m256i rounded = _mm256_cvtps_epi32(_mm256_div_ps(sum, wsum));
        const __m128i words =
            _mm_packs_epi32(_mm256_castsi256_si128(rounded), _mm256_extracti128_si256(rounded, 1));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + j), _mm_packus_epi16(words, words));
    }
    return j;
}
#endif

void bilateral(const cv::Mat& padded, cv::Mat& out) {
    const BilateralWeights& w = bilateralWeights();
#if TALVORO_X86_64
    static const bool fma = __builtin_cpu_supports("fma");
    const bool vector = isa() >= Isa::Avx2 && fma;
#endif
    const int width = out.cols;
    for (int y = 0; y < out.rows; ++y) {
        const uint8_t* taps[kTaps];
        for (int k = 0; k < kTaps; ++k)
            taps[k] = padded.ptr<uint8_t>(y + kRadius + w.offsets[k].first) + kRadius +
                      w.offsets[k].second;
        const uint8_t* centre = padded.ptr<uint8_t>(y + kRadius) + kRadius;
        int from = 0;
#if TALVORO_X86_64
        if (vector) from = bilateralRowAvx2(taps, centre, out.ptr<uint8_t>(y), width, w);
#endif
        bilateralRowScalar(taps, centre, out.ptr<uint8_t>(y), from, width, w);
    }
}

}  // namespace

void spatialFilter(const cv::Mat& input, const SpatialImages& images) {
    images.median.create(input.size(), CV_8UC1);
    images.output.create(input.size(), CV_8UC1);
    images.padded.create(input.rows + 2 * kRadius, input.cols + 2 * kRadius, CV_8UC1);
    images.lanes.create(kValues, input.cols, CV_8UC1);

    pad(input, images.padded, replicate);
    median(images.padded, images.lanes, images.median);
    pad(images.median, images.padded, reflect101);
    bilateral(images.padded, images.output);
}

}  // namespace Talvoro::frame
