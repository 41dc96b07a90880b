// TalvoroFrame: one camera's frame processor. It takes a captured raw buffer apart into depth,
// IR and colour images according to the data mode and runs the depth pipeline on them:
// temporal filter, planarization, undistortion, RGB-D registration, flying-pixel filter, range
// scaling, spatial and edge filters, colour map and region averages.
//
// How the capture Device uses it
//   open           allocateHistory(); later createThetaMat() (also places the averaging centre)
//   setDeviceIndex setDeviceIndex(index, label): both appear in this object's log lines
//   capture        stampCapture(time(NULL)) after each copy (acquisition thread)
//   getframe       setupFrame(frameBuffer, frameSize) under the Device's frame mutex, then
//                  processFrame() without it; each returns 1 or a negative Result
//   getToFFrame    getToFFrame(type, out)
//   getFrames      hasUnprocessedCapture(), fillFrames(out), hasUnprocessedCapture() again
//   closeDevice    releaseHistory(); resetToDefaults()
//   deinitCapture  markAveragesDue(): the next run averages afresh from its first frame
//   settings       the setters below; settings() is a copy of them all
//   averages       calculateAverages(), then clearAverages()
//
// Threads and locks
//   - One thread at a time runs setupFrame/processFrame (the thread in the Device's getframe).
//   - frameMutex (the output lock) guards the raw copy, every image, the calibration and the
//     average results. It is held for the whole separation and depth pipeline and again for the
//     averages; getToFFrame, fillFrames and calculateAverages take it. Lock order: the Device's
//     own frame mutex first, then frameMutex, then settingsMutex; nothing here calls back into
//     the Device.
//   - settingsMutex guards the Settings, and is held only to copy or change them. The setters
//     may run on any thread; a frame works on the copy taken when it starts, so a change made
//     meanwhile takes effect with the next frame.
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
#include "frame/PointCloud.h"
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

    // The lens model of planarization; the pitch is in 1/100,000 mm. fixedPointOne is the unit
    // of the model's fixed-point form, which only the log line of setPlanarization shows.
    static constexpr double thetaCoeff0 = -0.003941913933982022;
    static constexpr double thetaCoeff1 = 0.010284423749602922;
    static constexpr double thetaCoeff2 = 0.3980528447719074;
    static constexpr double thetaCoeff3 = 0.0006897647830719222;
    static constexpr double tofisPitch = 560.0;
    static constexpr int64_t fixedPointOne = int64_t(1) << 48;

    // What resetToDefaults restores; the defaults are the ones written here.
    struct Settings {
        uint16_t irGain = 16;  // IR multiplier of the displayable IR image
        uint16_t avgWindowWidth = 32;
        uint16_t avgWindowHeight = 32;
        uint16_t depthMax = 0;  // colour-map range in mm
        uint16_t depthMin = 0;
        // OpenCV colour map 0..21; other numbers (updateColorMap keeps negative ones in 8 bits)
        // colour with the default map 4.
        uint8_t colorMapType = 4;
        uint8_t filterFlags = 0;
        uint32_t processingFlags = kDefaultFlag;
        uint16_t calibValidFlags = 0;  // calibration items loaded (getCalibrationData)
        bool avgIRDisplay = false;
        uint32_t avgRegionMode = 0;  // bit 0 centre, bit 1 user point
        int32_t avgX = 320;          // the averaging centre
        int32_t avgY = 240;
        std::array<double, 4> cursorColor{255, 255, 255, 0};  // blue, green, red, alpha
        // The temporal filter: history length, whether its blocks are marked allocated, the
        // frames seen in its warm-up, and its enable marker (set once warmed up).
        uint8_t historyLength = 5;
        bool historyAllocated = false;
        uint8_t temporalCount = 0;
        bool historyReady = false;

        // The colour-map scaling from the range: equal limits give an infinite scale, kept as
        // it is.
        double depthScale() const { return 255.0 / (int(depthMax) - int(depthMin)); }
        double depthOffset() const { return depthMin * depthScale(); }
    };

    // Average depth and spread, IR mean and spread of the averaging window.
    struct Averages {
        uint64_t avgDepth = 0;
        int32_t depthStdDev = 0;
        int32_t irMean = 0;
        int32_t irStdDev = 0;
    };

    // The images, by name, for tests and diagnostics.
    enum class Image { Depth, IR, RawIR, Rgb, Registered, ScaledDepth, ColorMap, Theta };

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
    // length; later ones copy at most that many bytes; size 0 releases the copy. A null buffer
    // or a negative size leaves no usable frame (the next processFrame gives -18). Returns 1, or
    // OperationFailed (-24) when the copy cannot be allocated.
    int setupFrame(unsigned char* buffer, int size);

    // Processes the buffer last handed to setupFrame. Returns 1 (also in data mode 1 and unknown
    // modes, which have nothing to do); InvalidFrameBuffer (-18) when the buffer is shorter than
    // the data mode needs or a multiplexed frame is malformed (the images then keep what was
    // written and the published time stamp stays); OperationFailed (-24) when memory runs out.
    int processFrame();

    // The capture time of the newest raw buffer (acquisition thread); processFrame publishes it
    // with its images.
    void stampCapture(int64_t time) { captureTimestamp = time; }
    // A buffer was captured after the one whose images are published.
    bool hasUnprocessedCapture() const { return timestamp != captureTimestamp; }

    // Fills `frame` with one image: 1; InvalidFrameType (-3) when the data mode does not
    // produce `type`; TimeoutError (-17) when a newer frame was captured than processed (before
    // filling, or after it, in which case the record is filled). A type value beyond the four
    // fills nothing and gives 1. Logs every call at level 1.
    int getToFFrame(FrameType type, ToFFrame* frame);

    // Clears *frames and, holding frameMutex, points its entries at the images the data mode
    // produces (colour; IR; depth, registered in mode 5 with mapping on and the HD calibration;
    // colour map).
    void fillFrames(Frames* frames);

    // GetPointCloud on the published depth image (see the public header), without its frame
    // sequence: through the calibration that fits the image's geometry as it was processed. 1;
    // -17 before the first frame of the data mode; -23 in a data mode without depth, or
    // with PointCloud_Colored without colour; -19 without a usable calibration; -13 for a null
    // info or buffer, or a capacity below the count (info then tells it). Builds the pixel rays
    // when the geometry changed, under frameMutex.
    int pointCloud(uint32_t flags, float* xyz, uint8_t* rgb, uint32_t capacity,
                   PointCloudInfo* info);

    // An image as it stands; not for use while a frame is processed.
    const cv::Mat& image(Image which) const;

    // ---- Depth post-processing ----------------------------------------------------------------

    // Colours the 8-bit depth `src` into depthcolormap, after the spatial filter (bit 0 of
    // filterFlags: median, then bilateral) and with edges blacked out (bit 2). Called with
    // frameMutex held.
    void post_processing(const cv::Mat& src);

    // Removes flying pixels of src (CV_16UC1, at least height x width) into dst (the same):
    // dst gets each interior pixel that passes the test and 0 elsewhere, including the border.
    // The work is shared by the frame's worker pool. Nothing happens if the images do not fit.
    void flyingPixelFilter(cv::Mat src, int width, int height, int depthLow, int depthHigh,
                           int thresholdLow, int thresholdHigh, cv::Mat dst);

    // ---- Averaging ----------------------------------------------------------------------------

    // The averages at the averaging centre, computed now without drawing, under frameMutex
    // (Device::getDepthIRValues); they stay until clearAverages.
    Averages calculateAverages();
    // The results of the last computation (by a frame or by calculateAverages).
    Averages averages() const;
    void clearAverages();
    // The next frame computes the averages again.
    void markAveragesDue();

    // ---- Settings ------------------------------------------------------------------------------

    Settings settings() const;
    int currentDataMode() const { return dataMode; }
    int currentDepthRange() const { return depthRange; }

    void setDeviceIndex(uint32_t index, const std::string& label);
    std::string deviceLabel() const;

    void setIRGain(uint16_t gain);
    void setAveragingWindow(uint16_t width, uint16_t height);
    void setAvgIRDisplay(bool on);
    // Sets or clears processingFlags bits.
    void setProcessingFlags(uint32_t flags, bool on);

    // Filter type 0 spatial, 1 temporal, 2 edge: 1 when applied, 0 for any other type.
    // Switching the temporal filter on allocates a zeroed history unless one is marked
    // allocated; switching it off keeps the blocks until releaseHistory.
    int setFilterType(int type, bool on);

    // Colour map number (only when colormap <= 21, compared signed, kept in 8 bits) and range
    // limits (low 16 bits), from which the scaling follows.
    void updateColorMap(int min, int max, int colormap);

    // Ranges 0 and 1 are stored and release prevDepthFrame and depthcolormap (empty until the
    // next frame); larger values are ignored. Always 1.
    int updateDepthRange(uint16_t range);

    // Toggles averaging region `region` (0 centre, 1 user point; they exclude each other; only
    // regions 0..31 exist), marks the averages due, and clears them when no region is left.
    void setAvgRegion(int region);

    // The depth probe and averaging centre.
    void setDepthPos(DepthPtr position);
    DepthPtr depthPos() const;  // the pipeline does not read it

    // 0: white, anything else: black.
    void setCursorColor(int color);

    void setPositions(const std::vector<DepthPtr>& positions);
    std::vector<DepthPtr> positions() const;  // the pipeline does not read them

    // Planarization on or off, with the lens model written to the log. Always 1.
    int setPlanarization(int on);

    // Fills thetaMat from the principal point of the VGA depth calibration (or (320, 240)) and
    // sets the averaging centre to (320, 240). Always 1.
    int createThetaMat();

    // Stores a calibration set (the name is the one the camera's protocol has always used for
    // handing it over): `mask` becomes calibValidFlags, deep copies of the five matrices go to
    // the HD set (hd != 0) or the VGA set; the extrinsic is 4x4 with its translation in
    // millimetres. The undistortion map and the registration of the set are prepared here, once.
    void getCalibrationData(uint16_t hd, uint16_t mask, cv::Mat depthMatrix,
                            cv::Mat depthDistortionCoeffs, cv::Mat rgbMatrix,
                            cv::Mat rgbDistortionCoeffs, cv::Mat extrinsicMatrix, cv::Mat unused);
    // The VGA calibration set is complete: what undistortion and mapping need.
    bool calibrationComplete() const;

    // The history store of the temporal filter: historyLength zeroed blocks of 640x480 depth.
    // allocateHistory replaces any existing store; releaseHistory frees it.
    void allocateHistory();
    void releaseHistory();
    bool hasHistory() const;

    // Device::closeDevice: the Settings back to their defaults and the average results
    // cleared; the depth range, data mode, label, calibration matrices and images are kept.
    void resetToDefaults();

  private:
    // The settings of one frame, copied when it starts.
    struct FrameSettings : Settings {
        int mode = 0;
        bool farRange = false;
        static FrameSettings none() {
            FrameSettings s;
            s.mode = -1;
            return s;
        }
    };
    FrameSettings _snapshot() const;
    // The settings the published images were processed with (guarded by frameMutex); mode -1:
    // none yet.
    FrameSettings published_ = FrameSettings::none();
    // Changes the settings under settingsMutex: f(Settings&).
    template <typename F>
    void _change(F&& f) {
        std::lock_guard<std::mutex> lock(settingsMutex);
        f(settings_);
    }

    int _separate(const FrameSettings& s);
    int _getDepthIRFrame(const unsigned char* raw, const FrameSettings& s);
    int _getDepthFrame(const unsigned char* raw, const FrameSettings& s);
    int _getIRFrame(const unsigned char* raw, const FrameSettings& s);
    int _getDepthIrRgbFrame(const unsigned char* raw, const FrameSettings& s);
    int _getRgbFrame(const unsigned char* raw);

    void _temporalFilter();
    void _planarize();
    void _undistort();
    void _flyingPixel(const FrameSettings& s, bool registered);
    void _farRange(cv::Mat& depth, const FrameSettings& s);
    void _mapDepth(const FrameSettings& s);
    void _scaleAndColor(const cv::Mat& depth, const FrameSettings& s);
    void _placeAverageWindow(const FrameSettings& s);
    // Computes the averages of the window centred at (x, y) and, with draw, draws the window
    // and its values onto depthcolormap: "<avgDepth> mm" (never more than 65534, so the 32-bit
    // format holds it) and, with the IR display, irMean, in OpenCV's simplex font (drawLabel:
    // no allocation unless a label runs off the image). Window pixels outside the image count
    // neither as valid nor in the spread. Called with frameMutex held.
    void _calculateAvgDepthIR(int x, int y, bool draw, const Settings& s);

    static bool _usesRegisteredDepth(int mode, uint32_t flags, uint16_t calib);
    static cv::Size _averagingSize(int mode, uint32_t flags);
    static const uint32_t* _colorTable(uint8_t colorMapType);
    void _edgeFilter(const cv::Mat& input, const uint32_t* table);
    std::string _tag() const;
    // In a catch block: logs what was caught, with the tag.
    void _logCaught(const char* context) const noexcept;
    void _restoreRetired();

    mutable std::mutex settingsMutex;
    Settings settings_;  // guarded by settingsMutex

    std::atomic<int64_t> timestamp{0};         // capture time of the published images
    std::atomic<int64_t> captureTimestamp{0};  // capture time of the newest raw buffer
    std::atomic<int32_t> dataMode{0};          // written by initFrame
    std::atomic<uint16_t> depthRange{0};       // 0 near, 1 far (2 mm units, doubled to mm)

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
    cv::Mat spatialTemp, spatialFiltered, edgeMask;
    cv::Mat spatialScratch, edgeScratch;  // work rows of the spatial and the edge filter
    cv::Mat prevDepthFrame;               // CV_8U: depth scaled to 0..255
    cv::Mat depthcolormap;                // CV_8UC3
    cv::Mat rgbFrame;                     // CV_8UC2, as delivered
    cv::Mat depthDistortion, hdDepthDistortion, depthCameraMatrix, hdDepthCameraMatrix;
    cv::Mat rgbDistortion, hdRgbDistortion, rgbCameraMatrix, hdRgbCameraMatrix;
    cv::Mat extrinsic, hdExtrinsic;
    Averages averageResults;

    // The private raw copy and the layout it is read with, guarded by frameMutex.
    std::unique_ptr<unsigned char[]> frameSeparateBuf;
    uint32_t frameLength = 0;     // its size: the length of the first buffer
    uint32_t frameBytes = 0;      // bytes of it that hold the last buffer
    uint32_t rgbdFrameBytes = 0;  // multiplexed frame size (modes 4 and 5)
    uint32_t tofLineWords = 0;    // 8-byte words per ToF line
    uint32_t rgbLineWords = 0;    // 8-byte words per colour line
    uint32_t rgbLineCount = 0;    // colour lines per multiplexed frame

    std::vector<std::unique_ptr<uint16_t[]>> depthHistory;  // guarded by frameMutex

    // Released images kept until the next frame reuses them: pointers already handed out stay
    // valid, and the next frame needs no allocation.
    cv::Mat retiredPrevDepth, retiredColorMap;

    // thetaMat rounded to float: planarization reads it first (see frame::planarize).
    cv::Mat thetaFloat;

    frame::UndistortMap vgaUndistort, hdUndistort;
    frame::DepthRegistration vgaRegistration, hdRegistration;
    // Point clouds: the rays of the last geometry asked for, and the colour image as RGB
    // (guarded by frameMutex).
    frame::PixelRays cloudRays_;
    cv::Mat cloudRgb_;
    // The threads that share a frame's parallel steps with the caller.
    frame::WorkerPool workers;

    mutable std::mutex labelMutex;
    std::atomic<uint32_t> currentDeviceIndex{0};
    std::string label;  // guarded by labelMutex

    mutable std::mutex positionsMutex;
    std::vector<DepthPtr> depthPositions;  // guarded by positionsMutex
    std::atomic<uint64_t> probe{0};        // depthPos: x in the low, y in the high 32 bits
};

}  // namespace Talvoro

#endif
