// libFuzzer target: raw frames of any length and content through the separation of each data
// mode, without the depth filters and the colour map (which work on the separated images
// whatever their content): the row pairs of mode 0, the depth and IR copies of modes 2 and 3,
// the tagged lines of modes 4 and 5, and the 12-bit unpacking of any pixel count from a buffer
// of exactly that many bytes.
//
// Input: mode (byte 0: 0, 2, 3, 4 or 5 by its value modulo 5), IR gain (byte 1), how the frame
// is built (byte 2), the signed 16-bit change of the frame's length, then the payload. Built as
// bytes, the payload is repeated to fill the frame; built as lines (byte 2 odd), each payload
// byte is one line whose first byte it is and whose kind (bit 0: ToF) and length (bits 1-2: as
// the mode's layout says, or 1, 8 or 100 bytes off it) it chooses, so that the tags of a
// multiplexed frame follow the fuzzer.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "frame/Separation.h"

namespace frame = Talvoro::frame;

namespace {

constexpr int kModes[5] = {0, 2, 3, 4, 5};
const size_t kFrameBytes[6] = {2 * frame::kImageBytes, 0,       frame::kImageBytes,
                               frame::kImageBytes,     1536000, 2770560};

struct Input {
    const uint8_t* data;
    size_t size, pos = 0;
    uint8_t byte() { return pos < size ? data[pos++] : 0; }
    int16_t i16() {
        const uint8_t low = byte();
        return int16_t(low | byte() << 8);
    }
};

// Repeats the payload over the whole buffer, doubling what is already there.
void fillWithBytes(std::vector<uint8_t>& raw, const uint8_t* payload, size_t n) {
    if (raw.empty()) return;
    if (n == 0) return std::fill(raw.begin(), raw.end(), 0);
    size_t filled = std::min(n, raw.size());
    std::memcpy(raw.data(), payload, filled);
    while (filled < raw.size()) {
        const size_t more = std::min(filled, raw.size() - filled);
        std::memcpy(raw.data() + filled, raw.data(), more);
        filled += more;
    }
}

void fillWithLines(std::vector<uint8_t>& raw, const uint8_t* plan, size_t n, int mode) {
    const size_t rgbLine = mode == 5 ? 2568 : 1280;
    const int offsets[4] = {0, -1, 8, -100};
    size_t pos = 0;
    for (size_t k = 0; pos < raw.size(); ++k) {
        const uint8_t b = n ? plan[k % n] : 1;
        const size_t want = (b & 1) ? 960 : rgbLine;
        const size_t length = std::min(size_t(int(want) + offsets[(b >> 1) & 3]), raw.size() - pos);
        std::memset(raw.data() + pos, b, length);
        pos += length;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in{data, size};
    const int mode = kModes[in.byte() % 5];
    const uint16_t gain = in.byte();
    const uint8_t build = in.byte();
    const int16_t change = in.i16();
    const uint8_t* payload = in.data + in.pos;
    const size_t payloadBytes = in.size - in.pos;

    // Kept between inputs: the separation writes every pixel it claims, whatever they held.
    static cv::Mat depth(frame::kHeight, frame::kWidth, CV_16UC1),
        rawIr(frame::kHeight, frame::kWidth, CV_16UC1), ir(frame::kHeight, frame::kWidth, CV_16UC1);
    static cv::Mat rgb(720, 1280, CV_8UC2), vgaRgb(480, 640, CV_8UC2);
    static std::vector<uint8_t> raw;
    raw.resize(size_t(std::max<int64_t>(0, int64_t(kFrameBytes[mode]) + change)));
    if (build & 1)
        fillWithLines(raw, payload, payloadBytes, mode);
    else
        fillWithBytes(raw, payload, payloadBytes);

    constexpr size_t rowBytes = frame::kWidth * 2;
    switch (mode) {
        case 0:
            if (raw.size() >= kFrameBytes[0])
                frame::separateRowPairs(raw.data(), depth, rawIr, ir, gain);
            break;
        case 2:
            if (raw.size() >= frame::kImageBytes)
                std::memcpy(depth.ptr(), raw.data(), frame::kImageBytes);
            break;
        case 3:
            for (int r = 0; raw.size() >= frame::kImageBytes && r < frame::kHeight; ++r)
                frame::copyWithGain(raw.data() + r * rowBytes, rawIr.ptr<uint16_t>(r),
                                    ir.ptr<uint16_t>(r), frame::kWidth, gain);
            break;
        default: {
            const bool hd = mode == 5;
            const frame::MultiplexedLayout layout{kFrameBytes[mode], hd ? 2568u : 1280u,
                                                  hd ? 720 : 480, hd};
            frame::separateMultiplexed(raw.data(), raw.size(), layout, depth, rawIr, ir,
                                       hd ? rgb : vgaRgb, gain);
        }
    }

    // The 12-bit unpacking of a short line, from a buffer that ends where its pixels end.
    const size_t pixels = std::min<size_t>(payloadBytes * 2 / 3, frame::kWidth) & ~size_t(1);
    const std::vector<uint8_t> line(payload, payload + pixels / 2 * 3);
    frame::unpack12WithGain(line.data(), rawIr.ptr<uint16_t>(0), ir.ptr<uint16_t>(0), pixels, gain);
    return 0;
}
