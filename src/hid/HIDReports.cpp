#include "hid/HIDReports.h"

#include <cmath>

namespace Talvoro::hidreport {

namespace {

constexpr std::size_t kChunkSize = 56;

double counts(const uint8_t* p) {
    return static_cast<int16_t>(be16(p));
}

}  // namespace

bool appendBoardConfig(const uint8_t* report, std::size_t size, std::string* text) {
    if (size < 4) return false;
    const std::size_t count = be16(report + 2);
    if (count > size - 4) return false;
    for (std::size_t i = 0; i < count; ++i)
        *text += std::to_string(report[4 + i]);
    return true;
}

void decodeImuSample(const uint8_t* report, double accScale, double gyroScale,
                     IMUDATAOUTPUT_TypeDef* sample) {
    if (report[4] == 0xFE) {
        sample->accX = counts(report + 5) * accScale;
        sample->accY = counts(report + 7) * accScale;
        sample->accZ = counts(report + 9) * accScale;
    }
    if (report[15] == 0xFD) {
        sample->gyroX = counts(report + 16) * gyroScale;
        sample->gyroY = counts(report + 18) * gyroScale;
        sample->gyroZ = counts(report + 20) * gyroScale;
    }
}

uint8_t scaledPosition(unsigned int position, unsigned int extent) {
    const double v = position / static_cast<double>(extent - 1u) * 255.0;
    if (std::isnan(v)) return 0;
    if (v >= 255.0) return 255;
    return static_cast<uint8_t>(v);
}

std::size_t chunkBytes(std::size_t size, std::size_t k) {
    if (k == 0) return 0;
    const std::size_t from = (k - 1) * kChunkSize;
    if (from >= size) return 0;
    return size - from < kChunkSize ? size - from : kChunkSize;
}

}  // namespace Talvoro::hidreport
