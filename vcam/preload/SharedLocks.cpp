#include "SharedLocks.h"

#include <fcntl.h>

#include <cerrno>

#include "Libc.h"
#include "RunState.h"

namespace vcam {

namespace {

// A lock of `type` on the one byte at `slot`.
struct flock byteLock(short type, off_t slot) {
    struct flock l {};
    l.l_type = type;
    l.l_whence = SEEK_SET;
    l.l_start = slot;
    l.l_len = 1;
    return l;
}

}  // namespace

SharedLocks::SharedLocks(std::string path) : path_(std::move(path)) {}

SharedLocks::~SharedLocks() {
    const int fd = fd_.exchange(-1);
    if (fd >= 0) libc::close(fd);
}

int SharedLocks::fd() {
    int fd = fd_.load();
    if (fd >= 0 || path_.empty()) return fd;
    const int opened = libc::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (opened < 0) return -1;
    if (!fd_.compare_exchange_strong(fd, opened)) libc::close(opened);  // another thread won
    return fd_.load();
}

bool SharedLocks::lock(off_t slot, short type, bool wait) {
    const int f = fd();
    if (f < 0) return true;
    struct flock l = byteLock(type, slot);
    const int saved = errno;
    int r;
    do {
        r = libc::fcntl(f, wait ? F_OFD_SETLKW : F_OFD_SETLK, reinterpret_cast<long>(&l));
    } while (r != 0 && errno == EINTR);
    errno = saved;
    return r == 0;
}

void SharedLocks::lockControl() {
    lock(kControl, F_WRLCK, true);
}

void SharedLocks::unlockControl() {
    lock(kControl, F_UNLCK, false);
}

bool SharedLocks::claim(off_t slot) {
    return lock(slot, F_WRLCK, false);
}

void SharedLocks::share(off_t slot) {
    lock(slot, F_RDLCK, false);
}

void SharedLocks::release(off_t slot) {
    lock(slot, F_UNLCK, false);
}

bool SharedLocks::heldElsewhere(off_t slot) {
    const int f = fd();
    if (f < 0) return false;
    struct flock l = byteLock(F_WRLCK, slot);
    const int saved = errno;
    const int r = libc::fcntl(f, F_OFD_GETLK, reinterpret_cast<long>(&l));
    errno = saved;
    // Our own locks never conflict with us: only another process's show.
    return r == 0 && l.l_type != F_UNLCK;
}

void SharedLocks::forgetAfterFork() {
    const int fd = fd_.exchange(-1);
    // Closing our duplicate of the open file description leaves the parent's locks alone.
    if (fd >= 0) libc::close(fd);
}

std::string testbedStatePath(const std::string& name, const char* suffix) {
    const std::string dir = run::stateDir();
    if (dir.empty()) return "";
    std::string file = name;
    for (char& c : file)
        if (c == '/') c = '_';
    return dir + "/" + file + "." + suffix;
}

}  // namespace vcam
