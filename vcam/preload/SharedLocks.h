// What the kernel keeps per device and every process of one launcher run must therefore share:
// which process owns a node's buffers, and which file-handle priorities are taken. It lives as
// open-file-description locks on one file of the testbed ($UMOCKDEV_DIR/talvoro-vcam/
// SERIAL.locks), so that a process's share disappears when it exits, however it exits. Within
// a process the callers keep their own books; these locks only tell the processes apart.
#ifndef TALVORO_VCAM_SHARED_LOCKS_H
#define TALVORO_VCAM_SHARED_LOCKS_H

#include <sys/types.h>

#include <atomic>
#include <string>

namespace vcam {

class SharedLocks {
  public:
    // Byte offsets in the lock file.
    static constexpr off_t kControl = 0;        // a process changes a node's configuration
    static constexpr off_t kCaptureOwner = 1;   // a process owns the capture buffers
    static constexpr off_t kMetadataOwner = 2;  // a process owns the metadata buffers
    static constexpr off_t kPriority = 3;       // + level: a process has a handle at that level

    // `path` empty: a camera outside a testbed; every claim succeeds.
    explicit SharedLocks(std::string path);
    ~SharedLocks();
    SharedLocks(const SharedLocks&) = delete;
    SharedLocks& operator=(const SharedLocks&) = delete;

    // Waits until no other process holds the control lock, then holds it. Threads of one
    // process share it: they must serialise among themselves first.
    void lockControl();
    void unlockControl();
    // An exclusive claim: false while another process holds the slot.
    bool claim(off_t slot);
    // A shared hold, as many processes as like.
    void share(off_t slot);
    void release(off_t slot);
    // Whether another process holds the slot, shared or exclusively.
    bool heldElsewhere(off_t slot);

    // In a child after fork(): the locks belong to the parent. The child drops its reference
    // to them without releasing them and starts with none.
    void forgetAfterFork();

  private:
    int fd();
    bool lock(off_t slot, short type, bool wait);

    std::string path_;
    std::atomic<int> fd_{-1};
};

// RAII for SharedLocks::lockControl.
class SharedControlLock {
  public:
    explicit SharedControlLock(SharedLocks& locks) : locks_(locks) { locks_.lockControl(); }
    ~SharedControlLock() { locks_.unlockControl(); }
    SharedControlLock(const SharedControlLock&) = delete;
    SharedControlLock& operator=(const SharedControlLock&) = delete;

  private:
    SharedLocks& locks_;
};

// NAME.SUFFIX in the run's state directory, or "" outside a run: where a camera (NAME: its
// CameraSpec::stateName) keeps what outlives one process.
std::string testbedStatePath(const std::string& name, const char* suffix);

}  // namespace vcam

#endif
