// The pacing thread of a streaming camera, and what keeps the queues sane across fork().
#include <signal.h>

#include <linux/usb/video.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "Camera.h"
#include "Hotplug.h"
#include "RawLayout.h"
#include "Stream.h"
#include "VideoNode.h"
#include "World.h"

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
        // Another process of the run may have unplugged the camera: a waiter here must wake.
        lock.unlock();
        syncWorld();
        lock.lock();
        if (stopRequested_ || unplugged()) break;
        tick(lock, deadline);
        deadline += period;
    }
}

void Stream::tick(std::unique_lock<std::mutex>& lock, uint64_t deadlineNs) {
    uint32_t sequence;
    if (capture_.streaming()) {
        const uint64_t index = elapsed_.fetch_add(1);
        if (faultAt("unplug", index)) {
            lock.unlock();
            unplugCamera(camera_);
            lock.lock();
            return;
        }
        if (faultAt("stall", index)) return;
        sequence = capture_.nextSequence();
        // uvcvideo fills a metadata buffer only together with a video buffer.
        if (!tickCapture(lock, index, sequence, deadlineNs)) return;
    } else {
        sequence = metadata_.nextSequence();
    }
    if (metadata_.streaming()) tickMetadata(sequence, deadlineNs);
    updateReadiness();
    cond_.notifyAll();
}

bool Stream::tickCapture(std::unique_lock<std::mutex>& lock, uint64_t index, uint32_t sequence,
                         uint64_t deadlineNs) {
    uint32_t slot;
    uint8_t* data;
    std::size_t capacity;
    if (!capture_.takeQueued(&slot, &data, &capacity)) {
        ++dropped_;
        return false;
    }
    const FrameRequest request = currentRequest(index);

    // The buffer is ours while it is being filled: the queue waits for it before it lets go.
    lock.unlock();
    std::size_t size;
    try {
        size = source_.fill(request, data, capacity);
    } catch (...) {
        lock.lock();
        capture_.abandonFill(slot);
        cond_.notifyAll();
        throw;
    }
    uint32_t bytesused = static_cast<uint32_t>(std::min(size, capacity));
    const uint32_t flags = size > capacity ? V4L2_BUF_FLAG_ERROR : 0;  // uvcvideo: overflow
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

    if (!capture_.finishFill(slot, bytesused, flags, sequence, deadlineNs)) return false;
    ++produced_;
    return true;
}

// One UVC payload header per frame, as uvcvideo stores it (struct uvc_meta_buf): the frame's
// time, the USB frame number, and the header with presentation time and source clock of a
// 1 MHz device clock.
void Stream::tickMetadata(uint32_t sequence, uint64_t deadlineNs) {
    uint32_t slot;
    uint8_t* data;
    std::size_t capacity;
    if (!metadata_.takeQueued(&slot, &data, &capacity)) return;
    constexpr std::size_t kHeaderLength = 12;  // bHeaderLength: with PTS and SCR
    uint8_t block[sizeof(uint64_t) + sizeof(uint16_t) + kHeaderLength] = {};
    const uint64_t ns = deadlineNs;
    const uint16_t sof = static_cast<uint16_t>(deadlineNs / 1000000u % 2048u);
    const uint32_t pts = static_cast<uint32_t>(deadlineNs / 1000u);
    const uint32_t stc = pts + 1000;  // the header leaves the camera a millisecond later
    std::memcpy(block, &ns, sizeof ns);
    std::memcpy(block + 8, &sof, sizeof sof);
    block[10] = kHeaderLength;
    block[11] = UVC_STREAM_EOH | UVC_STREAM_SCR | UVC_STREAM_PTS | UVC_STREAM_EOF |
                (sequence & 1 ? UVC_STREAM_FID : 0);
    std::memcpy(block + 12, &pts, sizeof pts);
    std::memcpy(block + 16, &stc, sizeof stc);
    std::memcpy(block + 20, &sof, sizeof sof);
    const std::size_t size = std::min(sizeof block, capacity);
    std::memcpy(data, block, size);
    metadata_.finishFill(slot, static_cast<uint32_t>(size), 0, sequence, deadlineNs);
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
    scene::LiveScene::lockForFork();
}

void Stream::parentAfterFork() {
    scene::LiveScene::unlockAfterFork();
    for (Stream* s = g_streams; s; s = s->nextForFork_) {
        s->mutex_.unlock();
        s->controlMutex_.unlock();
    }
    g_forkMutex.unlock();
}

// The child has no pacing thread: its streams stand stopped, buffers back with the application,
// and it may stream again on its own.
void Stream::childAfterFork() {
    scene::LiveScene::unlockAfterFork();
    for (Stream* s = g_streams; s; s = s->nextForFork_) {
        s->engineRunning_ = false;
        s->stopRequested_ = false;
        s->capture_.resetAfterFork();
        s->metadata_.resetAfterFork();
        s->camera_.locks.forgetAfterFork();
        s->mutex_.unlock();
        s->controlMutex_.unlock();
    }
    g_forkMutex.unlock();
}

}  // namespace vcam
