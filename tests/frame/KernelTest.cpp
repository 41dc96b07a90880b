// Every vector path of the frame kernels against the scalar reference, on random data.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "frame/Cpu.h"
#include "frame/FlyingPixelFilter.h"
#include "frame/Planarization.h"
#include "frame/Separation.h"
#include "frame/TemporalFilter.h"

using namespace Talvoro::frame;

namespace Talvoro::frame {
// Test names and failure messages show the level by name.
void PrintTo(Isa level, std::ostream* out) {
    static const char* const names[] = {"Scalar", "Sse2", "Ssse3", "Avx2", "Avx512"};
    *out << names[int(level)];
}
}  // namespace Talvoro::frame

namespace {

class Kernels : public ::testing::TestWithParam<Isa> {
  protected:
    void SetUp() override {
        if (isa() < GetParam()) GTEST_SKIP() << "CPU lacks this level";
        setIsaLimit(GetParam());
    }
    void TearDown() override { setIsaLimit(Isa::Avx512); }

    // Depth-like data: mostly smooth, with spikes, zeros and extremes.
    std::vector<uint16_t> depth(size_t n) {
        std::vector<uint16_t> v(n);
        std::uniform_int_distribution<int> pick(0, 9), any(0, 65535), near(0, 250);
        int base = 1000;
        for (auto& x : v) {
            const int k = pick(rng_);
            base = std::max(0, std::min(65535, base + near(rng_) - 125));
            x = uint16_t(k == 0 ? 0 : k == 1 ? any(rng_) : k == 2 ? 65535 : base);
        }
        return v;
    }
    std::mt19937 rng_{12345};
};

}  // namespace

TEST_P(Kernels, UnpackAndGainMatchScalar) {
    std::vector<uint8_t> bytes(960 * 3 + 24);
    for (auto& b : bytes)
        b = uint8_t(rng_());
    const size_t pixels = 640 * 3 + 16;  // whole lines and a tail
    std::vector<uint16_t> a(pixels), b(pixels);
    unpack12(bytes.data(), a.data(), pixels);
    unpack12Scalar(bytes.data(), b.data(), pixels);
    EXPECT_EQ(a, b);
    std::vector<uint16_t> gained(pixels), expected(pixels);
    unpack12WithGain(bytes.data(), a.data(), gained.data(), pixels, 23);
    applyGainScalar(b.data(), expected.data(), pixels, 23);
    EXPECT_EQ(a, b);
    EXPECT_EQ(gained, expected);
    for (uint16_t gain : {1, 2, 16, 100, 65535}) {
        std::vector<uint16_t> raw = depth(1001), x(1001), y(1001);
        applyGain(raw.data(), x.data(), raw.size(), gain);
        applyGainScalar(raw.data(), y.data(), raw.size(), gain);
        EXPECT_EQ(x, y) << gain;
    }
}

TEST_P(Kernels, TemporalAverageMatchesScalar) {
    for (size_t count : {0, 1, 5, 17}) {
        std::vector<std::vector<uint16_t>> past;
        std::vector<const uint16_t*> history;
        for (size_t k = 0; k < count; ++k)
            past.push_back(depth(4099));
        for (auto& p : past)
            history.push_back(p.data());
        std::vector<uint16_t> x = depth(4099), y = x;
        temporalAverage(x.data(), history.data(), count, 100, x.size());
        temporalAverageScalar(y.data(), history.data(), count, 100, y.size());
        EXPECT_EQ(x, y) << count;
    }
}

TEST_P(Kernels, PlanarizationMatchesScalar) {
    std::vector<uint16_t> x = depth(50003), y;
    std::vector<double> cosines(x.size());
    std::uniform_real_distribution<double> c(-1.0, 1.0);
    for (auto& v : cosines)
        v = c(rng_);
    // Products on and next to integers, where single precision cannot decide.
    for (size_t i = 0; i < x.size(); i += 3) {
        const double exact = double(int(x[i] * std::fabs(cosines[i]))) / (x[i] ? x[i] : 1);
        const int step = int(i % 7) - 3;
        cosines[i] = step == 0 ? exact : std::nextafter(exact, step * 2.0);
    }
    cosines[0] = std::nan("");
    cosines[1] = 1e30;
    cosines[2] = -std::numeric_limits<double>::infinity();
    std::vector<float> nearCosines(cosines.begin(), cosines.end());
    y = x;
    planarize(x.data(), cosines.data(), nearCosines.data(), x.size());
    planarizeScalar(y.data(), cosines.data(), y.size());
    EXPECT_EQ(x, y);
    planarize(y.data(), cosines.data(), nullptr, y.size());
    planarize(x.data(), cosines.data(), nearCosines.data(), x.size());
    EXPECT_EQ(x, y);
}

TEST_P(Kernels, FlyingPixelTestMatchesScalar) {
    const int w = 203, h = 57;
    // Rough depth, and a smooth surface whose pixels sit near the limits of the sets below.
    std::vector<uint16_t> rough = depth(size_t(w) * h), smooth(rough.size());
    std::uniform_int_distribution<int> noise(0, 160);
    for (size_t i = 0; i < smooth.size(); ++i)
        smooth[i] = uint16_t(900 + i % 400 + noise(rng_));
    // The camera's two sets; a zero slope; limits whose quotient takes both signs, with a
    // positive and a negative slope; a slope too steep for the integer form.
    for (auto limits : {std::vector<int>{200, 1200, 10, 20},
                        {1000, 6000, 20, 40},
                        {-7, 3, -2, 9},
                        {0, 0, 5, 5},
                        {1100, 2100, 160, 170},
                        {1100, 100, 160, 170},
                        {0, 262140, 0, 1}}) {
        const FlyingPixelLimit l = flyingPixelLimit(limits[0], limits[1], limits[2], limits[3]);
        for (const std::vector<uint16_t>& src : {rough, smooth}) {
            std::vector<uint16_t> x(src.size(), 1), y(src.size(), 1);
            flyingPixelRows(src.data(), w, x.data(), w, 1, h - 1, 1, w - 1, l);
            flyingPixelRowsScalar(src.data(), w, y.data(), w, 1, h - 1, 1, w - 1, l);
            EXPECT_EQ(x, y) << limits[0] << " " << limits[2];
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Frame, Kernels,
                         ::testing::Values(Isa::Sse2, Isa::Ssse3, Isa::Avx2, Isa::Avx512),
                         [](const auto& info) { return ::testing::PrintToString(info.param); });
