#include "Baselines.h"

#include <cstdlib>
#include <cstring>
#include <thread>

namespace bench {

void temporalBaseline(uint16_t* depth, const uint16_t* const* history, int count, int threshold,
                      int pixels) {
    for (int i = 0; i < pixels; ++i) {
        int total = depth[i], n = 1;
        for (int k = 0; k < count; ++k) {
            if (std::abs(depth[i] - history[k][i]) <= threshold) {
                total += history[k][i];
                n++;
            }
        }
        depth[i] = uint16_t((total & 0xFFFF) / n);
    }
}

void planarizationBaseline(uint16_t* depth, const double* cosines, int pixels) {
    for (int i = 0; i < pixels; ++i)
        depth[i] = uint16_t(int(depth[i] * cosines[i]));
}

namespace {

void quadrant(const uint16_t* src, uint16_t* dst, int width, int r0, int r1, int c0, int c1,
              int dLow, int slope, int tLow) {
    for (int r = r0; r <= r1; ++r) {
        for (int c = c0; c <= c1; ++c) {
            const int p = src[r * width + c];
            int s = 0;
            for (int dr = -1; dr <= 1; ++dr)
                for (int dc = -1; dc <= 1; ++dc)
                    s += std::abs(p - src[(r + dr) * width + c + dc]);
            dst[r * width + c] = (p - dLow) / slope + tLow < s / 8 ? 0 : uint16_t(p);
        }
    }
}

int slopeOf(int dLow, int dHigh, int tLow, int tHigh) {
    return (dHigh - dLow) / (tHigh == tLow ? 1 : tHigh - tLow);
}

}  // namespace

void flyingPixelBaseline(const uint16_t* src, uint16_t* dst, int width, int height, int dLow,
                         int dHigh, int tLow, int tHigh) {
    std::memset(dst, 0, size_t(width) * height * 2);
    quadrant(src, dst, width, 1, height - 2, 1, width - 2, dLow, slopeOf(dLow, dHigh, tLow, tHigh),
             tLow);
}

void flyingPixelBaselineThreads(const uint16_t* src, uint16_t* dst, int width, int height, int dLow,
                                int dHigh, int tLow, int tHigh) {
    std::memset(dst, 0, size_t(width) * height * 2);
    const int slope = slopeOf(dLow, dHigh, tLow, tHigh), h = height / 2, w = width / 2;
    std::thread t[4] = {
        std::thread(quadrant, src, dst, width, 1, h - 1, 1, w - 1, dLow, slope, tLow),
        std::thread(quadrant, src, dst, width, h, height - 2, 1, w - 1, dLow, slope, tLow),
        std::thread(quadrant, src, dst, width, 1, h - 1, w, width - 2, dLow, slope, tLow),
        std::thread(quadrant, src, dst, width, h, height - 2, w, width - 2, dLow, slope, tLow)};
    for (auto& thread : t)
        thread.join();
}

}  // namespace bench
