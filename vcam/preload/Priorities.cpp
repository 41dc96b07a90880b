#include "Priorities.h"

#include <linux/videodev2.h>

#include <cerrno>

#include "SharedLocks.h"

namespace vcam {

bool Priorities::taken(uint32_t level) {
    return counts_[level] > 0 || locks_.heldElsewhere(SharedLocks::kPriority + level);
}

void Priorities::add(uint32_t level) {
    if (counts_[level]++ == 0) locks_.share(SharedLocks::kPriority + level);
}

void Priorities::remove(uint32_t level) {
    if (counts_[level] > 0 && --counts_[level] == 0) locks_.release(SharedLocks::kPriority + level);
}

uint32_t Priorities::open() {
    std::lock_guard<std::mutex> lock(mutex_);
    add(V4L2_PRIORITY_DEFAULT);
    return V4L2_PRIORITY_DEFAULT;
}

void Priorities::close(uint32_t level) {
    std::lock_guard<std::mutex> lock(mutex_);
    remove(level);
}

int Priorities::change(uint32_t* level, uint32_t wanted) {
    if (wanted < V4L2_PRIORITY_BACKGROUND || wanted > V4L2_PRIORITY_RECORD) return -EINVAL;
    std::lock_guard<std::mutex> lock(mutex_);
    if (wanted == *level) return 0;
    add(wanted);
    remove(*level);
    *level = wanted;
    return 0;
}

uint32_t Priorities::highest() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (uint32_t level = V4L2_PRIORITY_RECORD; level > V4L2_PRIORITY_UNSET; --level)
        if (taken(level)) return level;
    return V4L2_PRIORITY_UNSET;
}

int Priorities::check(uint32_t level) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (uint32_t above = V4L2_PRIORITY_RECORD; above > level; --above)
        if (taken(above)) return -EBUSY;
    return 0;
}

}  // namespace vcam
