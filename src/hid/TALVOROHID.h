// The HID channel of one camera: camera-specific commands as 64-byte reports on the camera's
// hidraw command node, and IMU samples from its IMU node.
//
// Protocol: every command writes one 64-byte request (byte 0 class, byte 1 sub-command,
// arguments from byte 2), waits up to 5 s for the node to become readable and reads one answer
// report; the first report after the write is the answer. An answer of the camera-control class
// 0xB3 is accepted when it echoes class and sub-command and carries the status 0x01 (byte 6
// unless noted).
//
// Codes common to the commands (each stored in TALVOROError::cErrorNo and returned, unless
// noted): Ok (1); HidWriteFail (-14) when the request cannot be written, which includes every
// command before openHID and after closeHID; TimeoutError (-17) when waiting for the answer
// fails; HidReadFail (-15) when no answer can be read, including no answer within 5 s;
// GetValueFailed (-10) / SetValueFailed (-11) when the camera refuses (the answer is not
// accepted); InvalidValue (-13) for a null output pointer or an unusable size, before anything
// is sent. A "get" presets its outputs (255, 0xFFFFFFFF, 65535.0) so a failure leaves that mark.
// Values are passed to the camera unchecked: the camera judges them.
//
// No lock guards the command channel: the request and answer buffers are shared by all commands
// of one object, so one camera's commands must not run on two threads at once.
//
// Why an interface: the API layer holds a camera's HID channel through it, so the exports do
// not depend on hidraw or the report layouts, and another transport can stand in.
#ifndef TALVORO_HID_TALVORO_HID_H
#define TALVORO_HID_TALVORO_HID_H

#include <string>

#include "TalvoroSDK.h"

namespace Talvoro {

class TALVOROHID {
  public:
    virtual ~TALVOROHID() = default;

    // Finds the hidraw nodes whose USB device has info->serialNo as serial number and opens
    // them; the one whose report descriptor is 29 bytes becomes the command node, the other
    // the IMU node. 1 once both are open; -7 when no such pair exists (nodes without a serial
    // never match); -1 when udev is unavailable; -13 for a null info. A node that cannot be
    // opened is logged ("\nTalvoroSDK:hid open:") and skipped.
    virtual Result openHID(DeviceInfo* info) = 0;
    // Closes both nodes. Returns -7 (CameraNotOpened) by design; callers ignore it.
    virtual Result closeHID() = 0;

    // Simple commands (sub-command in brackets). Refusal codes are the camera's answer not
    // being accepted; the irregular ones are kept on purpose: getAutoExposureROI,
    // getOrientation and getFaceDetection report -11 although they read, and
    // setIMUEmbeddedData reports -10 although it writes.
    virtual Result setCameraMode(unsigned char mode) = 0;   // [02] refused: -11
    virtual Result getCameraMode(unsigned char* mode) = 0;  // [01] refused: -10

    // IMU configuration [03 get, 04 set], six bytes. After every successful get or set the
    // scales follow the range codes: accelerometer (ACC_SENSITIVITY_CONFIG) 0..3 = 0.061,
    // 0.488, 0.122, 0.244 mg per count; gyroscope (GYRO_SENSITIVITY_CONFIG) 0..3 = 0.00763,
    // 0.0152, 0.0304, 0.0609 degrees/s per count; other codes leave a scale as it was (both
    // are 0 before the first configuration). get presets all six bytes to 0xFF; refused: -10.
    // set refused: -11.
    virtual Result setIMUConfig(IMUCONFIG_TypeDef config) = 0;
    virtual Result getIMUConfig(IMUCONFIG_TypeDef* config) = 0;
    // [05] Starts (IMU_UPDATE_MODE 1, then [06]) or controls IMU capture. Returns 1 only when
    // mode 1 was accepted and [06] succeeded. Otherwise (refused, another mode, [06] failed)
    // writes IMU_UPDATE_MODE = 2 and IMU_NUM_OF_VALUES = 1 into *control and returns -11; a
    // failing request step in [05] returns its own code instead. null: -13.
    virtual Result controlIMUCapture(IMUDATAINPUT_TypeDef* control) = 0;
    // Reads at most one IMU report from the IMU node after a pause of about 10 ms and, when it
    // is a sample (B3 06 ... 0x01 at byte 48), writes it to samples[0] with the running counter
    // 1 and values scaled by the configured ranges (acceleration when byte 4 is 0xFE, angular
    // rate when byte 15 is 0xFD; other fields are left). The caller provides ONE sample.
    // 1 (also when the report was not a sample); -15 when nothing can be read (no capture
    // running, or the node is not open; not stored in cErrorNo); -17 when the pause fails
    // (also before openHID); -24 for a B3 06 report without the sample status; -13 for null.
    virtual Result getIMUValue(IMUDATAOUTPUT_TypeDef* samples) = 0;

    // Board temperatures [28 base, 29 laser]: the camera's 16-bit value as a float, unscaled.
    // Preset 65535.0; refused: -10.
    virtual Result getBaseBoardTemperatureData(float* temperature) = 0;
    virtual Result getLaserBoardTemperatureData(float* temperature) = 0;
    // Reserved: -255 (UnknownError); output and cErrorNo untouched.
    virtual Result getIMUTemperatureData(float* temperature) = 0;

    virtual Result getAntiFlickerDetection(unsigned char* value) = 0;  // [0E] refused: -10
    virtual Result setAntiFlickerDetection(unsigned char value) = 0;   // [0F] refused: -11
    virtual Result getSceneMode(unsigned char* value) = 0;             // [12] refused: -10
    virtual Result setSceneMode(unsigned char value) = 0;              // [13] refused: -11
    virtual Result getSpecialEffect(unsigned char* value) = 0;         // [14] refused: -10
    virtual Result setSpecialEffect(unsigned char value) = 0;          // [15] refused: -11
    virtual Result getDenoise(unsigned char* value) = 0;               // [16] refused: -10
    virtual Result setDenoise(unsigned char value) = 0;                // [17] refused: -11
    // [18] *mode = answer byte 2; *windowSize = byte 5 only when the mode is 2. Refused: -11.
    virtual Result getAutoExposureROI(unsigned char* mode, unsigned char* windowSize) = 0;
    // [19] byte 2 = mode. Only in mode 2: byte 3 = x / (frameWidth - 1) * 255 and byte 4 =
    // y / (frameHeight - 1) * 255, computed in double and truncated (a result beyond 255 is
    // sent as 255, an undefined one as 0), byte 5 = windowSize. Refused: -11.
    virtual Result setAutoExposureROI(unsigned char mode, unsigned int frameWidth,
                                      unsigned int frameHeight, unsigned int x, unsigned int y,
                                      unsigned char windowSize) = 0;
    virtual Result getOrientation(unsigned char* value) = 0;  // [1C] refused: -11
    virtual Result setOrientation(unsigned char value) = 0;   // [1D] refused: -11
    // [1E] a, b, c = answer bytes 2, 3, 4. Refused: -11.
    virtual Result getFaceDetection(unsigned char* a, unsigned char* b, unsigned char* c) = 0;
    virtual Result setFaceDetection(unsigned char a, unsigned char b, unsigned char c) = 0;  // [1F]
    // [20] a, b = answer bytes 2 and 4. Refused: -10.
    virtual Result getSmileDetection(unsigned char* a, unsigned char* b) = 0;
    virtual Result setSmileDetection(unsigned char a, unsigned char b) = 0;  // [21] -11
    virtual Result getIMUEmbeddedData(unsigned char* value) = 0;             // [2A] -10
    virtual Result setIMUEmbeddedData(unsigned char value) = 0;              // [2B] -10 (sic)
    // [22]/[23] bytes 2-5, big-endian. get presets 0xFFFFFFFF; refused: -10 / -11.
    virtual Result getExposureCompensation(unsigned int* value) = 0;
    virtual Result setExposureCompensation(unsigned int value) = 0;
    virtual Result getFrameRateCtrl(unsigned char* value) = 0;  // [24] refused: -10
    virtual Result setFrameRateCtrl(unsigned char value) = 0;   // [25] refused: -11
    // [FF] restores the camera's defaults. Refused: -11.
    virtual Result setDefault() = 0;
    // Two requests (41 00: high 32 bits in answer bytes 1-4; 41 01: low 32 bits in bytes 2-5,
    // big-endian), each accepted when answer byte 0 is 0x41. *id is written only when both are
    // accepted; otherwise -10.
    virtual Result getUniqueID(unsigned long* id) = 0;
    // Request 40; accepted when answer byte 0 is 0x40: major = byte 1, minor = byte 2,
    // third = bytes 3-4, fourth = bytes 5-6 (big-endian). Refused: -10.
    virtual Result readFirmwareVersion(unsigned char* major, unsigned char* minor,
                                       unsigned short* third, unsigned short* fourth) = 0;

    // Reserved: -255 (UnknownError); arguments and cErrorNo untouched.
    virtual Result calibWriteReqExtrinsic(int* size) = 0;
    virtual Result calibWriteExtrinsic(int* size, unsigned char* data) = 0;
    virtual Result calibWriteReqRGBIntrinsic(int* size) = 0;
    virtual Result calibWriteRGBIntrinsic(int* size, unsigned char* data) = 0;
    virtual Result calibWriteReqDepthIntrinsic(int* size) = 0;
    virtual Result calibWriteDepthIntrinsic(int* size, unsigned char* data) = 0;

    // Calibration blobs (OpenCV FileStorage YAML). First the request [09] asks for a blob's
    // size in bytes: *size = answer bytes 7-8 (big-endian), accepted when answer byte 1 is 09
    // and byte 15 is 0x01; refused: -10. Then the read [0A] fetches *size bytes into data in
    // 56-byte chunks (chunk k = 1, 2, ... in request bytes 5-6; accepted when answer byte 1 is
    // 0A and byte 7 is 0x01; its bytes 8-63 are the chunk). Issue request and read in that
    // order with no other command in between.
    //
    // data must hold at least *size bytes; nothing is written beyond data[*size - 1]. The read
    // returns 0 (not a Result, cErrorNo untouched) and sends nothing for *size 0; -13 for a
    // negative *size or one above 65535, or a null pointer; -10 at the first refused chunk; a
    // chunk whose request step fails is skipped, and when it is the last chunk its code is
    // returned; 1 otherwise.
    virtual Result calibReadReqDepthIntrinsic(int* size) = 0;  // blob type 1
    virtual Result calibReadDepthIntrinsic(int* size, unsigned char* data) = 0;
    virtual Result calibReadReqRGBIntrinsic(int* size) = 0;  // blob type 0
    virtual Result calibReadRGBIntrinsic(int* size, unsigned char* data) = 0;
    virtual Result calibReadReqExtrinsic(int* size) = 0;  // blob type 2
    virtual Result calibReadExtrinsic(int* size, unsigned char* data) = 0;

    // Reserved: -255 (UnknownError); arguments and cErrorNo untouched.
    virtual Result writeTOFCalibrationData(int size, unsigned char* data) = 0;
    virtual Result readReqTOFCalibrationData(int* size) = 0;
    virtual Result readTOFCalibrationData(int size, unsigned char* data) = 0;
    virtual Result writeTOFPulseTuneSettings47Ohm(int size, unsigned char* data) = 0;
    virtual Result readReqTOFPulseTuneSettings47Ohm(int* size) = 0;
    virtual Result readTOFPulseTuneSettings47Ohm(int size, unsigned char* data) = 0;

    // [34] Appends the board configuration to *text (not cleared first): answer bytes 2-3
    // (big-endian) give a count n, and bytes 4 to 4 + n - 1 are appended as decimal numbers
    // without separators (1, 20, 3 give "1203"). Accepted when answer bytes 0-1 are B3 34 and
    // byte 31 is 0x01; refused: -10, also when n reaches past the 64-byte report (nothing is
    // appended then).
    virtual Result getBoardConfigData(std::string* text) = 0;
    // [32] Validity flag of a blob (type 0 colour intrinsics, 1 depth intrinsics,
    // 2 extrinsics): *flag = answer byte 3 when it is 0, 1 or 2, otherwise *flag is left.
    // Accepted when answer bytes 0-1 are B3 32; refused: -10.
    virtual Result getCalibrationDataValidFlag(unsigned char type, CalibValidFlag* flag) = 0;
    // [33] Request byte 3 = flag when it is 0, 1 or 2, else 0. Accepted when answer bytes 0-1
    // are B3 33; refused: -11.
    virtual Result setCalibrationDataValidFlag(unsigned char type, CalibValidFlag flag) = 0;
};

}  // namespace Talvoro

#endif
