// libFuzzer target: the inertial sensor against a camera whose configuration answers and IMU
// reports the input decides: configuration read and write (the sensitivity table), capture
// start and stop, and sampling of whatever reports the IMU node delivers.
//
// Input: byte 0 = number of operations (1..16), one byte per operation, then reports, each as
// a length byte (bit 7 set: for the IMU node, else for the command node; low 7 bits: 0..127
// bytes) and its bytes.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "ScriptedCamera.h"

using namespace Talvoro;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const std::size_t ops = 1 + data[0] % 16;
    if (size < 1 + ops) return 0;
    HID hid;
    talvoro_test::ScriptedCamera cam(hid);
    cam.play(data + 1 + ops, size - 1 - ops);
    IMUCONFIG_TypeDef config{};
    for (std::size_t i = 0; i < ops; ++i) {
        const uint8_t op = data[1 + i];
        switch (op % 4) {
            case 0:
                hid.getIMUConfig(&config);
                break;
            case 1: {
                IMUCONFIG_TypeDef wanted = config;
                wanted.ACC_SENSITIVITY_CONFIG = op >> 2 & 7;
                wanted.GYRO_SENSITIVITY_CONFIG = op >> 5;
                hid.setIMUConfig(wanted);
                break;
            }
            case 2: {
                IMUDATAINPUT_TypeDef control{static_cast<uint16_t>(1 + (op >> 7)), 0};
                hid.controlIMUCapture(&control);
                break;
            }
            default: {
                IMUDATAOUTPUT_TypeDef samples[4]{};
                for (int k = 0; k < 1 + (op >> 2) % 4; ++k)
                    hid.getIMUValue(samples);
                break;
            }
        }
    }
    return 0;
}
