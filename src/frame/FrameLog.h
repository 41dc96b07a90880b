// Log helpers of the frame processor.
#ifndef TALVORO_FRAME_FRAME_LOG_H
#define TALVORO_FRAME_FRAME_LOG_H

#include "log/Log.h"

namespace Talvoro::frame {

// The logger's own filter, asked before a message is composed: messages written on every
// frame cost no string building while their level is filtered out.
inline bool logPasses(int level) {
    return (level >> (Log::getInstance()->level() & 31)) != 0;
}

}  // namespace Talvoro::frame

#endif
