// The memory behind a camera's capture buffers: one memfd holding every buffer, so that an
// application's mmap() of the node maps real shared memory and its munmap() needs no wrapper.
#ifndef TALVORO_VCAM_BUFFER_POOL_H
#define TALVORO_VCAM_BUFFER_POOL_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "OwnedFd.h"

namespace vcam {

class BufferPool {
  public:
    // `count` buffers of `length` bytes each; null with *err set when memory is short.
    static std::unique_ptr<BufferPool> create(uint32_t count, uint32_t length, int* err);
    // Releases the preload's own view; the application's mappings stay valid (orphaned
    // buffers, as with videobuf2).
    ~BufferPool();
    BufferPool(const BufferPool&) = delete;
    BufferPool& operator=(const BufferPool&) = delete;

    uint32_t count() const { return count_; }
    uint32_t length() const { return length_; }
    // The mmap offset that selects buffer `index` (page-aligned, as VIDIOC_QUERYBUF reports it).
    uint32_t offset(uint32_t index) const { return static_cast<uint32_t>(index * stride_); }
    uint8_t* data(uint32_t index) const { return base_ + index * stride_; }

    // The application's mmap() of one buffer; MAP_FAILED with *err set for anything a driver
    // refuses (unknown offset, too long, private mapping).
    void* map(void* addr, std::size_t length, int prot, int flags, off_t offset, int* err) const;

  private:
    BufferPool() = default;

    OwnedFd memfd_;
    uint8_t* base_ = nullptr;
    std::size_t stride_ = 0;
    uint32_t count_ = 0;
    uint32_t length_ = 0;
};

}  // namespace vcam

#endif
