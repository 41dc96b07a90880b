/*
 * TalvoroSDK - public interface of libTalvoroSDK.so.1
 *
 * Every exported function has C linkage and (with the exceptions noted at each function)
 * returns a Result code: 1 (Ok) on success, a negative code on failure. No function throws.
 *
 * Records are plain data with fixed layout; character arrays are NUL-terminated. Images handed
 * out by the library stay owned by the library and are valid until the next frame is processed.
 */
#ifndef TALVORO_SDK_H
#define TALVORO_SDK_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#define TALVORO_SDK_VERSION_MAJOR 1
#define TALVORO_SDK_VERSION_MINOR 0
#define TALVORO_SDK_VERSION_PATCH 10

#if defined(__GNUC__)
#define TALVORO_API __attribute__((visibility("default")))
#else
#define TALVORO_API
#endif

namespace Talvoro {

/* ---------------------------------------------------------------------------------------------
 * Result codes
 * ------------------------------------------------------------------------------------------- */

/** Result of every exported call. Success is 1, not 0; every failure is negative. */
enum Result : int32_t {
    Ok = 1,                                /**< success */
    NotInitialized = -1,                   /**< Initialize() has not run, or udev is unavailable */
    NotDeInitialized = -2,                 /**< the library is initialised */
    InvalidFrameType = -3,                 /**< frame type not produced in the current data mode */
    NotStreaming = -4,                     /**< the camera is not streaming */
    AlreadyStreaming = -5,                 /**< the camera is already streaming */
    InvalidNode = -6,                      /**< not a video capture node / unknown camera */
    CameraNotOpened = -7,                  /**< the camera is not open */
    InvalidDeviceIndex = -8,               /**< index or count beyond the connected cameras */
    NoDeviceConnected = -9,                /**< no camera is connected */
    GetValueFailed = -10,                  /**< the camera refused or failed a read */
    SetValueFailed = -11,                  /**< the camera refused or failed a write */
    SysCallFail = -12,                     /**< a system call on a device node failed */
    InvalidValue = -13,                    /**< an argument is out of range */
    HidWriteFail = -14,                    /**< writing a HID report failed */
    HidReadFail = -15,                     /**< reading a HID report failed */
    UVCOpenFailed = -16,                   /**< the UVC control node cannot be opened */
    TimeoutError = -17,                    /**< no (new) frame or answer in time */
    InvalidFrameBuffer = -18,              /**< no capture buffer, or a malformed raw frame */
    CalibrationDataNotFound = -19,         /**< the calibration needed is not available */
    FrameSeparationFailed = -20,           /**< the frame could not be processed */
    FrameCallbackRegistrationFailed = -21, /**< a callback is already registered */
    CameraAlreadyOpen = -22,               /**< the camera is open */
    NotSupportedInDataMode = -23,          /**< the control is not available in this data mode */
    OperationFailed = -24,                 /**< the operation failed */
    UnknownError = -255                    /**< reserved operation / unknown failure */
};

/* ---------------------------------------------------------------------------------------------
 * Camera identity
 * ------------------------------------------------------------------------------------------- */

/**
 * One connected camera as the enumeration describes it. Fields lie back to back in this order;
 * an array of DeviceInfo is a plain contiguous array. Two records name the same camera exactly
 * when their serialNo strings are equal.
 */
struct DeviceInfo {
    char deviceName[50];  /**< USB "product" string */
    char vid[5];          /**< USB vendor ID, four lowercase hex digits ("7e91") */
    char pid[5];          /**< USB product ID, four lowercase hex digits ("a05c") */
    char devicePath[500]; /**< the camera's video capture node, e.g. "/dev/video2" */
    char serialNo[50];    /**< USB serial number: the camera's identity everywhere */
};

/**
 * The caller's token for a camera: a copy of its serial number. It holds no pointer and no index,
 * so it stays valid across re-enumeration and re-plugging of the same camera.
 */
struct DeviceHandle {
    char serialNo[50]; /**< NUL-terminated serial number of the camera */
};

/* ---------------------------------------------------------------------------------------------
 * Streaming
 * ------------------------------------------------------------------------------------------- */

/** The camera's streaming mode. Buffer sizes are those of the negotiated capture format. */
enum DataMode : uint16_t {
    Depth_IR_Mode = 0,         /**< depth and IR, 640x480 each (640x960 buffer) */
    No_Image_Mode = 1,         /**< no image is produced; the camera is not reprogrammed */
    Depth_Mode = 2,            /**< depth only, 640x480 */
    IR_Mode = 3,               /**< IR only, 640x480 */
    Depth_IR_RGB_VGA_Mode = 4, /**< depth, IR and colour 640x480 multiplexed (1280x600 buffer) */
    Depth_IR_RGB_HD_Mode = 5,  /**< depth, IR and colour 1280x720 multiplexed (1443x960 buffer) */
    RGB_VGA_Mode = 6,          /**< colour only, 640x480 */
    RGB_HD_Mode = 7,           /**< colour only, 1280x720 */
    RGB_FullHD_Mode = 8,       /**< colour only, 1920x1080 */
    RGB_1200p_Mode = 9         /**< colour only, 1920x1200 */
};

/**
 * Selects the image returned by GetToFFrame.
 *  - IRFrame: 16-bit IR image (raw IR x IR gain, saturated); modes 0, 3, 4, 5.
 *  - DepthColorMap: 8-bit 3-channel (BGR) false-colour depth; modes 0, 2, 4, 5.
 *  - RGBFrame: colour image, 2 bytes per pixel UYVY as delivered; modes 4 to 9.
 *  - RawDepth: 16-bit depth in millimetres, 0 = no measurement; modes 0, 2, 4, 5.
 */
enum FrameType : int32_t { IRFrame = 0, DepthColorMap = 1, RGBFrame = 2, RawDepth = 3 };

/** Pixel format codes of ToFFrame::pixel_format. */
enum PixelFormat : uint8_t {
    PixelFormat_UYVY = 0,  /**< 2 bytes per pixel, U Y V Y */
    PixelFormat_16Bit = 1, /**< unsigned 16-bit, one channel (IR or depth in mm) */
    PixelFormat_BGR = 2    /**< 8-bit, 3 channels, blue-green-red */
};

/** One output image. The pixels are owned by the library and valid until the next frame. */
struct ToFFrame {
    uint8_t* frame_data;  /**< pixel data, rows back to back without padding */
    uint16_t width;       /**< columns */
    uint16_t height;      /**< rows */
    uint8_t pixel_format; /**< a PixelFormat code */
    uint32_t total_size;  /**< bytes: element size x pixel count */
    uint64_t time_stamp;  /**< capture time of the frame, seconds since the epoch */
};

/**
 * The images returned together by GetFrames. Entries the current data mode does not produce are
 * cleared (null data, zero sizes).
 */
struct Frames {
    ToFFrame rgb_frame;            /**< colour image (UYVY), modes 4 to 9 */
    ToFFrame ir_frame;             /**< IR image (16-bit), modes 0, 3, 4, 5 */
    ToFFrame raw_depth_frame;      /**< depth in mm (16-bit); registered onto colour when mapped */
    ToFFrame depth_colormap_frame; /**< false-colour depth (BGR), modes 0, 2, 4, 5 */
};

/* ---------------------------------------------------------------------------------------------
 * Controls and processing
 * ------------------------------------------------------------------------------------------- */

/**
 * Properties of a standard colour-sensor control, filled by GetUVCControl. For the two automatic
 * switches (control ids 3 and 9) only control_id and cur_value are written.
 */
struct UVCProp {
    int32_t control_id;    /**< the control index as passed by the caller (0..10) */
    int32_t min_value;     /**< minimum */
    int32_t max_value;     /**< maximum */
    int32_t cur_value;     /**< current value */
    int32_t step;          /**< step between values */
    int32_t default_value; /**< default value */
};

/** Intrinsics of one camera: focal lengths and principal point in pixels, five distortion
 *  coefficients (k1, k2, p1, p2, k3) in OpenCV's order. */
struct CameraIntrinsics {
    double fx;
    double fy;
    double cx;
    double cy;
    double distortion[5];
};

/** Rigid transform from the depth camera to the colour camera: a row-major 3x3 rotation and a
 *  translation in the calibration's units (millimetres). */
struct StereoExtrinsics {
    double rotation[9];
    double translation[3];
};

/**
 * The camera's calibration, 60 doubles back to back. The plain set serves the 640x480 colour
 * resolution (data mode 4), the HD set the 1280x720 one (data mode 5). Positions: depth 0-8,
 * colour 9-17, HD depth 18-26, HD colour 27-35, extrinsics 36-47, HD extrinsics 48-59.
 */
struct CalibrationParams {
    CameraIntrinsics depth;
    CameraIntrinsics rgb;
    CameraIntrinsics hd_depth;
    CameraIntrinsics hd_rgb;
    StereoExtrinsics extrinsic;
    StereoExtrinsics hd_extrinsic;
};
static_assert(sizeof(CalibrationParams) == 60 * sizeof(double), "CalibrationParams is 60 doubles");

/**
 * Which calibration sets a calibration block in the camera holds (read per block with
 * GetCalibrationDataValidFlag).
 */
enum CalibValidFlag : uint8_t {
    Calib_VGA_Only = 0,  /**< only the plain (640x480 colour) keys */
    Calib_HD_Only = 1,   /**< only the HD (1280x720 colour) keys */
    Calib_VGA_And_HD = 2 /**< both sets */
};

/**
 * Region averaging of depth and IR (SetAvgRegion toggles one; the two exclude each other).
 * The window size is set with UpdateAvgXandY.
 */
enum AvgRegion : int32_t {
    AvgRegion_Center = 0, /**< window at the image centre */
    AvgRegion_Point = 1   /**< window at the point given with SetDepthPos */
};

/** A pixel position in the depth image (or in the colour image when depth is registered). */
struct DepthPtr {
    int32_t x; /**< column */
    int32_t y; /**< row */
};

/* ---------------------------------------------------------------------------------------------
 * IMU
 * ------------------------------------------------------------------------------------------- */

/**
 * IMU configuration, six bytes as the camera holds them. The accelerometer range codes 0..3
 * select 2 g, 16 g, 4 g, 8 g; the gyroscope range codes 0..3 select 250, 500, 1000, 2000 dps.
 * The other fields are passed to the camera unchanged.
 */
struct IMUCONFIG_TypeDef {
    uint8_t IMU_MODE;                /**< IMU power/operating mode */
    uint8_t ACC_AXIS_CONFIG;         /**< accelerometer axis enable bits */
    uint8_t ACC_SENSITIVITY_CONFIG;  /**< accelerometer range code (0..3) */
    uint8_t GYRO_AXIS_CONFIG;        /**< gyroscope axis enable bits */
    uint8_t GYRO_SENSITIVITY_CONFIG; /**< gyroscope range code (0..3) */
    uint8_t IMU_ODR_CONFIG;          /**< output data rate code */
};

/** IMU capture control for ControlIMUCapture. */
struct IMUDATAINPUT_TypeDef {
    uint16_t IMU_UPDATE_MODE;   /**< 1 = continuous capture; on refusal set to 2 (stopped) */
    uint16_t IMU_NUM_OF_VALUES; /**< samples requested; on refusal set to 1 */
};

/** One IMU sample: acceleration in mg, angular rate in degrees per second. */
struct IMUDATAOUTPUT_TypeDef {
    uint16_t imuValueCount; /**< running sample counter */
    double accX;
    double accY;
    double accZ;
    double gyroX;
    double gyroY;
    double gyroZ;
};
static_assert(sizeof(IMUDATAOUTPUT_TypeDef) == 7 * 8, "an IMU sample is seven 8-byte slots");

/* ---------------------------------------------------------------------------------------------
 * Exported functions
 * ------------------------------------------------------------------------------------------- */

extern "C" {

/* ---- Errors and logging ---- */

/**
 * Reports the code of the last operation of any component (whatever it holds at the moment of
 * the call), prefixed with `prefix`:
 *  - most codes write prefix + a message to the log at level 7, for example
 *    "OpenDevice: Talvoro is Not Initialized!.";
 *  - CameraNotOpened, SysCallFail, HidWriteFail, HidReadFail and TimeoutError go to standard
 *    error through perror (prefix, the code's name, then the system error text) and not to the log;
 *  - codes -19 to -24 produce no output at all.
 * Always returns Ok; the reported code itself is left as it was.
 */
TALVORO_API Result pError(std::string prefix);

/**
 * Writes `text` to the library's log at `level` (taken as an unsigned 16-bit number: higher bits
 * are dropped). Whether it is written follows SetLogLevel and SetLogging. Always returns Ok.
 */
TALVORO_API Result PrintLog(int level, std::string text);

/**
 * Sets the log threshold, -1 to 8 (default 2). A message of level L is written when
 * L >> threshold is non-zero: threshold 0 writes every level, 1 writes 3 and 7, 2 writes 7 (the
 * library's failures), 3 and above silence the library's own messages, -1 writes only negative
 * levels. Negative levels always pass.
 * Returns Ok, or OperationFailed for a value outside -1..8 (threshold unchanged).
 */
TALVORO_API Result SetLogLevel(int level);

/**
 * Selects the log output: 0 none, 1 standard output, 2 the log file (default), 3 both, 4 none.
 * The log file is "Talvoro_Log_<YYYY_MM_DD_HH_MM_SS>.txt" in the working directory, named when
 * the logger first starts; each entry is "<timestamp>  : <message>" and a newline.
 * Returns Ok, or OperationFailed for a value above 4 (mode unchanged).
 */
TALVORO_API Result SetLogging(unsigned int mode);

} /* extern "C" */

} /* namespace Talvoro */

#endif /* TALVORO_SDK_H */
