// The real libc functions behind the wrappers. The preload's own code calls only these, never a
// wrapped function, so it cannot re-enter itself.
#ifndef TALVORO_VCAM_LIBC_H
#define TALVORO_VCAM_LIBC_H

#include <sys/types.h>

#include <cstddef>

namespace vcam::libc {

int open(const char* path, int flags, mode_t mode);
int openat(int dirfd, const char* path, int flags, mode_t mode);
int close(int fd);
int dup(int fd);
int dup2(int oldfd, int newfd);
int dup3(int oldfd, int newfd, int flags);
int fcntl(int fd, int cmd, long arg);
int ioctl(int fd, unsigned long request, void* arg);
void* mmap(void* addr, std::size_t length, int prot, int flags, int fd, off_t offset);
ssize_t read(int fd, void* buf, std::size_t count);
ssize_t write(int fd, const void* buf, std::size_t count);

}  // namespace vcam::libc

#endif
