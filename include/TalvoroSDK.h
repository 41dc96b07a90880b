/*
 * TalvoroSDK - public interface of libTalvoroSDK.so.1
 *
 * Every exported function has C linkage and (with the exceptions noted at each function)
 * returns a Result code: 1 (Ok) on success, a negative code on failure. No function throws.
 *
 * Records are plain data with fixed layout; character arrays are NUL-terminated. Images handed
 * out by the library stay owned by the library and are valid until the next frame is processed.
 *
 * The declarations between the markers "@{" and "@}" share the comment before the first one.
 * The API reference built from these comments: cmake --build build --target docs.
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

/** The interface of libTalvoroSDK: records, result codes and the exported functions. */
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
    double fx;            /**< focal length along x, pixels */
    double fy;            /**< focal length along y, pixels */
    double cx;            /**< principal point, x */
    double cy;            /**< principal point, y */
    double distortion[5]; /**< k1, k2, p1, p2, k3 */
};

/** Rigid transform from the depth camera to the colour camera: a row-major 3x3 rotation and a
 *  translation in the calibration's units (millimetres). */
struct StereoExtrinsics {
    double rotation[9];    /**< 3x3 rotation, row by row */
    double translation[3]; /**< x, y, z, millimetres */
};

/**
 * The camera's calibration, 60 doubles back to back. The plain set serves the 640x480 colour
 * resolution (data mode 4), the HD set the 1280x720 one (data mode 5). Positions: depth 0-8,
 * colour 9-17, HD depth 18-26, HD colour 27-35, extrinsics 36-47, HD extrinsics 48-59.
 */
struct CalibrationParams {
    CameraIntrinsics depth;        /**< depth camera, plain set */
    CameraIntrinsics rgb;          /**< colour camera at 640x480 */
    CameraIntrinsics hd_depth;     /**< depth camera, HD set */
    CameraIntrinsics hd_rgb;       /**< colour camera at 1280x720 */
    StereoExtrinsics extrinsic;    /**< depth to colour camera, plain set */
    StereoExtrinsics hd_extrinsic; /**< depth to colour camera, HD set */
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
    double accX;            /**< acceleration along x, mg */
    double accY;            /**< acceleration along y, mg */
    double accZ;            /**< acceleration along z, mg */
    double gyroX;           /**< angular rate about x, degrees per second */
    double gyroY;           /**< angular rate about y, degrees per second */
    double gyroZ;           /**< angular rate about z, degrees per second */
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
 * The log file is "Talvoro_Log_<YYYY_MM_DD_HH_MM_SS>.txt" in the working directory (or in
 * TALVORO_DATA_DIR, see OpenDevice), named when the logger first starts; each entry is
 * "<timestamp>  : <message>" and a newline.
 * Returns Ok, or OperationFailed for a value above 4 (mode unchanged).
 */
TALVORO_API Result SetLogging(unsigned int mode);

/* ---- Library lifecycle and the camera list ----
 *
 * The library keeps one registry of the cameras it has found, in the order it found them; a
 * camera's position there is its device index, the number passed to the callbacks. Cameras are
 * added by Initialize and GetDeviceCount when more are connected than registered, removed when
 * their stream is lost (unplugged) and all at once by DeInitialize.
 *
 * Threading: every function may be called from any thread. The registry has one lock, held
 * only for bookkeeping, never while a camera is talked to. Calls for ONE camera must not run on
 * two threads at once (its control channels have one command buffer each); different cameras
 * are independent. Opening and closing are serialised across all cameras (they share the
 * calibration files); called from a callback while another thread opens or closes a camera,
 * OpenDevice, CloseDevice and DeInitialize wait at most 2 s and then return OperationFailed, since
 * that thread may be waiting for the callback to return. A caught exception (out of memory, an
 * OpenCV failure) ends any call with OperationFailed and a level-7 log line; nothing is thrown to
 * the caller.
 */

/**
 * Scans for cameras and registers every one not registered yet (as GetDeviceCount does).
 * Returns Ok, also when the library is already initialised (then nothing is rescanned), or
 * NotInitialized when udev is unavailable or a video capture node that is not on USB is present.
 */
TALVORO_API Result Initialize();

/**
 * Forgets every camera: each is closed if open and its objects are released. Returns Ok, also
 * when the library is not initialised (nothing happens then).
 */
TALVORO_API Result DeInitialize();

/**
 * Rescans and stores in *count the number of cameras connected now. When more are connected
 * than registered, the new ones are registered (closed, data mode 4); cameras that went away
 * stay registered until their stream is lost. With two or more registered cameras a rescan that
 * finds a new one may register an already known camera a second time; that entry is never used,
 * since handles resolve to a camera's first entry.
 * Called before Initialize it initialises the library the same way. Returns Ok; NotInitialized
 * when udev is unavailable; NoDeviceConnected when no camera is connected (*count is left);
 * InvalidValue for a null count.
 */
TALVORO_API Result GetDeviceCount(uint32_t* count);

/**
 * Fills list[0..count-1] with the connected cameras in device order (by video node number).
 * Returns Ok; NotInitialized; NoDeviceConnected; InvalidDeviceIndex when count exceeds the
 * connected cameras (count equal to them passes); OperationFailed when a camera cannot be
 * described; InvalidValue for a null list.
 */
TALVORO_API Result GetDeviceListInfo(uint32_t count, DeviceInfo* list);

/**
 * Describes the connected camera at `index` (device order, as GetDeviceListInfo). Returns Ok;
 * NotInitialized; NoDeviceConnected; InvalidDeviceIndex when index exceeds the number of
 * connected cameras; InvalidValue for a null info. An index equal to that number passes the
 * check and its answer means nothing: it may fail (OperationFailed) or describe whichever
 * camera has that number as its /dev/video node.
 */
TALVORO_API Result GetDeviceInfo(uint32_t index, DeviceInfo* info);

/** The library's version, 1.0.10. Returns Ok, or InvalidValue for a null argument. */
TALVORO_API Result GetSDKVersion(uint8_t* major, uint8_t* minor, uint16_t* patch);

/* ---- Opening and closing ----
 *
 * Per-camera calls take the camera's handle first. A handle that names no registered camera, or
 * a camera that is not open, makes every per-camera call return CameraNotOpened unless a
 * function says otherwise.
 */

/**
 * Opens the camera described by `info` (from GetDeviceListInfo or GetDeviceInfo): its HID and
 * UVC control channels and its video node, which starts streaming at once in the camera's
 * current data mode. Reads the depth range and data mode, and the first time after registration
 * or after a close, the calibration (written as "depth_intrinsic.yml", "rgb_intrinsic.yml" and
 * "stereo_extrinsic.yml" into the working directory, overwriting them; missing or malformed
 * calibration is only logged). Every step is logged at level 7.
 *
 * EXTENSION: when the environment variable TALVORO_DATA_DIR is set and not empty, the three
 * calibration files and the log file go into the directory it names instead of the working
 * directory (which must exist and be writable; the library does not create it). It is read at
 * every use: set it before Initialize and leave it while cameras are open. Unset or empty,
 * everything stays in the working directory.
 * On Ok, *handle names the camera. Returns:
 *  - InvalidNode: info.serialNo names no registered camera;
 *  - CameraAlreadyOpen: the camera is open (nothing changes);
 *  - NotInitialized; NoDeviceConnected / InvalidDeviceIndex: the camera is no longer connected;
 *  - CameraNotOpened: a channel or the video node cannot be opened (all are closed again);
 *  - Ok also when the depth range or data mode cannot be read after the channels opened: the
 *    camera is then closed again although the call reports Ok (IsOpened tells);
 *  - InvalidValue: null handle.
 */
TALVORO_API Result OpenDevice(DeviceInfo info, DeviceHandle* handle);

/**
 * Stops streaming and closes the video node, then the HID and the UVC channel. The callbacks
 * registered for the camera stay registered. Returns Ok, or CameraNotOpened when the camera is
 * unknown or not open.
 */
TALVORO_API Result CloseDevice(DeviceHandle handle);

/**
 * Whether the camera's video node is open. Returns CameraAlreadyOpen (-22) when open and
 * CameraNotOpened (-7) when not; never Ok. InvalidDeviceIndex for a handle that names no
 * registered camera.
 */
TALVORO_API Result IsOpened(DeviceHandle handle);

/* ---- Calibration ----
 *
 * The camera stores three calibration blocks (OpenCV FileStorage YAML): depth intrinsics
 * ("SCCM_D", "SCCD_D"), colour intrinsics ("SCCM_RGB", "SCCD_RGB") and the depth-to-colour
 * extrinsics ("R", "T", translation in millimetres), each with an HD twin (keys ending "_HD")
 * for the 1280x720 colour image of data mode 5. The raw block functions below talk to the camera
 * directly: a size request ("Req") must be followed by its read with nothing in between.
 */

/**
 * Validity flag of a block: type 0 colour intrinsics, 1 depth intrinsics, 2 extrinsics. *flag
 * becomes Calib_VGA_Only, Calib_HD_Only or Calib_VGA_And_HD; a camera without the block leaves
 * it. Returns Ok; GetValueFailed when refused; HID codes (HidWriteFail, HidReadFail,
 * TimeoutError); InvalidValue for a null flag.
 */
TALVORO_API Result GetCalibrationDataValidFlag(DeviceHandle handle, uint8_t type,
                                               CalibValidFlag* flag);

/** @{ */
/**
 * Size requests: *size becomes the block's size in bytes. Returns Ok, GetValueFailed when the
 * camera has no such block, HID codes, InvalidValue for a null size.
 */
TALVORO_API Result CalibReadReqDepthIntrinsic(DeviceHandle handle, int* size);
TALVORO_API Result CalibReadReqRGBIntrinsic(DeviceHandle handle, int* size);
TALVORO_API Result CalibReadReqExtrinsic(DeviceHandle handle, int* size);
/** @} */

/** @{ */
/**
 * Reads *size bytes of the block last requested into data, which must hold *size bytes. Returns
 * Ok; 0 (not a Result) for a size of 0, sending nothing; GetValueFailed when a chunk is refused;
 * InvalidValue for a null pointer or a size outside 0..65535; HID codes.
 */
TALVORO_API Result CalibReadDepthIntrinsic(DeviceHandle handle, int* size, unsigned char* data);
TALVORO_API Result CalibReadRGBIntrinsic(DeviceHandle handle, int* size, unsigned char* data);
TALVORO_API Result CalibReadExtrinsic(DeviceHandle handle, int* size, unsigned char* data);
/** @} */

/** @{ */
/** Reserved: return UnknownError (-255) on an open camera and touch nothing. */
TALVORO_API Result ReadReqTOFCalibrationData(DeviceHandle handle, int* size);
TALVORO_API Result ReadTOFCalibrationData(DeviceHandle handle, int size, unsigned char* data);
TALVORO_API Result WriteTOFCalibrationData(DeviceHandle handle, int size, unsigned char* data);
TALVORO_API Result ReadReqTOFPulseTuneSettings47Ohm(DeviceHandle handle, int* size);
TALVORO_API Result ReadTOFPulseTuneSettings47Ohm(DeviceHandle handle, int size,
                                                 unsigned char* data);
TALVORO_API Result WriteTOFPulseTuneSettings47Ohm(DeviceHandle handle, int size,
                                                  unsigned char* data);
/** @} */

/**
 * The calibration read when the camera was opened. A set (plain or HD) is filled only when its
 * three blocks carried it completely (camera matrices 3x3, five distortion coefficients, a 3x3
 * rotation, a translation of three values) and the validity flags of all three name it (0 or 2
 * for the plain set, 1 or 2 for the HD set); fields of a missing set are zero.
 * Returns Ok; CalibrationDataNotFound when the calibration could not be loaded at open (the
 * record is left untouched); InvalidValue for a null params.
 */
TALVORO_API Result GetDeviceCalibrationParams(DeviceHandle handle, CalibrationParams* params);

/* ---- Data mode, depth range and frames ---- */

/**
 * Switches the camera to `mode`: programs its frame mode and renegotiates the video format
 * (modes 4 and 5 also set the colour exposure to automatic and the orientation to normal; a
 * failure there is only logged). Mode 1, or a value above 9, only records the mode: the camera
 * keeps streaming as it was and no images are produced. Setting the current mode does nothing;
 * the current mode is the one GetDataMode reports, so after mode 1 a switch back to the mode
 * the camera still streams does nothing either: go through another mode.
 * Returns Ok (also when the current mode cannot be read: nothing changes then); the camera's
 * code when it refuses the frame mode (the mode is unchanged); SysCallFail when the video
 * format cannot be set.
 */
TALVORO_API Result SetDataMode(DeviceHandle handle, DataMode mode);

/**
 * The data mode the camera streams, worked out from the negotiated format (and, for the ToF
 * formats, from the camera's frame mode). A format that matches no data mode (for example
 * colour at 800x600) leaves *mode untouched and still returns Ok. Returns Ok; OperationFailed
 * when the format cannot be read; the camera's code when its frame mode cannot be read;
 * InvalidValue for a null mode.
 */
TALVORO_API Result GetDataMode(DeviceHandle handle, DataMode* mode);

/**
 * Depth range: 0 near (up to about 4 m), 1 far (up to about 8 m). Setting the current range
 * sends nothing. Returns Ok; NotSupportedInDataMode in the colour-only modes 6 to 9;
 * InvalidValue for a range above 1; SysCallFail when the camera refuses.
 */
TALVORO_API Result SetDepthRange(DeviceHandle handle, uint16_t range);

/** Reads the camera's depth range. Ok, SysCallFail, or InvalidValue for a null range. */
TALVORO_API Result GetDepthRange(DeviceHandle handle, uint16_t* range);

/**
 * Takes the newest captured frame and processes it (filters, planarization, undistortion,
 * mapping, colour map, averages as switched on). Without a frame callback it waits up to
 * 200 ms for a new frame; with one it processes whatever frame is there. Call it from one
 * thread per camera. Returns Ok; TimeoutError when no frame ever arrived; InvalidFrameBuffer
 * when capture is not running; FrameSeparationFailed when the frame cannot be processed.
 */
TALVORO_API Result GetNextFrame(DeviceHandle handle);

/**
 * One image of the last processed frame (see FrameType); frame->frame_data points into the
 * library and stays valid until the next GetNextFrame on this camera. Returns Ok;
 * InvalidFrameType when the data mode does not produce the type; TimeoutError when a frame
 * captured in a later second than the processed one has arrived since (call GetNextFrame
 * again); InvalidValue for a null frame.
 */
TALVORO_API Result GetToFFrame(DeviceHandle handle, FrameType type, ToFFrame* frame);

/** Every image of the last processed frame at once (see Frames). Ok, TimeoutError as for
 *  GetToFFrame, or InvalidValue for a null frames. */
TALVORO_API Result GetFrames(DeviceHandle handle, Frames* frames);

/**
 * Frames processed per second by GetNextFrame, re-estimated at most once per elapsed second
 * of the caller's polling (the previous estimate in between). Returns the rate itself (0 or
 * more), or CameraNotOpened (-7).
 */
TALVORO_API int GetFramesPerSecond(DeviceHandle handle);

/**
 * Registers the frame callback, called with (1, device index) on the camera's capture thread
 * after every captured frame; it should return quickly and may call GetNextFrame. Only the first
 * callback registered for a camera counts: the library keeps it, and may call it, until the
 * camera is unregistered (DeInitialize or unplug), so whatever it refers to must live that long.
 * Later ones and an unknown or closed camera are ignored. An empty function registers nothing.
 * A callback may call the per-camera functions, CloseDevice included; DeInitialize called from a
 * callback leaves the cameras streaming until the next call from an application thread.
 */
TALVORO_API void RegisterFrameCallback(DeviceHandle handle, std::function<void(int, int)> callback);

/**
 * Registers the notification callback, called on the camera's capture thread with (1, device
 * index) when the stream is lost (camera unplugged); the camera is then closed and unregistered,
 * and the cameras after it move up one device index. (A capture time-out, 10 s without a frame,
 * would be reported as (0, device index), but opening a camera reads its depth range, which
 * turns these reports into log lines for good.) Same registration rules as
 * RegisterFrameCallback.
 */
TALVORO_API void RegisterNotificationCallback(DeviceHandle handle,
                                              std::function<void(int, int)> callback);

/* ---- Extension: cameras that come and go ----
 *
 * EXTENSION to the camera's original interface, added for applications that follow cameras
 * being plugged in and out (and `talvoro list --watch`): programs written against the original
 * interface do not use it, and other implementations of this interface may lack it.
 */

/** What a device-list callback is told about a camera. */
enum DeviceListEvent : int32_t {
    DeviceLeft = 0,    /**< the camera was unplugged */
    DeviceArrived = 1, /**< the camera was plugged in; GetDeviceCount now registers it */
};

/**
 * EXTENSION. Registers the device-list callback, called with (event, serial number) each time a
 * camera of this kind is plugged in or unplugged, as udev announces it (no polling). Cameras
 * present when the callback is registered are not announced: list them with GetDeviceCount and
 * GetDeviceListInfo. Each arrival and each departure is told once, in the order they happened,
 * on a thread of the library's own (one for all cameras) and never under a library lock; the
 * serial is valid during the call. The callback may call any function of this library (open,
 * close or list cameras, register or unregister this callback); it should return soon, as later
 * events wait for it. It is independent of Initialize and DeInitialize.
 *
 * The departure of an open camera is also reported to its notification callback, from its
 * capture thread, in no particular order with this one; unregistering the camera (the
 * notification's job) is not this callback's.
 *
 * A new callback replaces the one registered. An empty function unregisters: once the call
 * returns the callback is not called any more, except that a call under way on another thread
 * is finished first (from within the callback itself the call returns at once).
 * Returns Ok, or OperationFailed when udev cannot be watched (nothing is registered then).
 */
TALVORO_API Result RegisterDeviceListCallback(
    std::function<void(DeviceListEvent event, const char* serial)> callback);

/* ---- Time-of-flight controls (any data mode unless noted) ---- */

/** @{ */
/** ToF exposure. The upper bound is 380 in near range and 850 in far range, as this library
 *  last set or read the range (read at open): InvalidValue above it. SysCallFail when refused. */
TALVORO_API Result SetTOFExposure(DeviceHandle handle, unsigned short exposure);
TALVORO_API Result GetTOFExposure(DeviceHandle handle, unsigned short* exposure);
/** @} */

/** @{ */
/** Coring threshold, 1..65535 (0: InvalidValue). Modes with depth (0, 2, 4, 5), else
 *  NotSupportedInDataMode. */
TALVORO_API Result SetTOFCoring(DeviceHandle handle, unsigned short coring);
TALVORO_API Result GetTOFCoring(DeviceHandle handle, unsigned short* coring);
/** @} */

/** @{ */
/** Reserved: return Ok and touch nothing. */
TALVORO_API Result GetPulseConfig(DeviceHandle handle, unsigned short* a, unsigned short* b,
                                  unsigned short* c, unsigned short* d, unsigned short* e,
                                  unsigned short* f);
TALVORO_API Result SetPulseConfig(DeviceHandle handle, unsigned short a, unsigned short b,
                                  unsigned short c, unsigned short d, unsigned short e,
                                  unsigned short f);
/** @} */

/** @{ */
/** Sensor register access is disabled: both return Ok on an open camera and do nothing
 *  (*value is left). */
TALVORO_API Result SetADIRegister(DeviceHandle handle, unsigned short address,
                                  unsigned short value);
TALVORO_API Result GetADIRegister(DeviceHandle handle, unsigned short address,
                                  unsigned short* value);
/** @} */

/* ---- Colour controls ----
 * Reading needs a colour stream (modes 4 to 9), as do the setters unless noted: otherwise
 * NotSupportedInDataMode. Values are the camera's to judge: a refused value gives
 * SetValueFailed, a refused read GetValueFailed (GetAutoExposureROI, GetOrientation and
 * GetFaceDetection report SetValueFailed), and HID failures HidWriteFail, HidReadFail or
 * TimeoutError. Null pointers give InvalidValue.
 */

/** @{ */
/**
 * Standard colour-sensor controls by index: 0 brightness, 1 contrast, 2 saturation, 3 automatic
 * white balance (0/1), 4 gamma, 5 gain, 6 power-line frequency (0 off, 1 50 Hz, 2 60 Hz),
 * 7 white-balance temperature, 8 sharpness, 9 automatic exposure (0 auto, 1 manual, 3 aperture
 * priority), 10 absolute exposure. GetUVCControl fills *prop (for 3 and 9 only control_id and
 * cur_value). Ok, or GetValueFailed / SetValueFailed (also for an index above 10); the result is
 * also stored as the last error (pError).
 */
TALVORO_API Result GetUVCControl(DeviceHandle handle, unsigned int controlId, UVCProp* prop);
TALVORO_API Result SetUVCControl(DeviceHandle handle, unsigned int controlId, int value);
/** @} */

/** @{ */
/** Anti-flicker: 0 auto, 1 50 Hz, 2 60 Hz, 3 off. */
TALVORO_API Result GetAntiFlickerDetection(DeviceHandle handle, unsigned char* value);
TALVORO_API Result SetAntiFlickerDetection(DeviceHandle handle, unsigned char value);
/** @} */
/** @{ */
/** Scene mode: 0 normal, 1 macro. */
TALVORO_API Result GetSceneMode(DeviceHandle handle, unsigned char* value);
TALVORO_API Result SetSceneMode(DeviceHandle handle, unsigned char value);
/** @} */
/** @{ */
/** Special effect: 0 normal, 1 black and white, 2 greyscale, 3 negative, 4 sketch. */
TALVORO_API Result GetSpecialEffect(DeviceHandle handle, unsigned char* value);
TALVORO_API Result SetSpecialEffect(DeviceHandle handle, unsigned char value);
/** @} */
/** @{ */
/** Denoise strength, 0..15. */
TALVORO_API Result GetDenoise(DeviceHandle handle, unsigned char* value);
TALVORO_API Result SetDenoise(DeviceHandle handle, unsigned char value);
/** @} */

/** @{ */
/**
 * Auto-exposure region: mode 0 centre, 1 full frame, 2 manual; in mode 2 the window (1..8) is
 * centred at pixel (x, y) of a frameWidth x frameHeight image. The setter works only in the
 * colour-only modes 6 to 9 (NotSupportedInDataMode otherwise); the getter in 4 to 9 (*window is
 * written only in mode 2).
 */
TALVORO_API Result GetAutoExposureROI(DeviceHandle handle, unsigned char* mode,
                                      unsigned char* window);
TALVORO_API Result SetAutoExposureROI(DeviceHandle handle, unsigned char mode,
                                      unsigned int frameWidth, unsigned int frameHeight,
                                      unsigned int x, unsigned int y, unsigned char window);
/** @} */

/** @{ */
/** Orientation: 0 normal, 1 mirrored, 2 flipped, 3 both. Set only in modes 6 to 9, read in
 *  4 to 9. */
TALVORO_API Result GetOrientation(DeviceHandle handle, unsigned char* value);
TALVORO_API Result SetOrientation(DeviceHandle handle, unsigned char value);
/** @} */

/** @{ */
/** Face detection on/off, embedding of the result in the frame, overlay (0 or 1 each). */
TALVORO_API Result GetFaceDetection(DeviceHandle handle, unsigned char* detect,
                                    unsigned char* embed, unsigned char* overlay);
TALVORO_API Result SetFaceDetection(DeviceHandle handle, unsigned char detect, unsigned char embed,
                                    unsigned char overlay);
/** @} */
/** @{ */
/** Smile detection on/off and embedding of the result (0 or 1 each). */
TALVORO_API Result GetSmileDetection(DeviceHandle handle, unsigned char* detect,
                                     unsigned char* embed);
TALVORO_API Result SetSmileDetection(DeviceHandle handle, unsigned char detect,
                                     unsigned char embed);
/** @} */
/** @{ */
/** Exposure compensation, 8000..1000000. */
TALVORO_API Result GetExposureCompensation(DeviceHandle handle, unsigned int* value);
TALVORO_API Result SetExposureCompensation(DeviceHandle handle, unsigned int value);
/** @} */
/** @{ */
/** Colour frame rate, 1..120. */
TALVORO_API Result GetFrameRateCtrl(DeviceHandle handle, unsigned char* value);
TALVORO_API Result SetFrameRateCtrl(DeviceHandle handle, unsigned char value);
/** @} */

/* ---- Camera, IMU and board (any data mode) ---- */

/** Restores the camera's HID settings (scene, effects, detection, ...) to their defaults. */
TALVORO_API Result SetDefault(DeviceHandle handle);
/** The camera's 64-bit unique ID. GetValueFailed when refused (*id untouched). */
TALVORO_API Result GetUniqueID(DeviceHandle handle, unsigned long* id);
/** @{ */
/** Whether IMU samples are embedded in the frames (0 or 1). SetIMUEmbeddedData reports a
 *  refusal as GetValueFailed. */
TALVORO_API Result GetIMUEmbeddedData(DeviceHandle handle, unsigned char* value);
TALVORO_API Result SetIMUEmbeddedData(DeviceHandle handle, unsigned char value);
/** @} */

/** @{ */
/** IMU configuration (see IMUCONFIG_TypeDef); it also sets the scales GetIMUValue applies.
 *  GetIMUConfig presets every byte to 0xFF. GetValueFailed / SetValueFailed when refused. */
TALVORO_API Result SetIMUConfig(DeviceHandle handle, IMUCONFIG_TypeDef config);
TALVORO_API Result GetIMUConfig(DeviceHandle handle, IMUCONFIG_TypeDef* config);
/** @} */
/**
 * Starts IMU capture with IMU_UPDATE_MODE 1: Ok. Any other mode, or a refusal, stops it:
 * SetValueFailed, with *control set to mode 2 and count 1.
 */
TALVORO_API Result ControlIMUCapture(DeviceHandle handle, IMUDATAINPUT_TypeDef* control);
/**
 * Reads at most one pending IMU sample into samples[0] (acceleration in mg, angular rate in
 * degrees per second, per the configured ranges) after a pause of about 10 ms. Ok (also when
 * the report read was no sample); HidReadFail when none is pending (capture not started);
 * OperationFailed for a sample report without its status.
 */
TALVORO_API Result GetIMUValue(DeviceHandle handle, IMUDATAOUTPUT_TypeDef* samples);

/** @{ */
/** Board temperatures, the camera's raw 16-bit reading as a float (65535.0 on failure). */
TALVORO_API Result GetBaseBoardTemperatureData(DeviceHandle handle, float* temperature);
TALVORO_API Result GetLaserBoardTemperatureData(DeviceHandle handle, float* temperature);
/** @} */

/* ---- Frame processing settings ----
 * None of these talks to the camera; they take effect from the next processed frame, are
 * reset by CloseDevice, and return NotSupportedInDataMode when the data mode lacks the image
 * they act on: depth (modes 0, 2, 4, 5), IR (0, 3, 4, 5), depth or IR (0 to 5).
 */

/** @{ */
/** IR gain 1..100 (default 16), modes with IR; InvalidValue outside. */
TALVORO_API Result SetTOFIRGain(DeviceHandle handle, unsigned short gain);
TALVORO_API Result GetTOFIRGain(DeviceHandle handle, unsigned short* gain);
/** @} */

/**
 * Toggles an averaging region (AvgRegion_Center or AvgRegion_Point; the two exclude each
 * other, asking for the active one switches it off). Any data mode. Ok.
 */
TALVORO_API Result SetAvgRegion(DeviceHandle handle, AvgRegion region);
/** The averaging window's width (4..600) and height (4..400); OperationFailed outside. */
TALVORO_API Result UpdateAvgXandY(DeviceHandle handle, int width, int height);
/** Draws IR averages on the IR image (non-zero on). Modes with IR. */
TALVORO_API Result SetAvgIRDisplay(DeviceHandle handle, unsigned char on);
/** Depth average and spread, IR mean and spread in the averaging window of the last frame;
 *  modes without IR give 0 for IR and vice versa. Null pointers: InvalidValue. */
TALVORO_API Result GetDepthIRValues(DeviceHandle handle, int* depthAverage, int* depthSpread,
                                    int* irMean, int* irSpread);

/** The point probed by AvgRegion_Point and marked by the cursor. Modes with depth. */
TALVORO_API Result SetDepthPos(DeviceHandle handle, DepthPtr position);
/** Cursor colour: 0 white, anything else black. Modes with depth. */
TALVORO_API Result SetCursorColor(DeviceHandle handle, int color);
/** Probe positions (copied); the second argument is unused. Any data mode; InvalidValue for a
 *  null list. */
TALVORO_API Result SetPositions(DeviceHandle handle, std::vector<DepthPtr>* positions,
                                unsigned char unused);

/**
 * Depth filters, each on or off: type 0 spatial (a 5x5 median, then a bilateral filter), 1
 * temporal (averaged with the last frames), 2 edge black-out (the colour map is black where a
 * Sobel filter finds a strong depth edge, and where there is no depth). Modes with depth.
 * Returns Ok once the camera and mode allow it, also for an unknown type (which changes
 * nothing).
 */
TALVORO_API Result SetFilterType(DeviceHandle handle, int type, bool on);
/** Flying-pixel filter (non-zero on). Modes with depth. */
TALVORO_API Result SetFlyingPixelFilter(DeviceHandle handle, int on);
/**
 * Planarization: depth as the distance along the optical axis instead of along the pixel's ray
 * (non-zero on). Gated by the data mode only: it applies to a camera that is registered but
 * not open as well (the setting is reset when it is next closed). Modes with depth.
 */
TALVORO_API Result SetPlanarization(DeviceHandle handle, int on);
/** Lens undistortion of depth (non-zero on). Modes with depth; switching on needs the plain
 *  calibration (CalibrationDataNotFound). */
TALVORO_API Result SetUnDistortion(DeviceHandle handle, int on);
/**
 * RGB-D mapping: depth registered onto the colour image (modes 4 and 5 only; switching on
 * needs the plain calibration, and mode 5 maps only with the HD calibration as well, else it
 * doubles depth). NotSupportedInDataMode elsewhere, CalibrationDataNotFound.
 */
TALVORO_API Result SetRGBDMapping(DeviceHandle handle, int on);
/** Colour map of DepthColorMap: depths min..max (millimetres) over OpenCV colour map
 *  `colormap` (0..21; a larger number keeps the current map). Modes with depth or IR. Ok. */
TALVORO_API Result UpdateColorMap(DeviceHandle handle, int min, int max, int colormap);

/* ---- Extension: raw frames ----
 *
 * EXTENSION to the camera's original interface, added for recording (the `talvoro record`
 * tool): programs written against the original interface do not use it, and other
 * implementations of this interface may lack it.
 */

/** What GetRawFrame tells about the frame it copied. */
struct RawFrameInfo {
    uint32_t size;          /**< the frame's length in bytes, as the driver delivered it */
    DataMode data_mode;     /**< the camera's data mode, as SetDataMode or GetDataMode left it */
    uint64_t sequence;      /**< the driver's frame sequence number; it starts again at 0 when
                                 streaming restarts (open, SetDataMode) and counts dropped frames */
    uint64_t time_stamp_ns; /**< the driver's capture time stamp, CLOCK_MONOTONIC nanoseconds */
};

/**
 * EXTENSION. Copies the newest captured frame of an open camera into `buffer`, byte for byte as
 * the camera sent it (before any separation or processing), and describes it in *info. It does
 * not disturb frame processing: the frame stays new for GetNextFrame, and no image changes. Any
 * data mode; it may be called from a frame callback, which then sees the frame it announces.
 *
 * The raw layout and the capture format follow from info->data_mode (the depth range, for the
 * depth modes, from GetDepthRange): mode 0 "Y16 " 640x960, depth and IR row pairs; 2 and 3
 * "Y16 " 640x480, depth rows and IR rows; 4 "Y16 " 1280x600 and 5 "Y16 " 1443x960, depth, IR and
 * colour lines multiplexed; 6 to 9 "UYVY" colour at 640x480, 1280x720, 1920x1080 and 1920x1200.
 * The camera's frame mode is (1, 0) for mode 0, (1, 2) and (1, 3) for modes 2 and 3, (0, 0) for
 * 4 and 5, and (2, 0) for the colour modes. A frame is width x height x 2 bytes of its format
 * (4,608,000 bytes in mode 9 at most): frames the camera cuts short are dropped on capture. In
 * mode 1 the camera streams on in the format it had, so the layout cannot be told from the mode.
 *
 * With `capacity` below the frame's size nothing is copied, info->size tells the size needed
 * and the result is InvalidValue (a null buffer with capacity 0 asks for the size).
 * Returns Ok; CameraNotOpened; InvalidFrameBuffer when the camera does not capture (no capture
 * buffer); TimeoutError when no frame has arrived since capture (re)started; InvalidValue for a
 * null info, a null buffer with a non-zero capacity, or a capacity that is too small.
 */
TALVORO_API Result GetRawFrame(DeviceHandle handle, uint8_t* buffer, uint32_t capacity,
                               RawFrameInfo* info);

/* ---- Extension: frame time and point clouds ----
 *
 * EXTENSION to the camera's original interface, added for the Python module, the browser viewer
 * and the DDS publisher: programs written against the original interface do not use it, and
 * other implementations of this interface may lack it.
 */

/** What GetFrameInfo tells about the published frame (the one GetNextFrame processed last). */
struct FrameInfo {
    uint64_t sequence;      /**< the driver's frame sequence number, as RawFrameInfo::sequence:
                                 it starts again at 0 when streaming restarts (open, SetDataMode);
                                 a gap between two published frames counts the frames dropped */
    uint64_t time_stamp_ns; /**< the driver's capture time stamp, CLOCK_MONOTONIC nanoseconds */
    uint64_t wall_time_ns;  /**< the same instant on the wall clock (CLOCK_REALTIME nanoseconds
                                 since the epoch), for aligning frames with other sensors: the
                                 monotonic stamp plus the clocks' offset when it was processed */
    DataMode data_mode;     /**< the data mode the frame was processed in */
};

/**
 * EXTENSION. Describes the frame whose images GetToFFrame, GetFrames and GetPointCloud hand out,
 * that is the frame the last successful GetNextFrame processed. ToFFrame::time_stamp is whole
 * seconds; this is the precise time. Returns Ok; CameraNotOpened; TimeoutError when no frame has
 * been processed since the camera was opened or its data mode changed; InvalidValue for a null
 * info.
 */
TALVORO_API Result GetFrameInfo(DeviceHandle handle, FrameInfo* info);

/** Flags of GetPointCloud. */
enum PointCloudFlags : uint32_t {
    PointCloud_Dense = 0,     /**< one point per pixel with depth, in row-major pixel order */
    PointCloud_Organized = 1, /**< one point per pixel (width x height, row-major); pixels without
                                   depth are NaN in x, y and z */
    PointCloud_Colored = 2    /**< also fill `rgb` from the colour image (data modes 4 and 5) */
};

/** Which camera's coordinate frame the points of GetPointCloud are in. */
enum PointCloudFrame : uint8_t {
    PointCloud_DepthCamera = 0, /**< the depth camera's optical frame */
    PointCloud_ColorCamera = 1  /**< the colour camera's (depth registered onto colour) */
};

/** What GetPointCloud tells about the cloud it wrote. */
struct PointCloudInfo {
    uint32_t count;        /**< points written, or needed when the capacity is too small */
    uint16_t width;        /**< the depth image's columns (the organized cloud's width) */
    uint16_t height;       /**< the depth image's rows */
    PointCloudFrame frame; /**< the coordinate frame of the points */
    uint64_t sequence;     /**< FrameInfo::sequence of the frame the cloud was made from */
};

/**
 * EXTENSION. Turns the published depth image (GetToFFrame with RawDepth) into 3D points through
 * the camera's calibration: x right, y down, z forward, float metres, three floats per point in
 * `xyz`. The image's geometry, as the frame was processed (settings changed since apply to the
 * next frame), decides the model:
 *  - registered depth (SetRGBDMapping with the calibration it needs) uses the colour camera's
 *    intrinsics and distortion (the HD set in data mode 5); a value is the colour camera's z, and
 *    the points are in the colour camera's frame;
 *  - otherwise the depth camera's intrinsics (the plain set; the HD set's when the camera lacks
 *    it), with the lens distortion inverted per pixel unless the image is undistorted
 *    (SetUnDistortion); planarized depth (SetPlanarization) is z, otherwise the distance along
 *    the pixel's ray. Mapping switched on without its calibration leaves the depth camera's
 *    geometry (and the doubled depth the frame carries).
 * A frame costs a multiplication per coordinate: every pixel's ray is computed once per
 * calibration and geometry (the first cloud of a geometry takes tens of milliseconds, for
 * inverting the lens distortion).
 *
 * With PointCloud_Colored, `rgb` receives three bytes (red, green, blue) per point from the colour
 * image of the same frame (UYVY converted as OpenCV's COLOR_YUV2RGB_UYVY): the pixel itself for
 * registered depth, else the pixel the point projects onto through the colour calibration and the
 * extrinsics. Points the colour camera does not see, and pixels without depth, are black.
 *
 * `capacity` counts points. With a capacity below the count nothing is written, info->count tells
 * the count needed and the result is InvalidValue (null buffers with capacity 0 ask for it).
 * The call waits for a GetNextFrame running on another thread, so that the cloud and
 * info->sequence belong to the same frame.
 * Returns Ok; CameraNotOpened; NotSupportedInDataMode in a mode without depth, or with
 * PointCloud_Colored in a mode without colour; CalibrationDataNotFound when the camera has no
 * usable calibration for the image (or, with PointCloud_Colored, for the colour camera);
 * TimeoutError when no frame has been processed since the camera was opened or its data mode
 * changed (a frame captured since the last GetNextFrame does not matter, unlike for GetToFFrame:
 * the cloud is a copy, and info->sequence names its frame); InvalidValue for a null info, unknown
 * flags, a null buffer with a non-zero capacity, or a capacity that is too small; OperationFailed
 * when memory runs out.
 */
TALVORO_API Result GetPointCloud(DeviceHandle handle, uint32_t flags, float* xyz, uint8_t* rgb,
                                 uint32_t capacity, PointCloudInfo* info);

} /* extern "C" */

} /* namespace Talvoro */

#endif /* TALVORO_SDK_H */
