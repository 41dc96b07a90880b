#include "BufferQueue.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstring>

#include "SharedLocks.h"
#include "VideoNode.h"

namespace vcam {

BufferQueue::BufferQueue(uint32_t type, SharedLocks& locks, off_t ownerSlot)
    : type_(type), locks_(locks), ownerSlot_(ownerSlot) {}

bool BufferQueue::ownedElsewhere() const {
    return !claimed_ && locks_.heldElsewhere(ownerSlot_);
}

int BufferQueue::checkOwner(const VideoOpenFile* file) const {
    if (owner_) return owner_ == file ? 0 : -EBUSY;
    return ownedElsewhere() ? -EBUSY : -EINVAL;
}

int BufferQueue::allocate(VideoOpenFile* file, uint32_t count, uint32_t length) {
    if (!claimed_) {
        if (!locks_.claim(ownerSlot_)) return -EBUSY;
        claimed_ = true;
    }
    int err = 0;
    pool_ = std::make_unique<BufferPool>();
    if (!pool_->add(count, length, &err)) {
        free();
        return -err;
    }
    slots_.assign(count, Slot{});
    owner_ = file;
    return 0;
}

int BufferQueue::add(VideoOpenFile* file, uint32_t count, uint32_t length) {
    if (!pool_) return allocate(file, count, length);
    int err = 0;
    if (!pool_->add(count, length, &err)) return -err;
    slots_.resize(slots_.size() + count);
    return 0;
}

void BufferQueue::free(bool keepOwner) {
    queued_.clear();
    done_.clear();
    slots_.clear();
    pool_.reset();
    if (owner_ && readable_) owner_->setReadable(false);
    readable_ = false;
    owner_ = nullptr;
    if (claimed_ && !keepOwner) {
        locks_.release(ownerSlot_);
        claimed_ = false;
    }
}

void BufferQueue::forgetOwner() {
    owner_ = nullptr;
    readable_ = false;
}

void BufferQueue::returnAll() {
    queued_.clear();
    done_.clear();
    for (Slot& s : slots_)
        s.state = State::Dequeued;
}

void BufferQueue::resetAfterFork() {
    streaming_ = false;
    filling_ = false;
    returnAll();
}

void BufferQueue::setStreaming(bool on) {
    streaming_ = on;
    if (on) sequence_ = 0;
}

void BufferQueue::describe(uint32_t index, v4l2_buffer* buffer) const {
    const Slot& s = slots_[index];
    std::memset(buffer, 0, sizeof *buffer);
    buffer->index = index;
    buffer->type = type_;
    buffer->bytesused = s.bytesused;
    buffer->flags = s.flags | V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_TSTAMP_SRC_SOE;
    if (s.state == State::Queued || s.state == State::Filling)
        buffer->flags |= V4L2_BUF_FLAG_QUEUED;
    if (s.state == State::Done) buffer->flags |= V4L2_BUF_FLAG_DONE;
    buffer->field = V4L2_FIELD_NONE;
    buffer->timestamp = s.timestamp;
    buffer->sequence = s.sequence;
    buffer->memory = V4L2_MEMORY_MMAP;
    buffer->m.offset = pool_->offset(index);
    buffer->length = pool_->length(index);
}

int BufferQueue::query(uint32_t index, v4l2_buffer* buffer) const {
    if (!pool_) return ownedElsewhere() ? -EBUSY : -EINVAL;
    if (index >= pool_->count()) return -EINVAL;
    describe(index, buffer);
    return 0;
}

int BufferQueue::queue(uint32_t index, v4l2_buffer* buffer) {
    if (index >= pool_->count() || slots_[index].state != State::Dequeued) return -EINVAL;
    Slot& s = slots_[index];
    s.state = State::Queued;
    s.flags = 0;
    queued_.push_back(index);
    describe(index, buffer);
    return 0;
}

bool BufferQueue::takeDone(v4l2_buffer* buffer) {
    if (done_.empty()) return false;
    const uint32_t index = done_.front();
    done_.pop_front();
    slots_[index].state = State::Dequeued;
    describe(index, buffer);
    return true;
}

void* BufferQueue::map(void* addr, std::size_t length, int prot, int flags, off_t offset,
                       int* err) const {
    if (!pool_) {
        *err = EINVAL;
        return MAP_FAILED;
    }
    return pool_->map(addr, length, prot, flags, offset, err);
}

bool BufferQueue::takeQueued(uint32_t* index, uint8_t** data, std::size_t* capacity) {
    if (queued_.empty()) return false;
    *index = queued_.front();
    queued_.pop_front();
    slots_[*index].state = State::Filling;
    *data = pool_->data(*index);
    *capacity = pool_->length(*index);
    filling_ = true;
    return true;
}

void BufferQueue::abandonFill(uint32_t index) {
    filling_ = false;
    slots_[index].state = State::Dequeued;
}

bool BufferQueue::finishFill(uint32_t index, uint32_t bytesused, uint32_t flags, uint32_t sequence,
                             uint64_t timestampNs) {
    filling_ = false;
    Slot& s = slots_[index];
    if (!streaming_) {  // stopped while we wrote: the buffer goes back unused
        s.state = State::Dequeued;
        return false;
    }
    s.state = State::Done;
    s.bytesused = bytesused;
    s.flags = flags;
    s.sequence = sequence;
    s.timestamp.tv_sec = static_cast<time_t>(timestampNs / 1000000000u);
    s.timestamp.tv_usec = static_cast<suseconds_t>(timestampNs % 1000000000u / 1000u);
    done_.push_back(index);
    return true;
}

void BufferQueue::updateReadiness(bool unplugged) {
    const bool want = owner_ && (unplugged || !streaming_ || !done_.empty());
    if (want == readable_) return;
    owner_->setReadable(want);
    readable_ = want;
}

}  // namespace vcam
