// Device: the object itself, opening the video node and negotiating the capture format.
#include <cstring>
#include <string>

#include "common/SysCall.h"
#include "device/Device.h"
#include "frame/FrameLog.h"
#include "log/Log.h"
#include "log/TALVOROError.h"

namespace Talvoro {

namespace {

constexpr uint32_t kFormatUYVY = v4l2_fourcc('U', 'Y', 'V', 'Y');
constexpr uint32_t kFormatY16 = v4l2_fourcc('Y', '1', '6', ' ');

// The driver's bytesperline and sizeimage, raised to what the frame needs at least.
void correctSizes(v4l2_pix_format* pix) {
    if (pix->bytesperline < pix->width * 2) pix->bytesperline = pix->width * 2;
    if (pix->sizeimage < pix->bytesperline * pix->height)
        pix->sizeimage = pix->bytesperline * pix->height;
}

}  // namespace

Device::Device(int index)
    : deviceIndex(static_cast<uint32_t>(index)), frameProcessor(std::make_unique<TalvoroFrame>()) {
    _log(1, "Device Constructor ");
}

Device::~Device() {
    try {
        _shutdown();
    } catch (...) {
        // Only the logger throws (out of memory). A thread still held would end the process in
        // std::thread's destructor: stop and let go of it.
        logCaughtException("~Device");
        streaming = false;
        try {
            _retireCaptureThread(true);
        } catch (...) {
            logCaughtException("~Device");
        }
    }
}

std::string Device::_tag() const {
    std::lock_guard<std::mutex> lock(labelMutex);
    return std::to_string(deviceIndex.load()) + "   " + deviceLabel;
}

std::string Device::_label() const {
    std::lock_guard<std::mutex> lock(labelMutex);
    return deviceLabel;
}

void Device::_log(int level, const char* text) const {
    if (frame::logPasses(level)) writeLog(level, text + _tag());
}

Result Device::setDeviceIndex(unsigned int index, std::string label) {
    {
        std::lock_guard<std::mutex> lock(labelMutex);
        deviceIndex = index;
        deviceLabel = label;
    }
    frameProcessor->setDeviceIndex(index, label);
    if (frame::logPasses(3))
        writeLog(3, "\nTalvoroSDK:currentDeviceIndex in frame is : " + std::to_string(index));
    return Ok;
}

Result Device::isDeviceOpen() {
    return fd.isValid() ? CameraAlreadyOpen : CameraNotOpened;
}

bool Device::open(DeviceInfo info) {
    // A second open would leave the running capture on a descriptor that is about to close.
    if (fd.isValid()) _shutdown();
    const std::string path(info.devicePath, strnlen(info.devicePath, sizeof info.devicePath));
    lossReported = false;
    // The history is in place before the capture thread starts: from then on a frame callback may
    // process frames, or even destroy this Device, while open has not returned.
    frameProcessor->allocateHistory();
    if (!_open(path.c_str())) {
        frameProcessor->releaseHistory();
        if (frame::logPasses(7))
            writeLog(7, "\nTalvoroSDK:VIDEOIO(Device:" + std::to_string(deviceIndex.load()) +
                            "): can't open camera by index    " + _label());
        return false;
    }
    return true;
}

bool Device::_open(const char* path) {
    bufferCount = 3;
    fd.reset(openNode(path));
    if (!fd.isValid()) {
        logPermissionDenied(path, errno);
        return false;
    }

    // The descriptor stays open on the failures below: closeDevice closes it.
    capability = v4l2_capability{};
    const std::string device = "\nTalvoroSDK:VIDEOIO(Device:" + std::to_string(deviceIndex.load());
    if (XIOCTL(fd.get(), VIDIOC_QUERYCAP, &capability) == -1) {
        writeLog(7, device + "): Unable to query capability    " + _label());
        return false;
    }
    if (!(capability.capabilities & V4L2_CAP_VIDEO_CAPTURE)) {
        writeLog(7, device +
                        "): not supported - device is unable to capture video (missing "
                        "V4L2_CAP_VIDEO_CAPTURE)    " +
                        _label());
        return false;
    }
    return initCapture(true) == 1;
}

bool Device::try_format() {
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    // Interlaced is what the camera has always been asked for, although it is progressive.
    format.fmt.pix.field = V4L2_FIELD_INTERLACED;
    format.fmt.pix.pixelformat = pixelFormat;
    format.fmt.pix.width = width;
    format.fmt.pix.height = height;
    if (XIOCTL(fd.get(), VIDIOC_S_FMT, &format) == -1) {
        _log(7, "\nTalvoroSDK:VIDIOC_S_FMT: ");
        return false;
    }
    correctSizes(&format.fmt.pix);
    // A driver that changed the size is accepted; only the pixel format must be the one asked.
    return format.fmt.pix.pixelformat == pixelFormat;
}

int Device::setFormat(unsigned int newWidth, unsigned int newHeight, unsigned int formatCode) {
    width = newWidth;
    height = newHeight;
    if (formatCode == 0)
        pixelFormat = kFormatUYVY;
    else if (formatCode == 1)
        pixelFormat = kFormatY16;
    deinitCapture();
    const int started = initCapture(false);
    // A camera lost on the way leaves no acquisition thread to notice it: this thread tells.
    if (!started && _nodeGone()) _reportLoss();
    return started;
}

int Device::getFormat(unsigned int* outWidth, unsigned int* outHeight, unsigned int* formatCode) {
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (XIOCTL(fd.get(), VIDIOC_G_FMT, &format) == -1) {
        // "errno" is followed by the device index: that is how the line has always read.
        _log(7,
             "\nTalvoroSDK:VIDEOIO(Device):Could not obtain specifics of capture window "
             "(VIDIOC_G_FMT): errno= ");
        return 0;
    }
    if (formatCode && format.fmt.pix.pixelformat == kFormatUYVY) *formatCode = 0;
    if (formatCode && format.fmt.pix.pixelformat == kFormatY16) *formatCode = 1;
    if (outWidth) *outWidth = format.fmt.pix.width;
    if (outHeight) *outHeight = format.fmt.pix.height;
    correctSizes(&format.fmt.pix);
    return 1;
}

}  // namespace Talvoro
