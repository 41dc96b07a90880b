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

class Noise {
  public:
    explicit Noise(uint32_t seed) : s_(seed ? seed : 0x9E3779B9u) {}

    // Approximately standard normal: the sum of four uniforms, scaled.
    double gauss() {
        double sum = 0;
        for (int i = 0; i < 4; ++i)
            sum += next() * (1.0 / 4294967296.0);
        return (sum - 2.0) * 1.7320508075688772;
    }

  private:
    uint32_t next() {  // xorshift32
        s_ ^= s_ << 13;
        s_ ^= s_ >> 17;
        s_ ^= s_ << 5;
        return s_;
    }
    uint32_t s_;
};

uint16_t clampCode(double v) {
    return static_cast<uint16_t>(std::clamp(std::lround(v), 0L, static_cast<long>(kMaxCode)));
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

TofCodes quantise(const scene::TofImage& image, int depthRange, uint32_t seed) {
    Noise noise(seed);
    TofCodes out;
    out.depth.resize(W * H);
    out.ir.resize(W * H);
    const double unit = depthRange == 1 ? 2.0 : 1.0;
    for (int i = 0; i < W * H; ++i) {
        const double d = image.distanceMm[i];
        const double a = image.amplitude[i];
        // Depth noise grows with distance and with the lack of returned light.
        const double sigma = 1.0 + 0.0012 * d + (a > 0 ? 400.0 / a : 0.0);
        const double code = (d + sigma * noise.gauss()) / unit;
        out.depth[i] = (a < kMinAmplitude || d <= 0 || code > kMaxCode) ? 0 : clampCode(code);
        out.ir[i] = clampCode(a + (2.0 + 0.01 * a) * noise.gauss());
    }
    return out;
}

std::vector<uint8_t> uyvy(const scene::ColourImage& image) {
    std::vector<uint8_t> out(static_cast<std::size_t>(image.width) * image.height * 2);
    auto y = [](const uint8_t* p) {
        return 16 + (65.481 * p[0] + 128.553 * p[1] + 24.966 * p[2]) / 255;
    };
    auto u = [](const uint8_t* p) {
        return 128 + (-37.797 * p[0] - 74.203 * p[1] + 112.0 * p[2]) / 255;
    };
    auto v = [](const uint8_t* p) {
        return 128 + (112.0 * p[0] - 93.786 * p[1] - 18.214 * p[2]) / 255;
    };
    auto byte = [](double x) { return static_cast<uint8_t>(std::clamp(x + 0.5, 0.0, 255.0)); };
    const std::size_t pairs = out.size() / 4;
    for (std::size_t i = 0; i < pairs; ++i) {
        const uint8_t* a = &image.rgb[i * 6];
        const uint8_t* b = a + 3;
        uint8_t* o = &out[i * 4];
        o[0] = byte((u(a) + u(b)) / 2);
        o[1] = byte(y(a));
        o[2] = byte((v(a) + v(b)) / 2);
        o[3] = byte(y(b));
    }
    return out;
}

std::vector<uint8_t> depthIrRows(const TofCodes& codes) {
    std::vector<uint8_t> out(static_cast<std::size_t>(W) * H * 4);
    for (int r = 0; r < H; ++r) {
        uint8_t* row = &out[static_cast<std::size_t>(r) * W * 4];
        for (int c = 0; c < W; ++c) {
            put16(row + 2 * c, codes.depth[r * W + c]);
            put16(row + 2 * (W + c), codes.ir[r * W + c]);
        }
    }
    return out;
}

std::vector<uint8_t> rows16(const std::vector<uint16_t>& values) {
    std::vector<uint8_t> out(values.size() * 2);
    for (std::size_t i = 0; i < values.size(); ++i)
        put16(&out[2 * i], values[i]);
    return out;
}

void packTofLine(const uint16_t* values, uint8_t* line) {
    for (int i = 0; i < W / 2; ++i) {
        uint16_t p0 = values[2 * i] & kMaxCode, p1 = values[2 * i + 1] & kMaxCode;
        if (i == 0) p0 |= 0x10;
        line[3 * i] = static_cast<uint8_t>(p0 >> 4);
        line[3 * i + 1] = static_cast<uint8_t>(p1 >> 4);
        line[3 * i + 2] = static_cast<uint8_t>((p0 & 0x0F) << 4 | (p1 & 0x0F));
    }
}

std::vector<uint8_t> multiplexed(const TofCodes& codes, const std::vector<uint8_t>& colour,
                                 int colourWidth, int colourHeight) {
    const bool vga = colourWidth == 640 && colourHeight == 480;
    const bool hd = colourWidth == 1280 && colourHeight == 720;
    if ((!vga && !hd) || colour.size() != static_cast<std::size_t>(colourWidth) * colourHeight * 2)
        return {};
    std::vector<uint8_t> out(vga ? kVgaMultiplexedBytes : kHdMultiplexedBytes);
    uint8_t* p = out.data();
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
    return out;
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
