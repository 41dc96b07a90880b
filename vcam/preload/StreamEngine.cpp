// The pacing thread of a streaming camera, and what keeps the queue sane across fork().
#include <signal.h>

#include <algorithm>
#include <cstdlib>

#include "Camera.h"
#include "RawLayout.h"
#include "Stream.h"
#include "VideoNode.h"

namespace vcam {

namespace {

// Every stream of the process, for the fork handlers. Constant-initialised.
std::mutex g_forkMutex;
Stream* g_streams = nullptr;
bool g_atforkInstalled = false;

int colourLineBytes(Content content) {
    return content == Content::MultiplexedHd ? raw::kHdColourLineBytes : raw::kVgaColourLineBytes;
}

}  // namespace

Stream::~Stream() {
    {
        std::lock_guard<std::mutex> control(controlMutex_);
        std::unique_lock<std::mutex> lock(mutex_);
        stopEngine(lock);
    }
    std::lock_guard<std::mutex> lock(g_forkMutex);
    for (Stream** p = &g_streams; *p; p = &(*p)->nextForFork_) {
        if (*p == this) {
            *p = nextForFork_;
            break;
        }
    }
}

void* Stream::engineMain(void* self) {
    static_cast<Stream*>(self)->run();
    return nullptr;
}

FrameRequest Stream::currentRequest(uint64_t index) const {
    FrameRequest r;
    r.fourcc = format_.pixelformat;
    r.width = format_.width;
    r.height = format_.height;
    r.frameModeFirst = camera_.state.frameModeFirst.load();
    r.frameModeSecond = camera_.state.frameModeSecond.load();
    r.depthRange = camera_.state.depthRange.load();
    r.index = index;
    return r;
}

void Stream::run() {
    try {
        pace();
    } catch (...) {
        // Out of memory for a frame: the camera goes quiet, as if stalled, until stopped.
    }
}

void Stream::pace() {
    FrameRequest first;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        first = currentRequest(elapsed_.load());
    }
    // Rendering a new mode takes a moment; the camera's clock starts after it.
    source_.prepare(first);

    const uint64_t period = static_cast<uint64_t>(1e9 / camera_.spec().fps);
    std::unique_lock<std::mutex> lock(mutex_);
    uint64_t deadline = monotonicNs() + period;
    while (!stopRequested_ && !unplugged()) {
        cond_.waitUntil(lock, deadline);
        if (stopRequested_ || unplugged()) break;
        const uint64_t now = monotonicNs();
        if (now < deadline) continue;  // woken for a dequeuer, or early
        // Held up (the process was stopped, or the machine is overloaded): carry on from now
        // rather than deliver a burst of late frames.
        if (now - deadline > 4 * period) deadline = now;
        tick(lock, deadline);
        deadline += period;
    }
}

void Stream::tick(std::unique_lock<std::mutex>& lock, uint64_t deadlineNs) {
    const uint64_t index = elapsed_.fetch_add(1);
    if (faultAt("unplug", index)) {
        lock.unlock();
        unplug();
        lock.lock();
        return;
    }
    if (faultAt("stall", index)) return;
    const uint32_t sequence = sequence_++;
    if (queued_.empty()) {
        ++dropped_;
        return;
    }
    const uint32_t slot = queued_.front();
    queued_.pop_front();
    slots_[slot].state = State::Filling;
    const FrameRequest request = currentRequest(index);
    uint8_t* data = pool_->data(slot);
    const std::size_t capacity = pool_->length();

    // The buffer is ours while Filling: nothing frees the pool before the engine is joined.
    lock.unlock();
    const std::size_t size = source_.fill(request, data, capacity);
    uint32_t bytesused = static_cast<uint32_t>(std::min(size, capacity));
    uint32_t flags = size > capacity ? V4L2_BUF_FLAG_ERROR : 0;  // uvcvideo: frame overflow
    const ContentSpec content = contentFor(request);
    if ((content.content == Content::MultiplexedVga || content.content == Content::MultiplexedHd) &&
        faultAt("malformed", index))
        raw::addSurplusDepthLine(data, bytesused, colourLineBytes(content.content));
    FaultSpec shortFault;
    if (faultAt("short", index, &shortFault)) {
        const long cut = shortFault.arg.empty() ? static_cast<long>(capacity / 2)
                                                : std::strtol(shortFault.arg.c_str(), nullptr, 10);
        const std::size_t limit =
            capacity -
            std::clamp<std::size_t>(static_cast<std::size_t>(std::max(cut, 1L)), 1, capacity);
        bytesused = static_cast<uint32_t>(std::min<std::size_t>(bytesused, limit));
    }
    lock.lock();

    Slot& s = slots_[slot];
    s.state = State::Done;
    s.bytesused = bytesused;
    s.flags = flags;
    s.sequence = sequence;
    s.timestamp.tv_sec = static_cast<time_t>(deadlineNs / 1000000000u);
    s.timestamp.tv_usec = static_cast<suseconds_t>(deadlineNs % 1000000000u / 1000u);
    done_.push_back(slot);
    ++produced_;
    updateReadiness();
    cond_.notifyAll();
}

void Stream::registerForFork(Stream* stream) {
    std::lock_guard<std::mutex> lock(g_forkMutex);
    if (!g_atforkInstalled) {
        pthread_atfork(prepareFork, parentAfterFork, childAfterFork);
        g_atforkInstalled = true;
    }
    stream->nextForFork_ = g_streams;
    g_streams = stream;
}

// No stream lock may be held by another thread at the moment of fork(): the child would
// inherit it locked with nobody to release it.
void Stream::prepareFork() {
    g_forkMutex.lock();
    for (Stream* s = g_streams; s; s = s->nextForFork_) {
        s->controlMutex_.lock();
        s->mutex_.lock();
    }
    lockSyntheticFramesForFork();
}

void Stream::parentAfterFork() {
    unlockSyntheticFramesAfterFork();
    for (Stream* s = g_streams; s; s = s->nextForFork_) {
        s->mutex_.unlock();
        s->controlMutex_.unlock();
    }
    g_forkMutex.unlock();
}

// The child has no pacing thread: its streams stand stopped, buffers back with the application,
// and it may stream again on its own.
void Stream::childAfterFork() {
    unlockSyntheticFramesAfterFork();
    for (Stream* s = g_streams; s; s = s->nextForFork_) {
        s->engineRunning_ = false;
        s->streaming_ = false;
        s->stopRequested_ = false;
        s->returnAllBuffers();
        s->mutex_.unlock();
        s->controlMutex_.unlock();
    }
    g_forkMutex.unlock();
}

}  // namespace vcam
