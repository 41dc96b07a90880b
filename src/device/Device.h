// The capture device of one camera (see TALVORODevice.h for the operations).
//
// Threads: the application's threads call every operation; one acquisition thread per capture
// run (grabFrame, started by initCapture) waits for the driver, copies each complete frame into
// frameBuffer, re-queues the driver buffer at once and fires the frame callback. Processing
// runs on the application thread inside getframe.
//
// Locks, in the order they may be taken: processMutex (one getframe at a time), frameMutex
// (frameBuffer, its size and newFrame), then the frame processor's frameMutex. waitMutex (the
// getframe wait and its frame counts) is innermost: taken inside frameMutex so that a frame's
// data and its signal are counted together, and on its own for the wait. No lock is held while
// a callback runs.
//
// Callbacks run on the acquisition thread. A callback may call closeDevice, deinitCapture,
// setFormat or even destroy the Device: the thread is then detached instead of joined and,
// once the callback returns, ends without touching the Device again.
//
// The operations that start and stop capture (open, initCapture, setFormat, deinitCapture,
// closeDevice) must not run on two threads at once, with one exception: closeDevice from the
// hot-plug handler on the acquisition thread may overlap the application's own close.
#ifndef TALVORO_DEVICE_DEVICE_H
#define TALVORO_DEVICE_DEVICE_H

#include <linux/videodev2.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/MemoryMapping.h"
#include "device/CallbackSlot.h"
#include "device/NodeFd.h"
#include "device/TALVORODevice.h"
#include "frame/TalvoroFrame.h"

namespace Talvoro {

class Device : public TALVORODevice {
  public:
    // Creates the frame processor; opens nothing.
    explicit Device(int index);
    // Stops capture (joining the acquisition thread, or detaching it when called on that
    // thread) and closes the node. Never throws.
    ~Device() override;
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    unsigned int getFramesPerSecond() override;
    bool open(DeviceInfo info) override;
    int initCapture(bool keepFormat) override;
    int setFormat(unsigned int width, unsigned int height, unsigned int formatCode) override;
    int getFormat(unsigned int* width, unsigned int* height, unsigned int* formatCode) override;
    int deinitCapture() override;
    int closeDevice() override;
    Result getframe() override;
    Result registerFrameCallback(DeviceCallback callback) override;
    Result getToFFrame(FrameType type, ToFFrame* frame) override;
    Result getFrames(Frames* frames) override;
    Result initFrame(DataMode mode) override;
    Result createThetaMat() override;
    Result updateDepthRange(unsigned short range) override;
    Result setTOFIRGain(unsigned short gain) override;
    Result getTOFIRGain(unsigned short* gain) override;
    Result setAvgRegion(AvgRegion region) override;
    int setFilterType(int type, bool on) override;
    Result setDepthPos(DepthPtr position) override;
    Result setCursorColor(int color) override;
    Result setPlanarization(int on) override;
    Result updateAvgXandY(int width, int height) override;
    Result updateColorMap(int min, int max, int colormap) override;
    Result setAvgIRDisplay(unsigned char on) override;
    Result getDepthIRValues(int* depthAverage, int* depthSpread, int* irMean,
                            int* irSpread) override;
    Result registerNotificationCallback(DeviceCallback callback) override;
    Result registerWrapperNotificationCallback(DeviceCallback callback) override;
    Result obtainCalibParams(unsigned short hd, unsigned short validMask, cv::Mat depthMatrix,
                             cv::Mat depthDistortion, cv::Mat colourMatrix,
                             cv::Mat colourDistortion, cv::Mat extrinsic, cv::Mat unused) override;
    Result setUnDistortion(int on) override;
    Result setRGBDMapping(int on) override;
    Result setFlyingPixelFilter(int on) override;
    Result setPositions(std::vector<DepthPtr> positions, unsigned char unused) override;
    Result isDeviceOpen() override;
    Result setDeviceIndex(unsigned int index, std::string label) override;
    Result getRawFrame(uint8_t* buffer, uint32_t capacity, RawFrameInfo* info) override;
    Result getFrameInfo(FrameInfo* info) override;
    Result getPointCloud(uint32_t flags, float* xyz, uint8_t* rgb, uint32_t capacity,
                         PointCloudInfo* info) override;

    // ---- Parts of the operations above ------------------------------------------------------
    // These keep their established names, mixed case included, because the capture code has
    // always been described by them; helpers added since are private and all _camelCase.

    // Opens and checks the node, then starts capture in the driver's current format.
    bool _open(const char* path);
    // Sets width x height in pixelFormat; true when the driver kept the pixel format (it may
    // change the size).
    bool try_format();
    // The buffer ladder: bufferCount, bufferCount - 1, ... 1 buffers until the driver grants at
    // least as many as asked; the granted number becomes bufferCount.
    bool requestBuffers();
    // One VIDIOC_REQBUFS for `count` mmap buffers (0 frees them). Virtual, like stream(), so
    // that a test can unplug the camera at this step.
    virtual bool requestBuffers(int count);
    // Maps every granted buffer and allocates frameBuffer with the largest buffer's length.
    bool createBuffers();
    // Unmaps and frees the buffers and frameBuffer, and gives the buffers back to the driver.
    void releaseBuffers();
    // VIDIOC_STREAMON / VIDIOC_STREAMOFF. true when the call succeeded; `on` itself, without a
    // call, when streaming already is `on`; on a closed device true for a stop, false for a start.
    virtual bool stream(bool on);
    // The acquisition thread: rounds of read_frame_v4l2 and the frame callback while streaming.
    void grabFrame(std::shared_ptr<std::atomic<bool>> run);
    // Waits up to 10 s for the node to become readable. A time-out is logged and notified.
    bool wait_for_frame();
    // One acquisition round. true when a complete frame was copied. *streamEnded is set when
    // the dequeue failed: streaming is over and the Device must not be touched any more.
    bool read_frame_v4l2(bool* streamEnded);

    // ---- Observations for tests and diagnostics ----------------------------------------------

    TalvoroFrame& processor() { return *frameProcessor; }
    unsigned int grantedBuffers() const { return bufferCount; }
    uint64_t capturedFrameSize() const;
    bool isStreaming() const { return streaming.load(); }
    uint32_t processedFrames() const { return frameCount.load(); }
    uint64_t acquisitionRounds() const { return loopCount.load(); }

  private:
    // A cleared buffer record of a memory-mapped capture buffer.
    static v4l2_buffer _bufferRecord(uint32_t index);
    // "<index>   <label>", the tail of every log line.
    std::string _tag() const;
    std::string _label() const;
    // Writes text + tag at `level` when the level passes the log's filter; the text is only
    // composed then.
    void _log(int level, const char* text) const;
    // Under frameMutex: a frame (or a buffer refused in its place) is there for getframe; wakes
    // a polling getframe.
    void _announceFrame(bool refused);
    // Lets go of the last run's acquisition thread: joined when `join` (it has been told to
    // stop), else detached: when it ended by losing the stream it touches nothing of the
    // Device any more. On that thread itself it is always detached; it then leaves the Device
    // alone once the callback it is in returns.
    void _retireCaptureThread(bool join);
    // Stops capture whatever happens, including a stop the driver refuses, and closes the node.
    void _shutdown();
    // Whether the open node answers that its device is gone (ENODEV).
    bool _nodeGone() const;
    // Tells both notification callbacks (1, index) that the camera is lost, once per opening,
    // whichever thread noticed first.
    void _reportLoss();

    // The frame a getframe takes, as the acquisition thread described it.
    struct FrameStamp {
        bool captured = false;  // false: the zeroed buffer before a capture run's first frame
        uint64_t sequence = 0;
        uint64_t timeNs = 0;
        uint64_t generation = 0;  // publishedGeneration when the frame was taken
    };
    // Publishes the stamp of a frame getframe processed, unless initFrame or closeDevice came in
    // between.
    void _publish(const FrameStamp& stamp);
    // Forgets the published frame: a new data mode (`mode`), or closed (a negative mode keeps
    // the current one).
    void _unpublish(int mode);

    NodeFd fd;
    std::atomic<uint32_t> deviceIndex{0};
    mutable std::mutex labelMutex;
    std::string deviceLabel;

    std::vector<MemoryMapping> buffers;            // one per granted buffer; freed under frameMutex
    std::unique_ptr<unsigned char[]> frameBuffer;  // guarded by frameMutex
    uint64_t frameSize = 0;                        // written under frameMutex
    // The frame in frameBuffer as the driver described it (its length 0 until one arrives in a
    // capture run), for raw-frame copies; guarded by frameMutex.
    uint64_t rawFrameBytes = 0;
    uint64_t rawFrameSequence = 0;
    uint64_t rawFrameTimestampNs = 0;
    std::atomic<bool> buffersRequested{false};
    std::atomic<bool> streaming{false};
    std::atomic<bool> lastReadOk{false};
    std::atomic<bool> frameSignalled{false};
    uint32_t bufferCount = 3;
    uint32_t pixelFormat = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    v4l2_capability capability{};
    v4l2_requestbuffers request{};  // count: the number of buffers the driver granted

    std::atomic<uint32_t> frameCount{0};
    bool newFrame = false;  // guarded by frameMutex
    // The newest buffer was one the driver described impossibly; guarded by frameMutex.
    bool frameRefused = false;
    std::atomic<uint64_t> loopCount{0};
    std::atomic<bool> timeoutNotify{true};
    std::atomic<bool> stopRequested{false};
    std::atomic<bool> lossReported{false};

    std::mutex processMutex;
    mutable std::mutex frameMutex;
    std::mutex waitMutex;
    std::condition_variable frameCond;
    // Frames signalled through frameCond, and how many of them getframe had taken when it last
    // took the frame's data; both guarded by waitMutex. A frame signalled while nobody waited is
    // still seen by the next getframe.
    uint64_t signalledFrames = 0;
    uint64_t fetchedFrames = 0;

    // What getFrameInfo reports, guarded by publishedMutex.
    mutable std::mutex publishedMutex;
    bool publishedValid = false;
    FrameInfo published{};
    int publishedMode = Depth_IR_RGB_VGA_Mode;
    uint64_t publishedGeneration = 0;

    CallbackSlot frameCallback;
    CallbackSlot notificationCallback;
    CallbackSlot wrapperNotificationCallback;

    std::unique_ptr<TalvoroFrame> frameProcessor;

    // The frame-rate estimate, on the steady clock.
    std::mutex fpsMutex;
    uint32_t lastFrameCount = 0;
    uint32_t lastFps = 0;
    std::chrono::steady_clock::time_point fpsTime;
    bool fpsTimeSet = false;

    std::mutex threadMutex;  // guards captureThread and captureRun
    std::thread captureThread;
    // The running acquisition thread's permission to touch the Device; cleared when the Device
    // lets go of the thread without joining it.
    std::shared_ptr<std::atomic<bool>> captureRun;
};

}  // namespace Talvoro

#endif
