// For the HID fuzz targets: select() without descriptor sets is how the IMU sampling pauses
// (10 ms per sample), and a pause is time, not input. This definition takes the place of the C
// library's for the whole process: the pause returns at once, failing as select() does for a
// negative descriptor count; a select() that watches descriptors goes to the kernel.
#include <sys/select.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

extern "C" int select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                      timeval* timeout) {
    if (readfds || writefds || exceptfds)
        return int(syscall(SYS_select, nfds, readfds, writefds, exceptfds, timeout));
    if (nfds < 0) {
        errno = EINVAL;
        return -1;
    }
    return 0;
}
