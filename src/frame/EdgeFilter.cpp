#include "frame/EdgeFilter.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

#include "frame/ColorMap.h"
#include "frame/Cpu.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace Talvoro::frame {

namespace {

constexpr int kPad = 16;    // bytes before column 0 of a work row
constexpr int kSlack = 64;  // bytes after the last column
constexpr uint8_t kErodeBorder = 4;

// Reflect-101, repeated for images narrower than the kernel, as OpenCV's border interpolation.
inline int reflect101(int i, int n) {
    if (n == 1) return 0;
    while (i < 0 || i >= n)
        i = i < 0 ? -i : 2 * n - 2 - i;
    return i;
}

// The filter is written once for N lanes: GCC's vector extension for 16 or 32 (AVX2) and 8
// (SSE2) lanes, plain integers for 1, inlined into a function per instruction level.
template <int N>
struct Lanes;
#if defined(__x86_64__)
template <>
struct Lanes<32> {
    typedef uint8_t U8 __attribute__((vector_size(32)));
};
template <>
struct Lanes<16> {
    typedef uint8_t U8 __attribute__((vector_size(16)));
    typedef int16_t I16 __attribute__((vector_size(32)));
};
template <>
struct Lanes<8> {
    typedef uint8_t U8 __attribute__((vector_size(8)));
    typedef int16_t I16 __attribute__((vector_size(16)));
};
#endif
template <>
struct Lanes<1> {
    using U8 = uint8_t;
    using I16 = int16_t;
};

#define TALVORO_INLINE inline __attribute__((always_inline))

template <class V, class T>
TALVORO_INLINE void load(V& v, const T* p) {
    std::memcpy(&v, p, sizeof(V));
}
template <class T, class V>
TALVORO_INLINE void store(T* p, const V& v) {
    std::memcpy(p, &v, sizeof(V));
}
template <class To, class From>
TALVORO_INLINE void convert(To& to, const From& from) {
    if constexpr (std::is_arithmetic_v<From>)
        to = To(from);
    else
        to = __builtin_convertvector(from, To);
}
template <class V>
TALVORO_INLINE void minimum(V& a, const V& b) {
    a = b < a ? b : a;
}

struct Geometry {
    int width, height;
    size_t pitch;  // bytes of a work row
};

// Row passes of the separable kernels over a padded input row: [1 0 -2 0 1] (derivative) and
// [1 4 6 4 1] (smoothing), 16-bit.
template <int N>
TALVORO_INLINE void rowPasses(const uint8_t* in, int16_t* derivative, int16_t* smooth, int width) {
    using U8 = typename Lanes<N>::U8;
    using I16 = typename Lanes<N>::I16;
    for (int x = 0; x < width; x += N) {
        I16 v[5];
#pragma GCC unroll 5
        for (int k = 0; k < 5; ++k) {
            U8 bytes;
            load(bytes, in + x - 2 + k);
            convert(v[k], bytes);
        }
        const I16 outer = v[0] + v[4];
        store(derivative + x, I16(outer - v[2] - v[2]));
        store(smooth + x, I16(outer + 4 * (v[1] + v[3]) + 6 * v[2]));
    }
}

// Column passes of gradient row y: smoothing of the derivatives (x gradient) and derivative of
// the smoothed rows (y gradient), times 4, each saturated to 8 bits, and their saturated sum.
template <int N>
TALVORO_INLINE void gradientRow(const int16_t* const* derivative, const int16_t* const* smooth,
                                uint8_t* magnitude, int width) {
    using U8 = typename Lanes<N>::U8;
    using I16 = typename Lanes<N>::I16;
    // Local copies: the stores below cannot change them, so they stay in registers.
    const int16_t* rowsD[5];
    const int16_t* rowsS[5];
    for (int k = 0; k < 5; ++k) {
        rowsD[k] = derivative[k];
        rowsS[k] = smooth[k];
    }
    for (int x = 0; x < width; x += N) {
        I16 d[5], s[5];
#pragma GCC unroll 5
        for (int k = 0; k < 5; ++k) {
            load(d[k], rowsD[k] + x);
            load(s[k], rowsS[k] + x);
        }
        I16 gx = static_cast<I16>(4 * (d[0] + d[4] + 4 * (d[1] + d[3]) + 6 * d[2]));
        I16 gy = static_cast<I16>(4 * (s[0] + s[4] - s[2] - s[2]));
        gx = gx < 0 ? 0 : gx;
        gx = gx > 255 ? 255 : gx;
        gy = gy < 0 ? 0 : gy;
        gy = gy > 255 ? 255 : gy;
        I16 sum = gx + gy;
        sum = sum > 255 ? 255 : sum;
        U8 bytes;
        convert(bytes, sum);
        store(magnitude + x, bytes);
    }
}

// Erosion of gradient row y (3x3 minimum, 4 outside the image): above or below is null at the
// image's edge. vertical is a work row.
template <int N>
TALVORO_INLINE void erodeRow(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                             uint8_t* vertical, uint8_t* out, int width) {
    using U8 = typename Lanes<N>::U8;
    U8 border;
    if constexpr (N == 1)
        border = kErodeBorder;
    else
        border = U8{} + kErodeBorder;
    for (int x = 0; x < width; x += N) {
        U8 m, v = border;
        load(m, row + x);
        if (above) load(v, above + x);
        minimum(m, v);
        v = border;
        if (below) load(v, below + x);
        minimum(m, v);
        store(vertical + x, m);
    }
    vertical[-1] = kErodeBorder;
    vertical[width] = kErodeBorder;
    int x = 0;
    for (; x + N <= width; x += N) {
        U8 m, v;
        load(m, vertical + x - 1);
        load(v, vertical + x);
        minimum(m, v);
        load(v, vertical + x + 1);
        minimum(m, v);
        store(out + x, m);
    }
    for (; x < width; ++x)
        out[x] = std::min({vertical[x - 1], vertical[x], vertical[x + 1]});
}

// The kernels of one instruction level.
struct Kernels {
    void (*rowPasses)(const uint8_t*, int16_t*, int16_t*, int);
    void (*gradientRow)(const int16_t* const*, const int16_t* const*, uint8_t*, int);
    void (*erodeRow)(const uint8_t*, const uint8_t*, const uint8_t*, uint8_t*, uint8_t*, int);
};

template <int N>
struct Level {
    static void rows(const uint8_t* in, int16_t* d, int16_t* s, int w) {
        rowPasses<N>(in, d, s, w);
    }
    static void gradient(const int16_t* const* d, const int16_t* const* s, uint8_t* m, int w) {
        gradientRow<N>(d, s, m, w);
    }
    static void erode(const uint8_t* a, const uint8_t* r, const uint8_t* b, uint8_t* v, uint8_t* o,
                      int w) {
        erodeRow<N>(a, r, b, v, o, w);
    }
};

#if defined(__x86_64__)
#define TALVORO_AVX2 __attribute__((target("avx2")))
// GCC widens bytes to words in halves; the intrinsic does it in one instruction.
TALVORO_AVX2 inline __m256i widen16(const uint8_t* p) {
    return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

struct Avx2 {
    TALVORO_AVX2 static void rows(const uint8_t* in, int16_t* d, int16_t* s, int w) {
        for (int x = 0; x < w; x += 16) {
            const __m256i a = widen16(in + x - 2), b = widen16(in + x - 1), c = widen16(in + x),
                          e = widen16(in + x + 1), f = widen16(in + x + 2);
            const __m256i outer = _mm256_add_epi16(a, f);
            const __m256i c2 = _mm256_slli_epi16(c, 1);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + x), _mm256_sub_epi16(outer, c2));
            const __m256i inner = _mm256_slli_epi16(_mm256_add_epi16(b, e), 2);
            const __m256i c6 = _mm256_add_epi16(c2, _mm256_slli_epi16(c, 2));
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(s + x),
                                _mm256_add_epi16(_mm256_add_epi16(outer, inner), c6));
        }
    }
    TALVORO_AVX2 static void gradient(const int16_t* const* d, const int16_t* const* s, uint8_t* m,
                                      int w) {
        gradientRow<16>(d, s, m, w);
    }
    TALVORO_AVX2 static void erode(const uint8_t* a, const uint8_t* r, const uint8_t* b, uint8_t* v,
                                   uint8_t* o, int w) {
        erodeRow<32>(a, r, b, v, o, w);
    }
};
#undef TALVORO_AVX2
#endif

Kernels kernels(Isa level) {
#if defined(__x86_64__)
    if (level >= Isa::Avx2) return {Avx2::rows, Avx2::gradient, Avx2::erode};
    if (level >= Isa::Sse2) return {Level<8>::rows, Level<8>::gradient, Level<8>::erode};
#endif
    (void)level;
    return {Level<1>::rows, Level<1>::gradient, Level<1>::erode};
}

// One thread's work rows.
struct WorkRows {
    uint8_t* input;          // padded input row
    int16_t* derivative[8];  // row passes, by input row modulo 8
    int16_t* smooth[8];
    uint8_t* gradient[4];  // gradient rows, by row modulo 4
    uint8_t* vertical;

    static size_t bytes(const Geometry& g) { return (2 + 4 + 2 * 8 * 2) * g.pitch; }
    WorkRows(uint8_t* base, const Geometry& g) {
        auto row = [&](int units) {
            uint8_t* r = base + kPad;
            base += units * g.pitch;
            return r;
        };
        input = row(1);
        for (int i = 0; i < 8; ++i) {
            derivative[i] = reinterpret_cast<int16_t*>(row(2));
            smooth[i] = reinterpret_cast<int16_t*>(row(2));
        }
        for (uint8_t*& r : gradient)
            r = row(1);
        vertical = row(1);
    }
};

// The mask (and the colours) of rows [begin, end).
class Band {
  public:
    Band(const cv::Mat& input, cv::Mat& mask, WorkRows& work, const Geometry& g, const Kernels& k)
        : input_(input), mask_(mask), work_(work), g_(g), k_(k) {}

    template <class Row>
    void run(int begin, int end, Row afterRow) {
        nextInput_ = std::max(0, begin - 3);
        nextGradient_ = std::max(0, begin - 1);
        for (int y = begin; y < end; ++y) {
            ensureGradient(std::min(y + 1, g_.height - 1));
            const uint8_t* above = y > 0 ? work_.gradient[(y - 1) & 3] : nullptr;
            const uint8_t* below = y + 1 < g_.height ? work_.gradient[(y + 1) & 3] : nullptr;
            uint8_t* out = mask_.ptr<uint8_t>(y);
            k_.erodeRow(above, work_.gradient[y & 3], below, work_.vertical, out, g_.width);
            afterRow(y);
        }
    }

  private:
    void ensureGradient(int m) {
        for (; nextGradient_ <= m; ++nextGradient_) {
            const int r = nextGradient_;
            const int16_t* d[5];
            const int16_t* s[5];
            for (int k = 0; k < 5; ++k) {
                const int source = reflect101(r - 2 + k, g_.height);
                ensureInput(source);
                d[k] = work_.derivative[source & 7];
                s[k] = work_.smooth[source & 7];
            }
            k_.gradientRow(d, s, work_.gradient[r & 3], g_.width);
        }
    }

    void ensureInput(int r) {
        for (; nextInput_ <= r; ++nextInput_) {
            const uint8_t* s = input_.ptr<uint8_t>(nextInput_);
            uint8_t* row = work_.input;
            std::memcpy(row, s, size_t(g_.width));
            for (int c = 1; c <= 2; ++c) {
                row[-c] = s[reflect101(-c, g_.width)];
                row[g_.width - 1 + c] = s[reflect101(g_.width - 1 + c, g_.width)];
            }
            k_.rowPasses(row, work_.derivative[nextInput_ & 7], work_.smooth[nextInput_ & 7],
                         g_.width);
        }
    }

    const cv::Mat& input_;
    cv::Mat& mask_;
    WorkRows& work_;
    const Geometry& g_;
    const Kernels& k_;
    int nextInput_ = 0, nextGradient_ = 0;
};

template <class Row>
void bands(const cv::Mat& input, const EdgeImages& images, WorkerPool& pool, Row afterRow) {
    images.mask.create(input.size(), CV_8UC1);
    const Geometry g{input.cols, input.rows, size_t(kPad + 2 * input.cols + kSlack + 31) / 32 * 32};
    const size_t perThread = (WorkRows::bytes(g) + 63) / 64 * 64;
    const size_t bytes = perThread * pool.slots() + 64;
    if (images.scratch.total() * images.scratch.elemSize() < bytes ||
        !images.scratch.isContinuous())
        images.scratch = cv::Mat::zeros(1, int(bytes), CV_8UC1);  // zeroed: defined past the rows
    uint8_t* base = images.scratch.ptr<uint8_t>();
    base += (64 - reinterpret_cast<uintptr_t>(base) % 64) % 64;
    const Kernels k = kernels(isa());
    pool.forEach(size_t(input.rows), pool.pieces(), [&](size_t begin, size_t end, unsigned slot) {
        WorkRows work(base + perThread * slot, g);
        Band(input, images.mask, work, g, k).run(int(begin), int(end), afterRow);
    });
}

}  // namespace

void edgeMask(const cv::Mat& input, const EdgeImages& images, WorkerPool& pool) {
    bands(input, images, pool, [](int) {});
}

void colourWithEdges(const cv::Mat& input, const uint32_t* table, cv::Mat& coloured,
                     const EdgeImages& images, WorkerPool& pool) {
    coloured.create(input.size(), CV_8UC3);
    const cv::Mat& mask = images.mask;
    const MaskedColours colours(table);
    bands(input, images, pool, [&](int y) {
        colourRowMasked(input.ptr<uint8_t>(y), mask.ptr<uint8_t>(y), coloured.ptr<uint8_t>(y),
                        input.cols, colours);
    });
}

}  // namespace Talvoro::frame
