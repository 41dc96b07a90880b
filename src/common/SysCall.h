// System calls on device nodes go through here: a call that a signal interrupted is repeated,
// and a failure is recorded with the call's name and the errno it left, before anything else
// can change it. ENODEV and ENXIO mean the camera is gone (unplugged), not that the call was
// wrong; callers that keep a node open mark that once instead of failing the same way again.
#ifndef TALVORO_COMMON_SYS_CALL_H
#define TALVORO_COMMON_SYS_CALL_H

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace Talvoro {

inline bool isDeviceGone(int error) {
    return error == ENODEV || error == ENXIO;
}

// A failed system call: its name ("VIDIOC_DQBUF", "open", ...) and its errno.
struct SysCallFailure {
    const char* call = nullptr;  // null: nothing recorded
    int error = 0;

    bool deviceGone() const { return isDeviceGone(error); }
    // "VIDIOC_DQBUF: No such device (camera gone)"; empty when nothing was recorded.
    std::string describe() const {
        if (!call) return std::string();
        char buffer[128];
        std::string text = std::string(call) + ": " + strerror_r(error, buffer, sizeof buffer);
        return deviceGone() ? text + " (camera gone)" : text;
    }
};

namespace syscall_detail {
inline thread_local SysCallFailure lastFailure;
}  // namespace syscall_detail

// The last failure recorded on this thread. Clear it before a sequence of calls to learn
// whether one of them failed.
inline const SysCallFailure& lastSysCallFailure() {
    return syscall_detail::lastFailure;
}
inline void clearSysCallFailure() {
    syscall_detail::lastFailure = SysCallFailure{};
}
// For calls that report failure their own way (mmap's MAP_FAILED). errno is kept.
inline void recordSysCallFailure(const char* call, int error) {
    syscall_detail::lastFailure = SysCallFailure{call, error};
}

// Calls `call` until it does not fail with EINTR and returns its last result; a failure (-1)
// is recorded under `name`, errno left as the call set it.
template <typename Call>
auto sysCall(const char* name, Call call) {
    auto r = call();
    while (r == -1 && errno == EINTR)
        r = call();
    if (r == -1) recordSysCallFailure(name, errno);
    return r;
}

// ioctl through sysCall under the request's own name: use XIOCTL(fd, VIDIOC_DQBUF, &buffer).
inline int xioctl(int fd, unsigned long request, void* arg, const char* name) {
    return sysCall(name, [&] { return ::ioctl(fd, request, arg); });
}
#define XIOCTL(fd, request, arg) ::Talvoro::xioctl((fd), (request), (arg), #request)

// open(2) of a device node, read-write and non-blocking as every node here is opened.
inline int openNode(const char* path) {
    return sysCall("open", [&] { return ::open(path, O_RDWR | O_NONBLOCK); });
}

inline ssize_t xread(int fd, void* buffer, size_t size) {
    return sysCall("read", [&] { return ::read(fd, buffer, size); });
}

inline ssize_t xwrite(int fd, const void* buffer, size_t size) {
    return sysCall("write", [&] { return ::write(fd, buffer, size); });
}

inline int xpoll(pollfd* fds, nfds_t count, int timeoutMs) {
    return sysCall("poll", [&] { return ::poll(fds, count, timeoutMs); });
}

}  // namespace Talvoro

#endif
