// Device: capture buffers, streaming, and the start and stop of a capture run.
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <string>
#include <system_error>

#include "common/SysCall.h"
#include "device/Device.h"
#include "frame/FrameLog.h"
#include "log/Log.h"
#include "log/TALVOROError.h"

namespace Talvoro {

v4l2_buffer Device::_bufferRecord(uint32_t index) {
    v4l2_buffer buffer{};
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    buffer.index = index;
    return buffer;
}

bool Device::requestBuffers(int count) {
    if (isDeviceOpen() == CameraNotOpened) return false;
    request = v4l2_requestbuffers{};
    request.count = static_cast<uint32_t>(count);
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    if (XIOCTL(fd.get(), VIDIOC_REQBUFS, &request) == -1) {
        const int err = errno;
        _log(7, err == EINVAL ? "\nTalvoroSDK:VIDEOIO(Device): no support for memory mapping "
                              : "\nTalvoroSDK:VIDEOIO(Device): failed VIDIOC_REQBUFS: ");
        return false;
    }
    buffersRequested = true;
    return true;
}

bool Device::requestBuffers() {
    // A driver never grants more than VIDEO_MAX_FRAME; a larger count would only cost ioctls.
    for (uint32_t n = std::min<uint32_t>(bufferCount, VIDEO_MAX_FRAME); n >= 1; --n) {
        // A smaller grant fails this step although the driver allocated it: the next, smaller
        // request replaces it.
        if (requestBuffers(static_cast<int>(n)) && request.count >= n) {
            bufferCount = request.count;
            return true;
        }
        if (frame::logPasses(7))
            writeLog(7, "\nTalvoroSDK:Insufficient buffer memory -- decreasing buffers: " +
                            std::to_string(n) + "   " + _tag());
    }
    _log(7, "\nTalvoroSDK:Insufficient buffer memory ");
    return false;
}

bool Device::createBuffers() {
    const uint32_t count = request.count;
    if (count > VIDEO_MAX_FRAME) return false;  // no driver grants that many
    buffers.clear();
    buffers.reserve(count);
    uint64_t largest = 0;
    for (uint32_t i = 0; i < count; ++i) {
        v4l2_buffer buffer = _bufferRecord(i);
        if (XIOCTL(fd.get(), VIDIOC_QUERYBUF, &buffer) == -1) {
            _log(7, "\nTalvoroSDK:VIDEOIO(Device): failed VIDIOC_QUERYBUF: ");
            return false;
        }
        void* start = ::mmap(nullptr, buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(),
                             buffer.m.offset);
        if (start == MAP_FAILED) {
            recordSysCallFailure("mmap", errno);
            _log(7, "\nTalvoroSDK:VIDEOIO(Device): failed mmap(): ");
            return false;  // the buffers mapped so far stay until releaseBuffers
        }
        buffers.emplace_back(start, buffer.length);
        largest = std::max<uint64_t>(largest, buffer.length);
    }
    std::lock_guard<std::mutex> lock(frameMutex);
    if (largest != 0) {
        // Zeroed: a fetch before the first frame processes a defined buffer.
        frameBuffer.reset(new (std::nothrow) unsigned char[largest]());
        if (frameBuffer) {
            frameSize = largest;
            newFrame = false;
            frameRefused = false;
            rawFrameBytes = 0;
            // Written on every successful creation at level 7, as it always has been.
            _log(7, "\nTalvoroSDK:memory allocation for the index : MAX_V4L_BUFFERS ");
        }
    }
    return frameBuffer != nullptr;
}

void Device::releaseBuffers() {
    // Whole under the frame lock, which also keeps two closing threads from releasing twice.
    std::lock_guard<std::mutex> lock(frameMutex);
    frameBuffer.reset();
    frameSize = 0;
    newFrame = false;
    frameRefused = false;
    rawFrameBytes = 0;
    if (!buffersRequested) return;
    buffersRequested = false;
    for (MemoryMapping& buffer : buffers) {
        if (!buffer.unmap()) _log(7, "\nTalvoroSDK:VIDEOIO(Device): failed munmap(): ");
    }
    buffers.clear();
    requestBuffers(0);  // the driver frees its buffers; this sets buffersRequested again
}

bool Device::stream(bool on) {
    if (streaming == on) return on;
    if (isDeviceOpen() == CameraNotOpened) return !on;
    // Tells the acquisition thread that its coming dequeue failure is no lost camera.
    if (!on) stopRequested = true;
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    const int r =
        on ? XIOCTL(fd.get(), VIDIOC_STREAMON, &type) : XIOCTL(fd.get(), VIDIOC_STREAMOFF, &type);
    if (r == -1) {
        if (on) _log(7, "\nTalvoroSDK:VIDEOIO(Device): failed VIDIOC_STREAMON: ");
        // The stream goes on: a dequeue failure from now on is a lost camera again.
        if (!on) stopRequested = false;
        return false;
    }
    streaming = on;
    return true;
}

int Device::initCapture(bool keepFormat) {
    if (isDeviceOpen() == CameraNotOpened) return 0;
    // A running capture keeps its buffers: the acquisition thread reads them.
    if (streaming) return 0;
    _retireCaptureThread(false);  // one that ended by losing the stream

    if (keepFormat)
        getFormat(&width, &height, &pixelFormat);  // pixelFormat now holds the format code
    else if (!try_format())
        return 0;
    if (!requestBuffers()) return 0;
    if (!createBuffers()) {
        releaseBuffers();
        return 0;
    }
    for (uint32_t i = 0; i < buffers.size(); ++i) {
        v4l2_buffer buffer = _bufferRecord(i);
        if (XIOCTL(fd.get(), VIDIOC_QBUF, &buffer) == -1) {
            // Followed by the device index, not the error number: that is how it reads.
            _log(7, "\nTalvoroSDK:VIDEOIO(Device): failed VIDIOC_QBUF errno= ");
            return 0;  // the buffers stay mapped until the next deinitCapture
        }
    }
    // A stop whose dequeue failure never came must not silence this run's loss of the camera.
    stopRequested = false;
    if (!stream(true)) return 0;

    auto run = std::make_shared<std::atomic<bool>>(true);
    try {
        std::lock_guard<std::mutex> lock(threadMutex);
        captureThread = std::thread(&Device::grabFrame, this, run);
        captureRun = std::move(run);
    } catch (const std::system_error&) {
        stream(false);
        return 0;
    }
    return 1;
}

void Device::_retireCaptureThread(bool join) {
    // Taken out under the lock: the hot-plug handler may close on the acquisition thread while
    // the application closes too, and only one of them may let go of the thread.
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> run;
    {
        std::lock_guard<std::mutex> lock(threadMutex);
        thread = std::move(captureThread);
        run = std::move(captureRun);
    }
    if (!thread.joinable()) return;
    if (join && thread.get_id() != std::this_thread::get_id()) {
        thread.join();
        return;
    }
    run->store(false);
    thread.detach();
}

int Device::deinitCapture() {
    if (streaming) {
        if (!stream(false)) return 0;
        // The thread ends on its own now (its dequeue fails or its loop condition is false).
        _retireCaptureThread(true);
    } else {
        // Ended by a lost stream: neither stopped nor joined.
        _retireCaptureThread(false);
    }
    if (buffersRequested) releaseBuffers();

    // The averages of the next run are computed afresh from its first frame.
    frameProcessor->markAveragesDue();
    frameSignalled = false;
    {
        std::lock_guard<std::mutex> lock(waitMutex);
        fetchedFrames = signalledFrames;  // nothing of this run is left to fetch
    }
    return setError(Ok);
}

void Device::_shutdown() {
    deinitCapture();
    if (streaming) {
        // The driver refused the stop (the camera is going away): end the thread anyway, so
        // that it never waits on a closed descriptor.
        streaming = false;
        _retireCaptureThread(true);
        if (buffersRequested) releaseBuffers();
    }
    fd.reset();
}

int Device::closeDevice() {
    _shutdown();
    _unpublish(-1);
    frameProcessor->releaseHistory();
    frameProcessor->resetToDefaults();
    return 1;
}

}  // namespace Talvoro
