// An application built outside the project against the installed library.
#include <TalvoroSDK.h>

#include <cstdio>

// The library's C++17 requirement must not override the application's own standard.
#if defined(CONSUMER_STANDARD) && CONSUMER_STANDARD == 20 && __cplusplus < 202002L
#error "compiled below the C++20 the consumer asked for"
#endif

int main() {
    using namespace Talvoro;
    if (SetLogLevel(0) != Ok || SetLogging(0) != Ok) return 1;
    if (SetLogLevel(9) != OperationFailed) return 1;
    if (PrintLog(7, "consumer") != Ok || pError("consumer") != Ok) return 1;
    std::puts("consumer: ok");
    return 0;
}
