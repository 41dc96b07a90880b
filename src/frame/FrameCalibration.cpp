// TalvoroFrame: calibration storage, the planarization table and its switch.
#include <cstdio>

#include "frame/FrameLog.h"
#include "frame/Planarization.h"
#include "frame/Separation.h"
#include "frame/TalvoroFrame.h"
#include "log/Log.h"

namespace Talvoro {

namespace {

// The calibration's extrinsic carries its translation in millimetres; registration works in
// metres (it reads 16-bit depth as millimetres and converts it).
cv::Mat translationInMetres(const cv::Mat& extrinsic) {
    if (extrinsic.rows != 4 || extrinsic.cols != 4 || extrinsic.channels() != 1 ||
        (extrinsic.depth() != CV_32F && extrinsic.depth() != CV_64F))
        return cv::Mat();
    cv::Mat metres;
    extrinsic.convertTo(metres, CV_64F);
    for (int i = 0; i < 3; ++i)
        metres.at<double>(i, 3) /= 1000.0;
    return metres;
}

}  // namespace

void TalvoroFrame::getCalibrationData(uint16_t hd, uint16_t mask, cv::Mat depthMatrix,
                                      cv::Mat depthDistortionCoeffs, cv::Mat rgbMatrix,
                                      cv::Mat rgbDistortionCoeffs, cv::Mat extrinsicMatrix,
                                      cv::Mat) {
    try {
        _change([mask](Settings& s) { s.calibValidFlags = mask; });
        std::lock_guard<std::mutex> lock(frameMutex);
        cv::Mat* set[5] = {&depthCameraMatrix, &depthDistortion, &rgbCameraMatrix, &rgbDistortion,
                           &extrinsic};
        if (hd) {
            set[0] = &hdDepthCameraMatrix;
            set[1] = &hdDepthDistortion;
            set[2] = &hdRgbCameraMatrix;
            set[3] = &hdRgbDistortion;
            set[4] = &hdExtrinsic;
        }
        const cv::Mat given[5] = {depthMatrix, depthDistortionCoeffs, rgbMatrix,
                                  rgbDistortionCoeffs, extrinsicMatrix};
        for (int i = 0; i < 5; ++i) {
            *set[i] = given[i].clone();
            if (set[i]->empty()) writeLog(7, "\nTalvoroSDK:gDepthDistortion.empty()");
        }
        // Prepared once here, so that a frame only applies them.
        frame::UndistortMap& map = hd ? hdUndistort : vgaUndistort;
        frame::DepthRegistration& registration = hd ? hdRegistration : vgaRegistration;
        map.build(*set[0], *set[1], cv::Size(frame::kWidth, frame::kHeight));
        registration.configure(*set[0], *set[2], *set[3], translationInMetres(*set[4]),
                               hd ? cv::Size(1280, 720) : cv::Size(640, 480));
    } catch (...) {
        // Out of memory while copying: the set is left unusable rather than half prepared.
        _logCaught("getCalibrationData");
        (hd ? hdUndistort : vgaUndistort).clear();
        (hd ? hdRegistration : vgaRegistration).clear();
    }
}

int TalvoroFrame::createThetaMat() {
    try {
        const bool calibrated = calibrationComplete();
        std::lock_guard<std::mutex> lock(frameMutex);
        double cx = 320, cy = 240;
        const cv::Mat& k = depthCameraMatrix;
        if (calibrated && k.rows == 3 && k.cols == 3 && k.channels() == 1 &&
            (k.depth() == CV_32F || k.depth() == CV_64F)) {
            cx = k.depth() == CV_64F ? k.at<double>(0, 2) : k.at<float>(0, 2);
            cy = k.depth() == CV_64F ? k.at<double>(1, 2) : k.at<float>(1, 2);
        }
        const frame::LensModel model{thetaCoeff0, thetaCoeff1, thetaCoeff2, thetaCoeff3,
                                     tofisPitch};
        frame::fillThetaTable(thetaMat, cx, cy, model);
        thetaMat.convertTo(thetaFloat, CV_32F);
    } catch (...) {
        // Out of memory for the float copy: planarization then reads the doubles only.
        _logCaught("createThetaMat");
        thetaFloat.release();
    }
    _change([](Settings& s) {
        s.avgX = 320;
        s.avgY = 240;
    });
    return 1;
}

int TalvoroFrame::setPlanarization(int on) {
    setProcessingFlags(kPlanarization, on != 0);
    if (frame::logPasses(1)) {
        char text[160];
        std::snprintf(text, sizeof text, "\nTalvoroSDK:    1<<48:%lld    tofis_pitch:%f",
                      static_cast<long long>(fixedPointOne), tofisPitch);
        writeLog(1, text);
        std::snprintf(text, sizeof text, "\nTalvoroSDK:    k0:%f,     k1:%f,     k2:%f,     k3:%f",
                      thetaCoeff0, thetaCoeff1, thetaCoeff2, thetaCoeff3);
        writeLog(1, text);
    }
    return 1;
}

}  // namespace Talvoro
