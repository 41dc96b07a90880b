// One open device node of a control channel (UVC, HID): its descriptor, and whether the camera
// behind it is gone. Once a call failed with ENODEV or ENXIO, later calls fail at once with
// ENODEV instead of reaching a node that cannot answer; opening or adopting a node starts afresh.
#ifndef TALVORO_COMMON_CONTROL_NODE_H
#define TALVORO_COMMON_CONTROL_NODE_H

#include <utility>

#include "common/SysCall.h"
#include "common/UniqueFd.h"

namespace Talvoro {

class ControlNode {
  public:
    // Opens `path` read-write, non-blocking; false (errno set, failure recorded) when it cannot.
    bool open(const char* path) {
        adopt(UniqueFd(openNode(path)));
        return fd_.isValid();
    }
    void adopt(UniqueFd fd) {
        fd_ = std::move(fd);
        gone_ = false;
    }
    void close() { adopt(UniqueFd()); }

    int fd() const { return fd_.get(); }
    bool isOpen() const { return fd_.isValid(); }
    bool gone() const { return gone_; }

    int ioctl(unsigned long request, void* arg, const char* name) {
        return _call(name, [&] { return ::ioctl(fd_.get(), request, arg); });
    }
    ssize_t read(void* buffer, size_t size) {
        return _call("read", [&] { return ::read(fd_.get(), buffer, size); });
    }
    ssize_t write(const void* buffer, size_t size) {
        return _call("write", [&] { return ::write(fd_.get(), buffer, size); });
    }

  private:
    template <typename Call>
    auto _call(const char* name, Call call) -> decltype(call()) {
        if (gone_) {
            recordSysCallFailure(name, ENODEV);
            errno = ENODEV;
            return -1;
        }
        const auto r = sysCall(name, call);
        if (r == -1 && isDeviceGone(errno)) gone_ = true;
        return r;
    }

    UniqueFd fd_;
    bool gone_ = false;
};

// XIOCTL on a control node: the same request naming as on a descriptor.
inline int xioctl(ControlNode& node, unsigned long request, void* arg, const char* name) {
    return node.ioctl(request, arg, name);
}

}  // namespace Talvoro

#endif
