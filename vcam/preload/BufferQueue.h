// One videobuf2 queue: a node's memory-mapped buffers and their states. One open file at a
// time owns the buffers (the streamer), whichever process of the run it belongs to. The camera's
// Stream calls every member with its queue lock held.
#ifndef TALVORO_VCAM_BUFFER_QUEUE_H
#define TALVORO_VCAM_BUFFER_QUEUE_H

#include <linux/videodev2.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "BufferPool.h"

namespace vcam {

class SharedLocks;
class VideoOpenFile;

class BufferQueue {
  public:
    // `ownerSlot`: the slot of `locks` that the owning process claims.
    BufferQueue(uint32_t type, SharedLocks& locks, off_t ownerSlot);

    uint32_t type() const { return type_; }
    // Buffers exist in this process (vb2_is_busy).
    bool allocated() const { return pool_ != nullptr; }
    bool streaming() const { return streaming_; }
    uint32_t count() const { return pool_ ? pool_->count() : 0; }
    VideoOpenFile* owner() const { return owner_; }
    // An open file of another process owns the buffers.
    bool ownedElsewhere() const;
    // 0 for the owner; -EBUSY for another open file, here or in another process; -EINVAL when
    // nobody has buffers.
    int checkOwner(const VideoOpenFile* file) const;

    // Replaces the buffers with `count` new ones of `length` bytes owned by `file`; 0 or
    // -errno (EBUSY while another process owns buffers).
    int allocate(VideoOpenFile* file, uint32_t count, uint32_t length);
    // Adds `count` buffers of `length` bytes (VIDIOC_CREATE_BUFS) for `file`, which owns them
    // all afterwards; 0 or -errno.
    int add(VideoOpenFile* file, uint32_t count, uint32_t length);
    // Frees the buffers; the owner lets go unless it is about to allocate again.
    void free(bool keepOwner = false);
    // Buffers go back to the application, none queued or done (STREAMOFF).
    void returnAll();
    // STREAMON / STREAMOFF of the queue itself; the sequence starts again at 0.
    void setStreaming(bool on);

    int query(uint32_t index, v4l2_buffer* buffer) const;
    int queue(uint32_t index, v4l2_buffer* buffer);
    // Takes the oldest done buffer; false when none is.
    bool takeDone(v4l2_buffer* buffer);
    void* map(void* addr, std::size_t length, int prot, int flags, off_t offset, int* err) const;

    // The stream engine's side. `takeQueued` hands out the oldest queued buffer for filling
    // (false when none is queued); `finishFill` completes it, or gives it back to the
    // application when the queue stopped meanwhile.
    bool takeQueued(uint32_t* index, uint8_t** data, std::size_t* capacity);
    bool finishFill(uint32_t index, uint32_t bytesused, uint32_t flags, uint32_t sequence,
                    uint64_t timestampNs);
    // The engine could not fill the buffer: it goes back to the application.
    void abandonFill(uint32_t index);
    // Whether the engine is writing into one of the buffers right now.
    bool filling() const { return filling_; }
    // The next sequence number of this queue.
    uint32_t nextSequence() { return sequence_++; }

    // In a child after fork(): no engine fills anything there; every buffer is back with the
    // application and the queue stands stopped.
    void resetAfterFork();

    // Makes the owner's descriptor readable while a buffer is done, while not streaming and
    // once `unplugged`, and not otherwise.
    void updateReadiness(bool unplugged);
    // The owner's descriptor is closing: no readiness to take back.
    void forgetOwner();

  private:
    enum class State { Dequeued, Queued, Filling, Done };
    struct Slot {
        State state = State::Dequeued;
        uint32_t bytesused = 0;
        uint32_t flags = 0;
        uint32_t sequence = 0;
        timeval timestamp{};
    };
    void describe(uint32_t index, v4l2_buffer* buffer) const;

    uint32_t type_;
    SharedLocks& locks_;
    off_t ownerSlot_;
    std::unique_ptr<BufferPool> pool_;
    std::vector<Slot> slots_;
    std::deque<uint32_t> queued_;
    std::deque<uint32_t> done_;
    VideoOpenFile* owner_ = nullptr;  // identity only
    bool claimed_ = false;            // this process holds the owner slot
    bool readable_ = false;           // the owner's descriptor carries readiness
    bool streaming_ = false;
    bool filling_ = false;
    uint32_t sequence_ = 0;
};

}  // namespace vcam

#endif
