#include "frame/SpatialFilter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "frame/Cpu.h"

#if TALVORO_X86_64
#include <immintrin.h>
#endif

namespace Talvoro::frame {

namespace {

constexpr int kRadius = 2;
constexpr int kTaps = 13;  // the 5x5 square's points within the radius

// Row layout of the work rows: kPad bytes (or floats) before column 0, and room after the last
// column for whole vectors that run past it.
constexpr int kPad = 16;
constexpr int kSlack = 64;

inline int replicate(int i, int n) {
    return std::clamp(i, 0, n - 1);
}

// Reflect-101 (... 2 1 | 0 1 2 ... n-2 n-1 | n-2 n-3 ...), repeated for images narrower than the
// radius, as OpenCV's border interpolation does.
inline int reflect101(int i, int n) {
    if (n == 1) return 0;
    while (i < 0 || i >= n)
        i = i < 0 ? -i : 2 * n - 2 - i;
    return i;
}

// ---- Bilateral weights -------------------------------------------------------------------

// The taps in OpenCV's order (rows first), and per tap its weight for every colour difference:
// space x colour, the float product OpenCV computes per pixel.
struct BilateralTable {
    std::array<std::array<int, 2>, kTaps> offsets;  // (row, column)
    alignas(32) float weight[kTaps][256];
};

const BilateralTable& bilateralTable() {
    static const BilateralTable table = [] {
        BilateralTable t{};
        const double coefficient = -0.5 / (200.0 * 200.0);
        float colour[256];
        for (int i = 0; i < 256; ++i)
            colour[i] = float(std::exp(i * i * coefficient));
        int k = 0;
        for (int i = -kRadius; i <= kRadius; ++i)
            for (int j = -kRadius; j <= kRadius; ++j) {
                const double r = std::sqrt(double(i) * i + double(j) * j);
                if (r > kRadius) continue;
                const float space = float(std::exp(r * r * coefficient));
                for (int d = 0; d < 256; ++d)
                    t.weight[k][d] = space * colour[d];
                t.offsets[k++] = {i, j};
            }
        return t;
    }();
    return table;
}

// ---- The median's networks ---------------------------------------------------------------

// Rows m and m + 1 share the 5x4 values of rows m - 1 to m + 2. Lanes 0-19: the five columns
// of those rows, each sorted (4c to 4c + 3 ascending). The network leaves ranks 7 to 12 of the
// 20 in lanes 7 to 12; only they can be the median once a row's own five values join. It is
// Batcher's merge sort of 32 lanes (the 12 above 19 holding 255), keeping only comparators that
// can swap on such input (by the 0-1 principle) and that lead to lanes 7 to 12.
constexpr uint8_t kMiddleOfShared[][2] = {
    {0, 4},   {1, 5},   {2, 6},   {3, 7},   {8, 12},  {9, 13}, {10, 14}, {11, 15},
    {2, 4},   {3, 5},   {10, 12}, {11, 13}, {1, 2},   {3, 4},  {5, 6},   {9, 10},
    {11, 12}, {13, 14}, {0, 8},   {1, 9},   {2, 10},  {3, 11}, {4, 12},  {5, 13},
    {6, 14},  {7, 15},  {4, 8},   {5, 9},   {6, 10},  {7, 11}, {2, 4},   {3, 5},
    {6, 8},   {7, 9},   {10, 12}, {11, 13}, {1, 2},   {3, 4},  {5, 6},   {7, 8},
    {9, 10},  {11, 12}, {13, 14}, {0, 16},  {1, 17},  {2, 18}, {3, 19},  {8, 16},
    {9, 17},  {10, 18}, {11, 19}, {4, 8},   {5, 9},   {6, 10}, {7, 11},  {12, 16},
    {13, 17}, {6, 8},   {7, 9},   {10, 12}, {11, 13}, {7, 8},  {9, 10},  {11, 12}};
constexpr uint8_t kSort4[][2] = {{0, 1}, {2, 3}, {0, 2}, {1, 3}, {1, 2}};
constexpr uint8_t kSort5[][2] = {{0, 1}, {2, 3}, {0, 2}, {1, 3}, {1, 2},
                                 {0, 4}, {2, 4}, {1, 2}, {3, 4}};

// The median code is written once for 32, 16 or 1 lanes of bytes (GCC's vector extension, or
// a plain byte), and inlined into a function for each instruction level.
#if TALVORO_X86_64
typedef uint8_t Bytes32 __attribute__((vector_size(32)));
typedef uint8_t Bytes16 __attribute__((vector_size(16)));
#endif

#define TALVORO_INLINE inline __attribute__((always_inline))

template <class V>
TALVORO_INLINE void load(V& v, const uint8_t* p) {
    std::memcpy(&v, p, sizeof(V));
}
template <class V>
TALVORO_INLINE void store(uint8_t* p, const V& v) {
    std::memcpy(p, &v, sizeof(V));
}
template <class V>
TALVORO_INLINE void compareSwap(V& a, V& b) {
    const V low = a < b ? a : b;
    b = a < b ? b : a;
    a = low;
}
template <class V, size_t N>
TALVORO_INLINE void sortingNetwork(V* v, const uint8_t (&network)[N][2]) {
#pragma GCC unroll 128
    for (size_t i = 0; i < N; ++i)
        compareSwap(v[network[i][0]], v[network[i][1]]);
}

// The median of a row: the 6th smallest of the six shared middle values (sorted) and the row's
// own five values (sorted), min over i + j = 5 of max(shared[i], own[j]).
template <class V>
TALVORO_INLINE void medianOf(const V* shared, V* own, uint8_t* out) {
    sortingNetwork(own, kSort5);
    V m = shared[5];
#pragma GCC unroll 5
    for (int i = 0; i < 5; ++i) {
        const V big = shared[i] < own[4 - i] ? own[4 - i] : shared[i];
        m = big < m ? big : m;
    }
    store(out, m);
}

struct Geometry {
    int width, height;
    size_t bytePitch;   // a byte work row
    size_t floatPitch;  // a float work row
};

// Sorted columns of four rows: rows[1..4] at every column from -2 to the end of the padded
// row, into sorted[0..3].
template <class V>
TALVORO_INLINE void sortColumns(uint8_t* const* rows, uint8_t* const* sorted, const Geometry& g) {
    for (int c = -kRadius; c < g.width + kRadius; c += int(sizeof(V))) {
        V v[4];
#pragma GCC unroll 4
        for (int k = 0; k < 4; ++k)
            load(v[k], rows[k + 1] + c);
        sortingNetwork(v, kSort4);
#pragma GCC unroll 4
        for (int k = 0; k < 4; ++k)
            store(sorted[k] + c, v[k]);
    }
}

// Medians of two rows from the six padded input rows around them: row m from rows 0-4, row
// m + 1 from rows 1-5.
template <class V>
TALVORO_INLINE void medianPair(uint8_t* const* rows, uint8_t* const* sorted, uint8_t* first,
                               uint8_t* second, const Geometry& g) {
    sortColumns<V>(rows, sorted, g);
    for (int x = 0; x < g.width; x += int(sizeof(V))) {
        V v[20];
#pragma GCC unroll 20
        for (int i = 0; i < 20; ++i)
            load(v[i], sorted[i % 4] + x - kRadius + i / 4);
        sortingNetwork(v, kMiddleOfShared);
        V own[5];
#pragma GCC unroll 5
        for (int dx = 0; dx < 5; ++dx)
            load(own[dx], rows[0] + x - kRadius + dx);
        medianOf(v + 7, own, first + x);
#pragma GCC unroll 5
        for (int dx = 0; dx < 5; ++dx)
            load(own[dx], rows[5] + x - kRadius + dx);
        medianOf(v + 7, own, second + x);
    }
}

void medianPairScalar(uint8_t* const* rows, uint8_t* const* sorted, uint8_t* first, uint8_t* second,
                      const Geometry& g) {
    medianPair<uint8_t>(rows, sorted, first, second, g);
}

#if TALVORO_X86_64
void medianPairSse2(uint8_t* const* rows, uint8_t* const* sorted, uint8_t* first, uint8_t* second,
                    const Geometry& g) {
    medianPair<Bytes16>(rows, sorted, first, second, g);
}

__attribute__((target("avx2"))) void medianPairAvx2(uint8_t* const* rows, uint8_t* const* sorted,
                                                    uint8_t* first, uint8_t* second,
                                                    const Geometry& g) {
    medianPair<Bytes32>(rows, sorted, first, second, g);
}
#endif

// ---- Bilateral filter --------------------------------------------------------------------

// The median rows around row y: rows[dy + 2] is median row reflect101(y + dy), column 0.
using MedianRows = const uint8_t* [5];

// Per pixel, the taps are summed in order with fused multiply-adds, as OpenCV's vector code
// does on processors with FMA, so that the results agree bit for bit.
inline uint8_t bilateralPixel(const MedianRows& rows, int x, const BilateralTable& t) {
    const int centre = rows[2][x];
    float sum = 0, wsum = 0;
    for (int k = 0; k < kTaps; ++k) {
        const int value = rows[t.offsets[k][0] + 2][x + t.offsets[k][1]];
        const float weight = t.weight[k][std::abs(value - centre)];
        wsum += weight;
        sum = std::fma(float(value), weight, sum);
    }
    return uint8_t(std::clamp(int(std::nearbyint(sum / wsum)), 0, 255));
}

// The weight between pixel p and p + offset, for the six offsets "after" a pixel (the other six
// taps are their mirrors: the weight of tap -o at p is the weight of tap o at p - o), in the
// work rows of the rows that need them: row y for (0, 1) and (0, 2), rows y and y - 1 for
// (1, -1), (1, 0) and (1, 1), rows y to y - 2 for (2, 0).
struct ForwardWeights {
    // Tap numbers of the six offsets, and how many rows each keeps.
    static constexpr int kTap[6] = {7, 8, 9, 10, 11, 12};  // (0,1) (0,2) (1,-1) (1,0) (1,1) (2,0)
    static constexpr int kRows[6] = {1, 1, 2, 2, 2, 3};
    float* rows[6][3];  // [offset][row slot], column 0

    float* at(int offset, int y) const {
        return rows[offset][(y + 3) % kRows[offset]];  // y >= -2
    }
};

#if TALVORO_X86_64

#define TALVORO_AVX2_FMA __attribute__((target("avx2,fma")))

TALVORO_AVX2_FMA inline __m256i widen8(const uint8_t* p) {
    return _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
}

// Fills the forward weights of row y for columns -2 to width + 1. Depth is smooth: where all
// differences of a block are below 16, permutations of the table's first sixteen entries look
// the weights up instead of gathers.
TALVORO_AVX2_FMA void forwardWeightsAvx2(const MedianRows& rows, const ForwardWeights& f, int y,
                                         int width, const BilateralTable& t) {
    static constexpr int kRow[6] = {0, 0, 1, 1, 1, 2}, kColumn[6] = {1, 2, -1, 0, 1, 0};
    float* out[6];
    const float* table[6];
    __m256 low[6], high[6];  // entries 0-7 and 8-15
#pragma GCC unroll 6
    for (int o = 0; o < 6; ++o) {
        out[o] = f.at(o, y);
        table[o] = t.weight[ForwardWeights::kTap[o]];
        low[o] = _mm256_loadu_ps(table[o]);
        high[o] = _mm256_loadu_ps(table[o] + 8);
    }
    const __m256i below8 = _mm256_set1_epi32(~7), below16 = _mm256_set1_epi32(~15);
    for (int c = -kRadius; c <= width + 1; c += 8) {
        const __m256i centre = widen8(rows[2] + c);
        __m256i diff[6];
#pragma GCC unroll 6
        for (int o = 0; o < 6; ++o)
            diff[o] = _mm256_abs_epi32(
                _mm256_sub_epi32(widen8(rows[2 + kRow[o]] + c + kColumn[o]), centre));
        const __m256i any = _mm256_or_si256(
            _mm256_or_si256(_mm256_or_si256(diff[0], diff[1]), _mm256_or_si256(diff[2], diff[3])),
            _mm256_or_si256(diff[4], diff[5]));
        if (_mm256_testz_si256(any, below8)) {
#pragma GCC unroll 6
            for (int o = 0; o < 6; ++o)
                _mm256_storeu_ps(out[o] + c, _mm256_permutevar8x32_ps(low[o], diff[o]));
        } else if (_mm256_testz_si256(any, below16)) {
#pragma GCC unroll 6
            for (int o = 0; o < 6; ++o) {
                // Bit 3 of the difference, moved to the sign bit, picks the upper eight.
                const __m256 upper = _mm256_castsi256_ps(_mm256_slli_epi32(diff[o], 28));
                _mm256_storeu_ps(
                    out[o] + c,
                    _mm256_blendv_ps(_mm256_permutevar8x32_ps(low[o], diff[o]),
                                     _mm256_permutevar8x32_ps(high[o], diff[o]), upper));
            }
        } else {
#pragma GCC unroll 6
            for (int o = 0; o < 6; ++o)
                _mm256_storeu_ps(out[o] + c, _mm256_i32gather_ps(table[o], diff[o], 4));
        }
    }
}

// Eight output pixels: sum / wsum rounded to nearest even, saturated to bytes.
TALVORO_AVX2_FMA inline void storeQuotients(__m256 sum, __m256 wsum, uint8_t* to) {
    const __m256i rounded = _mm256_cvtps_epi32(_mm256_div_ps(sum, wsum));
    const __m128i words =
        _mm_packs_epi32(_mm256_castsi256_si128(rounded), _mm256_extracti128_si256(rounded, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(to), _mm_packus_epi16(words, words));
}

// Row y of the output from the forward weights of rows y - 2 to y, sixteen pixels at a time in
// two interleaved blocks; returns the pixels done.
TALVORO_AVX2_FMA int bilateralRowAvx2(const MedianRows& rows, const ForwardWeights& f, int y,
                                      int width, uint8_t* out) {
    // Per tap in order: where its weight is (offset, row, column shift; the centre's weight is
    // 1) and where its value is.
    constexpr int kCentre = 6;
    struct Tap {
        int offset, row, shift;
    };
    static constexpr Tap kWeights[kTaps] = {
        {5, -2, 0}, {4, -1, -1}, {3, -1, 0}, {2, -1, 1}, {1, 0, -2}, {0, 0, -1}, {0, 0, 0},
        {0, 0, 0},  {1, 0, 0},   {2, 0, 0},  {3, 0, 0},  {4, 0, 0},  {5, 0, 0}};
    static constexpr int kValueRow[kTaps] = {-2, -1, -1, -1, 0, 0, 0, 0, 0, 1, 1, 1, 2};
    static constexpr int kValueColumn[kTaps] = {0, -1, 0, 1, -2, -1, 0, 1, 2, -1, 0, 1, 0};
    const float* weights[kTaps];
    const uint8_t* values[kTaps];
#pragma GCC unroll 13
    for (int k = 0; k < kTaps; ++k) {
        const Tap& w = kWeights[k];
        weights[k] = f.at(w.offset, y + w.row) + w.shift;
        values[k] = rows[2 + kValueRow[k]] + kValueColumn[k];
    }
    const __m256 one = _mm256_set1_ps(1.0f);
    int x = 0;
    for (; x + 16 <= width; x += 16) {
        __m256 sum0 = _mm256_setzero_ps(), wsum0 = sum0, sum1 = sum0, wsum1 = sum0;
#pragma GCC unroll 13
        for (int k = 0; k < kTaps; ++k) {
            const __m256 w0 = k == kCentre ? one : _mm256_loadu_ps(weights[k] + x);
            const __m256 w1 = k == kCentre ? one : _mm256_loadu_ps(weights[k] + x + 8);
            wsum0 = _mm256_add_ps(wsum0, w0);
            wsum1 = _mm256_add_ps(wsum1, w1);
            sum0 = _mm256_fmadd_ps(_mm256_cvtepi32_ps(widen8(values[k] + x)), w0, sum0);
            sum1 = _mm256_fmadd_ps(_mm256_cvtepi32_ps(widen8(values[k] + x + 8)), w1, sum1);
        }
        storeQuotients(sum0, wsum0, out + x);
        storeQuotients(sum1, wsum1, out + x + 8);
    }
    return x;
}

#undef TALVORO_AVX2_FMA

#endif

// ---- Row bands ---------------------------------------------------------------------------

// One thread's work rows.
struct WorkRows {
    uint8_t* input[6];   // padded input rows of a median pair
    uint8_t* sorted[4];  // their sorted columns
    uint8_t* median[8];  // median rows, by row number modulo 8, reflect-101 padded
    ForwardWeights forward;

    static size_t bytes(const Geometry& g) {
        return 18 * g.bytePitch + 11 * g.floatPitch * sizeof(float);
    }
    WorkRows(uint8_t* base, const Geometry& g) {
        auto byteRow = [&] {
            uint8_t* row = base + kPad;
            base += g.bytePitch;
            return row;
        };
        for (uint8_t*& row : input)
            row = byteRow();
        for (uint8_t*& row : sorted)
            row = byteRow();
        for (uint8_t*& row : median)
            row = byteRow();
        float* floats = reinterpret_cast<float*>(base);
        for (int o = 0; o < 6; ++o)
            for (int r = 0; r < ForwardWeights::kRows[o]; ++r) {
                forward.rows[o][r] = floats + kPad;
                floats += g.floatPitch;
            }
    }
};

class Band {
  public:
    Band(const cv::Mat& input, cv::Mat& median, cv::Mat& output, WorkRows& work, const Geometry& g,
         Isa level)
        : input_(input),
          median_(median),
          output_(output),
          work_(work),
          g_(g),
          level_(level),
          table_(bilateralTable()) {
#if TALVORO_X86_64
        static const bool fma = __builtin_cpu_supports("fma");
        vector_ = level >= Isa::Avx2 && fma;
#endif
    }

    void run(int begin, int end) {
        begin_ = begin;
        end_ = end;
        next_ = std::max(0, begin - kRadius);
        // The forward weights of the two rows above the band feed its first rows' mirrored taps.
        for (int y = vector_ ? begin - kRadius : begin; y < end; ++y) {
            MedianRows rows;
            for (int dy = -kRadius; dy <= kRadius; ++dy) {
                const int r = reflect101(y + dy, g_.height);
                ensureMedian(r);
                rows[dy + kRadius] = work_.median[r & 7];
            }
#if TALVORO_X86_64
            if (vector_) forwardWeightsAvx2(rows, work_.forward, y, g_.width, table_);
#endif
            if (y < begin) continue;
            uint8_t* out = output_.ptr<uint8_t>(y);
            int x = 0;
#if TALVORO_X86_64
            if (vector_) x = bilateralRowAvx2(rows, work_.forward, y, g_.width, out);
#endif
            for (; x < g_.width; ++x)
                out[x] = bilateralPixel(rows, x, table_);
        }
    }

  private:
    // Computes median rows (in pairs) until row r is in the work rows.
    void ensureMedian(int r) {
        while (next_ <= r) {
            medianPair(next_);
            next_ += 2;
        }
    }

    void medianPair(int m) {
        for (int k = 0; k < 6; ++k)
            padInputRow(replicate(m - kRadius + k, g_.height), work_.input[k]);
        uint8_t* first = work_.median[m & 7];
        uint8_t* second = work_.median[(m + 1) & 7];
#if TALVORO_X86_64
        if (level_ >= Isa::Avx2)
            medianPairAvx2(work_.input, work_.sorted, first, second, g_);
        else if (level_ >= Isa::Sse2)
            medianPairSse2(work_.input, work_.sorted, first, second, g_);
        else
#endif
            medianPairScalar(work_.input, work_.sorted, first, second, g_);
        for (int r = m; r <= m + 1 && r < g_.height; ++r) {
            uint8_t* row = work_.median[r & 7];
            for (int c = 1; c <= kRadius; ++c) {
                row[-c] = row[reflect101(-c, g_.width)];
                row[g_.width - 1 + c] = row[reflect101(g_.width - 1 + c, g_.width)];
            }
            if (r >= begin_ && r < end_) std::memcpy(median_.ptr<uint8_t>(r), row, g_.width);
        }
    }

    void padInputRow(int r, uint8_t* row) const {
        const uint8_t* s = input_.ptr<uint8_t>(r);
        std::memcpy(row, s, size_t(g_.width));
        for (int c = 1; c <= kRadius; ++c) {
            row[-c] = s[0];
            row[g_.width - 1 + c] = s[g_.width - 1];
        }
    }

    const cv::Mat& input_;
    cv::Mat& median_;
    cv::Mat& output_;
    WorkRows& work_;
    const Geometry& g_;
    const Isa level_;
    const BilateralTable& table_;
    bool vector_ = false;
    int begin_ = 0, end_ = 0, next_ = 0;
};

}  // namespace

void spatialFilter(const cv::Mat& input, const SpatialImages& images, WorkerPool& pool) {
    images.median.create(input.size(), CV_8UC1);
    images.output.create(input.size(), CV_8UC1);
    const int width = input.cols;
    const Geometry g{width, input.rows, size_t(kPad + width + kSlack + 31) / 32 * 32,
                     size_t(kPad + width + kSlack + 7) / 8 * 8};
    const size_t perThread = (WorkRows::bytes(g) + 63) / 64 * 64;
    const size_t bytes = perThread * pool.slots() + 64;
    if (images.scratch.total() * images.scratch.elemSize() < bytes ||
        !images.scratch.isContinuous()) {
        // Zeroed once: work rows past the image hold defined values.
        images.scratch = cv::Mat::zeros(1, int(bytes), CV_8UC1);
    }
    uint8_t* base = images.scratch.ptr<uint8_t>();
    base += (64 - reinterpret_cast<uintptr_t>(base) % 64) % 64;
    const Isa level = isa();
    pool.forEach(size_t(input.rows), pool.pieces(), [&](size_t begin, size_t end, unsigned slot) {
        WorkRows work(base + perThread * slot, g);
        Band(input, images.median, images.output, work, g, level).run(int(begin), int(end));
    });
}

}  // namespace Talvoro::frame
