#include "uvc/UVC.h"

#include <linux/videodev2.h>

#include <cstring>
#include <string>

#include "common/SysCall.h"
#include "log/Log.h"
#include "log/TALVOROError.h"

namespace Talvoro {

namespace {

// Extension-unit command IDs.
constexpr uint8_t kCoring = 0x03;
constexpr uint8_t kExposure = 0x05;
constexpr uint8_t kSensorRegister = 0x08;
constexpr uint8_t kDepthRange = 0x19;
constexpr uint8_t kFrameMode = 0x1A;

constexpr uint16_t kNearExposureLimit = 380;
constexpr uint16_t kFarExposureLimit = 850;

}  // namespace

Result UVC::_openUVC(DeviceInfo info) {
    const std::string path(info.devicePath, strnlen(info.devicePath, sizeof info.devicePath));
    if (!node_.open(path.c_str())) {
        logPermissionDenied(path, errno);
        return setError(UVCOpenFailed);
    }

    // The descriptor stays open on the failures below; closeUVC closes it.
    v4l2_capability cap{};
    if (XIOCTL(node_, VIDIOC_QUERYCAP, &cap) == -1) {
        writeLog(7, "\nTalvoroSDK:VIDEOIO(Device:" + path + "): Unable to query capability");
        return setError(UVCOpenFailed);
    }
    if (!(cap.capabilities & V4L2_CAP_VIDEO_CAPTURE)) {
        writeLog(7, "\nTalvoroSDK:VIDEOIO(Device:" + path +
                        "): not supported - device is unable to capture video (missing "
                        "V4L2_CAP_VIDEO_CAPTURE)");
        return setError(UVCOpenFailed);
    }
    return setError(Ok);
}

Result UVC::closeUVC() {
    node_.close();
    return setError(Ok);
}

Result UVC::setDepthRange(unsigned short range) {
    if (range > 1) return setError(InvalidValue);
    _buildCommand(kDepthRange);
    command_[2] = static_cast<uint8_t>(range);
    if (_setXUCmd(kXuCommandSelector) != Ok) return SysCallFail;
    depthRange_ = range;
    return Ok;
}

Result UVC::getDepthRange(unsigned short* range) {
    if (!range) return setError(InvalidValue);
    _buildCommand(kDepthRange);
    uint16_t value = 0;
    if (_getXUCmd(&value, kXuAnswerSelector) != Ok) return SysCallFail;
    *range = value;
    depthRange_ = value;
    return Ok;
}

Result UVC::setTOFFrameMode(unsigned short first, unsigned short second) {
    _buildCommand(kFrameMode);
    _put16(2, first);
    command_[4] = static_cast<uint8_t>(second & 0xFF);
    return _setXUCmd(kXuCommandSelector);
}

Result UVC::getTOFFrameMode(unsigned short* first, unsigned short* second) {
    if (!first || !second) return setError(InvalidValue);
    _buildCommand(kFrameMode);
    return _getXUCmdDatamode(first, second, kXuAnswerSelector);
}

Result UVC::setTOFExposure(unsigned short exposure) {
    const uint16_t limit = depthRange_ == 0   ? kNearExposureLimit
                           : depthRange_ == 1 ? kFarExposureLimit
                                              : 0;
    if (exposure > limit) return setError(InvalidValue);
    _buildCommand(kExposure);
    _put16(2, exposure);
    return _setXUCmd(kXuCommandSelector);
}

Result UVC::getTOFExposure(unsigned short* exposure) {
    if (!exposure) return setError(InvalidValue);
    _buildCommand(kExposure);
    return _getXUCmd(exposure, kXuAnswerSelector);
}

Result UVC::setTOFCoring(unsigned short coring) {
    if (coring == 0) return setError(InvalidValue);
    _buildCommand(kCoring);
    _put16(2, coring);
    return _setXUCmd(kXuCommandSelector);
}

Result UVC::getTOFCoring(unsigned short* coring) {
    if (!coring) return setError(InvalidValue);
    _buildCommand(kCoring);
    return _getXUCmd(coring, kXuAnswerSelector);
}

Result UVC::setADIRegister(unsigned short address, unsigned short value) {
    _buildCommand(kSensorRegister);
    _put16(2, address);
    _put16(4, value);
    return _setXUCmd(kXuCommandSelector);
}

Result UVC::getADIRegister(unsigned short address, unsigned short* value) {
    if (!value) return setError(InvalidValue);
    _buildCommand(kSensorRegister);
    _put16(2, address);
    return _getXUCmd(value, kXuAnswerSelector);
}

Result UVC::getPulseConfig(unsigned short*, unsigned short*, unsigned short*, unsigned short*,
                           unsigned short*, unsigned short*) {
    return Ok;
}

Result UVC::setPulseConfig(unsigned short, unsigned short, unsigned short, unsigned short,
                           unsigned short, unsigned short) {
    return Ok;
}

}  // namespace Talvoro
