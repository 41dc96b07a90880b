// A camera's streaming side: the capture node's queue and the metadata node's, each shared by
// every open of its node as a videobuf2 queue is, and a pacing thread that fills queued
// buffers at the camera's frame rate while either streams.
#ifndef TALVORO_VCAM_STREAM_H
#define TALVORO_VCAM_STREAM_H

#include <linux/videodev2.h>
#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "BufferQueue.h"
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
    // Which node's queue a buffer ioctl addresses.
    enum class Queue { Capture, Metadata };

    explicit Stream(Camera& camera);
    ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    // The capture format: the one another process of the run left, unless buffers exist here.
    v4l2_pix_format format();
    // VIDIOC_TRY_FMT: the format the camera would choose for `requested`.
    v4l2_pix_format tryFormat(const v4l2_pix_format& requested) const;
    // VIDIOC_S_FMT: negotiates and keeps the format; EBUSY while buffers exist in any process.
    int setFormat(v4l2_pix_format* format);
    // VIDIOC_S_FMT on the metadata node: EBUSY while its buffers exist.
    int checkMetadataFormatChange();

    // The buffer ioctls, as the node's driver answers them; 0 or -errno.
    int requestBuffers(Queue which, VideoOpenFile* file, v4l2_requestbuffers* request);
    int createBuffers(Queue which, VideoOpenFile* file, v4l2_create_buffers* create);
    int queryBuffer(Queue which, v4l2_buffer* buffer);
    int queueBuffer(Queue which, VideoOpenFile* file, v4l2_buffer* buffer);
    int dequeueBuffer(Queue which, VideoOpenFile* file, v4l2_buffer* buffer, bool nonBlocking);
    int streamOn(Queue which, VideoOpenFile* file, uint32_t type);
    int streamOff(Queue which, VideoOpenFile* file, uint32_t type);
    void* map(Queue which, void* addr, std::size_t length, int prot, int flags, off_t offset,
              int* err);
    // The last descriptor of an open file was closed: stop and free what it owned.
    void release(VideoOpenFile* file);

    // The camera was unplugged: every waiter wakes (dequeueing fails with ENODEV from now on)
    // and the streamer's descriptor turns readable.
    void wakeUnplugged();
    bool unplugged() const;

    FrameCounters counters() const;
    // Whether the camera has fault `name` and its frame has come.
    bool faultActive(const char* name, FaultSpec* fault = nullptr) const;
    bool faultAt(const char* name, uint64_t frame, FaultSpec* fault = nullptr) const;
    // The fault was just added at run time: an unplug whose frame has passed happens now.
    void faultAdded(const FaultSpec& fault);

    FrameSource& source() { return source_; }

  private:
    BufferQueue& queue(Queue which) { return which == Queue::Capture ? capture_ : metadata_; }
    // Lies the camera tells about a buffer (the lying-driver faults).
    void applyBufferFaults(v4l2_buffer* buffer, bool dequeued) const;

    // StreamEngine.cpp: the pacing thread and what it does per frame time.
    static void* engineMain(void* self);
    void run();
    void pace();
    void tick(std::unique_lock<std::mutex>& lock, uint64_t deadlineNs);
    // Fills the capture buffer of one frame time; false when none was (dropped or stalled).
    bool tickCapture(std::unique_lock<std::mutex>& lock, uint64_t index, uint32_t sequence,
                     uint64_t deadlineNs);
    void tickMetadata(uint32_t sequence, uint64_t deadlineNs);
    FrameRequest currentRequest(uint64_t index) const;
    void stopEngine(std::unique_lock<std::mutex>& lock);
    // Stops a queue: waits for a buffer the engine is writing, gives every buffer back, and
    // stops the engine when no queue streams any more.
    void stopQueue(BufferQueue& q, std::unique_lock<std::mutex>& lock);
    void updateReadiness();
    static void registerForFork(Stream* stream);
    static void prepareFork();
    static void parentAfterFork();
    static void childAfterFork();

    Camera& camera_;
    FrameSource source_;
    // controlMutex_ serialises the ioctls that change the queues' configuration (videobuf2's
    // queue lock), in this process; the camera's shared control lock does so across processes.
    // mutex_ guards the queues and is never held while waiting for a thread.
    std::mutex controlMutex_;
    mutable std::mutex mutex_;
    MonotonicCond cond_;

    v4l2_pix_format format_;
    BufferQueue capture_;
    BufferQueue metadata_;
    bool stopRequested_ = false;
    bool engineRunning_ = false;
    pthread_t engine_{};
    std::atomic<uint64_t> produced_{0}, dequeued_{0}, dropped_{0}, elapsed_{0};
    Stream* nextForFork_ = nullptr;
};

// The recording a camera replays, for the firmware side that serves its calibration blobs;
// null when the camera shows the synthetic scene.
const rec::RecordingReader* replayRecording(const Camera& camera);

}  // namespace vcam

#endif
