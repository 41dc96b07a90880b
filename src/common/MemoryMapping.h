// Owns one mmap()ed region: move-only, unmaps it on destruction.
#ifndef TALVORO_COMMON_MEMORY_MAPPING_H
#define TALVORO_COMMON_MEMORY_MAPPING_H

#include <sys/mman.h>

#include <cstddef>
#include <utility>

#include "common/SysCall.h"

namespace Talvoro {

class MemoryMapping {
  public:
    MemoryMapping() = default;
    // Takes over a region mmap() returned; MAP_FAILED or null make an empty mapping.
    MemoryMapping(void* start, std::size_t length)
        : start_(start == MAP_FAILED ? nullptr : start), length_(start_ ? length : 0) {}
    ~MemoryMapping() { unmap(); }

    MemoryMapping(MemoryMapping&& other) noexcept
        : start_(std::exchange(other.start_, nullptr)), length_(std::exchange(other.length_, 0)) {}
    MemoryMapping& operator=(MemoryMapping&& other) noexcept {
        if (this != &other) {
            unmap();
            start_ = std::exchange(other.start_, nullptr);
            length_ = std::exchange(other.length_, 0);
        }
        return *this;
    }
    MemoryMapping(const MemoryMapping&) = delete;
    MemoryMapping& operator=(const MemoryMapping&) = delete;

    void* start() const { return start_; }
    std::size_t length() const { return length_; }
    bool isMapped() const { return start_ != nullptr; }

    // Unmaps now. false when munmap() failed (errno tells why); the region is forgotten either
    // way, since a second munmap() of it could hit a later mapping at the same address.
    bool unmap() {
        if (!start_) return true;
        const int r = ::munmap(std::exchange(start_, nullptr), std::exchange(length_, 0));
        if (r != 0) recordSysCallFailure("munmap", errno);
        return r == 0;
    }

  private:
    void* start_ = nullptr;
    std::size_t length_ = 0;
};

}  // namespace Talvoro

#endif
