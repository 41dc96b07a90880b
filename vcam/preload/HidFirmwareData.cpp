// The data commands of the HID interface: IMU configuration and capture, calibration blobs and
// their validity flags, board temperatures and board configuration.
#include <algorithm>
#include <cstring>

#include "Firmware.h"
#include "HidFirmware.h"
#include "ImuStream.h"

namespace vcam {

namespace {

constexpr std::size_t kChunkSize = 56;

// IMU configuration record field k travels in report byte kImuBytes[k].
constexpr int kImuBytes[6] = {2, 5, 7, 10, 12, 6};
const char* const kImuKeys[6] = {"imu.mode",      "imu.acc_axes",   "imu.acc_range",
                                 "imu.gyro_axes", "imu.gyro_range", "imu.odr"};

void put16(HidReport* r, int at, unsigned value) {
    (*r)[at] = static_cast<uint8_t>(value >> 8);
    (*r)[at + 1] = static_cast<uint8_t>(value);
}

std::string flagKey(int blobType) {
    return "calib.flag." + std::to_string(blobType);
}

}  // namespace

void HidFirmware::imuCommand(const HidReport& request, HidReport* answer) {
    ImuStream& imu = firmware_.imu();
    switch (request[1]) {
        case 0x03: {  // configuration
            const Settings s = firmware_.store().snapshot();
            for (int k = 0; k < 6; ++k)
                (*answer)[kImuBytes[k]] = static_cast<uint8_t>(s.at(kImuKeys[k]));
            (*answer)[25] = 0x01;
            return;
        }
        case 0x04: {  // new configuration: the two range codes must be known ones
            if (request[kImuBytes[2]] > 3 || request[kImuBytes[4]] > 3)
                return refuse(request, answer);
            firmware_.store().update([&](Settings& s) {
                for (int k = 0; k < 6; ++k)
                    s[kImuKeys[k]] = request[kImuBytes[k]];
            });
            for (int k = 0; k < 6; ++k)
                (*answer)[kImuBytes[k]] = request[kImuBytes[k]];
            (*answer)[25] = 0x01;
            imu.configure();
            return;
        }
        case 0x05: {  // capture control: 1 streams samples, 2 stops
            const uint8_t mode = request[2];
            if (mode != 1 && mode != 2) return refuse(request, answer);
            firmware_.store().update([&](Settings& s) { s["imu.capture"] = mode; });
            mode == 1 ? imu.start() : imu.stop();
            (*answer)[2] = mode;
            (*answer)[19] = 0x01;
            return;
        }
        case 0x06:  // the current sample, as on the IMU interface
            imu.fillReport(answer);
            return;
    }
}

void HidFirmware::calibrationCommand(const HidReport& request, HidReport* answer) {
    const int type = request[2];
    (*answer)[2] = request[2];
    switch (request[1]) {
        case 0x09: {  // size request: selects the blob for the chunk reads
            blob_ = firmware_.calibration(type);
            if (!blob_.present || blob_.bytes.size() > 0xFFFF) return refuse(request, answer);
            selectedBlob_ = type;
            put16(answer, 7, static_cast<unsigned>(blob_.bytes.size()));
            (*answer)[15] = 0x01;
            return;
        }
        case 0x0A: {  // chunk k (from 1) of the selected blob
            const std::size_t k = (request[5] << 8) | request[6];
            const std::size_t chunks = (blob_.bytes.size() + kChunkSize - 1) / kChunkSize;
            if (selectedBlob_ != type || k == 0 || k > chunks) return refuse(request, answer);
            const std::size_t from = (k - 1) * kChunkSize;
            const std::size_t n = std::min(kChunkSize, blob_.bytes.size() - from);
            std::memcpy(answer->data() + 8, blob_.bytes.data() + from, n);
            (*answer)[5] = request[5];
            (*answer)[6] = request[6];
            (*answer)[7] = 0x01;
            return;
        }
        case 0x32: {  // validity flag: a flag set over HID replaces the stored blob's
            if (type > 2) return refuse(request, answer);
            const Settings s = firmware_.store().snapshot();
            const auto it = s.find(flagKey(type));
            (*answer)[3] =
                it != s.end() ? static_cast<uint8_t>(it->second) : firmware_.calibration(type).flag;
            (*answer)[6] = 0x01;
            return;
        }
        case 0x33:
            if (type > 2 || request[3] > 2) return refuse(request, answer);
            firmware_.store().update([&](Settings& s) { s[flagKey(type)] = request[3]; });
            (*answer)[3] = request[3];
            (*answer)[6] = 0x01;
            return;
    }
}

void HidFirmware::boardData(const HidReport& request, HidReport* answer) {
    const FirmwareSpec& spec = firmware_.camera().spec().firmware;
    switch (request[1]) {
        case 0x28:
        case 0x29:
            put16(answer, 2,
                  static_cast<unsigned>(request[1] == 0x28 ? spec.baseTemperature
                                                           : spec.laserTemperature));
            (*answer)[6] = 0x01;
            return;
        case 0x34: {
            // Values fill bytes 4 on; the status byte 31 ends the room for them.
            const std::size_t count = spec.boardConfigCount >= 0
                                          ? static_cast<std::size_t>(spec.boardConfigCount)
                                          : spec.boardConfig.size();
            put16(answer, 2, static_cast<unsigned>(count));
            const std::size_t n = std::min<std::size_t>(spec.boardConfig.size(), 60);
            std::memcpy(answer->data() + 4, spec.boardConfig.data(), n);
            (*answer)[31] = 0x01;
            return;
        }
    }
}

}  // namespace vcam
