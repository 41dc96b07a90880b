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
#include "VideoNode.h"

namespace vcam {

namespace {

constexpr uint32_t kMaxBuffers = 32;  // VIDEO_MAX_FRAME

bool captureType(uint32_t type) {
    return type == V4L2_BUF_TYPE_VIDEO_CAPTURE;
}

}  // namespace

Stream::Stream(Camera& camera)
    : camera_(camera), source_(camera.spec().replay), format_(formats::initial()) {
    registerForFork(this);
}

void Stream::reloadFormat() {
    std::lock_guard<std::mutex> control(controlMutex_);
    std::lock_guard<std::mutex> lock(mutex_);
    if (!pool_) formats::load(camera_.spec().serial, &format_);
}

v4l2_pix_format Stream::format() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return format_;
}

int Stream::setFormat(v4l2_pix_format* format) {
    std::lock_guard<std::mutex> control(controlMutex_);
    const v4l2_pix_format chosen = formats::negotiate(*format);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (pool_) return -EBUSY;
        format_ = chosen;
    }
    *format = chosen;
    formats::save(camera_.spec().serial, chosen);
    return 0;
}

int Stream::checkOwner(const VideoOpenFile* file) const {
    if (!owner_) return -EINVAL;  // no buffers
    return owner_ == file ? 0 : -EBUSY;
}

void Stream::freeBuffers() {
    queued_.clear();
    done_.clear();
    slots_.clear();
    pool_.reset();
}

void Stream::returnAllBuffers() {
    queued_.clear();
    done_.clear();
    for (Slot& s : slots_)
        s.state = State::Dequeued;
}

void Stream::updateReadiness() {
    const bool want = owner_ && (unplugged() || !streaming_ || !done_.empty());
    if (want == readable_) return;
    owner_->setReadable(want);
    readable_ = want;
}

int Stream::requestBuffers(VideoOpenFile* file, v4l2_requestbuffers* request) {
    if (!captureType(request->type) || request->memory != V4L2_MEMORY_MMAP) return -EINVAL;
    std::lock_guard<std::mutex> control(controlMutex_);
    std::lock_guard<std::mutex> lock(mutex_);
    if ((owner_ && owner_ != file) || streaming_) return -EBUSY;
    request->capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP | V4L2_BUF_CAP_SUPPORTS_ORPHANED_BUFS;
    request->flags = 0;
    std::memset(request->reserved, 0, sizeof request->reserved);
    freeBuffers();
    if (owner_ && readable_) owner_->setReadable(false);
    readable_ = false;
    owner_ = nullptr;
    if (request->count == 0) return 0;

    uint32_t granted = std::clamp<uint32_t>(request->count, 1, kMaxBuffers);
    FaultSpec fault;
    if (faultActive("reqbufs", &fault)) {
        const long n = std::strtol(fault.arg.c_str(), nullptr, 10);
        if (n >= 1 && n <= static_cast<long>(kMaxBuffers)) granted = static_cast<uint32_t>(n);
    }
    int err = 0;
    pool_ = BufferPool::create(granted, format_.sizeimage, &err);
    if (!pool_) {
        request->count = 0;
        return -err;
    }
    slots_.assign(granted, Slot{});
    owner_ = file;
    request->count = granted;
    updateReadiness();
    return 0;
}

void Stream::fillV4l2Buffer(uint32_t index, v4l2_buffer* buffer) const {
    const Slot& s = slots_[index];
    std::memset(buffer, 0, sizeof *buffer);
    buffer->index = index;
    buffer->type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
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
    buffer->length = pool_->length();
}

int Stream::queryBuffer(v4l2_buffer* buffer) {
    if (!captureType(buffer->type)) return -EINVAL;
    std::lock_guard<std::mutex> lock(mutex_);
    if (!pool_ || buffer->index >= pool_->count()) return -EINVAL;
    fillV4l2Buffer(buffer->index, buffer);
    return 0;
}

int Stream::queueBuffer(VideoOpenFile* file, v4l2_buffer* buffer) {
    if (!captureType(buffer->type) || buffer->memory != V4L2_MEMORY_MMAP) return -EINVAL;
    std::lock_guard<std::mutex> lock(mutex_);
    if (const int rc = checkOwner(file)) return rc;
    if (buffer->index >= pool_->count() || slots_[buffer->index].state != State::Dequeued)
        return -EINVAL;
    Slot& s = slots_[buffer->index];
    s.state = State::Queued;
    s.flags = 0;
    queued_.push_back(buffer->index);
    fillV4l2Buffer(buffer->index, buffer);
    return 0;
}

int Stream::dequeueBuffer(VideoOpenFile* file, v4l2_buffer* buffer, bool nonBlocking) {
    if (!captureType(buffer->type) || buffer->memory != V4L2_MEMORY_MMAP) return -EINVAL;
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        if (unplugged()) return -ENODEV;
        if (const int rc = checkOwner(file)) return rc;
        if (!streaming_) return -EINVAL;
        if (!done_.empty()) break;
        if (nonBlocking) return -EAGAIN;
        cond_.wait(lock);
    }
    const uint32_t index = done_.front();
    done_.pop_front();
    slots_[index].state = State::Dequeued;
    fillV4l2Buffer(index, buffer);
    ++dequeued_;
    updateReadiness();
    return 0;
}

int Stream::streamOn(VideoOpenFile* file, uint32_t type) {
    if (!captureType(type)) return -EINVAL;
    std::lock_guard<std::mutex> control(controlMutex_);
    std::unique_lock<std::mutex> lock(mutex_);
    if (const int rc = checkOwner(file)) return rc;
    if (streaming_) return 0;
    streaming_ = true;
    stopRequested_ = false;
    sequence_ = 0;
    // The pacing thread takes no signals: they belong to the application's threads.
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    const int rc = pthread_create(&engine_, nullptr, engineMain, this);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    if (rc != 0) {
        streaming_ = false;
        return -ENOMEM;
    }
    engineRunning_ = true;
    updateReadiness();
    return 0;
}

void Stream::stopEngine(std::unique_lock<std::mutex>& lock) {
    streaming_ = false;
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

int Stream::streamOff(VideoOpenFile* file, uint32_t type) {
    if (!captureType(type)) return -EINVAL;
    std::lock_guard<std::mutex> control(controlMutex_);
    std::unique_lock<std::mutex> lock(mutex_);
    if (!owner_) return 0;
    if (owner_ != file) return -EBUSY;
    stopEngine(lock);
    returnAllBuffers();
    updateReadiness();
    cond_.notifyAll();  // blocked dequeuers return EINVAL
    return 0;
}

void* Stream::map(void* addr, std::size_t length, int prot, int flags, off_t offset, int* err) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!pool_) {
        *err = EINVAL;
        return MAP_FAILED;
    }
    return pool_->map(addr, length, prot, flags, offset, err);
}

void Stream::release(VideoOpenFile* file) {
    std::lock_guard<std::mutex> control(controlMutex_);
    std::unique_lock<std::mutex> lock(mutex_);
    if (owner_ != file) return;
    stopEngine(lock);
    freeBuffers();
    owner_ = nullptr;  // its descriptor is closing: no readiness byte to take back
    readable_ = false;
    cond_.notifyAll();
}

bool Stream::unplugged() const {
    return camera_.state.unplugged.load();
}

void Stream::unplug() {
    if (unplugging_.exchange(true)) return;
    // Out of sysfs and /dev first: whoever sees the stream fail finds no device either.
    removeFromTestbed(camera_.spec());
    camera_.state.unplugged = true;
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
    if (fault.name == "unplug" && elapsed_.load() >= static_cast<uint64_t>(fault.atFrame)) unplug();
}

const rec::RecordingReader* replayRecording(const Camera& camera) {
    return camera.capture && camera.capture->stream()
               ? camera.capture->stream()->source().recording()
               : nullptr;
}

}  // namespace vcam
