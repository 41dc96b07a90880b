// libFuzzer target: the UVC channel against a camera whose every answer the input decides:
// extension-unit control lengths and answers, capability and standard-control answers, and
// failures (EINTR included) of any of them.
//
// The harness plays the camera at the system-call boundary: it defines ioctl() for the process
// and answers the channel's requests on the video node (here /dev/null) from the input, one
// control byte per request (bit 7: fail, with EINTR when bit 6 is set, else EIO), then the
// answer's bytes. Requests of other kinds go to the kernel. Once the input is used up, requests
// succeed with zeros.
#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <linux/videodev2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <vector>

#include "log/Log.h"
#include "uvc/UVC.h"

namespace {

struct Script {
    const uint8_t* data = nullptr;
    size_t size = 0, pos = 0;
    uint8_t byte() { return pos < size ? data[pos++] : 0; }
    void fill(void* out, size_t n) {
        auto* bytes = static_cast<uint8_t*>(out);
        for (size_t i = 0; i < n; ++i)
            bytes[i] = byte();
    }
} script;

unsigned long checksum;  // keeps the reads of what the channel sends

int answer(unsigned long request, void* arg) {
    const uint8_t control = script.byte();
    if (control & 0x80) {
        errno = (control & 0x40) ? EINTR : EIO;
        return -1;
    }
    switch (request) {
        case VIDIOC_QUERYCAP: {
            auto* cap = static_cast<v4l2_capability*>(arg);
            std::memset(cap, 0, sizeof *cap);
            cap->capabilities = (control & 1) ? V4L2_CAP_VIDEO_CAPTURE : V4L2_CAP_META_CAPTURE;
            return 0;
        }
        case UVCIOC_CTRL_QUERY: {
            auto* q = static_cast<uvc_xu_control_query*>(arg);
            if (q->query == UVC_SET_CUR) {
                // The kernel copies `size` bytes from the caller's buffer.
                std::vector<uint8_t> sent(q->size);
                if (q->size) std::memcpy(sent.data(), q->data, q->size);
                for (uint8_t b : sent)
                    checksum += b;
            } else {
                // GET_LEN, GET_CUR and the rest: `size` bytes of the camera's choice.
                script.fill(q->data, q->size);
            }
            return 0;
        }
        case VIDIOC_G_CTRL:
        case VIDIOC_S_CTRL:
            script.fill(&static_cast<v4l2_control*>(arg)->value, sizeof(int32_t));
            return 0;
        case VIDIOC_QUERYCTRL: {
            auto* q = static_cast<v4l2_queryctrl*>(arg);
            const uint32_t id = q->id;
            script.fill(q, sizeof *q);
            q->id = id;
            return 0;
        }
        default:
            errno = ENOTTY;
            return -1;
    }
}

bool isCameraRequest(unsigned long request) {
    return request == VIDIOC_QUERYCAP || request == UVCIOC_CTRL_QUERY || request == VIDIOC_G_CTRL ||
           request == VIDIOC_S_CTRL || request == VIDIOC_QUERYCTRL;
}

}  // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) {
    va_list args;
    va_start(args, request);
    void* arg = va_arg(args, void*);
    va_end(args);
    if (script.data && isCameraRequest(request)) return answer(request, arg);
    return int(syscall(SYS_ioctl, fd, request, arg));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = [] { return Talvoro::Log::getInstance()->setLevel(3); }();
    (void)quiet;
    if (size < 2) return 0;
    // Byte 0: how many operations (1..16); then one byte each; the rest is the camera's script.
    const size_t ops = 1 + data[0] % 16;
    if (size < 1 + ops) return 0;
    script = Script{data + 1 + ops, size - 1 - ops};

    Talvoro::DeviceInfo info{};
    std::strcpy(info.devicePath, "/dev/null");
    Talvoro::UVC uvc;
    if (uvc._openUVC(info) == Talvoro::Ok) {
        for (size_t i = 0; i < ops; ++i) {
            const uint8_t op = data[1 + i];
            unsigned short a = 0, b = 0;
            Talvoro::UVCProp prop{};
            switch (op % 12) {
                case 0:
                    uvc.getDepthRange(&a);
                    break;
                case 1:
                    uvc.setDepthRange(op >> 7);
                    break;
                case 2:
                    uvc.getTOFFrameMode(&a, &b);
                    break;
                case 3:
                    uvc.setTOFFrameMode(op, op >> 4);
                    break;
                case 4:
                    uvc.getTOFExposure(&a);
                    break;
                case 5:
                    uvc.setTOFExposure(uint16_t(op * 4));
                    break;
                case 6:
                    uvc.getTOFCoring(&a);
                    break;
                case 7:
                    uvc.setTOFCoring(op);
                    break;
                case 8:
                    uvc.getADIRegister(op, &a);
                    break;
                case 9:
                    uvc.setADIRegister(op, uint16_t(op << 8));
                    break;
                case 10:
                    uvc.getUVCControl(op >> 4, &prop);
                    break;
                default:
                    uvc.setUVCControl(op >> 4, op);
                    break;
            }
        }
    }
    script = Script{};
    return 0;
}
