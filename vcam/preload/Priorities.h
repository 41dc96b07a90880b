// File-handle priorities (VIDIOC_G/S_PRIORITY): every open file of a camera's capture and
// metadata node has one, as uvcvideo keeps them per video chain, and a handle below the highest
// one, in any process of the run, gets EBUSY for the ioctls that change the device.
#ifndef TALVORO_VCAM_PRIORITIES_H
#define TALVORO_VCAM_PRIORITIES_H

#include <cstdint>
#include <mutex>

namespace vcam {

class SharedLocks;

class Priorities {
  public:
    explicit Priorities(SharedLocks& locks) : locks_(locks) {}

    // A new handle, at the default priority; returns its level.
    uint32_t open();
    void close(uint32_t level);
    // VIDIOC_S_PRIORITY: 0, or -EINVAL for a level that is not one.
    int change(uint32_t* level, uint32_t wanted);
    // VIDIOC_G_PRIORITY: the highest level any handle holds.
    uint32_t highest();
    // 0, or -EBUSY when some handle holds a level above `level`.
    int check(uint32_t level);

  private:
    bool taken(uint32_t level);
    void add(uint32_t level);
    void remove(uint32_t level);

    SharedLocks& locks_;
    std::mutex mutex_;
    int counts_[4] = {};  // handles of this process per level
};

}  // namespace vcam

#endif
