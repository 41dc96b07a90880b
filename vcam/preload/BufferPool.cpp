#include "BufferPool.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

namespace vcam {

std::unique_ptr<BufferPool> BufferPool::create(uint32_t count, uint32_t length, int* err) {
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    std::unique_ptr<BufferPool> pool(new BufferPool);
    pool->count_ = count;
    pool->length_ = length;
    pool->stride_ = (length + page - 1) / page * page;
    const std::size_t total = pool->stride_ * count;
    pool->memfd_.reset(memfd_create("talvoro-vcam-buffers", MFD_CLOEXEC));
    if (!pool->memfd_.valid() || ftruncate(pool->memfd_.get(), static_cast<off_t>(total)) != 0) {
        *err = ENOMEM;
        return nullptr;
    }
    void* base =
        libc::mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_SHARED, pool->memfd_.get(), 0);
    if (base == MAP_FAILED) {
        *err = ENOMEM;
        return nullptr;
    }
    pool->base_ = static_cast<uint8_t*>(base);
    return pool;
}

BufferPool::~BufferPool() {
    if (base_) munmap(base_, stride_ * count_);
}

void* BufferPool::map(void* addr, std::size_t length, int prot, int flags, off_t offset,
                      int* err) const {
    // videobuf2 maps only shared, whole-buffer-or-less, at a buffer's own offset.
    if (!(flags & MAP_SHARED) || offset < 0 || static_cast<std::size_t>(offset) % stride_ != 0 ||
        static_cast<std::size_t>(offset) / stride_ >= count_ || length == 0 || length > stride_) {
        *err = EINVAL;
        return MAP_FAILED;
    }
    void* p = libc::mmap(addr, length, prot, flags, memfd_.get(), offset);
    if (p == MAP_FAILED) *err = errno;
    return p;
}

}  // namespace vcam
