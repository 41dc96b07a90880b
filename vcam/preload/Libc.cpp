#include "Libc.h"

#include <dlfcn.h>

#include <atomic>
#include <cerrno>

namespace vcam::libc {

namespace {

// Resolves the next definition of `name` on first use. No function-local static: its guard
// would run through a sanitizer's interceptors, and a sanitizer runtime calls mmap through this
// library while it is still starting. A race only makes two threads look the symbol up twice.
template <typename Fn>
Fn next(std::atomic<void*>& slot, const char* name) {
    void* sym = slot.load(std::memory_order_acquire);
    if (!sym) {
        const int saved = errno;
        sym = dlsym(RTLD_NEXT, name);
        errno = saved;
        slot.store(sym, std::memory_order_release);
    }
    return reinterpret_cast<Fn>(sym);
}

std::atomic<void*> g_open, g_openat, g_close, g_dup, g_dup2, g_dup3, g_fcntl, g_ioctl, g_mmap,
    g_read, g_write;

}  // namespace

int open(const char* path, int flags, mode_t mode) {
    return next<int (*)(const char*, int, ...)>(g_open, "open")(path, flags, mode);
}

int openat(int dirfd, const char* path, int flags, mode_t mode) {
    return next<int (*)(int, const char*, int, ...)>(g_openat, "openat")(dirfd, path, flags, mode);
}

int close(int fd) {
    return next<int (*)(int)>(g_close, "close")(fd);
}

int dup(int fd) {
    return next<int (*)(int)>(g_dup, "dup")(fd);
}

int dup2(int oldfd, int newfd) {
    return next<int (*)(int, int)>(g_dup2, "dup2")(oldfd, newfd);
}

int dup3(int oldfd, int newfd, int flags) {
    return next<int (*)(int, int, int)>(g_dup3, "dup3")(oldfd, newfd, flags);
}

int fcntl(int fd, int cmd, long arg) {
    return next<int (*)(int, int, ...)>(g_fcntl, "fcntl")(fd, cmd, arg);
}

int ioctl(int fd, unsigned long request, void* arg) {
    return next<int (*)(int, unsigned long, ...)>(g_ioctl, "ioctl")(fd, request, arg);
}

void* mmap(void* addr, std::size_t length, int prot, int flags, int fd, off_t offset) {
    return next<void* (*)(void*, std::size_t, int, int, int, off_t)>(g_mmap, "mmap")(
        addr, length, prot, flags, fd, offset);
}

ssize_t read(int fd, void* buf, std::size_t count) {
    return next<ssize_t (*)(int, void*, std::size_t)>(g_read, "read")(fd, buf, count);
}

ssize_t write(int fd, const void* buf, std::size_t count) {
    return next<ssize_t (*)(int, const void*, std::size_t)>(g_write, "write")(fd, buf, count);
}

}  // namespace vcam::libc
