// What the V4L2 core does around a driver's ioctl handler: it copies the argument in from the
// caller (only the input fields, the rest zeroed), the control array of an extended-controls
// call or the plane array of a multi-planar buffer with it, and copies the results out; a bad
// pointer fails with EFAULT. It also knows which ioctls the priority check guards.
#ifndef TALVORO_VCAM_VIDEO_IOCTL_H
#define TALVORO_VCAM_VIDEO_IOCTL_H

#include <cstddef>
#include <vector>

namespace vcam {

class VideoIoctlArgument {
  public:
    VideoIoctlArgument() = default;
    VideoIoctlArgument(const VideoIoctlArgument&) = delete;
    VideoIoctlArgument& operator=(const VideoIoctlArgument&) = delete;

    // Takes the kernel's copy of `user`, the argument of `request`: 0 or -errno.
    int copyIn(unsigned long request, void* user);
    // The copy the handler works on (null for an ioctl without argument).
    void* get() { return size_ ? data() : nullptr; }
    // Gives the handler's results back to the caller; returns the ioctl's result, `rc` or
    // -EFAULT when the caller's memory cannot take them.
    int copyOut(int rc);

  private:
    unsigned char* data() { return size_ <= sizeof small_ ? small_ : large_.data(); }

    unsigned long request_ = 0;
    void* user_ = nullptr;
    std::size_t size_ = 0;
    alignas(8) unsigned char small_[256];
    std::vector<unsigned char> large_;
    // The array an argument points to, replaced by the kernel's copy while the handler runs.
    void* arrayUser_ = nullptr;
    void** arrayField_ = nullptr;
    std::vector<unsigned char> array_;
};

// Whether `request` changes the device, so that a file handle below the highest priority
// holder gets EBUSY (the V4L2 core's INFO_FL_PRIO).
bool priorityGuarded(unsigned long request);

}  // namespace vcam

#endif
