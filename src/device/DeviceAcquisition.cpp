// Device: the acquisition thread, fetching and processing frames, callbacks and the frame rate.
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>

#include "common/SysCall.h"
#include "device/Device.h"
#include "frame/FrameLog.h"
#include "log/Log.h"
#include "log/TALVOROError.h"

namespace Talvoro {

namespace {

constexpr int kSelectTimeoutMs = 10000;
constexpr std::chrono::milliseconds kFrameWait{200};

}  // namespace

void Device::grabFrame(std::shared_ptr<std::atomic<bool>> run) {
    while (run->load() && streaming) {
        ++loopCount;
        bool streamEnded = false;
        const bool copied = read_frame_v4l2(&streamEnded);
        // After a notification the Device may be closed, or gone: touch nothing.
        if (streamEnded || !run->load()) return;
        lastReadOk = copied;
        if (copied) invoke(frameCallback.get(), 1, static_cast<int>(deviceIndex.load()));
    }
}

bool Device::wait_for_frame() {
    // poll rather than select: a descriptor numbered above FD_SETSIZE must not overflow an
    // fd_set. An error or hang-up on the node counts as readable, as select reports it.
    pollfd node{fd.get(), POLLIN, 0};
    const int ready = xpoll(&node, 1, kSelectTimeoutMs);
    if (ready > 0) return true;
    if (ready < 0) return false;
    _log(7, "\nTalvoroSDK:select timeout ");
    if (timeoutNotify) invoke(notificationCallback.get(), 0, static_cast<int>(deviceIndex.load()));
    return false;
}

bool Device::read_frame_v4l2(bool* streamEnded) {
    *streamEnded = false;
    if (!wait_for_frame()) return false;

    v4l2_buffer buffer = _bufferRecord(0);
    if (XIOCTL(fd.get(), VIDIOC_DQBUF, &buffer) == -1) {
        // Everything the notifications need is read before streaming is cleared: from then on
        // deinitCapture releases this run without waiting for the thread.
        // A camera lost while the application stops the stream is reported by the application's
        // thread when it goes on (setFormat): reported from here, the unplug handler would close
        // the Device under its feet.
        const bool report = !stopRequested.exchange(false) && !lossReported.exchange(true);
        const int index = static_cast<int>(deviceIndex.load());
        const auto application = notificationCallback.get();
        const auto wrapper = wrapperNotificationCallback.get();
        const SysCallFailure failure = lastSysCallFailure();
        lastReadOk = false;
        *streamEnded = true;
        streaming = false;
        if (report) {
            // The camera gone (ENODEV) or the driver failing otherwise: the stream is lost
            // either way, and the line says which.
            if (frame::logPasses(7))
                writeLog(7, "\nTalvoroSDK:stream lost, " + failure.describe() + "   " + _tag());
            invoke(application, 1, index);
            invoke(wrapper, 1, index);
        }
        return false;
    }
    // A buffer the driver describes impossibly (an index never mapped, more bytes used than the
    // buffer holds) is not read; the next fetch reports it as a frame it cannot separate.
    const bool known = buffer.index < buffers.size();
    const bool refused = !known || buffer.bytesused > buffers[buffer.index].length();
    v4l2_buffer requeue = _bufferRecord(buffer.index);
    if (refused) {
        _log(7, "\nTalvoroSDK:VIDEOIO(Device): impossible buffer from VIDIOC_DQBUF ");
    } else if (buffer.bytesused < frameSize) {
        // Incomplete: back to the driver, silently unless that fails: a buffer the driver does
        // not get back is lost to the stream.
        if (XIOCTL(fd.get(), VIDIOC_QBUF, &requeue) == -1 && frame::logPasses(7))
            writeLog(7, "\nTalvoroSDK:re-queueing an incomplete frame failed, " +
                            lastSysCallFailure().describe() + "   " + _tag());
        return false;
    }

    {
        std::lock_guard<std::mutex> lock(frameMutex);
        if (refused) {
            _announceFrame(true);
        } else {
            const MemoryMapping& mapping = buffers[buffer.index];
            if (frameBuffer) {
                const uint64_t bytes =
                    std::min<uint64_t>({buffer.bytesused, frameSize, mapping.length()});
                std::memcpy(frameBuffer.get(), mapping.start(), bytes);
                newFrame = true;
                rawFrameBytes = bytes;
                rawFrameSequence = buffer.sequence;
                rawFrameTimestampNs = static_cast<uint64_t>(buffer.timestamp.tv_sec) * 1000000000u +
                                      static_cast<uint64_t>(buffer.timestamp.tv_usec) * 1000u;
            }
            // Stamped before the frame is announced, so that whoever processes it publishes
            // this time.
            frameProcessor->stampCapture(static_cast<int64_t>(time(nullptr)));
            _announceFrame(false);
        }
    }
    if (!known) return true;  // not one of ours: nothing to give back
    if (XIOCTL(fd.get(), VIDIOC_QBUF, &requeue) == -1) {
        // The missing parenthesis and the index after "errno=" belong to this line.
        _log(7, "\nTalvoroSDK:VIDEOIO(Device: failed VIDIOC_QBUF errno= ");
    }
    return true;
}

void Device::_announceFrame(bool refused) {
    frameRefused = refused;
    if (refused) newFrame = false;  // the older frame is overtaken
    if (!frameCallback.empty()) return;
    // Counted and announced together with the copy: a getframe that takes this frame's data
    // also takes its signal, so no wake-up is left over to fetch it twice.
    {
        std::lock_guard<std::mutex> wait(waitMutex);
        ++signalledFrames;
    }
    frameSignalled = true;
    frameCond.notify_all();
}

Result Device::getframe() {
    if (frameCallback.empty()) {
        // Polling: wait up to 200 ms unless a frame arrived since the last fetch. A wait that
        // ends early for any reason counts as a wake-up.
        std::unique_lock<std::mutex> lock(waitMutex);
        if (signalledFrames == fetchedFrames) {
            const auto waitDeadline = std::chrono::steady_clock::now() + kFrameWait;
            if (frameCond.wait_until(lock, waitDeadline) == std::cv_status::timeout &&
                !frameSignalled)
                return setError(TimeoutError);
        }
    }

    std::lock_guard<std::mutex> processing(processMutex);
    int setup = 0;
    bool fresh = false;
    FrameStamp stamp;
    {
        std::lock_guard<std::mutex> lock(publishedMutex);
        stamp.generation = publishedGeneration;
    }
    {
        std::lock_guard<std::mutex> lock(frameMutex);
        {
            std::lock_guard<std::mutex> wait(waitMutex);
            fetchedFrames = signalledFrames;
        }
        if (!frameBuffer) return setError(InvalidFrameBuffer);
        if (std::exchange(frameRefused, false)) return setError(FrameSeparationFailed);
        const int size = static_cast<int>(std::min<uint64_t>(frameSize, INT_MAX));
        setup = frameProcessor->setupFrame(frameBuffer.get(), size);
        fresh = std::exchange(newFrame, false);
        stamp.captured = rawFrameBytes != 0;
        stamp.sequence = rawFrameSequence;
        stamp.timeNs = rawFrameTimestampNs;
    }
    const int processed = frameProcessor->processFrame();
    if (processed == 1) {
        _log(3, "\nTalvoroSDK:Process Frame success ");
        if (setup == 1) {
            _publish(stamp);
            if (fresh) ++frameCount;
            return setError(Ok);
        }
    } else {
        _log(3, "\nTalvoroSDK:Process Frame failed ");
    }
    if (fresh) {
        // Still not counted: a later successful fetch of it counts it.
        std::lock_guard<std::mutex> lock(frameMutex);
        newFrame = true;
    }
    return setError(FrameSeparationFailed);
}

void Device::_reportLoss() {
    if (lossReported.exchange(true)) return;
    const int index = static_cast<int>(deviceIndex.load());
    invoke(notificationCallback.get(), 1, index);
    invoke(wrapperNotificationCallback.get(), 1, index);
}

bool Device::_nodeGone() const {
    v4l2_capability cap{};
    return fd.isValid() && XIOCTL(fd.get(), VIDIOC_QUERYCAP, &cap) == -1 &&
           (errno == ENODEV || errno == ENXIO);
}

Result Device::getToFFrame(FrameType type, ToFFrame* frame) {
    return static_cast<Result>(frameProcessor->getToFFrame(type, frame));
}

Result Device::getFrames(Frames* frames) {
    if (frameProcessor->hasUnprocessedCapture()) return setError(TimeoutError);
    frameProcessor->fillFrames(frames);
    if (frameProcessor->hasUnprocessedCapture()) return setError(TimeoutError);
    return setError(Ok);
}

unsigned int Device::getFramesPerSecond() {
    std::lock_guard<std::mutex> lock(fpsMutex);
    const auto now = std::chrono::steady_clock::now();
    const uint32_t count = frameCount;
    // Before the first frame, and at the first call, the measurement starts now, with the
    // frames processed so far: the next estimate counts only what comes after.
    if (count == 0 || !fpsTimeSet) {
        fpsTime = now;
        fpsTimeSet = true;
        lastFrameCount = count;
    }
    const auto elapsed = std::chrono::duration_cast<std::chrono::microseconds>(now - fpsTime);
    const uint64_t seconds = static_cast<uint64_t>(elapsed.count()) / 1000000;
    const uint64_t micros = static_cast<uint64_t>(elapsed.count()) % 1000000;
    if (seconds == 0) return lastFps;
    // Frames per hundredth of a second, in 64 bits: neither term can overflow or be 0.
    const uint64_t frames = static_cast<uint32_t>(count - lastFrameCount);
    const uint64_t fps = frames * 100 / (micros / 10000 + seconds * 100);
    fpsTime = now;
    lastFrameCount = count;
    lastFps = static_cast<uint32_t>(std::min<uint64_t>(fps, UINT32_MAX));
    return lastFps;
}

Result Device::registerFrameCallback(DeviceCallback callback) {
    return setError(frameCallback.set(std::move(callback)));
}

Result Device::registerNotificationCallback(DeviceCallback callback) {
    return setError(notificationCallback.set(std::move(callback)));
}

Result Device::registerWrapperNotificationCallback(DeviceCallback callback) {
    return setError(wrapperNotificationCallback.set(std::move(callback)));
}

Result Device::getRawFrame(uint8_t* buffer, uint32_t capacity, RawFrameInfo* info) {
    if (!info) return setError(InvalidValue);
    std::lock_guard<std::mutex> lock(frameMutex);
    if (!frameBuffer) return setError(InvalidFrameBuffer);
    if (rawFrameBytes == 0) return setError(TimeoutError);
    // Driver buffer lengths are 32-bit: a frame always fits the record.
    info->size = static_cast<uint32_t>(std::min<uint64_t>(rawFrameBytes, UINT32_MAX));
    if (!buffer || capacity < info->size) return setError(InvalidValue);
    std::memcpy(buffer, frameBuffer.get(), info->size);
    info->sequence = rawFrameSequence;
    info->time_stamp_ns = rawFrameTimestampNs;
    return setError(Ok);
}

uint64_t Device::capturedFrameSize() const {
    std::lock_guard<std::mutex> lock(frameMutex);
    return frameSize;
}

}  // namespace Talvoro
