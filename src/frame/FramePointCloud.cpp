// TalvoroFrame: the point cloud of the published depth image.
#include <opencv2/imgproc.hpp>

#include "frame/TalvoroFrame.h"
#include "log/TALVOROError.h"

namespace Talvoro {

int TalvoroFrame::pointCloud(uint32_t flags, float* xyz, uint8_t* rgb, uint32_t capacity,
                             PointCloudInfo* info) {
    const bool organized = flags & PointCloud_Organized;
    const bool colored = flags & PointCloud_Colored;
    if (!info || (flags & ~uint32_t(PointCloud_Organized | PointCloud_Colored)) ||
        (capacity > 0 && (!xyz || (colored && !rgb))))
        return setError(InvalidValue);
    try {
        std::lock_guard<std::mutex> lock(frameMutex);
        // What the published images are, as they were processed: settings changed since then
        // apply to the next frame only.
        const FrameSettings s = published_;
        if (s.mode < 0) return setError(TimeoutError);
        const bool colourMode = s.mode == 4 || s.mode == 5;
        if (!(colourMode || s.mode == 0 || s.mode == 2) || (colored && !colourMode))
            return setError(NotSupportedInDataMode);

        const bool hd = s.mode == 5;
        const bool mapping = colourMode && (s.processingFlags & kRgbdMapping);
        // Mode 4 registers into depthFrame, mode 5 into registeredDepth; without the calibration
        // (or with one registration refused) the depth keeps the depth camera's geometry.
        const bool registeredHd =
            _usesRegisteredDepth(s.mode, s.processingFlags, s.calibValidFlags);
        const bool registered =
            registeredHd ||
            (s.mode == 4 && mapping && (s.calibValidFlags & kVgaCalibration) == kVgaCalibration &&
             vgaUndistort.valid() && vgaRegistration.valid());
        const cv::Mat& depth = registeredHd ? registeredDepth : depthFrame;

        frame::CameraCalibration camera, colour;
        frame::RigidTransform toColour;
        bool pinhole = false;
        if (registered) {
            // registerDepth writes the colour camera's z at the (distorted) colour pixel.
            if (!frame::CameraCalibration::read(hd ? hdRgbCameraMatrix : rgbCameraMatrix,
                                                hd ? hdRgbDistortion : rgbDistortion, &camera))
                return setError(CalibrationDataNotFound);
        } else {
            // Mapping without its calibration only doubles depth: nothing is undistorted then.
            pinhole = !mapping && (s.processingFlags & kUndistortion) && vgaUndistort.valid();
            // The HD set's depth intrinsics describe the same lens, for a camera without the
            // plain set (whose depth is never undistorted).
            if (!frame::CameraCalibration::read(depthCameraMatrix, depthDistortion, &camera) &&
                (pinhole ||
                 !frame::CameraCalibration::read(hdDepthCameraMatrix, hdDepthDistortion, &camera)))
                return setError(CalibrationDataNotFound);
            if (colored &&
                !(frame::CameraCalibration::read(hd ? hdRgbCameraMatrix : rgbCameraMatrix,
                                                 hd ? hdRgbDistortion : rgbDistortion, &colour) &&
                  frame::RigidTransform::readMillimetres(hd ? hdExtrinsic : extrinsic, &toColour)))
                return setError(CalibrationDataNotFound);
        }
        if (depth.type() != CV_16UC1 || depth.empty() ||
            (colored && (rgbFrame.type() != CV_8UC2 || rgbFrame.empty() ||
                         (registered && rgbFrame.size() != depth.size()))))
            return setError(OperationFailed);  // images of another mode: not expected

        info->width = uint16_t(depth.cols);
        info->height = uint16_t(depth.rows);
        info->frame = registered ? PointCloud_ColorCamera : PointCloud_DepthCamera;
        info->count = frame::countPoints(depth, organized);
        if (capacity < info->count) return setError(InvalidValue);

        cloudRays_.prepare(camera, depth.size(), pinhole);
        // Registered depth is z by construction; planarized depth is z too.
        const bool alongAxis = registered || (s.processingFlags & kPlanarization);
        const uint32_t written = cloudRays_.deproject(depth, alongAxis, organized, xyz);
        if (colored) {
            cv::cvtColor(rgbFrame, cloudRgb_, cv::COLOR_YUV2RGB_UYVY);
            if (registered)
                frame::colourFromPixels(depth, cloudRgb_, organized, rgb);
            else
                frame::colourByProjection(xyz, written, colour, toColour, cloudRgb_, rgb);
        }
        return setError(Ok);
    } catch (...) {
        // Out of memory for the rays, or OpenCV refusing the calibration.
        _logCaught("pointCloud");
        return setError(OperationFailed);
    }
}

}  // namespace Talvoro
