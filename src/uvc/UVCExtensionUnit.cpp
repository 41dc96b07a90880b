// The extension-unit command protocol: one command buffer sent with UVC_SET_CUR, answers read
// with UVC_GET_CUR, each preceded by the control's length (UVC_GET_LEN).
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>

#include <algorithm>
#include <cstring>

#include "common/SysCall.h"
#include "log/TALVOROError.h"
#include "uvc/UVC.h"

namespace Talvoro {

namespace {

bool xuQuery(ControlNode& node, uint8_t selector, uint8_t query, uint16_t size, uint8_t* data) {
    uvc_xu_control_query q{};
    q.unit = kXuUnit;
    q.selector = selector;
    q.query = query;
    q.size = size;
    q.data = data;
    return XIOCTL(node, UVCIOC_CTRL_QUERY, &q) == 0;
}

}  // namespace

void UVC::_buildCommand(uint8_t id) {
    std::memset(command_, 0, sizeof command_);
    command_[0] = id;
}

void UVC::_put16(std::size_t at, uint16_t value) {
    command_[at] = static_cast<uint8_t>(value & 0xFF);
    command_[at + 1] = static_cast<uint8_t>(value >> 8);
}

bool UVC::_queryLength(uint8_t selector, uint16_t* length) {
    uint8_t data[2] = {};
    if (!xuQuery(node_, selector, UVC_GET_LEN, sizeof data, data)) return false;
    *length = static_cast<uint16_t>(data[0] | (data[1] << 8));
    return true;
}

bool UVC::_sendCommand(uint8_t selector, uint16_t length) {
    // The length comes from the camera: the command goes out in a buffer of exactly that size.
    std::vector<uint8_t> data(std::max<std::size_t>(length, 1), 0);
    std::memcpy(data.data(), command_, std::min<std::size_t>(length, kCommandSize));
    return xuQuery(node_, selector, UVC_SET_CUR, length, data.data());
}

Result UVC::_setXUCmd(uint8_t selector) {
    uint16_t length = 0;
    if (!_queryLength(selector, &length) || !_sendCommand(selector, length))
        return setError(SysCallFail);
    return setError(Ok);
}

Result UVC::_query(uint8_t selector, std::vector<uint8_t>* answer) {
    uint16_t length = 0;
    if (!_queryLength(selector, &length) || !_sendCommand(selector, length))
        return setError(SysCallFail);
    // Room for the whole control, and never less than a command's worth of readable bytes.
    answer->assign(std::max<std::size_t>(length, kCommandSize), 0);
    if (!xuQuery(node_, selector, UVC_GET_CUR, length, answer->data()))
        return setError(SysCallFail);
    return setError(Ok);
}

Result UVC::_getXUCmd(uint16_t* value, uint8_t selector) {
    std::vector<uint8_t> answer;
    if (_query(selector, &answer) != Ok) return SysCallFail;
    *value = static_cast<uint16_t>(answer[0] | (answer[1] << 8));
    return Ok;
}

Result UVC::_getXUCmdDatamode(uint16_t* first, uint16_t* second, uint8_t selector) {
    std::vector<uint8_t> answer;
    if (_query(selector, &answer) != Ok) return SysCallFail;
    std::memcpy(command_, answer.data(), kCommandSize);
    *first = static_cast<uint16_t>(command_[0] | (command_[1] << 8));
    *second = command_[2];
    return Ok;
}

}  // namespace Talvoro
