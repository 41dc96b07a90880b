// The memory behind a queue's buffers: one memfd per buffer, so that an application's mmap()
// of the node maps real shared memory, its munmap() needs no wrapper, and buffers of another
// size can be added later (VIDIOC_CREATE_BUFS).
#ifndef TALVORO_VCAM_BUFFER_POOL_H
#define TALVORO_VCAM_BUFFER_POOL_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "OwnedFd.h"

namespace vcam {

class BufferPool {
  public:
    BufferPool() = default;
    // Releases the preload's own views; the application's mappings stay valid (orphaned
    // buffers, as with videobuf2).
    ~BufferPool();
    BufferPool(const BufferPool&) = delete;
    BufferPool& operator=(const BufferPool&) = delete;

    // Adds `count` buffers of `length` bytes; false with *err set when memory is short (the
    // pool is then as before).
    bool add(uint32_t count, uint32_t length, int* err);

    uint32_t count() const { return static_cast<uint32_t>(buffers_.size()); }
    uint32_t length(uint32_t index) const { return buffers_[index].length; }
    // The mmap offset that selects buffer `index`, as VIDIOC_QUERYBUF reports it: page-aligned
    // and distinct per buffer, like videobuf2's.
    uint32_t offset(uint32_t index) const { return index << kOffsetShift; }
    uint8_t* data(uint32_t index) const { return buffers_[index].data; }

    // The application's mmap() of one buffer; MAP_FAILED with *err set for anything a driver
    // refuses (unknown offset, too long, private mapping).
    void* map(void* addr, std::size_t length, int prot, int flags, off_t offset, int* err) const;

  private:
    static constexpr int kOffsetShift = 24;  // more than any buffer's size
    struct Buffer {
        OwnedFd memfd;
        uint8_t* data = nullptr;
        std::size_t mapped = 0;  // the length rounded up to pages
        uint32_t length = 0;
    };

    std::vector<Buffer> buffers_;
};

}  // namespace vcam

#endif
