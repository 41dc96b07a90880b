#include "Stream.h"

#include <signal.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Camera.h"
#include "Formats.h"
#include "Hotplug.h"
#include "SharedLocks.h"
#include "VideoNode.h"

namespace vcam {

namespace {

constexpr uint32_t kMaxBuffers = 32;  // VIDEO_MAX_FRAME
constexpr uint32_t kBufferCapabilities =
    V4L2_BUF_CAP_SUPPORTS_MMAP | V4L2_BUF_CAP_SUPPORTS_ORPHANED_BUFS;

// The fault's numeric argument, or `fallback` when it has none.
long faultNumber(const FaultSpec& fault, long fallback) {
    return fault.arg.empty() ? fallback : std::strtol(fault.arg.c_str(), nullptr, 10);
}

}  // namespace

Stream::Stream(Camera& camera)
    : camera_(camera),
      source_(camera.spec()),
      format_(formats::initial()),
      capture_(V4L2_BUF_TYPE_VIDEO_CAPTURE, camera.locks, SharedLocks::kCaptureOwner),
      metadata_(V4L2_BUF_TYPE_META_CAPTURE, camera.locks, SharedLocks::kMetadataOwner) {
    registerForFork(this);
}

v4l2_pix_format Stream::format() {
    std::lock_guard<std::mutex> lock(mutex_);
    // Another process of the run may have changed it; ours holds while our buffers exist.
    if (!capture_.allocated()) formats::load(camera_.spec().stateName(), &format_);
    return format_;
}

v4l2_pix_format Stream::tryFormat(const v4l2_pix_format& requested) const {
    FaultSpec fault;
    unsigned width = 0, height = 0;
    if (camera_.findFault("format-size", &fault) &&
        std::sscanf(fault.arg.c_str(), "%ux%u", &width, &height) == 2 && width && height) {
        // A driver that answers with a size of its own, whatever was asked.
        const v4l2_pix_format chosen = formats::negotiate(requested);
        return formats::make(chosen.pixelformat, width, height);
    }
    return formats::negotiate(requested);
}

int Stream::setFormat(v4l2_pix_format* format) {
    std::lock_guard<std::mutex> control(controlMutex_);
    SharedControlLock shared(camera_.locks);
    const v4l2_pix_format chosen = tryFormat(*format);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (capture_.allocated() || capture_.ownedElsewhere()) return -EBUSY;
        format_ = chosen;
    }
    *format = chosen;
    formats::save(camera_.spec().stateName(), chosen);
    return 0;
}

int Stream::checkMetadataFormatChange() {
    std::lock_guard<std::mutex> control(controlMutex_);
    std::lock_guard<std::mutex> lock(mutex_);
    return metadata_.allocated() || metadata_.ownedElsewhere() ? -EBUSY : 0;
}

void Stream::updateReadiness() {
    capture_.updateReadiness(unplugged());
    metadata_.updateReadiness(unplugged());
}

int Stream::requestBuffers(Queue which, VideoOpenFile* file, v4l2_requestbuffers* request) {
    BufferQueue& q = queue(which);
    if (request->type != q.type() || request->memory != V4L2_MEMORY_MMAP) return -EINVAL;
    std::lock_guard<std::mutex> control(controlMutex_);
    SharedControlLock shared(camera_.locks);
    std::lock_guard<std::mutex> lock(mutex_);
    if ((q.owner() && q.owner() != file) || q.streaming()) return -EBUSY;
    request->capabilities = kBufferCapabilities;
    request->flags = 0;
    std::memset(request->reserved, 0, sizeof request->reserved);
    if (request->count == 0) {
        q.free();
        return 0;
    }
    if (!q.owner() && q.ownedElsewhere()) return -EBUSY;
    q.free(true);

    uint32_t granted = std::clamp<uint32_t>(request->count, 1, kMaxBuffers);
    FaultSpec fault;
    if (which == Queue::Capture && faultActive("reqbufs", &fault)) {
        const long n = faultNumber(fault, 0);
        if (n >= 1 && n <= static_cast<long>(kMaxBuffers)) granted = static_cast<uint32_t>(n);
    }
    // The format another process may have left.
    if (which == Queue::Capture) formats::load(camera_.spec().stateName(), &format_);
    const uint32_t length =
        which == Queue::Capture ? format_.sizeimage : formats::kMetadataBufferSize;
    if (const int rc = q.allocate(file, granted, length)) {
        request->count = 0;
        return rc;
    }
    request->count = granted;
    updateReadiness();
    return 0;
}

int Stream::createBuffers(Queue which, VideoOpenFile* file, v4l2_create_buffers* create) {
    BufferQueue& q = queue(which);
    std::lock_guard<std::mutex> control(controlMutex_);
    SharedControlLock shared(camera_.locks);
    std::lock_guard<std::mutex> lock(mutex_);
    create->capabilities = kBufferCapabilities;
    create->flags = 0;
    std::memset(create->reserved, 0, sizeof create->reserved);
    create->index = q.count();
    const bool valid = create->memory == V4L2_MEMORY_MMAP && create->format.type == q.type();
    // A count of 0 only asks whether such buffers could be made.
    if (!valid) return -EINVAL;
    if (create->count == 0) return 0;
    if ((q.owner() && q.owner() != file) || (!q.owner() && q.ownedElsewhere())) return -EBUSY;
    if (which == Queue::Capture && !q.allocated())
        formats::load(camera_.spec().stateName(), &format_);
    // uvcvideo takes any size that holds a frame of the current format.
    const uint32_t needed =
        which == Queue::Capture ? format_.sizeimage : formats::kMetadataBufferSize;
    const uint32_t asked = which == Queue::Capture ? create->format.fmt.pix.sizeimage
                                                   : create->format.fmt.meta.buffersize;
    if (asked == 0 || asked < needed) return -EINVAL;
    if (q.count() >= kMaxBuffers) return -ENOBUFS;
    const uint32_t count = std::min(create->count, kMaxBuffers - q.count());
    if (const int rc = q.add(file, count, asked)) return rc;
    create->count = count;
    updateReadiness();
    return 0;
}

void Stream::applyBufferFaults(v4l2_buffer* buffer, bool dequeued) const {
    if (buffer->type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return;
    if (faultActive("zero-length")) buffer->length = 0;
    if (!dequeued) return;
    FaultSpec fault;
    if (faultActive("long", &fault)) {
        const long extra = std::max(1L, faultNumber(fault, static_cast<long>(buffer->length)));
        buffer->bytesused = buffer->length + static_cast<uint32_t>(extra);
    }
    if (faultActive("bad-index", &fault))
        buffer->index = static_cast<uint32_t>(faultNumber(fault, capture_.count()));
}

int Stream::queryBuffer(Queue which, v4l2_buffer* buffer) {
    BufferQueue& q = queue(which);
    if (buffer->type != q.type()) return -EINVAL;
    std::lock_guard<std::mutex> lock(mutex_);
    const int rc = q.query(buffer->index, buffer);
    if (rc == 0) applyBufferFaults(buffer, false);
    return rc;
}

int Stream::queueBuffer(Queue which, VideoOpenFile* file, v4l2_buffer* buffer) {
    BufferQueue& q = queue(which);
    if (buffer->type != q.type() || buffer->memory != V4L2_MEMORY_MMAP) return -EINVAL;
    std::lock_guard<std::mutex> lock(mutex_);
    if (const int rc = q.checkOwner(file)) return rc;
    const int rc = q.queue(buffer->index, buffer);
    if (rc == 0) applyBufferFaults(buffer, false);
    return rc;
}

int Stream::dequeueBuffer(Queue which, VideoOpenFile* file, v4l2_buffer* buffer, bool nonBlocking) {
    BufferQueue& q = queue(which);
    if (buffer->type != q.type() || buffer->memory != V4L2_MEMORY_MMAP) return -EINVAL;
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        if (unplugged()) return -ENODEV;
        if (const int rc = q.checkOwner(file)) return rc;
        if (!q.streaming()) return -EINVAL;
        if (q.takeDone(buffer)) break;
        if (nonBlocking) return -EAGAIN;
        cond_.wait(lock);
    }
    if (which == Queue::Capture) ++dequeued_;
    applyBufferFaults(buffer, true);
    updateReadiness();
    return 0;
}

int Stream::streamOn(Queue which, VideoOpenFile* file, uint32_t type) {
    BufferQueue& q = queue(which);
    if (type != q.type()) return -EINVAL;
    std::lock_guard<std::mutex> control(controlMutex_);
    std::unique_lock<std::mutex> lock(mutex_);
    if (const int rc = q.checkOwner(file)) return rc;
    if (q.streaming()) return 0;
    if (which == Queue::Capture) {
        // Rendering a new mode takes a moment, as a real camera takes a moment to start; the
        // camera's clock starts after it, and a STREAMOFF never waits for it.
        const FrameRequest first = currentRequest(elapsed_.load());
        lock.unlock();
        source_.prepare(first);
        lock.lock();
    }
    if (!engineRunning_) {
        // The pacing thread takes no signals: they belong to the application's threads.
        sigset_t all, old;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &old);
        stopRequested_ = false;
        const int rc = pthread_create(&engine_, nullptr, engineMain, this);
        pthread_sigmask(SIG_SETMASK, &old, nullptr);
        if (rc != 0) return -ENOMEM;
        engineRunning_ = true;
    }
    q.setStreaming(true);
    updateReadiness();
    return 0;
}

void Stream::stopEngine(std::unique_lock<std::mutex>& lock) {
    stopRequested_ = true;
    cond_.notifyAll();
    if (engineRunning_) {
        const pthread_t thread = engine_;
        engineRunning_ = false;
        lock.unlock();
        pthread_join(thread, nullptr);
        lock.lock();
    }
    stopRequested_ = false;
}

void Stream::stopQueue(BufferQueue& q, std::unique_lock<std::mutex>& lock) {
    q.setStreaming(false);
    if (!capture_.streaming() && !metadata_.streaming()) stopEngine(lock);
    // The engine writes outside the lock: its buffer is back only when it has finished.
    while (q.filling())
        cond_.wait(lock);
    q.returnAll();
}

int Stream::streamOff(Queue which, VideoOpenFile* file, uint32_t type) {
    BufferQueue& q = queue(which);
    if (type != q.type()) return -EINVAL;
    std::lock_guard<std::mutex> control(controlMutex_);
    std::unique_lock<std::mutex> lock(mutex_);
    if (!q.owner()) return q.ownedElsewhere() ? -EBUSY : 0;
    if (q.owner() != file) return -EBUSY;
    stopQueue(q, lock);
    updateReadiness();
    cond_.notifyAll();  // blocked dequeuers return EINVAL
    return 0;
}

void* Stream::map(Queue which, void* addr, std::size_t length, int prot, int flags, off_t offset,
                  int* err) {
    std::lock_guard<std::mutex> lock(mutex_);
    return queue(which).map(addr, length, prot, flags, offset, err);
}

void Stream::release(VideoOpenFile* file) {
    std::lock_guard<std::mutex> control(controlMutex_);
    std::unique_lock<std::mutex> lock(mutex_);
    for (BufferQueue* q : {&capture_, &metadata_}) {
        if (q->owner() != file) continue;
        stopQueue(*q, lock);
        q->forgetOwner();  // its descriptor is closing: no readiness byte to take back
        q->free();
    }
    cond_.notifyAll();
}

bool Stream::unplugged() const {
    return camera_.state.unplugged.load();
}

void Stream::wakeUnplugged() {
    std::lock_guard<std::mutex> lock(mutex_);
    updateReadiness();
    cond_.notifyAll();
}

FrameCounters Stream::counters() const {
    FrameCounters c;
    c.produced = produced_.load();
    c.dequeued = dequeued_.load();
    c.dropped = dropped_.load();
    c.elapsed = elapsed_.load();
    return c;
}

bool Stream::faultActive(const char* name, FaultSpec* fault) const {
    return faultAt(name, elapsed_.load(), fault);
}

bool Stream::faultAt(const char* name, uint64_t frame, FaultSpec* fault) const {
    FaultSpec f;
    if (!camera_.findFault(name, &f) || frame < static_cast<uint64_t>(f.atFrame)) return false;
    if (fault) *fault = f;
    return true;
}

void Stream::faultAdded(const FaultSpec& fault) {
    if (fault.name == "unplug" && elapsed_.load() >= static_cast<uint64_t>(fault.atFrame))
        unplugCamera(camera_);
}

const rec::RecordingReader* replayRecording(const Camera& camera) {
    return camera.capture && camera.capture->stream()
               ? camera.capture->stream()->source().recording()
               : nullptr;
}

}  // namespace vcam
