// The inertial sensor: configuration with its sensitivity table, capture control, sampling.
#include <sys/select.h>

#include <cstring>

#include "common/SysCall.h"
#include "hid/HID.h"
#include "hid/HIDReports.h"

namespace Talvoro {

namespace {

constexpr uint8_t kGetImuConfig = 0x03;
constexpr uint8_t kSetImuConfig = 0x04;
constexpr uint8_t kImuCapture = 0x05;
constexpr uint8_t kImuValue = 0x06;

constexpr std::size_t kImuConfigStatus = 25;
constexpr std::size_t kImuCaptureStatus = 19;
constexpr std::size_t kImuSampleStatus = 48;

constexpr uint16_t kContinuousMode = 1;
constexpr uint16_t kStoppedMode = 2;

// Record field k of IMUCONFIG_TypeDef travels in report byte kConfigBytes[k].
constexpr std::size_t kConfigBytes[6] = {2, 5, 7, 10, 12, 6};

// Sensitivity per range code, single-precision constants as the camera's table has them.
// Accelerometer codes are not in order of range: code 1 is the widest.
constexpr float kAccScale[4] = {0.061f, 0.488f, 0.122f, 0.244f};
constexpr float kGyroScale[4] = {0.00763f, 0.0152f, 0.0304f, 0.0609f};

uint8_t* configBytes(IMUCONFIG_TypeDef* config) {
    return reinterpret_cast<uint8_t*>(config);
}

}  // namespace

void HID::_applySensitivity(const IMUCONFIG_TypeDef& config) {
    if (config.ACC_SENSITIVITY_CONFIG < 4) accScale_ = kAccScale[config.ACC_SENSITIVITY_CONFIG];
    if (config.GYRO_SENSITIVITY_CONFIG < 4) gyroScale_ = kGyroScale[config.GYRO_SENSITIVITY_CONFIG];
}

Result HID::getIMUConfig(IMUCONFIG_TypeDef* config) {
    if (!config) return setError(InvalidValue);
    static_assert(sizeof(IMUCONFIG_TypeDef) == 6, "six configuration bytes");
    std::memset(config, 0xFF, sizeof *config);
    _initializeBuffers();
    request_[0] = 0xB3;
    request_[1] = kGetImuConfig;
    const Result r = _request();
    if (r != Ok) return r;
    if (!_accepted(kGetImuConfig, kImuConfigStatus)) return setError(GetValueFailed);
    for (std::size_t k = 0; k < 6; ++k)
        configBytes(config)[k] = answer_[kConfigBytes[k]];
    imuConfig_ = *config;
    imuConfigured_ = 1;
    _applySensitivity(*config);
    return setError(Ok);
}

Result HID::setIMUConfig(IMUCONFIG_TypeDef config) {
    _initializeBuffers();
    request_[0] = 0xB3;
    request_[1] = kSetImuConfig;
    for (std::size_t k = 0; k < 6; ++k)
        request_[kConfigBytes[k]] = configBytes(&config)[k];
    const Result r = _request();
    if (r != Ok) return r;
    if (!_accepted(kSetImuConfig, kImuConfigStatus)) return setError(SetValueFailed);
    imuConfig_ = config;
    imuConfigured_ = 1;
    _applySensitivity(config);
    return setError(Ok);
}

Result HID::controlIMUCapture(IMUDATAINPUT_TypeDef* control) {
    if (!control) return setError(InvalidValue);
    _initializeBuffers();
    request_[0] = 0xB3;
    request_[1] = kImuCapture;
    request_[2] = static_cast<uint8_t>(control->IMU_UPDATE_MODE);
    const Result r = _request();
    if (r != Ok) return r;
    if (_accepted(kImuCapture, kImuCaptureStatus)) {
        imuMode_ = control->IMU_UPDATE_MODE;
        if (imuMode_ == kContinuousMode) {
            _initializeBuffers();
            request_[0] = 0xB3;
            request_[1] = kImuValue;
            if (_request() == Ok) return setError(Ok);
        }
    }
    // Anything but an accepted continuous start reports the capture as stopped.
    control->IMU_UPDATE_MODE = kStoppedMode;
    imuMode_ = kStoppedMode;
    control->IMU_NUM_OF_VALUES = 1;
    samplesLeft_ = 1;
    return setError(SetValueFailed);
}

Result HID::getIMUValue(IMUDATAOUTPUT_TypeDef* samples) {
    if (!samples) return setError(InvalidValue);
    std::lock_guard<std::mutex> lock(imuMutex_);
    uint16_t counter = 0;
    // The descriptor-count bound is the descriptor itself, so it is not watched: this is a
    // 10 ms pause that reports nothing ready, and fails (as select(-1) does) before the node is
    // open. The caller's array therefore receives one sample per call.
    timeval pause{0, 10000};
    const int fd = imuNode_.fd();
    if (sysCall("select", [&] { return ::select(fd, nullptr, nullptr, nullptr, &pause); }) < 0)
        return setError(TimeoutError);

    std::memset(imuBuffer_, 0, sizeof imuBuffer_);
    if (imuNode_.read(imuBuffer_, sizeof imuBuffer_) < 0) return HidReadFail;
    const bool sample = imuBuffer_[0] == 0xB3 && imuBuffer_[1] == kImuValue;
    if (sample && imuBuffer_[kImuSampleStatus] == 0x01) {
        ++counter;
        samples[0].imuValueCount = counter;
        hidreport::decodeImuSample(imuBuffer_, accScale_, gyroScale_, &samples[0]);
    } else if (sample && request_[kImuSampleStatus] == 0) {
        return setError(OperationFailed);
    }
    samplesLeft_ = counter;
    return setError(Ok);
}

}  // namespace Talvoro
