// The capture queue of one camera, shared by every open of its capture node as a videobuf2
// queue is: one open file at a time owns the buffers (the streamer), and while it streams a
// pacing thread fills queued buffers at the camera's frame rate.
#ifndef TALVORO_VCAM_STREAM_H
#define TALVORO_VCAM_STREAM_H

#include <linux/videodev2.h>
#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "BufferPool.h"
#include "FrameSource.h"
#include "MonotonicCond.h"
#include "Scenario.h"

namespace vcam {

class Camera;
class VideoOpenFile;

struct FrameCounters {
    uint64_t produced = 0;  // frames filled into a queued buffer
    uint64_t dequeued = 0;  // frames the application dequeued
    uint64_t dropped = 0;   // frame times that found no queued buffer
    uint64_t elapsed = 0;   // frame times while streaming: the camera's frame number
};

class Stream {
  public:
    explicit Stream(Camera& camera);
    ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    // Takes over the format another process of the run left, unless buffers exist here.
    void reloadFormat();
    v4l2_pix_format format() const;
    // VIDIOC_S_FMT: negotiates and keeps the format; EBUSY while buffers exist.
    int setFormat(v4l2_pix_format* format);

    // The buffer ioctls, as uvcvideo answers them; 0 or -errno.
    int requestBuffers(VideoOpenFile* file, v4l2_requestbuffers* request);
    int queryBuffer(v4l2_buffer* buffer);
    int queueBuffer(VideoOpenFile* file, v4l2_buffer* buffer);
    int dequeueBuffer(VideoOpenFile* file, v4l2_buffer* buffer, bool nonBlocking);
    int streamOn(VideoOpenFile* file, uint32_t type);
    int streamOff(VideoOpenFile* file, uint32_t type);
    void* map(void* addr, std::size_t length, int prot, int flags, off_t offset, int* err);
    // The last descriptor of an open file was closed: stop and free what it owned.
    void release(VideoOpenFile* file);

    // Unplugs the camera: every waiter wakes, dequeueing fails with ENODEV from now on, the
    // camera's nodes refuse to open and its sysfs entries disappear. Idempotent.
    void unplug();
    bool unplugged() const;

    FrameCounters counters() const;
    // Whether the camera has fault `name` and its frame has come.
    bool faultActive(const char* name, FaultSpec* fault = nullptr) const;
    bool faultAt(const char* name, uint64_t frame, FaultSpec* fault = nullptr) const;
    // The fault was just added at run time: an unplug whose frame has passed happens now.
    void faultAdded(const FaultSpec& fault);

    FrameSource& source() { return source_; }

  private:
    enum class State { Dequeued, Queued, Filling, Done };
    struct Slot {
        State state = State::Dequeued;
        uint32_t bytesused = 0;
        uint32_t flags = 0;
        uint32_t sequence = 0;
        timeval timestamp{};
    };

    // StreamEngine.cpp: the pacing thread and what it does per frame time.
    static void* engineMain(void* self);
    void run();
    void pace();
    void tick(std::unique_lock<std::mutex>& lock, uint64_t deadlineNs);
    void fillSlot(uint32_t index, const FrameRequest& request, uint64_t deadlineNs);
    FrameRequest currentRequest(uint64_t index) const;
    void stopEngine(std::unique_lock<std::mutex>& lock);
    static void registerForFork(Stream* stream);
    static void prepareFork();
    static void parentAfterFork();
    static void childAfterFork();

    int checkOwner(const VideoOpenFile* file) const;
    void freeBuffers();
    void returnAllBuffers();
    void fillV4l2Buffer(uint32_t index, v4l2_buffer* buffer) const;
    // Mirrors the queue state on the streamer's descriptor: readable while a buffer is done,
    // while not streaming (poll reports an error, as videobuf2 does) and once unplugged.
    void updateReadiness();

    Camera& camera_;
    FrameSource source_;
    // controlMutex_ serialises the ioctls that change the queue's configuration (videobuf2's
    // queue lock); mutex_ guards the queue itself and is never held while waiting for a thread.
    std::mutex controlMutex_;
    mutable std::mutex mutex_;
    MonotonicCond cond_;

    v4l2_pix_format format_;
    std::unique_ptr<BufferPool> pool_;
    std::vector<Slot> slots_;
    std::deque<uint32_t> queued_;
    std::deque<uint32_t> done_;
    VideoOpenFile* owner_ = nullptr;  // identity only; release() clears it
    bool readable_ = false;           // the owner's descriptor carries a readiness byte
    bool streaming_ = false;
    bool stopRequested_ = false;
    bool engineRunning_ = false;
    pthread_t engine_{};
    uint32_t sequence_ = 0;
    std::atomic<uint64_t> produced_{0}, dequeued_{0}, dropped_{0}, elapsed_{0};
    std::atomic<bool> unplugging_{false};
    Stream* nextForFork_ = nullptr;
};

// The recording a camera replays, for the firmware side that serves its calibration blobs;
// null when the camera shows the synthetic scene.
const rec::RecordingReader* replayRecording(const Camera& camera);

}  // namespace vcam

#endif
