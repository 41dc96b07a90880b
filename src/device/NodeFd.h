// Owns the descriptor of an open video node. Unlike UniqueFd the number is atomic: the hot-plug
// path closes the node on the acquisition thread while an application thread may ask whether it
// is open.
#ifndef TALVORO_DEVICE_NODE_FD_H
#define TALVORO_DEVICE_NODE_FD_H

#include <unistd.h>

#include <atomic>

namespace Talvoro {

class NodeFd {
  public:
    NodeFd() = default;
    ~NodeFd() { reset(); }
    NodeFd(const NodeFd&) = delete;
    NodeFd& operator=(const NodeFd&) = delete;

    int get() const { return fd_.load(); }
    bool isValid() const { return get() >= 0; }

    // Closes the descriptor held (if any) and keeps `fd` instead.
    void reset(int fd = -1) {
        const int old = fd_.exchange(fd);
        if (old >= 0) ::close(old);
    }

  private:
    std::atomic<int> fd_{-1};
};

}  // namespace Talvoro

#endif
