#include "BufferPool.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

namespace vcam {

BufferPool::~BufferPool() {
    for (Buffer& b : buffers_)
        if (b.data) munmap(b.data, b.mapped);
}

bool BufferPool::add(uint32_t count, uint32_t length, int* err) {
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t first = buffers_.size();
    buffers_.reserve(first + count);
    for (uint32_t i = 0; i < count; ++i) {
        Buffer b;
        b.length = length;
        b.mapped = (std::size_t{length} + page - 1) / page * page;
        b.memfd.reset(memfd_create("talvoro-vcam-buffers", MFD_CLOEXEC));
        void* p = MAP_FAILED;
        if (b.memfd.valid() && ftruncate(b.memfd.get(), static_cast<off_t>(b.mapped)) == 0)
            p = libc::mmap(nullptr, b.mapped, PROT_READ | PROT_WRITE, MAP_SHARED, b.memfd.get(), 0);
        if (p == MAP_FAILED) {
            while (buffers_.size() > first) {
                munmap(buffers_.back().data, buffers_.back().mapped);
                buffers_.pop_back();
            }
            *err = ENOMEM;
            return false;
        }
        b.data = static_cast<uint8_t*>(p);
        buffers_.push_back(std::move(b));
    }
    return true;
}

void* BufferPool::map(void* addr, std::size_t length, int prot, int flags, off_t offset,
                      int* err) const {
    // videobuf2 maps only shared, whole-buffer-or-less, at a buffer's own offset.
    const auto index = static_cast<std::size_t>(offset) >> kOffsetShift;
    if (!(flags & MAP_SHARED) || offset < 0 ||
        static_cast<std::size_t>(offset) != index << kOffsetShift || index >= buffers_.size() ||
        length == 0 || length > buffers_[index].mapped) {
        *err = EINVAL;
        return MAP_FAILED;
    }
    void* p = libc::mmap(addr, length, prot, flags, buffers_[index].memfd.get(), 0);
    if (p == MAP_FAILED) *err = errno;
    return p;
}

}  // namespace vcam
