// Exported error report and logging entry points, inside the same boundary as every other
// export: an exception (memory running out while a text is composed) never reaches the caller.
#include <cstdint>
#include <string>

#include "TalvoroSDK.h"
#include "log/Log.h"
#include "log/TALVOROError.h"
#include "wrapper/TalvoroWrapper.h"

namespace Talvoro {

extern "C" {

TALVORO_API Result pError(std::string prefix) {
    return wrapper::boundary("pError", [&] {
        TALVOROError::printError(std::move(prefix));
        return Ok;
    });
}

TALVORO_API Result PrintLog(int level, std::string text) {
    return wrapper::boundary("PrintLog", [&] {
        Log::getInstance()->writeLog(static_cast<uint16_t>(level), text);
        return Ok;
    });
}

TALVORO_API Result SetLogLevel(int level) {
    return wrapper::boundary(
        "SetLogLevel", [&] { return Log::getInstance()->setLevel(level) ? Ok : OperationFailed; });
}

TALVORO_API Result SetLogging(unsigned int mode) {
    return wrapper::boundary(
        "SetLogging", [&] { return Log::getInstance()->setMode(mode) ? Ok : OperationFailed; });
}

}  // extern "C"

}  // namespace Talvoro
