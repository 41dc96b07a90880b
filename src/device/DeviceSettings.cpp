// Device: the processing settings. None of them talks to the camera: each checks its argument and
// writes a setting of the frame processor, which reads it at its next frame.
#include "device/Device.h"
#include "log/TALVOROError.h"

namespace Talvoro {

namespace {

// The VGA calibration set: what undistortion and mapping need.
bool calibrationComplete(const TalvoroFrame& processor) {
    return (processor.calibValidFlags & TalvoroFrame::kVgaCalibration) ==
           TalvoroFrame::kVgaCalibration;
}

void setFlag(TalvoroFrame& processor, uint32_t flag, bool on) {
    if (on)
        processor.processingFlags |= flag;
    else
        processor.processingFlags &= ~flag;
}

}  // namespace

Result Device::initFrame(DataMode mode) {
    const int result = frameProcessor->initFrame(mode);
    return result < 0 ? static_cast<Result>(result) : Ok;
}

Result Device::createThetaMat() {
    frameProcessor->createThetaMat();
    return setError(Ok);
}

Result Device::updateDepthRange(unsigned short range) {
    // Any call, whatever the range, silences time-out notifications for good.
    timeoutNotify = false;
    frameProcessor->updateDepthRange(range);
    return Ok;
}

Result Device::setTOFIRGain(unsigned short gain) {
    if (gain < 1 || gain > 100) return setError(InvalidValue);
    frameProcessor->irGain = gain;
    return setError(Ok);
}

Result Device::getTOFIRGain(unsigned short* gain) {
    if (!gain) return setError(InvalidValue);
    *gain = frameProcessor->irGain;
    return setError(Ok);
}

Result Device::setAvgRegion(AvgRegion region) {
    frameProcessor->setAvgRegion(region);
    return setError(Ok);
}

int Device::setFilterType(int type, bool on) {
    return frameProcessor->setFilterType(type, on);
}

Result Device::setDepthPos(DepthPtr position) {
    frameProcessor->setDepthPos(position);
    return setError(Ok);
}

Result Device::setCursorColor(int color) {
    frameProcessor->setCursorColor(color);
    return setError(Ok);
}

Result Device::setPlanarization(int on) {
    return static_cast<Result>(frameProcessor->setPlanarization(on));
}

Result Device::updateAvgXandY(int windowWidth, int windowHeight) {
    if (windowWidth < 4 || windowWidth > 600 || windowHeight < 4 || windowHeight > 400)
        return setError(OperationFailed);
    frameProcessor->avgWindowWidth = static_cast<uint16_t>(windowWidth);
    frameProcessor->avgWindowHeight = static_cast<uint16_t>(windowHeight);
    return setError(Ok);
}

Result Device::updateColorMap(int min, int max, int colormap) {
    frameProcessor->updateColorMap(min, max, colormap);
    return setError(Ok);
}

Result Device::setAvgIRDisplay(unsigned char on) {
    frameProcessor->avgIRDisplay = on != 0;
    return setError(Ok);
}

Result Device::getDepthIRValues(int* depthAverage, int* depthSpread, int* irMean, int* irSpread) {
    if (!depthAverage || !depthSpread || !irMean || !irSpread) return setError(InvalidValue);
    TalvoroFrame& processor = *frameProcessor;
    processor.calculateAverages();
    const int mode = processor.dataMode;
    const bool depth = mode != 3;
    const bool ir = mode != 2;
    *depthAverage = depth ? static_cast<int>(processor.avgDepth.load()) : 0;
    *depthSpread = depth ? processor.depthStdDev.load() : 0;
    *irMean = ir ? processor.irMean.load() : 0;
    *irSpread = ir ? processor.irStdDev.load() : 0;
    processor.clearAverages();
    return setError(Ok);
}

Result Device::obtainCalibParams(unsigned short hd, unsigned short validMask, cv::Mat depthMatrix,
                                 cv::Mat depthDistortion, cv::Mat colourMatrix,
                                 cv::Mat colourDistortion, cv::Mat extrinsic, cv::Mat unused) {
    frameProcessor->getCalibrationData(hd, validMask, depthMatrix, depthDistortion, colourMatrix,
                                       colourDistortion, extrinsic, unused);
    return setError(Ok);
}

Result Device::setUnDistortion(int on) {
    if (on && !calibrationComplete(*frameProcessor)) return setError(CalibrationDataNotFound);
    setFlag(*frameProcessor, TalvoroFrame::kUndistortion, on != 0);
    return setError(Ok);
}

Result Device::setRGBDMapping(int on) {
    if (on) {
        const int mode = frameProcessor->dataMode;
        if (mode != 4 && mode != 5) return setError(NotSupportedInDataMode);
        if (!calibrationComplete(*frameProcessor)) return setError(CalibrationDataNotFound);
    }
    setFlag(*frameProcessor, TalvoroFrame::kRgbdMapping, on != 0);
    return setError(Ok);
}

Result Device::setFlyingPixelFilter(int on) {
    setFlag(*frameProcessor, TalvoroFrame::kFlyingPixel, on != 0);
    return setError(Ok);
}

Result Device::setPositions(std::vector<DepthPtr> positions, unsigned char /*unused*/) {
    frameProcessor->setPositions(positions);
    return setError(Ok);
}

}  // namespace Talvoro
