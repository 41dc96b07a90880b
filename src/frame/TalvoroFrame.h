// TalvoroFrame: one camera's frame processor. It takes a captured raw buffer apart into depth,
// IR and colour images according to the data mode and runs the depth pipeline on them:
// temporal filter, planarization, undistortion, RGB-D registration, flying-pixel filter, range
// scaling, spatial and edge filters, colour map and region averages.
//
// How the capture Device uses it
//   open           allocateHistory(); later createThetaMat() (also places the averaging centre)
//   setDeviceIndex setDeviceIndex(index, label): both appear in this object's log lines
//   capture        captureTimestamp = time(NULL) after each copy (acquisition thread)
//   getframe       setupFrame(frameBuffer, frameSize) under the Device's frame mutex, then
//                  processFrame() without it; each returns 1 or a negative Result
//   getToFFrame    getToFFrame(type, out)
//   getFrames      compare timestamp and captureTimestamp, fillFrames(out), compare again
//   closeDevice    releaseHistory(); resetToDefaults()
//   deinitCapture  updateScaling(); the averaging marker is bit 0x02 of processingFlags,
//                  to be changed while holding frameMutex
//   settings       the setters below (setFilterType, updateColorMap, updateDepthRange,
//                  setAvgRegion, setDepthPos, setCursorColor, setPositions, setPlanarization,
//                  getCalibrationData, initFrame) and the plain settings (irGain,
//                  avgWindowWidth/Height, avgIRDisplay, processingFlags bits 0x20, 0x40, 0x80),
//                  which are atomics and may be written from any thread without a lock
//   averages       calculateAverages(), then read avgDepth, depthStdDev, irMean, irStdDev, then
//                  clearAverages()
//
// Threads and locks
//   - One thread at a time runs setupFrame/processFrame (the thread in the Device's getframe).
//   - frameMutex (the output lock) guards the raw copy, every image and the calibration. It is
//     held for the whole separation and depth pipeline and again for the averages; getToFFrame,
//     fillFrames and calculateAverages take it. Lock order: the Device's own frame mutex first,
//     then frameMutex; nothing here calls back into the Device.
//   - Settings are atomics. A change made while a frame is processed may take effect in the
//     middle of that frame; processFrame reads most of them once at its start.
//   - The images handed out by getToFFrame/fillFrames stay valid until the next processed
//     frame; processing reuses their memory, so no image is reallocated once a mode runs.
//
// Robustness: a raw buffer of any length and content gives a result code, never a read or
// write outside a buffer; malformed calibration matrices disable undistortion or registration
// instead of throwing; no exception leaves a public method.
#ifndef TALVORO_FRAME_TALVORO_FRAME_H
#define TALVORO_FRAME_TALVORO_FRAME_H

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "TalvoroSDK.h"
#include "frame/Registration.h"
#include "frame/Undistortion.h"
#include "frame/WorkerPool.h"

namespace Talvoro {

class TalvoroFrame {
  public:
    // processingFlags bits.
    static constexpr uint32_t kAverageDue = 0x02;     // recompute the averages next frame
    static constexpr uint32_t kDefaultFlag = 0x04;    // set at construction; not tested
    static constexpr uint32_t kPlanarization = 0x10;  // setPlanarization
    static constexpr uint32_t kUndistortion = 0x20;   // Device::setUnDistortion
    static constexpr uint32_t kRgbdMapping = 0x40;    // Device::setRGBDMapping
    static constexpr uint32_t kFlyingPixel = 0x80;    // Device::setFlyingPixelFilter
    // filterFlags bits.
    static constexpr uint8_t kSpatialFilter = 0x01;
    static constexpr uint8_t kTemporalFilter = 0x02;
    static constexpr uint8_t kEdgeFilter = 0x04;
    // calibValidFlags masks: the VGA set (colour 640x480, mode 4) and the HD set (mode 5).
    static constexpr uint16_t kVgaCalibration = 0x3F;
    static constexpr uint16_t kHdCalibration = 0xFC0;

    TalvoroFrame();
    ~TalvoroFrame();
    TalvoroFrame(const TalvoroFrame&) = delete;
    TalvoroFrame& operator=(const TalvoroFrame&) = delete;

    // ---- Frame path -------------------------------------------------------------------------

    // Prepares the images for data mode `mode` (0 to 9; 1 and unknown modes produce no image).
    // Returns 0 (nothing changed) for a negative mode, OperationFailed (-24) when memory runs out,
    // else 1. The private raw copy is released too, so the first frame of the new mode allocates
    // one of the new frame size. Sets no error number.
    int initFrame(int mode);

    // Hands a captured buffer over: the first non-empty one allocates the private copy with its
    // length (frameLength); later ones copy at most frameLength bytes; size 0 releases the copy.
    // A null buffer or a negative size leaves no usable frame (the next processFrame gives -18).
    // Returns 1, or OperationFailed (-24) when the copy cannot be allocated.
    int setupFrame(unsigned char* buffer, int size);

    // Processes the buffer last handed to setupFrame. Returns 1 (also in data mode 1 and unknown
    // modes, which have nothing to do); InvalidFrameBuffer (-18) when the buffer is shorter than
    // the data mode needs or a multiplexed frame is malformed (the images then keep what was
    // written and timestamp is not advanced); OperationFailed (-24) when memory runs out.
    int processFrame();

    // Fills `frame` with one image: 1; InvalidFrameType (-3) when the data mode does not
    // produce `type`; TimeoutError (-17) when a newer frame was captured than processed (before
    // filling, or after it, in which case the record is filled). A type value beyond the four
    // fills nothing and gives 1. Logs every call at level 1.
    int getToFFrame(FrameType type, ToFFrame* frame);

    // The Device's getFrames steps 2 and 3: clears *frames and, holding frameMutex, points its
    // entries at the images the data mode produces (colour; IR; depth, registered in mode 5
    // with mapping on and the HD calibration; colour map).
    void fillFrames(Frames* frames);

    // ---- Depth post-processing ----------------------------------------------------------------

    // Colours the 8-bit depth `src` into depthcolormap, after the spatial filter (bit 0 of
    // filterFlags: median, then bilateral) and with edges blacked out (bit 2). Called with
    // frameMutex held.
    void post_processing(const cv::Mat& src);

    // Removes flying pixels of src (CV_16UC1, at least height x width) into dst (the same):
    // dst gets each interior pixel that passes the test and 0 elsewhere, including the border.
    // The work is shared by four persistent workers. Nothing happens if the images do not fit.
    void flyingPixelFilter(cv::Mat src, int width, int height, int depthLow, int depthHigh,
                           int thresholdLow, int thresholdHigh, cv::Mat dst);

    // ---- Averaging ----------------------------------------------------------------------------

    // Computes the averages of the window centred at (x, y) and, with draw, draws the window
    // and its values onto depthcolormap: "<avgDepth> mm" (never more than 65534, so the 32-bit
    // format holds it) and, with the IR display, irMean, in OpenCV's simplex font (drawLabel:
    // no allocation unless a label runs off the image). Window pixels outside the image count
    // neither as valid nor in the spread. Called with frameMutex held.
    void _calculateAvgDepthIR(int x, int y, bool draw);

    // Device::getDepthIRValues: _calculateAvgDepthIR(avgX, avgY, false) under frameMutex.
    void calculateAverages();
    void clearAverages();

    // ---- Settings with logic -------------------------------------------------------------------

    void setDeviceIndex(uint32_t index, const std::string& label);
    std::string deviceLabel() const;

    // Filter type 0 spatial, 1 temporal, 2 edge: 1 when applied, 0 for any other type.
    // Switching the temporal filter on allocates a zeroed history unless one is marked
    // allocated; switching it off keeps the blocks until releaseHistory.
    int setFilterType(int type, bool on);

    // Colour map number (only when colormap <= 21, compared signed, kept in 8 bits), range
    // limits (low 16 bits) and the scale derived from them.
    void updateColorMap(int min, int max, int colormap);

    // depthScale = 255 / (depthMax - depthMin), depthOffset, depthSpan from the current limits.
    // Equal limits give an infinite scale, kept as it is.
    void updateScaling();

    // Ranges 0 and 1 are stored and release prevDepthFrame and depthcolormap (empty until the
    // next frame); larger values are ignored. Always 1.
    int updateDepthRange(uint16_t range);

    // Toggles averaging region `region` (0 centre, 1 user point; they exclude each other; only
    // regions 0..31 exist), marks the averages due, and clears them when no region is left.
    void setAvgRegion(int region);

    // The depth probe and averaging centre.
    void setDepthPos(DepthPtr position);

    // 0: white, anything else: black.
    void setCursorColor(int color);
    cv::Scalar cursorColor() const;

    void setPositions(const std::vector<DepthPtr>& positions);
    std::vector<DepthPtr> positions() const;

    // Planarization on or off, with the lens model written to the log. Always 1.
    int setPlanarization(int on);

    // Fills thetaMat from the principal point of the VGA depth calibration (or (320, 240)) and
    // sets the averaging centre to (320, 240). Always 1.
    int createThetaMat();

    // Stores `mask` in calibValidFlags and deep copies of the five matrices into the HD set
    // (hd != 0) or the VGA set; the extrinsic is 4x4 with its translation in millimetres. The
    // undistortion map and the registration of the set are prepared here, once.
    void getCalibrationData(uint16_t hd, uint16_t mask, cv::Mat depthMatrix,
                            cv::Mat depthDistortionCoeffs, cv::Mat rgbMatrix,
                            cv::Mat rgbDistortionCoeffs, cv::Mat extrinsicMatrix, cv::Mat unused);

    // The history store of the temporal filter: historyLength zeroed blocks of 640x480 depth.
    // allocateHistory replaces any existing store; releaseHistory frees it.
    void allocateHistory();
    void releaseHistory();
    bool hasHistory() const;

    // Device::closeDevice: every setting back to its construction value (the calibration word,
    // regions and averages cleared; the depth range, label and images are kept).
    void resetToDefaults();

    // ---- Plain state ----------------------------------------------------------------------------

    std::atomic<int64_t> timestamp{0};         // capture time of the published images
    std::atomic<int64_t> captureTimestamp{0};  // capture time of the newest raw buffer
    std::atomic<uint32_t> currentDeviceIndex{0};
    std::atomic<uint8_t> processingEnabled{1};  // not tested by the pipeline
    std::atomic<uint16_t> calibValidFlags{0};
    std::atomic<uint16_t> irGain{16};
    std::atomic<uint16_t> depthRange{0};  // 0 near, 1 far (2 mm units, doubled to mm)
    std::atomic<int32_t> dataMode{0};     // written by initFrame

    std::atomic<uint16_t> avgWindowWidth{32};
    std::atomic<uint16_t> avgWindowHeight{32};
    std::atomic<uint16_t> depthMax{0};
    std::atomic<uint16_t> depthMin{0};
    std::atomic<double> depthSpan{0};
    std::atomic<double> depthScale{0};
    std::atomic<double> depthOffset{0};
    // OpenCV colour map 0..21; other numbers (updateColorMap keeps negative ones in 8 bits)
    // colour with the default map 4.
    std::atomic<uint8_t> colorMapType{4};

    // Fixed filter parameters.
    static constexpr int medianKernel = 5;
    static constexpr int bilateralDiameter = 5;
    static constexpr double bilateralSigma = 200;
    static constexpr int erodeKernel = 3;
    static constexpr int sobelDx = 2;
    static constexpr int sobelDy = 2;
    static constexpr int sobelKernel = 5;
    static constexpr double sobelWeightY = 1.0;
    static constexpr double sobelWeightX = 1.0;
    static constexpr uint8_t temporalWarmup = 1;
    static constexpr uint16_t temporalThreshold = 100;

    std::atomic<uint8_t> filterFlags{0};
    std::atomic<uint8_t> temporalCount{0};
    std::atomic<uint8_t> historyAllocated{0};
    std::atomic<uint8_t> temporalBusy{0};
    std::atomic<uint8_t> historyReady{0};  // the temporal filter's enable marker
    std::atomic<uint8_t> avgIRDisplay{0};
    std::atomic<uint8_t> historyLength{5};

    std::atomic<uint32_t> processingFlags{kDefaultFlag};
    DepthPtr depthPos() const;  // the probe point of setDepthPos; the pipeline does not read it
    std::atomic<uint32_t> avgRegionMode{0};  // bit 0 centre, bit 1 user point
    std::atomic<int32_t> avgX{320};
    std::atomic<int32_t> avgY{240};

    // Average results.
    std::atomic<uint64_t> avgDepth{0};
    std::atomic<int32_t> depthStdDev{0};
    std::atomic<int32_t> irMean{0};
    std::atomic<int32_t> irStdDev{0};

    // The lens model of planarization: fixed point with 48 fractional bits, and as doubles
    // (only the doubles are used). The pitch is in 1/100,000 mm.
    static constexpr int64_t planarK0 = -1109550132763;
    static constexpr int64_t planarK1 = 2894807935402;
    static constexpr int64_t planarK2 = 112041915211783;
    static constexpr int64_t planarK3 = 194151526251;
    static constexpr int64_t fixedPointOne = int64_t(1) << 48;
    static constexpr double thetaCoeff0 = -0.003941913933982022;
    static constexpr double thetaCoeff1 = 0.010284423749602922;
    static constexpr double thetaCoeff2 = 0.3980528447719074;
    static constexpr double thetaCoeff3 = 0.0006897647830719222;
    static constexpr double tofisPitch = 560.0;
    // Of the last pixel createThetaMat computed (guarded by frameMutex).
    double theta = 0, rho = 0, sensorX = 0, sensorY = 0;

    // The output lock.
    mutable std::mutex frameMutex;

    // Images and calibration, guarded by frameMutex; written only by this object.
    cv::Mat thetaMat;                 // 480x640 CV_64F: cos of each pixel's viewing angle
    cv::Mat irFrame;                  // 480x640 CV_16U: raw IR x irGain, saturated
    cv::Mat rawIRFrame;               // 480x640 CV_16U
    cv::Mat depthFrame;               // 480x640 CV_16U, millimetres
    cv::Mat undistortedDepth;         // 480x640 CV_16U
    cv::Mat filteredDepth;            // 480x640 CV_16U: flying-pixel output
    cv::Mat filteredRegisteredDepth;  // 720x1280 CV_16U: flying-pixel output, mode 5 mapped
    cv::Mat registeredDepth;          // CV_16U in the colour camera: 480x640 (mode 4), 720x1280 (5)
    cv::Mat spatialTemp, spatialFiltered, sobelX, sobelY, edgeMagnitude, edgeMask;
    cv::Mat rowDerivative, rowSmooth;     // 16-bit rows of the edge filter
    cv::Mat spatialPadded, spatialLanes;  // work images of the spatial filter
    cv::Mat prevDepthFrame;               // CV_8U: depth scaled to 0..255
    cv::Mat depthcolormap;                // CV_8UC3
    cv::Mat rgbFrame;                     // CV_8UC2, as delivered
    cv::Mat depthDistortion, hdDepthDistortion, depthCameraMatrix, hdDepthCameraMatrix;
    cv::Mat rgbDistortion, hdRgbDistortion, rgbCameraMatrix, hdRgbCameraMatrix;
    cv::Mat extrinsic, hdExtrinsic;

    // The private raw copy, guarded by frameMutex.
    uint32_t frameLength = 0;     // its size: the length of the first buffer
    uint32_t frameBytes = 0;      // bytes of it that hold the last buffer
    uint32_t rgbdFrameBytes = 0;  // multiplexed frame size (modes 4 and 5)
    uint32_t tofLineWords = 0;    // 8-byte words per ToF line
    uint32_t rgbLineWords = 0;    // 8-byte words per colour line
    uint32_t rgbLineCount = 0;    // colour lines per multiplexed frame

  private:
    // Settings read once per frame.
    struct FrameSettings {
        int mode;
        uint32_t flags;
        uint8_t filters;
        uint16_t calib;
        uint16_t gain;
        bool farRange;
    };
    FrameSettings _snapshot() const;

    int _separate(const FrameSettings& s);
    int _getDepthIRFrame(const unsigned char* raw, const FrameSettings& s);
    int _getDepthFrame(const unsigned char* raw, const FrameSettings& s);
    int _getIRFrame(const unsigned char* raw, const FrameSettings& s);
    int _getDepthIrRgbFrame(const unsigned char* raw, const FrameSettings& s);
    int _getRgbFrame(const unsigned char* raw);

    void _temporalFilter(const FrameSettings& s);
    void _planarize(const FrameSettings& s);
    void _undistort();
    void _flyingPixel(const FrameSettings& s, bool registered);
    void _farRange(cv::Mat& depth, const FrameSettings& s);
    void _mapDepth(const FrameSettings& s);
    void _scaleAndColor(const cv::Mat& depth);
    void _placeAverageWindow(const FrameSettings& s);

    bool _usesRegisteredDepth(int mode, uint32_t flags, uint16_t calib) const;
    cv::Size _averagingSize(int mode, uint32_t flags) const;
    const uint32_t* _colorTable() const;
    void _edgeFilter(const cv::Mat& input);
    std::string _tag() const;
    void _restoreRetired();

    std::unique_ptr<unsigned char[]> frameSeparateBuf;
    std::vector<std::unique_ptr<uint16_t[]>> depthHistory;

    // Released images kept until the next frame reuses them: pointers already handed out stay
    // valid, and the next frame needs no allocation.
    cv::Mat retiredPrevDepth, retiredColorMap;

    // thetaMat rounded to float: planarization reads it first (see frame::planarize).
    cv::Mat thetaFloat;

    frame::UndistortMap vgaUndistort, hdUndistort;
    frame::DepthRegistration vgaRegistration, hdRegistration;
    // Four persistent workers for the flying-pixel filter.
    frame::WorkerPool workers{4};

    mutable std::mutex labelMutex;
    std::string label;

    mutable std::mutex positionsMutex;
    std::vector<DepthPtr> depthPositions;

    std::array<std::atomic<double>, 4> cursor;
    std::atomic<uint64_t> probe{0};  // depthPos: x in the low, y in the high 32 bits
};

}  // namespace Talvoro

#endif
