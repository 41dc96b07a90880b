// The UVC control channel of one camera: time-of-flight settings through the camera's UVC
// extension unit, and the colour sensor's standard V4L2 controls.
//
// Every operation stores its result in TALVOROError::cErrorNo and returns it, except where
// noted. Codes: Ok (1); SysCallFail (-12) when a query or ioctl fails (also on a channel that is
// not open); InvalidValue (-13) when an argument is refused before anything is sent (including
// a null output pointer); UVCOpenFailed (-16) from _openUVC. No lock: the operations of one
// object share a command buffer and must not run on two threads at once.
//
// Why an interface: the API layer holds a camera's UVC channel through it, so the exports do
// not depend on the extension unit's selectors or V4L2 controls.
#ifndef TALVORO_UVC_TALVORO_UVC_H
#define TALVORO_UVC_TALVORO_UVC_H

#include "TalvoroSDK.h"

namespace Talvoro {

class TALVOROUVC {
  public:
    virtual ~TALVOROUVC() = default;

    // Opens the camera's video node (info.devicePath) read-write, non-blocking, and checks that
    // it captures video. -16 when it cannot be opened (nothing logged), when VIDIOC_QUERYCAP
    // fails, or when the node lacks V4L2_CAP_VIDEO_CAPTURE (a metadata node); the last two log
    // at level 7 and keep the descriptor open until closeUVC. Opening again closes the node
    // opened before.
    virtual Result _openUVC(DeviceInfo info) = 0;
    // Closes the node if open. Always 1.
    virtual Result closeUVC() = 0;

    // Depth range: 0 near, 1 far. Any other value gives -13 without sending. On success the
    // object caches the range, which bounds setTOFExposure.
    virtual Result setDepthRange(unsigned short range) = 0;
    // Reads the camera's depth range into *range and caches it.
    virtual Result getDepthRange(unsigned short* range) = 0;
    // ToF frame mode: first 0 = depth, IR and colour multiplexed, 1 = ToF only, 2 = colour
    // only; second (low byte sent) selects the ToF content when first is 1: 0 depth and IR,
    // 2 depth, 3 IR. Not validated here; the camera refuses unknown pairs (-12).
    virtual Result setTOFFrameMode(unsigned short first, unsigned short second) = 0;
    virtual Result getTOFFrameMode(unsigned short* first, unsigned short* second) = 0;
    // ToF exposure. The upper bound comes from the depth range this object last set or read,
    // not from the camera: 380 for range 0 (also before any range was set or read), 850 for
    // range 1, 0 for any other value the camera reported. Above the bound: -13 without sending.
    virtual Result setTOFExposure(unsigned short exposure) = 0;
    virtual Result getTOFExposure(unsigned short* exposure) = 0;
    // Coring threshold: 0 gives -13 without sending; no upper bound here.
    virtual Result setTOFCoring(unsigned short coring) = 0;
    virtual Result getTOFCoring(unsigned short* coring) = 0;
    // One 16-bit register of the time-of-flight sensor, unchecked.
    virtual Result setADIRegister(unsigned short address, unsigned short value) = 0;
    virtual Result getADIRegister(unsigned short address, unsigned short* value) = 0;
    // Reserved: do nothing and return 1 without touching the outputs or cErrorNo.
    virtual Result getPulseConfig(unsigned short* a, unsigned short* b, unsigned short* c,
                                  unsigned short* d, unsigned short* e, unsigned short* f) = 0;
    virtual Result setPulseConfig(unsigned short a, unsigned short b, unsigned short c,
                                  unsigned short d, unsigned short e, unsigned short f) = 0;

    // Standard control by index: 0 brightness, 1 contrast, 2 saturation, 3 automatic white
    // balance, 4 gamma, 5 gain, 6 power-line frequency, 7 white-balance temperature,
    // 8 sharpness, 9 automatic exposure (V4L2_EXPOSURE_* menu), 10 absolute exposure.
    // Fills prop with the index (not the V4L2 ID), minimum, maximum, current value, step and
    // default. For 3 and 9 only control_id and cur_value are written. 1, or -10 (GetValueFailed)
    // with a level-7 log line when the driver refuses, the channel is closed, prop is null or
    // the index is 11 or more (such an index never reaches a control).
    virtual Result getUVCControl(unsigned int index, UVCProp* prop) = 0;
    // Sets a standard control by index; the driver judges the value. 1, or -11 (SetValueFailed)
    // with a level-7 log line, as above.
    virtual Result setUVCControl(unsigned int index, int value) = 0;
};

}  // namespace Talvoro

#endif
