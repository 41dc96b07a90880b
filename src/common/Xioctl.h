// System calls on device nodes, repeated while a signal interrupts them.
#ifndef TALVORO_COMMON_XIOCTL_H
#define TALVORO_COMMON_XIOCTL_H

#include <sys/ioctl.h>

#include <cerrno>

namespace Talvoro {

// ioctl() repeated on EINTR. errno is left as the final attempt set it.
inline int xioctl(int fd, unsigned long request, void* arg) {
    int r;
    do {
        r = ::ioctl(fd, request, arg);
    } while (r == -1 && errno == EINTR);
    return r;
}

}  // namespace Talvoro

#endif
