// The caller's memory as the kernel reaches it: copies that fail on an address the caller
// cannot read or write, instead of crashing the caller, so that an ioctl on an emulated node
// answers a bad pointer with EFAULT as a real node does.
#ifndef TALVORO_VCAM_USER_COPY_H
#define TALVORO_VCAM_USER_COPY_H

#include <cstddef>

namespace vcam::user {

// copy_from_user: false when any of the n bytes at `src` is not readable.
bool copyFrom(void* dst, const void* src, std::size_t n);
// copy_to_user: false when any of the n bytes at `dst` is not writable.
bool copyTo(void* dst, const void* src, std::size_t n);

}  // namespace vcam::user

#endif
