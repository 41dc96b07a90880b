#include "RawLayout.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vcam::raw {

namespace {

constexpr int W = scene::kTofWidth;
constexpr int H = scene::kTofHeight;

// Below this much returned light the sensor flags the pixel as invalid.
constexpr float kMinAmplitude = 20;

uint32_t mix32(uint32_t x) {  // a 32-bit integer hash with full avalanche
    x ^= x >> 16;
    x *= 0x7feb352dU;
    x ^= x >> 15;
    x *= 0x846ca68bU;
    x ^= x >> 16;
    return x;
}

// An approximately standard normal draw from the four bytes of a hash: their sum (Irwin-Hall),
// centred and scaled; it never strays beyond 3.5 standard deviations.
float normalDraw(uint32_t h) {
    const uint32_t sum = (h & 255) + ((h >> 8) & 255) + ((h >> 16) & 255) + (h >> 24);
    return (static_cast<float>(sum) - 510.0f) * (1.0f / 147.8f);
}

// Standard normal draws that every frame's noise is cut from: a frame adds two windows of it at
// offsets its key chooses (scaled back to unit variance), two loads per draw instead of a hash.
constexpr uint32_t kBankSize = 1u << 20;
constexpr uint32_t kWindow = static_cast<uint32_t>(W) * H;

const float* noiseBank() {
    static const std::vector<float> bank = [] {
        std::vector<float> b(kBankSize);
        for (uint32_t i = 0; i < kBankSize; ++i)
            b[i] = normalDraw(mix32(i ^ 0x5EED5EEDu)) * 0.70710678f;
        return b;
    }();
    return bank.data();
}

void put16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

void colourLine(const uint8_t* row, int bytes, uint8_t* line) {
    std::memcpy(line, row, bytes);
    line[0] &= 0xFE;  // bit 0 of the first byte tells a colour line from a ToF line
}

// An HD colour line: pixels 0-1275, the extra word (word 319), pixels 1276-1279.
void hdColourLine(const uint8_t* row, uint8_t* line) {
    colourLine(row, kHdExtraWordOffset, line);
    std::memset(line + kHdExtraWordOffset, 0xFF, 8);
    std::memcpy(line + kHdExtraWordOffset + 8, row + kHdExtraWordOffset, 8);
}

}  // namespace

uint32_t noiseKey(uint32_t seed, uint64_t frame) {
    return mix32(mix32(seed) ^ mix32(static_cast<uint32_t>(frame) +
                                     mix32(static_cast<uint32_t>(frame >> 32) + 0x9E3779B9U)));
}

void quantise(const scene::TofImage& image, int depthRange, uint32_t key, TofCodes* out) {
    out->depth.resize(kWindow);
    out->ir.resize(kWindow);
    const float* bank = noiseBank();
    auto window = [&](uint32_t which) { return bank + mix32(key + which) % (kBankSize - kWindow); };
    const float *depthA = window(1), *depthB = window(2), *irA = window(3), *irB = window(4);
    const float unit = depthRange == 1 ? 0.5f : 1.0f;  // codes per millimetre
    const float* distance = image.distanceMm.data();
    const float* amplitude = image.amplitude.data();
    uint16_t* depth = out->depth.data();
    uint16_t* ir = out->ir.data();
    // Written without branches, so that the compiler vectorises it (see CMakeLists.txt).
    for (uint32_t i = 0; i < kWindow; ++i) {
        const float d = distance[i], a = amplitude[i];
        // Depth noise grows with distance and with the lack of returned light.
        const float sigma = 1.0f + 0.0012f * d + 400.0f / (a > 1e-3f ? a : 1e-3f);
        const float value = (d + sigma * (depthA[i] + depthB[i])) * unit;
        const bool measured = (a >= kMinAmplitude) & (d > 0.0f) & (value <= kMaxCode + 0.5f);
        const float code = measured ? (value > 0.0f ? value : 0.0f) : 0.0f;
        depth[i] = static_cast<uint16_t>(static_cast<int>(code + 0.5f));
        // IR noise grows with the light and with the distance, 2 codes per metre.
        const float light = a + (2.0f + 0.01f * a + 0.002f * d) * (irA[i] + irB[i]);
        const float level = light > 0.0f ? (light < kMaxCode ? light : kMaxCode) : 0.0f;
        ir[i] = static_cast<uint16_t>(static_cast<int>(level + 0.5f));
    }
}

std::vector<uint8_t> uyvy(const scene::ColourImage& image) {
    std::vector<uint8_t> out(static_cast<std::size_t>(image.width) * image.height * 2);
    const std::size_t pairs = out.size() / 4;
    for (std::size_t i = 0; i < pairs; ++i)
        uyvyPair(&image.rgb[i * 6], &image.rgb[i * 6 + 3], &out[i * 4]);
    return out;
}

void depthIrRows(const TofCodes& codes, std::vector<uint8_t>* out) {
    out->resize(static_cast<std::size_t>(W) * H * 4);
    for (int r = 0; r < H; ++r) {
        uint8_t* row = &(*out)[static_cast<std::size_t>(r) * W * 4];
        for (int c = 0; c < W; ++c) {
            put16(row + 2 * c, codes.depth[r * W + c]);
            put16(row + 2 * (W + c), codes.ir[r * W + c]);
        }
    }
}

void rows16(const std::vector<uint16_t>& values, std::vector<uint8_t>* out) {
    out->resize(values.size() * 2);
    for (std::size_t i = 0; i < values.size(); ++i)
        put16(&(*out)[2 * i], values[i]);
}

void packTofLine(const uint16_t* values, uint8_t* line) {
    for (int i = 0; i < W / 2; ++i) {
        const uint16_t p0 = values[2 * i] & kMaxCode, p1 = values[2 * i + 1] & kMaxCode;
        line[3 * i] = static_cast<uint8_t>(p0 >> 4);
        line[3 * i + 1] = static_cast<uint8_t>(p1 >> 4);
        line[3 * i + 2] = static_cast<uint8_t>((p0 & 0x0F) << 4 | (p1 & 0x0F));
    }
    line[0] |= 1;  // the tag: bit 4 of the first pixel
}

void multiplexed(const TofCodes& codes, const std::vector<uint8_t>& colour, int colourWidth,
                 int colourHeight, std::vector<uint8_t>* out) {
    const bool vga = colourWidth == 640 && colourHeight == 480;
    const bool hd = colourWidth == 1280 && colourHeight == 720;
    if ((!vga && !hd) ||
        colour.size() != static_cast<std::size_t>(colourWidth) * colourHeight * 2) {
        out->clear();
        return;
    }
    out->resize(vga ? kVgaMultiplexedBytes : kHdMultiplexedBytes);
    uint8_t* p = out->data();
    const std::size_t rowBytes = static_cast<std::size_t>(colourWidth) * 2;
    auto tofPair = [&](int row) {
        packTofLine(&codes.depth[row * W], p);
        packTofLine(&codes.ir[row * W], p + kTofLineBytes);
        p += 2 * kTofLineBytes;
    };
    auto colourRow = [&](int row) {
        if (vga) {
            colourLine(&colour[row * rowBytes], kVgaColourLineBytes, p);
            p += kVgaColourLineBytes;
        } else {
            hdColourLine(&colour[row * rowBytes], p);
            p += kHdColourLineBytes;
        }
    };
    if (vga) {
        // Each ToF row pair is followed by the colour row it was exposed with.
        for (int r = 0; r < H; ++r) {
            tofPair(r);
            colourRow(r);
        }
    } else {
        // Two ToF rows to three colour rows.
        for (int k = 0; k < H / 2; ++k) {
            tofPair(2 * k);
            colourRow(3 * k);
            tofPair(2 * k + 1);
            colourRow(3 * k + 1);
            colourRow(3 * k + 2);
        }
    }
}

bool addSurplusDepthLine(uint8_t* frame, std::size_t size, int colourLineBytes) {
    std::size_t pos = 0, firstDepth = 0;
    int tofLines = 0;
    while (pos < size && tofLines < 2 * H) {
        if (frame[pos] & 1) {
            if (tofLines++ == 0) firstDepth = pos;
            pos += kTofLineBytes;
        } else {
            pos += colourLineBytes;
        }
    }
    if (tofLines < 2 * H || pos + kTofLineBytes > size) return false;
    std::memcpy(frame + pos, frame + firstDepth, kTofLineBytes);
    return true;
}

}  // namespace vcam::raw
