// The error report: the code of the last operation of any component, and its message.
#ifndef TALVORO_LOG_TALVORO_ERROR_H
#define TALVORO_LOG_TALVORO_ERROR_H

#include <atomic>
#include <cstdint>
#include <string>

#include "TalvoroSDK.h"

namespace Talvoro {

class TALVOROError {
  public:
    // Written by every component just before it returns a code; read by printError. Atomic
    // because the acquisition thread and application threads both set it.
    static std::atomic<int32_t> cErrorNo;

    // Reports cErrorNo with `prefix`: to the log at level 7, to standard error through perror,
    // or nowhere, depending on the code.
    static void printError(std::string prefix);

    // The text printError composes for `code` (without the prefix), and where it goes.
    enum class Output { Log, Perror, None };
    static std::string message(int32_t code, Output* output);
};

// Stores `code` as the last error and returns it, for `return setError(x);`.
inline Result setError(int32_t code) {
    TALVOROError::cErrorNo.store(code);
    return static_cast<Result>(code);
}

}  // namespace Talvoro

#endif
