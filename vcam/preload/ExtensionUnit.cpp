#include "ExtensionUnit.h"

#include <linux/usb/video.h>
#include <linux/uvcvideo.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "Firmware.h"
#include "UserCopy.h"
#include "VideoNode.h"
#include "WireTrace.h"

namespace vcam {

namespace {

uint16_t le16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

const char* queryName(uint8_t query) {
    switch (query) {
        case UVC_SET_CUR:
            return "SET_CUR";
        case UVC_GET_CUR:
            return "GET_CUR";
        case UVC_GET_MIN:
            return "GET_MIN";
        case UVC_GET_MAX:
            return "GET_MAX";
        case UVC_GET_RES:
            return "GET_RES";
        case UVC_GET_LEN:
            return "GET_LEN";
        case UVC_GET_INFO:
            return "GET_INFO";
        case UVC_GET_DEF:
            return "GET_DEF";
        default:
            return "QUERY";
    }
}

// The ARG of xu-fail: a query name ("set_cur") or a command ID ("0x05").
bool failMatches(const std::string& arg, const uvc_xu_control_query& q, uint8_t commandId) {
    std::string name = queryName(q.query);
    std::transform(name.begin(), name.end(), name.begin(), ::tolower);
    if (arg == name) return true;
    if (arg.size() == 4 && arg.compare(0, 2, "0x") == 0)
        return commandId == std::strtol(arg.c_str() + 2, nullptr, 16);
    return false;
}

// Exposure limit of the depth range: near range 380, far range 850.
uint16_t exposureLimit(int64_t range) {
    return range == 1 ? 850 : 380;
}

}  // namespace

std::string errnoName(int err) {
    switch (err) {
        case EIO:
            return "EIO";
        case EPIPE:
            return "EPIPE";
        case ENOENT:
            return "ENOENT";
        case ENOBUFS:
            return "ENOBUFS";
        case ERANGE:
            return "ERANGE";
        case EFAULT:
            return "EFAULT";
        case ENODEV:
            return "ENODEV";
        case EINVAL:
            return "EINVAL";
        case EINTR:
            return "EINTR";
        default:
            return "errno " + std::to_string(err);
    }
}

ExtensionUnit::ExtensionUnit(Firmware& firmware) : firmware_(firmware) {}

void ExtensionUnit::addDefaults(Settings& s) {
    s["xu.depth_range"] = 0;
    s["xu.frame_mode_first"] = 0;
    s["xu.frame_mode_second"] = 0;
    s["xu.exposure"] = 250;
    s["xu.coring"] = 16;
}

uint16_t ExtensionUnit::length(uint8_t selector) const {
    return selector == kCommandSelector
               ? kCommandLength
               : static_cast<uint16_t>(firmware_.camera().spec().firmware.xuAnswerLength);
}

int ExtensionUnit::query(uvc_xu_control_query& q) {
    const std::string node = nodeName(firmware_.camera().capture->devPath());
    const std::string what = "XU " + std::to_string(q.unit) + " " + std::to_string(q.selector) +
                             " " + queryName(q.query);
    // uvcvideo works on its own copy of the data: an unreadable or unwritable buffer gives
    // EFAULT.
    uint8_t* const userData = q.data;
    std::vector<uint8_t> data(q.size);
    const bool readable =
        !userData || q.query != UVC_SET_CUR || user::copyFrom(data.data(), userData, q.size);
    const bool sends = q.query == UVC_SET_CUR && userData && readable;
    traceLine(node + " > " + what + (sends ? " " + hexBytes(data.data(), q.size) : ""));

    int r;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        q.data = userData && readable ? data.data() : nullptr;
        r = dispatch(q);
        q.data = userData;
    }
    if (r >= 0 && q.query != UVC_SET_CUR && !user::copyTo(userData, data.data(), q.size))
        r = -EFAULT;
    if (r < 0)
        traceLine(node + " ! " + what + " " + errnoName(-r));
    else if (q.query != UVC_SET_CUR)
        traceLine(node + " < " + what + " " + hexBytes(data.data(), q.size));
    return r;
}

bool ExtensionUnit::failing(const uvc_xu_control_query& q) const {
    // The command a query concerns: the one it sends, or the one GET_CUR answers.
    uint8_t commandId = 0;
    if (q.query == UVC_SET_CUR && q.size > 0)
        commandId = q.data[0];
    else if (q.query == UVC_GET_CUR)
        commandId =
            q.selector == kCommandSelector ? lastCommand_[0] : (hasSelection_ ? selected_[0] : 0);
    return firmware_.faultApplies(
        "xu-fail", [&](const std::string& arg) { return failMatches(arg, q, commandId); });
}

int ExtensionUnit::dispatch(uvc_xu_control_query& q) {
    if (firmware_.unplugged()) return -ENODEV;
    if (q.unit != kUnit || (q.selector != kCommandSelector && q.selector != kAnswerSelector))
        return -ENOENT;
    const uint16_t len = length(q.selector);
    uint16_t required = len;
    if (q.query == UVC_GET_LEN) required = 2;
    if (q.query == UVC_GET_INFO) required = 1;
    if (q.size != required) return -ENOBUFS;
    if (!q.data) return -EFAULT;
    if (failing(q)) return -EIO;

    switch (q.query) {
        case UVC_GET_LEN:
            q.data[0] = static_cast<uint8_t>(len & 0xFF);
            q.data[1] = static_cast<uint8_t>(len >> 8);
            return 0;
        case UVC_GET_INFO:
            q.data[0] = 0x03;  // supports GET and SET
            return 0;
        case UVC_GET_MIN:
        case UVC_GET_DEF:
            std::memset(q.data, 0, len);
            return 0;
        case UVC_GET_MAX:
            std::memset(q.data, 0xFF, len);
            return 0;
        case UVC_GET_RES:
            std::memset(q.data, 0, len);
            q.data[0] = 1;
            return 0;
        case UVC_SET_CUR: {
            uint8_t command[kCommandLength] = {};
            std::memcpy(command, q.data, std::min<std::size_t>(len, kCommandLength));
            return q.selector == kCommandSelector ? execute(command) : select(command);
        }
        case UVC_GET_CUR:
            if (q.selector == kCommandSelector) {
                std::memset(q.data, 0, len);
                std::memcpy(q.data, lastCommand_, std::min<std::size_t>(len, kCommandLength));
            } else {
                answer(q.data, len);
            }
            return 0;
        default:
            return -EINVAL;
    }
}

int ExtensionUnit::execute(const uint8_t* cmd) {
    int result = 0;
    firmware_.store().update([&](Settings& s) {
        switch (cmd[0]) {
            case kDepthRange:
                if (cmd[2] > 1) {
                    result = -ERANGE;
                    return;
                }
                s["xu.depth_range"] = cmd[2];
                // The far range allows longer exposures; coming back clamps to the near limit.
                s["xu.exposure"] = std::min<int64_t>(s["xu.exposure"], exposureLimit(cmd[2]));
                break;
            case kExposure:
                if (le16(cmd + 2) > exposureLimit(s["xu.depth_range"])) {
                    result = -ERANGE;
                    return;
                }
                s["xu.exposure"] = le16(cmd + 2);
                break;
            case kCoring:
                if (le16(cmd + 2) == 0) {
                    result = -ERANGE;
                    return;
                }
                s["xu.coring"] = le16(cmd + 2);
                break;
            case kFrameMode: {
                // 0 multiplexed, 1 ToF only (0 depth and IR, 2 depth, 3 IR), 2 colour only.
                const uint16_t first = le16(cmd + 2);
                const uint8_t second = cmd[4];
                const bool valid = first == 1 ? (second == 0 || second == 2 || second == 3)
                                              : (first <= 2 && second == 0);
                if (!valid) {
                    result = -ERANGE;
                    return;
                }
                s["xu.frame_mode_first"] = first;
                s["xu.frame_mode_second"] = second;
                break;
            }
            case kSensorRegister:
                s["xu.reg." + std::to_string(le16(cmd + 2))] = le16(cmd + 4);
                break;
            default:
                result = -EPIPE;  // the unit stalls on a command it does not know
                return;
        }
        firmware_.publishState(s);
    });
    if (result == 0) std::memcpy(lastCommand_, cmd, kCommandLength);
    return result;
}

int ExtensionUnit::select(const uint8_t* cmd) {
    switch (cmd[0]) {
        case kDepthRange:
        case kExposure:
        case kCoring:
        case kFrameMode:
        case kSensorRegister:
            std::memcpy(selected_, cmd, kCommandLength);
            hasSelection_ = true;
            return 0;
        default:
            return -EPIPE;
    }
}

void ExtensionUnit::answer(uint8_t* data, uint16_t size) {
    std::memset(data, 0, size);
    if (!hasSelection_) return;
    const Settings s = firmware_.store().snapshot();
    uint16_t value = 0;
    uint8_t extra = 0;
    switch (selected_[0]) {
        case kDepthRange:
            value = static_cast<uint16_t>(s.at("xu.depth_range"));
            break;
        case kExposure:
            value = static_cast<uint16_t>(s.at("xu.exposure"));
            break;
        case kCoring:
            value = static_cast<uint16_t>(s.at("xu.coring"));
            break;
        case kFrameMode:
            value = static_cast<uint16_t>(s.at("xu.frame_mode_first"));
            extra = static_cast<uint8_t>(s.at("xu.frame_mode_second"));
            break;
        case kSensorRegister: {
            const auto it = s.find("xu.reg." + std::to_string(le16(selected_ + 2)));
            value = it == s.end() ? 0 : static_cast<uint16_t>(it->second);
            break;
        }
    }
    const uint8_t bytes[3] = {static_cast<uint8_t>(value & 0xFF), static_cast<uint8_t>(value >> 8),
                              extra};
    std::memcpy(data, bytes, std::min<std::size_t>(size, sizeof bytes));
}

}  // namespace vcam
