// The system-call boundary: libc entry points that the application calls. Each handles only
// descriptors and paths of emulated nodes and falls through to the next definition otherwise.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdarg>

#include "FdTable.h"
#include "Libc.h"
#include "World.h"

namespace vcam {
namespace {

bool needsMode(int flags) {
    return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE;
}

// Opens an emulated node. Returns false when `path` is not one, leaving the open to libc.
bool openEmulated(const char* path, int flags, int* result) {
    std::string devPath;
    if (!deviceNodePath(path, &devPath)) return false;
    World* world = World::get();
    if (!world) return false;
    auto node = world->find(devPath);
    if (!node) return false;
    std::shared_ptr<OpenFile> file;
    const int fd = node->open(flags, &file);
    if (fd < 0) {
        errno = -fd;
        *result = -1;
        return true;
    }
    insertFd(fd, std::move(file));
    *result = fd;
    return true;
}

// A descriptor number that libc just handed out is not ours, whatever the table remembers.
int forgetStale(int fd) {
    if (mayBeOurs(fd)) eraseFd(fd);
    return fd;
}

int doOpen(const char* path, int flags, mode_t mode) {
    int fd;
    if (openEmulated(path, flags, &fd)) return fd;
    return forgetStale(libc::open(path, flags, mode));
}

int doOpenat(int dirfd, const char* path, int flags, mode_t mode) {
    int fd;
    if (path && path[0] == '/' && openEmulated(path, flags, &fd)) return fd;
    return forgetStale(libc::openat(dirfd, path, flags, mode));
}

// The duplicate shares the original's open file, as with a real node.
int duplicated(int oldfd, int newfd) {
    if (newfd < 0) return newfd;
    const int saved = errno;
    if (mayBeOurs(newfd)) eraseFd(newfd);
    if (mayBeOurs(oldfd)) {
        if (auto file = lookupFd(oldfd)) insertFd(newfd, file);
    }
    errno = saved;
    return newfd;
}

}  // namespace
}  // namespace vcam

using namespace vcam;

extern "C" {

#define VCAM_MODE_ARG(flags)                         \
    mode_t mode = 0;                                 \
    if (needsMode(flags)) {                          \
        va_list ap;                                  \
        va_start(ap, flags);                         \
        mode = static_cast<mode_t>(va_arg(ap, int)); \
        va_end(ap);                                  \
    }

__attribute__((visibility("default"))) int open(const char* path, int flags, ...) {
    VCAM_MODE_ARG(flags);
    return doOpen(path, flags, mode);
}

__attribute__((visibility("default"))) int open64(const char* path, int flags, ...) {
    VCAM_MODE_ARG(flags);
    return doOpen(path, flags | O_LARGEFILE, mode);
}

__attribute__((visibility("default"))) int __open_2(const char* path, int flags) {
    return doOpen(path, flags, 0);
}

__attribute__((visibility("default"))) int __open64_2(const char* path, int flags) {
    return doOpen(path, flags | O_LARGEFILE, 0);
}

__attribute__((visibility("default"))) int openat(int dirfd, const char* path, int flags, ...) {
    VCAM_MODE_ARG(flags);
    return doOpenat(dirfd, path, flags, mode);
}

__attribute__((visibility("default"))) int openat64(int dirfd, const char* path, int flags, ...) {
    VCAM_MODE_ARG(flags);
    return doOpenat(dirfd, path, flags | O_LARGEFILE, mode);
}

__attribute__((visibility("default"))) int __openat_2(int dirfd, const char* path, int flags) {
    return doOpenat(dirfd, path, flags, 0);
}

__attribute__((visibility("default"))) int __openat64_2(int dirfd, const char* path, int flags) {
    return doOpenat(dirfd, path, flags | O_LARGEFILE, 0);
}

__attribute__((visibility("default"))) int close(int fd) {
    if (mayBeOurs(fd)) eraseFd(fd);
    return libc::close(fd);
}

__attribute__((visibility("default"))) int dup(int fd) {
    return duplicated(fd, libc::dup(fd));
}

__attribute__((visibility("default"))) int dup2(int oldfd, int newfd) {
    const int r = libc::dup2(oldfd, newfd);
    return r == oldfd ? r : duplicated(oldfd, r);
}

__attribute__((visibility("default"))) int dup3(int oldfd, int newfd, int flags) {
    return duplicated(oldfd, libc::dup3(oldfd, newfd, flags));
}

static int doFcntl(int fd, int cmd, long arg) {
    const int r = libc::fcntl(fd, cmd, arg);
    if (cmd == F_DUPFD || cmd == F_DUPFD_CLOEXEC) return duplicated(fd, r);
    return r;
}

__attribute__((visibility("default"))) int fcntl(int fd, int cmd, ...) {
    va_list ap;
    va_start(ap, cmd);
    const long arg = va_arg(ap, long);
    va_end(ap);
    return doFcntl(fd, cmd, arg);
}

__attribute__((visibility("default"))) int fcntl64(int fd, int cmd, ...) {
    va_list ap;
    va_start(ap, cmd);
    const long arg = va_arg(ap, long);
    va_end(ap);
    return doFcntl(fd, cmd, arg);
}

__attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...) {
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    if (mayBeOurs(fd)) {
        if (auto file = lookupFd(fd)) {
            syncWorld();
            const int r = file->ioctl(request, arg);
            if (r < 0) {
                errno = -r;
                return -1;
            }
            return r;
        }
    }
    return libc::ioctl(fd, request, arg);
}

static void* doMmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) {
    if (!(flags & MAP_ANONYMOUS) && mayBeOurs(fd)) {
        if (auto file = lookupFd(fd)) {
            syncWorld();
            int err = 0;
            void* p = file->mmap(addr, length, prot, flags, offset, &err);
            if (p == MAP_FAILED) errno = err;
            return p;
        }
    }
    return libc::mmap(addr, length, prot, flags, fd, offset);
}

__attribute__((visibility("default"))) void* mmap(void* addr, size_t length, int prot, int flags,
                                                  int fd, off_t offset) {
    return doMmap(addr, length, prot, flags, fd, offset);
}

__attribute__((visibility("default"))) void* mmap64(void* addr, size_t length, int prot, int flags,
                                                    int fd, off_t offset) {
    return doMmap(addr, length, prot, flags, fd, offset);
}

__attribute__((visibility("default"))) ssize_t read(int fd, void* buf, size_t count) {
    if (mayBeOurs(fd)) {
        if (auto file = lookupFd(fd)) {
            syncWorld();
            return file->read(fd, buf, count);
        }
    }
    return libc::read(fd, buf, count);
}

__attribute__((visibility("default"))) ssize_t write(int fd, const void* buf, size_t count) {
    if (mayBeOurs(fd)) {
        if (auto file = lookupFd(fd)) {
            syncWorld();
            return file->write(fd, buf, count);
        }
    }
    return libc::write(fd, buf, count);
}

}  // extern "C"
