#include "log/TALVOROError.h"

#include <cerrno>
#include <cstdio>
#include <sstream>

#include "log/Log.h"

namespace Talvoro {

std::atomic<int32_t> TALVOROError::cErrorNo{Ok};

std::string TALVOROError::message(int32_t code, Output* output) {
    *output = Output::Log;
    switch (code) {
        case Ok:
            return ": Success!.\n";
        case NotInitialized:
            return ": Talvoro is Not Initialized!.\n";
        case NotDeInitialized:
            return ": Talvoro is Not DeInitialized!.\n";
        case InvalidFrameType:
            return ": Requested Invalid Frame Type!.Data Mode and FrameType Mismatch!.\n";
        case NotStreaming:
            return ": The Camera is not started Streaming!.\n";
        case AlreadyStreaming:
            return ": The Camera is already Streaming!.\n";
        case InvalidNode:
            return ": The device is not a video capture node!.\n";
        case InvalidDeviceIndex:
            return ": The input device index is invalid!.\n";
        case NoDeviceConnected:
            return ": There is no Talvoro camera connected!.\n";
        case GetValueFailed:
            return " The property value get is failed";
        case SetValueFailed:
            return " The property value set is failed";
        case InvalidValue:
            return ": The input value is invalid!.\n";
        case UnknownError:
            return ": Unknown error!.\n";
        default:
            break;
    }
    *output = Output::Perror;
    switch (code) {
        case CameraNotOpened:
            return "-CameraNotOpened:";
        case SysCallFail:
            return "-SysCallFail:";
        case HidWriteFail:
            return "-HidWriteFail:";
        case HidReadFail:
            return "-HidReadFail:";
        case TimeoutError:
            return "-TimeoutError:";
        default:
            break;
    }
    // Composed but deliberately written nowhere.
    *output = Output::None;
    switch (code) {
        case CalibrationDataNotFound:
            return " RGB-D Calibration Data not found in Camera";
        case FrameSeparationFailed:
            return "Frame separation Failed";
        case FrameCallbackRegistrationFailed:
            return "Registering frame call back Failed";
        case CameraAlreadyOpen:
            return "Camera is already open";
        case NotSupportedInDataMode:
            return "Feature is not supported in current Data Mode"
                   "Operation Failed ";
        case OperationFailed:
            return "Operation Failed ";
        default:
            break;
    }
    // 0, UVCOpenFailed, InvalidFrameBuffer and anything outside the table.
    *output = Output::Log;
    return ": Invalid Error Code!.\n";
}

void TALVOROError::printError(std::string prefix) {
    // perror describes the caller's errno; keep it from anything composing the text might do.
    const int savedErrno = errno;
    Output output;
    std::ostringstream text;
    text << prefix << message(cErrorNo.load(), &output);
    switch (output) {
        case Output::Log:
            writeLog(7, text.str());
            break;
        case Output::Perror:
            errno = savedErrno;
            std::perror(text.str().c_str());
            break;
        case Output::None:
            break;
    }
}

}  // namespace Talvoro
