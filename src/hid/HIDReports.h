// Decoding of the camera's answer reports. Each function reads only within the report it is
// given, whatever the camera put in it.
#ifndef TALVORO_HID_HID_REPORTS_H
#define TALVORO_HID_HID_REPORTS_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "TalvoroSDK.h"

namespace Talvoro::hidreport {

inline uint16_t be16(const uint8_t* p) {
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

inline uint32_t be32(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

// Appends the board configuration of an answer (count at bytes 2-3, values from byte 4) to
// *text as decimal numbers without separators. False, appending nothing, when the count
// reaches past the report.
bool appendBoardConfig(const uint8_t* report, std::size_t size, std::string* text);

// Fills one sample from an IMU value report: acceleration when byte 4 is 0xFE, angular rate
// when byte 15 is 0xFD (signed big-endian counts times the scale). Other fields are left.
void decodeImuSample(const uint8_t* report, double accScale, double gyroScale,
                     IMUDATAOUTPUT_TypeDef* sample);

// A position within an extent as a byte: position / (extent - 1) * 255 in double, truncated;
// results beyond 255 give 255, undefined ones (0 / 0) give 0.
uint8_t scaledPosition(unsigned int position, unsigned int extent);

// Bytes of chunk k (from 1) of 56-byte chunks that fall inside a blob of `size` bytes.
std::size_t chunkBytes(std::size_t size, std::size_t k);

}  // namespace Talvoro::hidreport

#endif
