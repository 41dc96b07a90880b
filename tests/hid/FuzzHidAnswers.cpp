// Feeds arbitrary answer reports to the HID channel: every command's parsing runs on whatever
// the "camera" queued, and the calibration read uses the size the camera reported, into a
// buffer of exactly that size.
//
// Input: byte 0 = number of operations (1..8), then one byte per operation, then answer reports,
// each as a length byte (bit 7 set: for the IMU node; low 7 bits: 0..127 bytes) and its bytes.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ScriptedCamera.h"

using namespace Talvoro;

namespace {

void run(HID& hid, uint8_t op, int* blobSize) {
    unsigned char a = 0, b = 0, c = 0;
    unsigned short s1 = 0, s2 = 0;
    unsigned int u = 0;
    unsigned long id = 0;
    float t = 0;
    std::string text;
    IMUCONFIG_TypeDef config{};
    IMUDATAINPUT_TypeDef control{1, 0};
    IMUDATAOUTPUT_TypeDef sample{};
    CalibValidFlag flag = Calib_VGA_Only;
    switch (op % 24) {
        case 0:
            hid.getCameraMode(&a);
            break;
        case 1:
            hid.setCameraMode(op);
            break;
        case 2:
            hid.getAutoExposureROI(&a, &b);
            break;
        case 3:
            hid.setAutoExposureROI(2, op, 480, 300, 200, 4);
            break;
        case 4:
            hid.getFaceDetection(&a, &b, &c);
            break;
        case 5:
            hid.getSmileDetection(&a, &b);
            break;
        case 6:
            hid.getExposureCompensation(&u);
            break;
        case 7:
            hid.getUniqueID(&id);
            break;
        case 8:
            hid.readFirmwareVersion(&a, &b, &s1, &s2);
            break;
        case 9:
            hid.getBaseBoardTemperatureData(&t);
            break;
        case 10:
            hid.getBoardConfigData(&text);
            break;
        case 11:
            hid.getCalibrationDataValidFlag(op & 3, &flag);
            break;
        case 12:
            hid.setCalibrationDataValidFlag(op & 3, static_cast<CalibValidFlag>(op));
            break;
        case 13:
            hid.getIMUConfig(&config);
            break;
        case 14:
            hid.setIMUConfig(config);
            break;
        case 15:
            hid.controlIMUCapture(&control);
            break;
        case 16:
            hid.getIMUValue(&sample);
            break;
        case 17:
            hid.calibReadReqDepthIntrinsic(blobSize);
            break;
        case 18:
            hid.calibReadReqRGBIntrinsic(blobSize);
            break;
        case 19:
        case 20:
        case 21: {
            // What an application does: a buffer of the size the camera reported.
            std::vector<unsigned char> data(*blobSize > 0 ? static_cast<std::size_t>(*blobSize)
                                                          : 0);
            int size = *blobSize;
            if (op % 24 == 19) hid.calibReadDepthIntrinsic(&size, data.data());
            if (op % 24 == 20) hid.calibReadRGBIntrinsic(&size, data.data());
            if (op % 24 == 21) hid.calibReadExtrinsic(&size, data.data());
            break;
        }
        case 22:
            hid.setDefault();
            break;
        default:
            hid.getSceneMode(&a);
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const std::size_t ops = 1 + data[0] % 8;
    if (size < 1 + ops) return 0;
    HID hid;
    talvoro_test::ScriptedCamera cam(hid);
    cam.play(data + 1 + ops, size - 1 - ops);
    int blobSize = 0;
    for (std::size_t i = 0; i < ops; ++i)
        run(hid, data[1 + i], &blobSize);
    return 0;
}
