// Frames and frame descriptions for the recordings the tests write and read back.
#ifndef TALVORO_TESTS_VCAM_RECORDING_SAMPLES_H
#define TALVORO_TESTS_VCAM_RECORDING_SAMPLES_H

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "Recording.h"

namespace vcamtest {

// n bytes that differ from one seed to the next.
inline std::vector<uint8_t> pattern(std::size_t n, uint8_t seed) {
    std::vector<uint8_t> v(n);
    for (std::size_t i = 0; i < n; ++i)
        v[i] = static_cast<uint8_t>(seed * 31 + i * 7);
    return v;
}

inline vcam::rec::FrameInfo frameInfo(uint32_t fourcc, uint16_t w, uint16_t h, uint16_t first,
                                      uint8_t second, uint8_t range = 0, uint64_t sequence = 0) {
    vcam::rec::FrameInfo f;
    f.pixelFormat = fourcc;
    f.width = w;
    f.height = h;
    f.frameModeFirst = first;
    f.frameModeSecond = second;
    f.depthRange = range;
    f.sequence = sequence;
    f.timestampNs = 1000000000ull * sequence + 123;
    return f;
}

// All bytes of a recorded frame.
inline std::vector<uint8_t> recordedFrame(const vcam::rec::RecordingReader& r, std::size_t index) {
    std::vector<uint8_t> data(r.frames()[index].size);
    std::size_t n = 0;
    EXPECT_TRUE(r.readFrame(index, data.data(), data.size(), &n));
    data.resize(n);
    return data;
}

}  // namespace vcamtest

#endif
