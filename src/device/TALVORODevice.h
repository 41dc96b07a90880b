// The capture device of one camera: its V4L2 video node, capture format, mapped buffers, the
// acquisition thread with its callbacks, and the frame processor that turns raw frames into
// images. The API layer reaches a camera's Device only through this interface.
//
// Unless noted, operations that return a Result also store it in TALVOROError::cErrorNo.
//
// Threads: callbacks run on the camera's acquisition thread, without any Device lock held; they
// may call back into the Device, close it or destroy it. Starting and stopping capture (open,
// initCapture, setFormat, deinitCapture, closeDevice) is not meant for two threads at once,
// except closeDevice from the hot-plug handler while the application closes too.
//
// Why an interface: the API layer holds a camera's capture device through it, so the registry
// and the exports depend neither on V4L2 nor on the frame processor, and another implementation
// (a replayed recording, a test double) can stand in without touching them.
#ifndef TALVORO_DEVICE_TALVORO_DEVICE_H
#define TALVORO_DEVICE_TALVORO_DEVICE_H

#include <functional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "TalvoroSDK.h"

namespace Talvoro {

// (event code, device index)
using DeviceCallback = std::function<void(int, int)>;

class TALVORODevice {
  public:
    virtual ~TALVORODevice() = default;

    // Frames per second processed by getframe, re-estimated at most once per elapsed second of
    // the caller's polling (on the steady clock; the first call starts the measurement and
    // answers 0); the previous estimate in between.
    virtual unsigned int getFramesPerSecond() = 0;
    // Opens info.devicePath, checks that it captures video and starts streaming in the driver's
    // current format. true when open and capturing; after false the caller must closeDevice()
    // (a node that opened but is no capture node stays open until then). On an open Device the
    // running capture is stopped and the node closed first.
    virtual bool open(DeviceInfo info) = 0;
    // Starts a capture run: format (the driver's when keepFormat, else the one set by
    // setFormat), buffers, queueing, streaming, acquisition thread. 1, or 0 on failure and
    // while a run is still streaming. After an open the FourCC field holds the format code
    // (0 or 1) that getFormat wrote, until the next setFormat with code 0 or 1.
    virtual int initCapture(bool keepFormat) = 0;
    // Stops, changes the format (code 0 "UYVY", 1 "Y16 "; another code keeps the previous
    // FourCC) and restarts. The result of the restart: 1, or 0 on failure.
    virtual int setFormat(unsigned int width, unsigned int height, unsigned int formatCode) = 0;
    // The driver's current format: width, height and format code (left untouched for another
    // FourCC). 1, or 0 when VIDIOC_G_FMT fails.
    virtual int getFormat(unsigned int* width, unsigned int* height, unsigned int* formatCode) = 0;
    // Stops a capture run: streaming off, thread joined, buffers released. 1, or 0 when the
    // stop itself fails. After the stream was lost (the thread has stopped on its own) it issues
    // no VIDIOC_STREAMOFF and does not wait for the thread: it only releases the buffers. It
    // leaves the processor's averages due, so a selected region is averaged again from the
    // next run's first frame.
    virtual int deinitCapture() = 0;
    // Stops capture, closes the node and resets the processing settings. Always 1.
    virtual int closeDevice() = 0;
    // Processes the newest frame. Without a frame callback it first waits up to 200 ms unless
    // a frame arrived since the last fetch; after the first frame of a run it goes on when the
    // wait times out, and processes the last frame again (counted once by the frame rate).
    // With a frame callback it never waits. 1; -17 when no frame arrived yet; -18 while no
    // capture buffer exists; -20 when the frame cannot be processed.
    virtual Result getframe() = 0;
    // The frame callback, called on the acquisition thread with (1, device index) after every
    // complete frame. 1, or -21 (keeping the old one) when one is registered already. An empty
    // function leaves the slot free; there is no way to unregister. What a callback throws is
    // dropped.
    virtual Result registerFrameCallback(DeviceCallback callback) = 0;
    // One processed image; -3 for a type the data mode does not produce, -17 (cErrorNo
    // untouched) when a newer frame is captured but not processed yet.
    virtual Result getToFFrame(FrameType type, ToFFrame* frame) = 0;
    // Every image of the data mode at once (entries not produced are cleared). 1 or -17.
    virtual Result getFrames(Frames* frames) = 0;
    // Prepares the frame processor for a data mode. 1, or -24 when memory runs out (cErrorNo
    // untouched).
    virtual Result initFrame(DataMode mode) = 0;
    // Computes the planarization table and centres the averaging point. 1.
    virtual Result createThetaMat() = 0;
    // Stops time-out notifications for good; a range of 0 or 1 also becomes the processor's
    // depth range. 1 (cErrorNo untouched).
    virtual Result updateDepthRange(unsigned short range) = 0;

    // Processing settings (the camera itself is not involved).
    virtual Result setTOFIRGain(unsigned short gain) = 0;      // 1..100, else -13
    virtual Result getTOFIRGain(unsigned short* gain) = 0;     // 1; -13 for a null pointer
    virtual Result setAvgRegion(AvgRegion region) = 0;         // toggles; 1
    virtual int setFilterType(int type, bool on) = 0;          // 1, or 0 for a type not 0..2
    virtual Result setDepthPos(DepthPtr position) = 0;         // 1
    virtual Result setCursorColor(int color) = 0;              // 0 white, else black; 1
    virtual Result setPlanarization(int on) = 0;               // 1 (cErrorNo untouched)
    virtual Result updateAvgXandY(int width, int height) = 0;  // 4..600 x 4..400, else -24
    virtual Result updateColorMap(int min, int max, int colormap) = 0;  // 1
    virtual Result setAvgIRDisplay(unsigned char on) = 0;               // 1
    // Depth average and spread, IR mean and spread at the averaging point (the depth values 0
    // in data mode 3, the IR values 0 in mode 2), then cleared; 1, or -13 for a null pointer.
    virtual Result getDepthIRValues(int* depthAverage, int* depthSpread, int* irMean,
                                    int* irSpread) = 0;

    // Notification callback of the application: (0, index) on a 10 s capture time-out while
    // time-out notifications are on, (1, index) once when the stream is lost (not after a
    // deliberate stop). 1 or -21; empty slots are never called.
    virtual Result registerNotificationCallback(DeviceCallback callback) = 0;
    // The API layer's own handler for a lost stream, called right after the application's.
    virtual Result registerWrapperNotificationCallback(DeviceCallback callback) = 0;
    // Hands a calibration set to the frame processor: HD selector, validity mask, depth camera
    // matrix, depth distortion, colour camera matrix, colour distortion, 4x4 extrinsic
    // (translation in millimetres), unused. 1.
    virtual Result obtainCalibParams(unsigned short hd, unsigned short validMask,
                                     cv::Mat depthMatrix, cv::Mat depthDistortion,
                                     cv::Mat colourMatrix, cv::Mat colourDistortion,
                                     cv::Mat extrinsic, cv::Mat unused) = 0;
    virtual Result setUnDistortion(int on) = 0;       // needs the plain calibration: else -19
    virtual Result setRGBDMapping(int on) = 0;        // modes 4, 5 (else -23) and calibration
    virtual Result setFlyingPixelFilter(int on) = 0;  // 1
    virtual Result setPositions(std::vector<DepthPtr> positions, unsigned char unused) = 0;

    // -22 (CameraAlreadyOpen) while the node is open, -7 (CameraNotOpened) when not. cErrorNo
    // untouched.
    virtual Result isDeviceOpen() = 0;
    // The camera's registry position and label, printed in log lines and passed to callbacks
    // (the index); the frame processor gets both too. 1 (cErrorNo untouched).
    virtual Result setDeviceIndex(unsigned int index, std::string label) = 0;

    // Copies the newest captured frame, as the driver delivered it, into buffer (capacity
    // bytes) under the frame lock, without touching the frame processor or the new-frame state
    // getframe waits for. Fills size, sequence and time stamp of *info (not the data mode). 1;
    // -18 while no capture buffer exists; -17 when no frame arrived in this capture run; -13
    // for a null info, or a capacity below the size (then only info->size is written).
    virtual Result getRawFrame(uint8_t* buffer, uint32_t capacity, RawFrameInfo* info) = 0;

    // The frame getframe processed last: its driver sequence number and time stamps, and the
    // data mode of initFrame. 1; -17 when no frame has been processed since the last initFrame
    // (or close); -13 for a null info.
    virtual Result getFrameInfo(FrameInfo* info) = 0;
    // The frame processor's point cloud of that frame, with its sequence number in
    // info->sequence; never beside a getframe, so that both describe the same frame. Results as
    // GetPointCloud.
    virtual Result getPointCloud(uint32_t flags, float* xyz, uint8_t* rgb, uint32_t capacity,
                                 PointCloudInfo* info) = 0;
};

}  // namespace Talvoro

#endif
