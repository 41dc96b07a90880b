#include "Baselines.h"

#include <cstdlib>
#include <cstring>

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

void flyingPixelBaseline(const uint16_t* src, uint16_t* dst, int width, int height, int dLow,
                         int dHigh, int tLow, int tHigh) {
    std::memset(dst, 0, size_t(width) * height * 2);
    const int slope = (dHigh - dLow) / (tHigh == tLow ? 1 : tHigh - tLow);
    for (int r = 1; r < height - 1; ++r) {
        const uint16_t* up = src + (r - 1) * width;
        const uint16_t* row = src + r * width;
        const uint16_t* down = src + (r + 1) * width;
        uint16_t* out = dst + r * width;
        for (int c = 1; c < width - 1; ++c) {
            const int p = row[c];
            const int sum = std::abs(p - up[c - 1]) + std::abs(p - up[c]) +
                            std::abs(p - up[c + 1]) + std::abs(p - row[c - 1]) +
                            std::abs(p - row[c + 1]) + std::abs(p - down[c - 1]) +
                            std::abs(p - down[c]) + std::abs(p - down[c + 1]);
            out[c] = (p - dLow) / slope + tLow < (sum >> 3) ? 0 : uint16_t(p);
        }
    }
}

}  // namespace bench
