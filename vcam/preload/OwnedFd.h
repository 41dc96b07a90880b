// Owns a descriptor the preload opened for itself (memfds, duplicates): closes it through the
// real close(), never through the preload's own wrapper.
#ifndef TALVORO_VCAM_OWNED_FD_H
#define TALVORO_VCAM_OWNED_FD_H

#include <utility>

#include "Libc.h"

namespace vcam {

class OwnedFd {
  public:
    OwnedFd() = default;
    explicit OwnedFd(int fd) : fd_(fd) {}
    ~OwnedFd() { reset(); }
    OwnedFd(OwnedFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    OwnedFd& operator=(OwnedFd&& other) noexcept {
        if (this != &other) reset(std::exchange(other.fd_, -1));
        return *this;
    }
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    void reset(int fd = -1) {
        const int old = std::exchange(fd_, fd);
        if (old >= 0) libc::close(old);
    }

  private:
    int fd_ = -1;
};

}  // namespace vcam

#endif
