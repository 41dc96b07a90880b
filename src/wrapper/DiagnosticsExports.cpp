// Exported error report and logging entry points.
#include <cstdint>
#include <string>

#include "TalvoroSDK.h"
#include "log/Log.h"
#include "log/TALVOROError.h"

namespace Talvoro {

extern "C" {

TALVORO_API Result pError(std::string prefix) {
    TALVOROError::printError(std::move(prefix));
    return Ok;
}

TALVORO_API Result PrintLog(int level, std::string text) {
    Log::getInstance()->writeLog(static_cast<uint16_t>(level), text);
    return Ok;
}

TALVORO_API Result SetLogLevel(int level) {
    return Log::getInstance()->setLevel(level) ? Ok : OperationFailed;
}

TALVORO_API Result SetLogging(unsigned int mode) {
    return Log::getInstance()->setMode(mode) ? Ok : OperationFailed;
}

}  // extern "C"

}  // namespace Talvoro
