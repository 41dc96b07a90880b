#include "Node.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>

#include "Libc.h"

namespace vcam {

int Node::open(int flags, std::shared_ptr<OpenFile>* file) {
    if (gone_ && gone_->load()) return -ENOENT;
    if (const int err = checkOpen()) return err;
    int sv[2];
    if (::socketpair(AF_UNIX, socketType() | SOCK_CLOEXEC, 0, sv) != 0) return -errno;
    // The application's end takes the open flags; ours is always non-blocking.
    if (!(flags & O_CLOEXEC)) libc::fcntl(sv[0], F_SETFD, 0);
    if (flags & O_NONBLOCK) libc::fcntl(sv[0], F_SETFL, O_NONBLOCK);
    libc::fcntl(sv[1], F_SETFL, O_NONBLOCK);
    *file = makeOpenFile(sv[0], sv[1], flags);
    return sv[0];
}

OpenFile::OpenFile(std::shared_ptr<Node> node, int clientFd, int peerFd, int flags)
    : node_(std::move(node)), peerFd_(peerFd), flags_(flags) {
    struct stat st {};
    if (::fstat(clientFd, &st) == 0) {
        clientDev_ = st.st_dev;
        clientIno_ = st.st_ino;
    }
}

OpenFile::~OpenFile() {
    if (peerFd_ >= 0) libc::close(peerFd_);
}

bool OpenFile::matches(int fd) const {
    struct stat st {};
    return ::fstat(fd, &st) == 0 && st.st_dev == clientDev_ && st.st_ino == clientIno_;
}

void* OpenFile::mmap(void*, std::size_t, int, int, off_t, int* err) {
    *err = ENODEV;
    return MAP_FAILED;
}

ssize_t OpenFile::read(int fd, void* buf, std::size_t count) {
    return libc::read(fd, buf, count);
}

ssize_t OpenFile::write(int fd, const void* buf, std::size_t count) {
    return libc::write(fd, buf, count);
}

}  // namespace vcam
