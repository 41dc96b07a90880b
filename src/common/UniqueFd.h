// Owns one file descriptor: move-only, closes it on destruction.
#ifndef TALVORO_COMMON_UNIQUE_FD_H
#define TALVORO_COMMON_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace Talvoro {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }

    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd_; }
    bool isValid() const { return fd_ >= 0; }

    // Hands the descriptor over; this object no longer closes it.
    int release() { return std::exchange(fd_, -1); }

    void reset(int fd = -1) {
        int old = std::exchange(fd_, fd);
        if (old >= 0) ::close(old);
    }

  private:
    int fd_ = -1;
};

}  // namespace Talvoro

#endif
