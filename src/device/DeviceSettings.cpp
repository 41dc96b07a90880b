// Device: the processing settings. None of them talks to the camera: each checks its argument and
// writes a setting of the frame processor, which reads it at its next frame.
#include "device/Device.h"
#include "log/TALVOROError.h"

namespace Talvoro {

Result Device::initFrame(DataMode mode) {
    _unpublish(mode);
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
    frameProcessor->setIRGain(gain);
    return setError(Ok);
}

Result Device::getTOFIRGain(unsigned short* gain) {
    if (!gain) return setError(InvalidValue);
    *gain = frameProcessor->settings().irGain;
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
    frameProcessor->setAveragingWindow(static_cast<uint16_t>(windowWidth),
                                       static_cast<uint16_t>(windowHeight));
    return setError(Ok);
}

Result Device::updateColorMap(int min, int max, int colormap) {
    frameProcessor->updateColorMap(min, max, colormap);
    return setError(Ok);
}

Result Device::setAvgIRDisplay(unsigned char on) {
    frameProcessor->setAvgIRDisplay(on != 0);
    return setError(Ok);
}

Result Device::getDepthIRValues(int* depthAverage, int* depthSpread, int* irMean, int* irSpread) {
    if (!depthAverage || !depthSpread || !irMean || !irSpread) return setError(InvalidValue);
    const TalvoroFrame::Averages averages = frameProcessor->calculateAverages();
    const int mode = frameProcessor->currentDataMode();
    const bool depth = mode != 3;
    const bool ir = mode != 2;
    *depthAverage = depth ? static_cast<int>(averages.avgDepth) : 0;
    *depthSpread = depth ? averages.depthStdDev : 0;
    *irMean = ir ? averages.irMean : 0;
    *irSpread = ir ? averages.irStdDev : 0;
    frameProcessor->clearAverages();
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
    if (on && !frameProcessor->calibrationComplete()) return setError(CalibrationDataNotFound);
    frameProcessor->setProcessingFlags(TalvoroFrame::kUndistortion, on != 0);
    return setError(Ok);
}

Result Device::setRGBDMapping(int on) {
    if (on) {
        const int mode = frameProcessor->currentDataMode();
        if (mode != 4 && mode != 5) return setError(NotSupportedInDataMode);
        if (!frameProcessor->calibrationComplete()) return setError(CalibrationDataNotFound);
    }
    frameProcessor->setProcessingFlags(TalvoroFrame::kRgbdMapping, on != 0);
    return setError(Ok);
}

Result Device::setFlyingPixelFilter(int on) {
    frameProcessor->setProcessingFlags(TalvoroFrame::kFlyingPixel, on != 0);
    return setError(Ok);
}

Result Device::setPositions(std::vector<DepthPtr> positions, unsigned char /*unused*/) {
    frameProcessor->setPositions(positions);
    return setError(Ok);
}

}  // namespace Talvoro
