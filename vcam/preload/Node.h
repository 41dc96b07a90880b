// Emulated device nodes and their open files.
//
// A Node is one /dev entry (a video or hidraw node of a virtual camera). Opening it creates an
// OpenFile: the equivalent of a kernel open file description, shared by every descriptor dup'ed
// from it. The descriptor handed to the application is one end of a real socket pair, so
// select/poll/read/write and dup work natively; the other end stays with the OpenFile, which
// uses it to signal readiness or to answer reports.
#ifndef TALVORO_VCAM_NODE_H
#define TALVORO_VCAM_NODE_H

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

namespace vcam {

class OpenFile;

class Node : public std::enable_shared_from_this<Node> {
  public:
    explicit Node(std::string devPath) : devPath_(std::move(devPath)) {}
    virtual ~Node() = default;

    const std::string& devPath() const { return devPath_; }

    // Returns the application's descriptor, or -errno. `flags` are open(2)'s.
    int open(int flags, std::shared_ptr<OpenFile>* file);
    // Once *gone is set (the device was unplugged) every open fails with ENOENT.
    void setGoneFlag(const std::atomic<bool>* gone) { gone_ = gone; }

  protected:
    // Socket type of the pair (SOCK_STREAM for video readiness bytes, SOCK_SEQPACKET for
    // reports).
    virtual int socketType() const = 0;
    // Makes the open file for a fresh pair: clientFd goes to the application, peerFd stays.
    virtual std::shared_ptr<OpenFile> makeOpenFile(int clientFd, int peerFd, int flags) = 0;
    // -errno to refuse the open (for example a node that was unplugged), 0 to allow it.
    virtual int checkOpen() const { return 0; }

  private:
    std::string devPath_;
    const std::atomic<bool>* gone_ = nullptr;
};

class OpenFile {
  public:
    OpenFile(std::shared_ptr<Node> node, int clientFd, int peerFd, int flags);
    virtual ~OpenFile();
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    const std::shared_ptr<Node>& node() const { return node_; }
    int peerFd() const { return peerFd_; }
    int openFlags() const { return flags_; }
    // Identity of the client socket: a descriptor is ours only while it still refers to it.
    bool matches(int fd) const;

    // Returns >= 0 on success or -errno.
    virtual int ioctl(unsigned long request, void* arg) = 0;
    // Returns the mapping or MAP_FAILED with *err set.
    virtual void* mmap(void* addr, std::size_t length, int prot, int flags, off_t offset, int* err);
    // Reads and writes pass through to the socket unless a node needs otherwise (libc style).
    virtual ssize_t read(int fd, void* buf, std::size_t count);
    virtual ssize_t write(int fd, const void* buf, std::size_t count);

  private:
    std::shared_ptr<Node> node_;
    int peerFd_;
    int flags_;
    dev_t clientDev_ = 0;
    ino_t clientIno_ = 0;
};

}  // namespace vcam

#endif
