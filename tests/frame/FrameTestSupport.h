// Raw camera buffers written byte by byte, and a log capture, for the frame processor's tests.
#ifndef TALVORO_TESTS_FRAME_TEST_SUPPORT_H
#define TALVORO_TESTS_FRAME_TEST_SUPPORT_H

#include <cstdint>
#include <string>
#include <vector>

#include "../common/TempDir.h"
#include "frame/TalvoroFrame.h"
#include "log/Log.h"

namespace talvoro_test {

using Image = Talvoro::TalvoroFrame::Image;
using Bytes = std::vector<uint8_t>;

inline void put16(Bytes& b, uint16_t v) {
    b.push_back(uint8_t(v & 0xFF));
    b.push_back(uint8_t(v >> 8));
}

// A 640x480 16-bit image, little-endian, value(row, column).
template <class F>
Bytes image16(F value) {
    Bytes b;
    for (int r = 0; r < 480; ++r)
        for (int c = 0; c < 640; ++c)
            put16(b, uint16_t(value(r, c)));
    return b;
}

// Mode 0: row pairs, 640 depth values then 640 IR values.
template <class D, class I>
Bytes rowPairs(D depth, I ir) {
    Bytes b;
    for (int r = 0; r < 480; ++r) {
        for (int c = 0; c < 640; ++c)
            put16(b, uint16_t(depth(r, c)));
        for (int c = 0; c < 640; ++c)
            put16(b, uint16_t(ir(r, c)));
    }
    return b;
}

// One multiplexed ToF line of 640 12-bit values: three bytes per pair, the high eight bits of
// each value first, then their low nibbles. The line's tag (bit 0 of its first byte) is bit 4
// of the first value, so the first value must have it set.
template <class F>
void tofLine(Bytes& b, F value) {
    for (int c = 0; c < 640; c += 2) {
        const uint16_t p0 = uint16_t(value(c)), p1 = uint16_t(value(c + 1));
        b.push_back(uint8_t(p0 >> 4));
        b.push_back(uint8_t(p1 >> 4));
        b.push_back(uint8_t((p0 & 0x0F) << 4 | (p1 & 0x0F)));
    }
}

// A colour line of `bytes` bytes: byte i = value(i); the first byte must be even (tag 0).
template <class F>
void rgbLine(Bytes& b, size_t bytes, F value) {
    for (size_t i = 0; i < bytes; ++i)
        b.push_back(uint8_t(value(i)));
}

// A complete mode-4 (hd false) or mode-5 frame: per row a colour line, a depth line, an IR
// line; mode 5 ends with its 240 remaining colour lines. Depth and IR values are 12-bit with
// bit 4 of column 0 set (the tag).
template <class D, class I>
Bytes multiplexed(bool hd, D depth, I ir) {
    const size_t rgbBytes = hd ? 2568 : 1280;
    const int rgbLines = hd ? 720 : 480;
    auto colour = [](size_t i) { return (i * 7 + 2) & 0xFE; };
    Bytes b;
    for (int r = 0; r < rgbLines; ++r) {
        rgbLine(b, rgbBytes, colour);
        if (r < 480) {
            tofLine(b, [&](int c) { return depth(r, c); });
            tofLine(b, [&](int c) { return ir(r, c); });
        }
    }
    return b;
}

// Feeds `raw` to a frame prepared for `mode` and processes it.
inline int process(Talvoro::TalvoroFrame& f, int mode, Bytes raw) {
    f.initFrame(mode);
    f.setupFrame(raw.data(), int(raw.size()));
    return f.processFrame();
}

inline uint16_t at16(const cv::Mat& m, int r, int c) {
    return m.at<uint16_t>(r, c);
}

// Marks calibration items loaded without matrices: what the settings check, no more.
inline void setCalibMask(Talvoro::TalvoroFrame& f, uint16_t mask) {
    f.getCalibrationData(0, mask, cv::Mat(), cv::Mat(), cv::Mat(), cv::Mat(), cv::Mat(), cv::Mat());
}

// Every level of the log into a file in a fresh working directory.
class LogCapture {
  public:
    LogCapture() : dir_(true) {
        Talvoro::Log::getInstance()->setLevel(0);
        Talvoro::Log::getInstance()->setMode(Talvoro::Log::kFile);
    }
    ~LogCapture() { Talvoro::Log::getInstance()->setLevel(2); }
    std::string text() const {
        return readFile(dir_.file(Talvoro::Log::getInstance()->fileName()));
    }
    size_t count(const std::string& needle) const {
        const std::string all = text();
        size_t n = 0;
        for (size_t p = all.find(needle); p != std::string::npos; p = all.find(needle, p + 1))
            ++n;
        return n;
    }

  private:
    TempDir dir_;
};

}  // namespace talvoro_test

#endif
